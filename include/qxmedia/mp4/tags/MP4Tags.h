#pragma once
// The typed iTunes tag set of an MP4 file.
//
// Each field is one ilst item; an empty optional means the file has no such
// item (fetch) or that the item is to be removed (store). Integer fields
// have the width the item has in the file; booleans are 8-bit items.
//
//   MP4Tags tags;
//   MP4TagsFetch(tags, file);       // everything the file holds
//   tags.name = "Title";            // set
//   tags.comments.reset();          // remove
//   MP4TagsStore(tags, file);       // write back; other items stay as they were

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

enum MP4TagArtworkType : int {
    MP4_ART_UNDEFINED = 0,
    MP4_ART_BMP = 1,
    MP4_ART_GIF = 2,
    MP4_ART_JPEG = 3,
    MP4_ART_PNG = 4,
};

struct MP4TagArtwork {
    std::vector<uint8_t> data;
    MP4TagArtworkType type = MP4_ART_UNDEFINED;

    bool operator==(const MP4TagArtwork&) const = default;
};

// trkn and disk: index and total, each 16-bit.
struct MP4TagTrack {
    uint16_t index = 0;
    uint16_t total = 0;
    bool operator==(const MP4TagTrack&) const = default;
};
using MP4TagDisk = MP4TagTrack;

struct MP4Tags {
    std::optional<std::string> name;             // ©nam
    std::optional<std::string> artist;           // ©ART
    std::optional<std::string> albumArtist;      // aART
    std::optional<std::string> album;            // ©alb
    std::optional<std::string> grouping;         // ©grp
    std::optional<std::string> composer;         // ©wrt
    std::optional<std::string> comments;         // ©cmt
    std::optional<std::string> genre;            // ©gen
    std::optional<uint16_t> genreType;           // gnre (ID3v1 genre number + 1)
    std::optional<std::string> releaseDate;      // ©day
    std::optional<MP4TagTrack> track;            // trkn
    std::optional<MP4TagDisk> disk;              // disk
    std::optional<uint16_t> tempo;               // tmpo
    std::optional<bool> compilation;             // cpil
    std::optional<std::string> tvShow;           // tvsh
    std::optional<std::string> tvNetwork;        // tvnn
    std::optional<std::string> tvEpisodeID;      // tven
    std::optional<uint32_t> tvSeason;            // tvsn
    std::optional<uint32_t> tvEpisode;           // tves
    std::optional<std::string> description;      // desc
    std::optional<std::string> longDescription;  // ldes
    std::optional<std::string> lyrics;           // ©lyr
    std::optional<std::string> seasonDescription; // sdes
    std::optional<std::string> sortName;         // sonm
    std::optional<std::string> sortArtist;       // soar
    std::optional<std::string> sortAlbumArtist;  // soaa
    std::optional<std::string> sortAlbum;        // soal
    std::optional<std::string> sortComposer;     // soco
    std::optional<std::string> sortTVShow;       // sosn
    std::vector<MP4TagArtwork> artwork;          // covr, one data entry each; empty: none
    std::optional<std::string> copyright;        // cprt
    std::optional<std::string> encodingTool;     // ©too
    std::optional<std::string> encodedBy;        // ©enc
    std::optional<std::string> purchaseDate;     // purd
    std::optional<bool> podcast;                 // pcst
    std::optional<std::string> podcastURL;       // purl
    std::optional<std::string> podcastGUID;      // egid
    std::optional<std::string> keywords;         // keyw
    std::optional<std::string> category;         // catg
    std::optional<uint8_t> hdVideo;              // hdvd
    std::optional<uint8_t> mediaType;            // stik
    std::optional<uint8_t> contentRating;        // rtng
    std::optional<bool> gapless;                 // pgap
    std::optional<std::string> iTunesAccount;    // apID
    std::optional<uint8_t> iTunesAccountType;    // akID
    std::optional<uint32_t> iTunesCountry;       // sfID
    std::optional<uint32_t> contentID;           // cnID
    std::optional<uint32_t> artistID;            // atID
    std::optional<uint64_t> playlistID;          // plID
    std::optional<uint32_t> genreID;             // geID
    std::optional<uint32_t> composerID;          // cmID
    std::optional<std::string> xid;              // xid

    bool operator==(const MP4Tags&) const = default;
};

// The codes of the typed set with the field each maps to, in the order in
// which a store writes new items. Used by fetch, store, and by tools that
// address tags by code.
struct MP4TagField {
    using Member = std::variant<std::optional<std::string> MP4Tags::*, std::optional<bool> MP4Tags::*,
                                std::optional<uint8_t> MP4Tags::*, std::optional<uint16_t> MP4Tags::*,
                                std::optional<uint32_t> MP4Tags::*, std::optional<uint64_t> MP4Tags::*,
                                std::optional<MP4TagTrack> MP4Tags::*, std::vector<MP4TagArtwork> MP4Tags::*>;
    const char* code; // four bytes as stored
    Member member;
};
std::span<const MP4TagField> MP4TagFields();
const MP4TagField* MP4TagFieldForCode(const std::string& code);
// True when the tags hold a value for the field (artwork: at least one).
bool MP4TagFieldIsSet(const MP4TagField& field, const MP4Tags& tags);

// Between a tag set and a list of items. Fetch sets every field whose item
// is present and readable and leaves the others alone. Store replaces the
// items of the typed set that differ from the tags (in place, or appended),
// removes those whose field is empty, and leaves every other item as it is,
// byte for byte; an item whose decoded value equals the field is not
// rewritten either.
void MP4TagsFetch(MP4Tags& tags, const MP4ItmfItemList& items);
void MP4TagsStore(const MP4Tags& tags, MP4ItmfItemList& items);

// Artwork type from the first bytes of an image (JPEG, PNG, BMP, GIF).
MP4TagArtworkType MP4TagArtworkTypeOfData(std::span<const uint8_t> data);

// On an open file (read, or modify for the store): the ilst of
// moov/udta/meta. Fetch is false when the file has no moov; a file without
// tags fetches an empty set. Store creates udta, meta (with its mdir
// handler) and ilst as needed; the file is written when it is closed.
bool MP4TagsFetch(MP4Tags& tags, MP4File& file);
bool MP4TagsStore(const MP4Tags& tags, MP4File& file);

} // namespace qx::mp4
#pragma GCC visibility pop
