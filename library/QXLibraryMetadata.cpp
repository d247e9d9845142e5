// The field lists of the three library kinds and the copies both ways.

#include "qxmedia/library/QXLibraryMetadata.h"

#include <ctime>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/platform/image/QXImage.h"

const char QXLibraryITunesIdentifier[] = "com.apple.iTunes";
const char QXLibraryMusicIdentifier[] = "com.apple.Music";
const char QXLibraryTVIdentifier[] = "com.apple.TV";

namespace {

enum Access : uint8_t { None = 0, Read = 1, Write = 2, Both = 3 };
enum class Type { Text, Number };

struct FieldRow {
    const char* property;
    const char* recordKey;
    Type type;
    Access access[3]; // iTunes, Music, TV
};

// Ratings, artwork, dates and the media kind have rules of their own.
constexpr FieldRow kFields[] = {
    {"album", "album", Type::Text, {Both, Both, Both}},
    {"albumArtist", "albumArtist", Type::Text, {Both, Both, None}},
    {"artist", "artist", Type::Text, {Both, Both, None}},
    {"category", "category", Type::Text, {Both, Both, Both}},
    {"comment", "comment", Type::Text, {Both, Both, Both}},
    {"composer", "composer", Type::Text, {Both, Both, None}},
    {"discCount", "discCount", Type::Number, {Both, Both, Read}},
    {"discNumber", "discNumber", Type::Number, {Both, Both, Read}},
    {"episodeID", "episodeID", Type::Text, {Both, Read, Both}},
    {"episodeNumber", "episodeNumber", Type::Number, {Both, Read, Both}},
    {"genre", "genre", Type::Text, {Both, Both, Both}},
    {"grouping", "grouping", Type::Text, {Both, Both, Both}},
    {"longDescription", "longDescription", Type::Text, {Both, Both, Both}},
    {"name", "name", Type::Text, {Both, Both, Both}},
    {"lyrics", "lyrics", Type::Text, {Write, None, None}},
    {"objectDescription", "shortDescription", Type::Text, {Both, Both, Both}},
    {"seasonNumber", "seasonNumber", Type::Number, {Both, Read, Both}},
    {"show", "show", Type::Text, {Both, Read, Both}},
    {"sortAlbum", "sortAlbum", Type::Text, {Both, Both, Both}},
    {"sortArtist", "sortArtist", Type::Text, {Both, Both, None}},
    {"sortAlbumArtist", "sortAlbumArtist", Type::Text, {Both, Both, None}},
    {"sortName", "sortName", Type::Text, {Both, Both, Both}},
    {"sortComposer", "sortComposer", Type::Text, {Both, Both, None}},
    {"sortShow", "sortShow", Type::Text, {Both, Read, Both}},
    {"trackCount", "trackCount", Type::Number, {Both, Both, Both}},
    {"trackNumber", "trackNumber", Type::Number, {Both, Both, Both}},
};

constexpr char kUserRating[] = "kRtU";
constexpr char kUnknownKind[] = "kUnk";

int yearOf(QXDate date)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm local {};
    localtime_r(&seconds, &local);
    return local.tm_year + 1900;
}

} // namespace

std::optional<QXLibraryKind> QXLibraryKindOfIdentifier(std::string_view identifier)
{
    if (identifier == QXLibraryITunesIdentifier) return QXLibraryKind::iTunes;
    if (identifier == QXLibraryMusicIdentifier) return QXLibraryKind::Music;
    if (identifier == QXLibraryTVIdentifier) return QXLibraryKind::TV;
    return std::nullopt;
}

const char* QXLibraryIdentifierOfKind(QXLibraryKind kind)
{
    switch (kind) {
    case QXLibraryKind::iTunes: return QXLibraryITunesIdentifier;
    case QXLibraryKind::Music: return QXLibraryMusicIdentifier;
    case QXLibraryKind::TV: break;
    }
    return QXLibraryTVIdentifier;
}

