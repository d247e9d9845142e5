#pragma once
/// @file
/// The typed iTunes tag set of an MP4 file.
///
/// Each field is one ilst item; an empty optional means the file has no such
/// item (fetch) or that the item is to be removed (store). Integer fields
/// have the width the item has in the file; booleans are 8-bit items. Text
/// is UTF-8.
///
///     MP4Tags tags;
///     MP4TagsFetch(tags, file);       // everything the file holds
///     tags.name = "Title";            // set
///     tags.comments.reset();          // remove
///     MP4TagsStore(tags, file);       // write back; other items stay as they were

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "qxmedia/mp4/tags/MP4Itmf.h"

#pragma GCC visibility push(default) // the names below are exported
namespace qx::mp4 {

class MP4File;

/// Image formats of artwork (covr).
enum MP4TagArtworkType : int {
    MP4_ART_UNDEFINED = 0, ///< not known: a store finds the type from the image's first bytes
    MP4_ART_BMP = 1,       ///< BMP image
    MP4_ART_GIF = 2,       ///< GIF image
    MP4_ART_JPEG = 3,      ///< JPEG image
    MP4_ART_PNG = 4,       ///< PNG image
};

/// One cover image: the file's bytes and their format.
struct MP4TagArtwork {
    std::vector<uint8_t> data; ///< the image file as stored (JPEG, PNG, ...)
    MP4TagArtworkType type = MP4_ART_UNDEFINED; ///< the image's format

    /// Same bytes and type.
    bool operator==(const MP4TagArtwork&) const = default;
};

/// trkn and disk: index and total, each 16-bit.
struct MP4TagTrack {
    uint16_t index = 0; ///< this track's (or disc's) number, from 1
    uint16_t total = 0; ///< how many there are; 0 when not known
    /// Same index and total.
    bool operator==(const MP4TagTrack&) const = default;
};
/// disk: disc number and total, stored like trkn.
using MP4TagDisk = MP4TagTrack;

/// The iTunes tags of a file, one optional field per item (the item code is
/// given for each). Empty fields are items the file does not have.
struct MP4Tags {
    std::optional<std::string> name;             ///< ©nam: title
    std::optional<std::string> artist;           ///< ©ART: artist
    std::optional<std::string> albumArtist;      ///< aART: album artist
    std::optional<std::string> album;            ///< ©alb: album
    std::optional<std::string> grouping;         ///< ©grp: grouping
    std::optional<std::string> composer;         ///< ©wrt: composer
    std::optional<std::string> comments;         ///< ©cmt: comment
    std::optional<std::string> genre;            ///< ©gen: genre as text
    std::optional<uint16_t> genreType;           ///< gnre (ID3v1 genre number + 1)
    std::optional<std::string> releaseDate;      ///< ©day: release date or year as text, e.g. "2009-05-12" or "2009"
    std::optional<MP4TagTrack> track;            ///< trkn: track number and total
    std::optional<MP4TagDisk> disk;              ///< disk: disc number and total
    std::optional<uint16_t> tempo;               ///< tmpo: beats per minute
    std::optional<bool> compilation;             ///< cpil: part of a compilation
    std::optional<std::string> tvShow;           ///< tvsh: TV show name
    std::optional<std::string> tvNetwork;        ///< tvnn: TV network
    std::optional<std::string> tvEpisodeID;      ///< tven: episode ID (production code) as text
    std::optional<uint32_t> tvSeason;            ///< tvsn: season number
    std::optional<uint32_t> tvEpisode;           ///< tves: episode number within the season
    std::optional<std::string> description;      ///< desc: short description
    std::optional<std::string> longDescription;  ///< ldes: long description
    std::optional<std::string> lyrics;           ///< ©lyr: lyrics
    std::optional<std::string> seasonDescription; ///< sdes: description of the season
    ///@{
    /// sonm, soar, soaa, soal, soco, sosn: the title, artist, album artist,
    /// album, composer and TV show as they sort (e.g. without a leading "The").
    std::optional<std::string> sortName;         // sonm
    std::optional<std::string> sortArtist;       // soar
    std::optional<std::string> sortAlbumArtist;  // soaa
    std::optional<std::string> sortAlbum;        // soal
    std::optional<std::string> sortComposer;     // soco
    std::optional<std::string> sortTVShow;       // sosn
    ///@}
    std::vector<MP4TagArtwork> artwork;          ///< covr, one data entry each; empty: none
    std::optional<std::string> copyright;        ///< cprt: copyright notice
    std::optional<std::string> encodingTool;     ///< ©too: the software that encoded the file
    std::optional<std::string> encodedBy;        ///< ©enc: who encoded it
    std::optional<std::string> purchaseDate;     ///< purd: purchase date as text
    std::optional<bool> podcast;                 ///< pcst: the file is a podcast episode
    std::optional<std::string> podcastURL;       ///< purl: the podcast's feed URL
    std::optional<std::string> podcastGUID;      ///< egid: the episode's GUID
    std::optional<std::string> keywords;         ///< keyw: podcast keywords
    std::optional<std::string> category;         ///< catg: podcast category
    std::optional<uint8_t> hdVideo;              ///< hdvd: 0 standard definition, 1 720p, 2 1080p
    /// stik: media kind: 1 music, 2 audiobook, 6 music video, 9 movie, 10 TV
    /// show, 11 booklet, 14 ringtone.
    std::optional<uint8_t> mediaType;            // stik
    std::optional<uint8_t> contentRating;        ///< rtng: 0 none, 1 explicit (4 in older files), 2 clean
    std::optional<bool> gapless;                 ///< pgap: play without gaps between tracks
    std::optional<std::string> iTunesAccount;    ///< apID: the iTunes Store account that bought it
    std::optional<uint8_t> iTunesAccountType;    ///< akID: store account type (0 iTunes)
    std::optional<uint32_t> iTunesCountry;       ///< sfID: iTunes Store front (country) ID
    ///@{
    /// cnID, atID, plID, geID, cmID: iTunes Store catalogue IDs of the item,
    /// its artist, its playlist (album), its genre and its composer.
    std::optional<uint32_t> contentID;           // cnID
    std::optional<uint32_t> artistID;            // atID
    std::optional<uint64_t> playlistID;         // plID
    std::optional<uint32_t> genreID;             // geID
    std::optional<uint32_t> composerID;          // cmID
    ///@}
    std::optional<std::string> xid;              ///< `xid `: the vendor's content ID, "vendor:scheme:identifier"

