#pragma once
/// @file
/// iTunes metadata items: the children of moov/udta/meta/ilst.
///
/// An item is a box named by its four-character code ("©nam", "covr",
/// "----") holding one or more `data` boxes. A `data` box carries a type
/// indicator (type set and basic type), a locale and the value bytes.
/// Free-form items (code "----") name themselves with a `mean` (a reverse
/// domain such as "com.apple.iTunes") and a `name` box before their data.
///
/// Items are kept with the bytes they were read from: an item that nobody
/// changes is written back exactly as it was found, including anything the
/// decoder does not understand.
///
/// Everything here works on values: lists are plain vectors and items are
/// copied in and out, so nothing needs freeing.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qx::mp4 {

class MP4File;

/// Basic types of a data box (the well-known types of the metadata format).
enum MP4ItmfBasicType : uint32_t {
    MP4_ITMF_BT_IMPLICIT = 0,  ///< meaning given by the item code (trkn, disk, gnre)
    MP4_ITMF_BT_UTF8 = 1,      ///< UTF-8 text, no terminator
    MP4_ITMF_BT_UTF16 = 2,     ///< UTF-16 text, big-endian
    MP4_ITMF_BT_SJIS = 3,      ///< Shift-JIS text
    MP4_ITMF_BT_HTML = 6,      ///< HTML text
    MP4_ITMF_BT_XML = 7,       ///< XML text, e.g. the property list of iTunMOVI
    MP4_ITMF_BT_UUID = 8,      ///< a 16-byte UUID
    MP4_ITMF_BT_ISRC = 9,      ///< an ISRC code as text
    MP4_ITMF_BT_MI3P = 10,     ///< an MI3P code as text
    MP4_ITMF_BT_GIF = 12,      ///< a GIF image
    MP4_ITMF_BT_JPEG = 13,     ///< a JPEG image
    MP4_ITMF_BT_PNG = 14,      ///< a PNG image
    MP4_ITMF_BT_URL = 15,      ///< a URL as text
    MP4_ITMF_BT_DURATION = 16, ///< a duration in milliseconds, 32-bit
    MP4_ITMF_BT_DATETIME = 17, ///< a date and time in seconds since 1904, 32- or 64-bit
    MP4_ITMF_BT_GENRES = 18,   ///< a list of 32-bit genre IDs
    MP4_ITMF_BT_INTEGER = 21,  ///< big-endian signed, 1, 2, 4 or 8 bytes
    MP4_ITMF_BT_RIAAPA = 24,   ///< RIAA parental advisory, 8-bit: -1 no, 1 yes, 0 not given
    MP4_ITMF_BT_UPC = 25,      ///< a UPC code as text
    MP4_ITMF_BT_BMP = 27,      ///< a BMP image
};

/// One `data` box of an item: a typed value.
struct MP4ItmfData {
    uint8_t typeSetIdentifier = 0; ///< which set typeCode belongs to; 0 for the basic types
    uint32_t typeCode = MP4_ITMF_BT_IMPLICIT; ///< an MP4ItmfBasicType (24 bits in the file)
    uint32_t locale = 0;           ///< country and language of the value; 0 for any
    std::vector<uint8_t> value;    ///< the value bytes, as typeCode says

    /// Same type, locale and value.
    bool operator==(const MP4ItmfData&) const = default;
};

/// One child of ilst: a tag with its code, for free-form items its mean and
/// name, and its values.
struct MP4ItmfItem {
    std::string code; ///< four bytes as stored: "\xa9nam", "----"; empty for a kept damaged tail
    std::string mean; ///< free-form items only
    std::string name; ///< free-form items only
    std::vector<MP4ItmfData> dataList; ///< the data boxes, in file order (most items have one)

    /// The whole item box as read (header included); empty for new items.
    /// Cleared by nothing: write-back uses it only while the decoded content
    /// still equals what was read, see MP4ItmfSerializeItems.
    std::vector<uint8_t> raw;

    /// True for a free-form item (code "----").
    bool isFreeForm() const { return code == "----"; }
    /// The same item as far as its meaning goes: code, mean, name and data.
    bool sameContent(const MP4ItmfItem& other) const;
};

/// The items of an ilst, in file order.
using MP4ItmfItemList = std::vector<MP4ItmfItem>;

/// Makes a free-form item with one data entry of type `typeCode` (an MP4ItmfBasicType).
MP4ItmfItem MP4ItmfItemAlloc(const std::string& mean, const std::string& name, uint32_t typeCode,
                             std::span<const uint8_t> value);
/// Makes a free-form item with one UTF-8 text entry.
MP4ItmfItem MP4ItmfItemAlloc(const std::string& mean, const std::string& name, const std::string& text);

/// Parses the payload of an ilst box. A damaged item is logged, and it and
/// everything after it are kept as one opaque item (empty code) so that a
/// write-back does not lose them. Zero padding at the end is dropped.
MP4ItmfItemList MP4ItmfParseItems(std::span<const uint8_t> ilstPayload);
/// Parses one item box starting at its header; nullopt if it is damaged.
std::optional<MP4ItmfItem> MP4ItmfParseItem(std::span<const uint8_t> itemBox);

/// Serialises items to an ilst payload. An item whose raw bytes decode to its
/// present content is copied byte for byte; others are encoded afresh. A kept
/// damaged tail goes last.
std::vector<uint8_t> MP4ItmfSerializeItems(const MP4ItmfItemList& items);
/// Encodes one item afresh (whole box, header included), ignoring its raw bytes.
std::vector<uint8_t> MP4ItmfEncodeItem(const MP4ItmfItem& item);

/// Free-form items of a list with the given meaning and, unless name is
/// empty, the given name (both compared exactly).
MP4ItmfItemList MP4ItmfGetItemsByMeaning(const MP4ItmfItemList& items, const std::string& mean,
                                         const std::string& name = {});
/// Removes every item with the same content as `item`; true if any was.
bool MP4ItmfRemoveItem(MP4ItmfItemList& items, const MP4ItmfItem& item);

// The same on an open file's moov/udta/meta/ilst. Changes reach the file
// when it is closed (modify or create mode); they fail in read mode.
/// A copy of the items of an open file's ilst; empty when it has none.
MP4ItmfItemList MP4ItmfGetItems(MP4File& file);
/// MP4ItmfGetItemsByMeaning() over an open file's items.
MP4ItmfItemList MP4ItmfGetItemsByMeaning(MP4File& file, const std::string& mean, const std::string& name = {});
/// Appends `item` to the file's ilst (made with udta and meta when missing)
/// and encodes it afresh. False in read mode, or when the code is not four
/// bytes or the item has no data. The file is written when it is closed.
bool MP4ItmfAddItem(MP4File& file, const MP4ItmfItem& item);
/// Removes every item of the file with the same content as `item` (and tag
/// boxes left empty). False in read mode or when none was found.
bool MP4ItmfRemoveItem(MP4File& file, const MP4ItmfItem& item);

/// Item codes as text for people: the byte 0xA9 becomes "©" (UTF-8), other
/// bytes outside printable ASCII become "\xNN". The reverse accepts both
/// spellings, and "\xa9" too; nullopt if the text is not four bytes then.
std::string MP4ItmfCodeToText(const std::string& code);
/// The reverse of MP4ItmfCodeToText(); see there.
std::optional<std::string> MP4ItmfCodeFromText(const std::string& text);

} // namespace qx::mp4
