#pragma once
// Copies a QXMetaData to and from a file track of the library. The three
// kinds of library (the iTunes, Music and TV identifiers) keep different
// sets of properties: Music keeps no show or episode of its own, TV no
// artist, composer or disc, and only iTunes takes lyrics.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/library/QXLibraryDatabase.h"

class QXMetaData;

QX_EXPORT extern const char QXLibraryITunesIdentifier[]; // "com.apple.iTunes"
QX_EXPORT extern const char QXLibraryMusicIdentifier[];  // "com.apple.Music"
QX_EXPORT extern const char QXLibraryTVIdentifier[];     // "com.apple.TV"

enum class QXLibraryKind { iTunes, Music, TV };

// The kind of one of the three identifiers (compared by text).
std::optional<QXLibraryKind> QXLibraryKindOfIdentifier(std::string_view identifier);
const char* QXLibraryIdentifierOfKind(QXLibraryKind kind);

class QXLibraryMetadataWriter {
public:
    explicit QXLibraryMetadataWriter(QXLibraryKind kind) : kind_(kind) {}

    // The library's media kind (four characters) of a record's videoKind,
    // and the videoKind a media kind gives back.
    std::string mediaKind(int64_t videoKind) const;
    int64_t videoKindOfMediaKind(std::string_view mediaKind) const;

    // A new record holding what the track has.
    std::shared_ptr<QXMetaData> metadataOfTrack(const QXLibraryTrackFields& track) const;
    // Copies the track's properties into the record; a track of unknown
    // kind leaves the record's videoKind.
    bool read(QXMetaData& record, const QXLibraryTrackFields& track) const;
    // Copies every writable field to the track: an empty text clears the
    // track's, the first artwork replaces the track's, the release date
    // becomes the year (0 without one).
    bool write(const QXMetaData& record, QXLibraryTrackFields& track) const;
    // After the track is in the library: ratings, then the media kind, set
    // again (with a log line) when the track's differs from the record's.
    bool writeRatingsAndKind(const QXMetaData& record, QXLibraryTrackFields& track) const;

private:
    QXLibraryKind kind_;
};