    /// Every field equal.
    bool operator==(const MP4Tags&) const = default;
};

/// The codes of the typed set with the field each maps to, in the order in
/// which a store writes new items. Used by fetch, store, and by tools that
/// address tags by code.
struct MP4TagField {
    /// A pointer to the MP4Tags field, by the field's type.
    using Member = std::variant<std::optional<std::string> MP4Tags::*, std::optional<bool> MP4Tags::*,
                                std::optional<uint8_t> MP4Tags::*, std::optional<uint16_t> MP4Tags::*,
                                std::optional<uint32_t> MP4Tags::*, std::optional<uint64_t> MP4Tags::*,
                                std::optional<MP4TagTrack> MP4Tags::*, std::vector<MP4TagArtwork> MP4Tags::*>;
    const char* code; ///< four bytes as stored ("\xa9nam", "trkn"); a static string
    Member member;    ///< the field the item maps to
};
/// Every row of the typed set, in store order; the table is static.
std::span<const MP4TagField> MP4TagFields();
/// The row for an item code (four bytes as stored); null when the code is not in the typed set.
const MP4TagField* MP4TagFieldForCode(const std::string& code);
/// True when the tags hold a value for the field (artwork: at least one).
bool MP4TagFieldIsSet(const MP4TagField& field, const MP4Tags& tags);

/// Between a tag set and a list of items. Fetch sets every field whose item
/// is present and readable and leaves the others alone.
void MP4TagsFetch(MP4Tags& tags, const MP4ItmfItemList& items);
/// Store replaces the items of the typed set that differ from the tags (in
/// place, or appended), removes those whose field is empty, and leaves every
/// other item as it is, byte for byte; an item whose decoded value equals the
/// field is not rewritten either.
void MP4TagsStore(const MP4Tags& tags, MP4ItmfItemList& items);

/// Artwork type from the first bytes of an image (JPEG, PNG, BMP, GIF);
/// MP4_ART_UNDEFINED for anything else.
MP4TagArtworkType MP4TagArtworkTypeOfData(std::span<const uint8_t> data);

/// On an open file (read, or modify for the store): the ilst of
/// moov/udta/meta. Fetch is false when the file has no moov; a file without
/// tags fetches an empty set.
bool MP4TagsFetch(MP4Tags& tags, MP4File& file);
/// Store creates udta, meta (with its mdir handler) and ilst as needed, and
/// removes them again when they are left empty; the file is written when it
/// is closed. False in read mode.
bool MP4TagsStore(const MP4Tags& tags, MP4File& file);

} // namespace qx::mp4
#pragma GCC visibility pop
