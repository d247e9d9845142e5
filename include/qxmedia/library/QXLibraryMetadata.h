#pragma once
/// @file
/// Copies a QXMetaData to and from a file track of the library. The three
/// kinds of library (the iTunes, Music and TV identifiers) keep different
/// sets of properties: Music keeps no show or episode of its own, TV no
/// artist, composer or disc, and only iTunes takes lyrics.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/library/QXLibraryDatabase.h"

class QXMetaData;

QX_EXPORT extern const char QXLibraryITunesIdentifier[]; ///< "com.apple.iTunes": keeps every property
QX_EXPORT extern const char QXLibraryMusicIdentifier[];  ///< "com.apple.Music": music videos
QX_EXPORT extern const char QXLibraryTVIdentifier[];     ///< "com.apple.TV": movies, TV shows, home videos

/// The three kinds of library, one per identifier above.
enum class QXLibraryKind { iTunes, Music, TV };

/// The kind of one of the three identifiers (compared by text); nullopt for any other.
std::optional<QXLibraryKind> QXLibraryKindOfIdentifier(std::string_view identifier);
/// The identifier of a kind; a static string.
const char* QXLibraryIdentifierOfKind(QXLibraryKind kind);

/// Copies records to and from tracks of one kind of library, keeping to the
/// properties that kind reads and writes. Holds no state but the kind.
class QXLibraryMetadataWriter {
public:
    /// A writer for the properties of that kind of library.
    explicit QXLibraryMetadataWriter(QXLibraryKind kind) : kind_(kind) {}

    /// The library's media kind (four characters) of a record's videoKind:
    /// 9 kVdM, 10 kVdT, 0 kVdH, 6 kVdV (iTunes only), else kUnk; Music knows only 6 (kVdV).
    std::string mediaKind(int64_t videoKind) const;
    /// The videoKind a media kind gives back: 6 for anything in Music, 0 for kVdH and unknown kinds.
    int64_t videoKindOfMediaKind(std::string_view mediaKind) const;

    /// A new record holding what the track has.
    std::shared_ptr<QXMetaData> metadataOfTrack(const QXLibraryTrackFields& track) const;
    /// Copies the track's properties into the record; a track of unknown
    /// kind leaves the record's videoKind. Ratings count only when the user set them. Always true.
    bool read(QXMetaData& record, const QXLibraryTrackFields& track) const;
    /// Copies every writable field to the track: an empty text clears the
    /// track's, the first artwork replaces the track's, the release date
    /// becomes the year (0 without one). Always true.
    bool write(const QXMetaData& record, QXLibraryTrackFields& track) const;
    /// After the track is in the library: ratings, then the media kind, set
    /// again (with a log line) when the track's differs from the record's. Always true.
    bool writeRatingsAndKind(const QXMetaData& record, QXLibraryTrackFields& track) const;

private:
    QXLibraryKind kind_;
};