std::string QXLibraryMetadataWriter::mediaKind(int64_t videoKind) const
{
    if (kind_ == QXLibraryKind::Music) return videoKind == 6 ? "kVdV" : kUnknownKind;
    switch (videoKind) {
    case 0: return "kVdH";
    case 6: return kind_ == QXLibraryKind::iTunes ? "kVdV" : kUnknownKind;
    case 9: return "kVdM";
    case 10: return "kVdT";
    default: return kUnknownKind;
    }
}

int64_t QXLibraryMetadataWriter::videoKindOfMediaKind(std::string_view mediaKind) const
{
    if (kind_ == QXLibraryKind::Music) return 6;
    if (mediaKind == "kVdM") return 9;
    if (mediaKind == "kVdT") return 10;
    if (mediaKind == "kVdV" && kind_ == QXLibraryKind::iTunes) return 6;
    return 0;
}

std::shared_ptr<QXMetaData> QXLibraryMetadataWriter::metadataOfTrack(const QXLibraryTrackFields& track) const
{
    auto record = QXMetaData::init();
    read(*record, track);
    return record;
}

bool QXLibraryMetadataWriter::read(QXMetaData& record, const QXLibraryTrackFields& track) const
{
    const size_t column = size_t(kind_);
    for (const FieldRow& row : kFields) {
        if (!(row.access[column] & Read)) continue;
        if (row.type == Type::Text) record.setValue(QXValue(track.text(row.property)), row.recordKey);
        else record.setValue(QXValue(uint64_t(track.number(row.property))), row.recordKey);
    }
    if (track.text("albumRatingKind") == kUserRating) record.albumRating = uint64_t(track.number("albumRating"));
    if (track.text("ratingKind") == kUserRating) record.rating = uint64_t(track.number("rating"));
    if (track.releaseDate) record.setValue(QXValue(*track.releaseDate), QXReleaseDate);

    if (!track.artworks.empty()) {
        QXArray images;
        for (const QXData& data : track.artworks) {
            if (auto image = QXImage::imageWithData(data)) images.emplace_back(QXImageRef(image));
        }
        record.setValue(QXValue(std::move(images)), QXArtworks);
    }
    if (track.mediaKind != kUnknownKind) record.videoKind = videoKindOfMediaKind(track.mediaKind);
    return true;
}

bool QXLibraryMetadataWriter::write(const QXMetaData& record, QXLibraryTrackFields& track) const
{
    const size_t column = size_t(kind_);
    for (const FieldRow& row : kFields) {
        if (!(row.access[column] & Write)) continue;
        const QXValue value = record.valueForKey(row.recordKey);
        if (row.type == Type::Text) {
            const std::string* text = value.string();
            track.texts[row.property] = text ? *text : std::string(); // nil clears
        } else {
            track.numbers[row.property] = int64_t(value.uint64().value_or(0));
        }
    }
    track.numbers["albumRating"] = int64_t(record.albumRating);
    track.numbers["rating"] = int64_t(record.rating);

    // One picture at most; anything else (a null marker in front, no
    // artwork) clears the track's.
    const QXData cover = record.artworkData();
    if (!cover.empty()) track.artworks = {cover};
    else track.artworks.clear();

    const auto releaseDate = record.releaseDate.get();
    const int64_t year = releaseDate ? yearOf(*releaseDate) : 0;
    if (track.number("year") != year) track.numbers["year"] = year;
    return true;
}

bool QXLibraryMetadataWriter::writeRatingsAndKind(const QXMetaData& record, QXLibraryTrackFields& track) const
{
    track.numbers["albumRating"] = int64_t(record.albumRating);
    track.numbers["rating"] = int64_t(record.rating);
    const std::string wanted = mediaKind(record.videoKind);
    if (track.mediaKind != wanted) {
        QXLogWarning("Video Kind of iTunes track not correct. Try setting again. %s vs. %s (%d).",
                     track.mediaKind.c_str(), wanted.c_str(), int(record.videoKind));
        track.mediaKind = wanted;
    }
    return true;
}
