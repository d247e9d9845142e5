#pragma once
// iTunes metadata items: the children of moov/udta/meta/ilst.
//
// An item is a box named by its four-character code ("©nam", "covr",
// "----") holding one or more `data` boxes. A `data` box carries a type
// indicator (type set and basic type), a locale and the value bytes.
// Free-form items (code "----") name themselves with a `mean` (a reverse
// domain such as "com.apple.iTunes") and a `name` box before their data.
//
// Items are kept with the bytes they were read from: an item that nobody
// changes is written back exactly as it was found, including anything the
// decoder does not understand.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qx::mp4 {

class MP4File;

// Basic types of a data box (the well-known types of the metadata format).
enum MP4ItmfBasicType : uint32_t {
    MP4_ITMF_BT_IMPLICIT = 0,  // meaning given by the item code (trkn, disk, gnre)
    MP4_ITMF_BT_UTF8 = 1,
    MP4_ITMF_BT_UTF16 = 2,
    MP4_ITMF_BT_SJIS = 3,
    MP4_ITMF_BT_HTML = 6,
    MP4_ITMF_BT_XML = 7,
    MP4_ITMF_BT_UUID = 8,
    MP4_ITMF_BT_ISRC = 9,
    MP4_ITMF_BT_MI3P = 10,
    MP4_ITMF_BT_GIF = 12,
    MP4_ITMF_BT_JPEG = 13,
    MP4_ITMF_BT_PNG = 14,
    MP4_ITMF_BT_URL = 15,
    MP4_ITMF_BT_DURATION = 16,
    MP4_ITMF_BT_DATETIME = 17,
    MP4_ITMF_BT_GENRES = 18,
    MP4_ITMF_BT_INTEGER = 21,  // big-endian signed, 1, 2, 4 or 8 bytes
    MP4_ITMF_BT_RIAAPA = 24,
    MP4_ITMF_BT_UPC = 25,
    MP4_ITMF_BT_BMP = 27,
};

struct MP4ItmfData {
    uint8_t typeSetIdentifier = 0;
    uint32_t typeCode = MP4_ITMF_BT_IMPLICIT; // 24 bits in the file
    uint32_t locale = 0;
    std::vector<uint8_t> value;

    bool operator==(const MP4ItmfData&) const = default;
};

struct MP4ItmfItem {
    std::string code; // four bytes as stored: "\xa9nam", "----"
    std::string mean; // free-form items only
    std::string name; // free-form items only
    std::vector<MP4ItmfData> dataList;

    // The whole item box as read (header included); empty for new items.
    // Cleared by nothing: write-back uses it only while the decoded content
    // still equals what was read, see MP4ItmfSerializeItems.
    std::vector<uint8_t> raw;

    bool isFreeForm() const { return code == "----"; }
    // The same item as far as its meaning goes: code, mean, name and data.
    bool sameContent(const MP4ItmfItem& other) const;
};

using MP4ItmfItemList = std::vector<MP4ItmfItem>;

// Makes a free-form item with one data entry.
MP4ItmfItem MP4ItmfItemAlloc(const std::string& mean, const std::string& name, uint32_t typeCode,
                             std::span<const uint8_t> value);
MP4ItmfItem MP4ItmfItemAlloc(const std::string& mean, const std::string& name, const std::string& text);

// Parses the payload of an ilst box. A damaged item is logged, and it and
// everything after it are kept as one opaque item (empty code) so that a
// write-back does not lose them.
MP4ItmfItemList MP4ItmfParseItems(std::span<const uint8_t> ilstPayload);
// Parses one item box starting at its header; nullopt if it is damaged.
std::optional<MP4ItmfItem> MP4ItmfParseItem(std::span<const uint8_t> itemBox);

// Serialises items to an ilst payload. An item whose raw bytes decode to its
// present content is copied byte for byte; others are encoded afresh.
std::vector<uint8_t> MP4ItmfSerializeItems(const MP4ItmfItemList& items);
std::vector<uint8_t> MP4ItmfEncodeItem(const MP4ItmfItem& item);

// Free-form items of a list with the given meaning and, unless name is
// empty, the given name (both compared exactly).
MP4ItmfItemList MP4ItmfGetItemsByMeaning(const MP4ItmfItemList& items, const std::string& mean,
                                         const std::string& name = {});
// Removes every item with the same content as `item`; true if any was.
bool MP4ItmfRemoveItem(MP4ItmfItemList& items, const MP4ItmfItem& item);

// The same on an open file's moov/udta/meta/ilst. Changes reach the file
// when it is closed (modify or create mode); they fail in read mode.
MP4ItmfItemList MP4ItmfGetItems(MP4File& file);
MP4ItmfItemList MP4ItmfGetItemsByMeaning(MP4File& file, const std::string& mean, const std::string& name = {});
bool MP4ItmfAddItem(MP4File& file, const MP4ItmfItem& item);
bool MP4ItmfRemoveItem(MP4File& file, const MP4ItmfItem& item);

// Item codes as text for people: the byte 0xA9 becomes "©" (UTF-8), other
// bytes outside printable ASCII become "\xNN". The reverse accepts both
// spellings, and "\xa9" too; nullopt if the text is not four bytes then.
std::string MP4ItmfCodeToText(const std::string& code);
std::optional<std::string> MP4ItmfCodeFromText(const std::string& text);

} // namespace qx::mp4
