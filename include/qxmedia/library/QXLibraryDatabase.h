#pragma once
/// @file
/// The local media library's storage: its database and the tracks it holds.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

struct sqlite3;

/// One file track as the database holds it. Text and number properties are
/// keyed by their library property names ("name", "sortShow", "trackCount");
/// the names stored are those of QXLibraryTextProperties() and
/// QXLibraryNumberProperties(), and other entries are not saved.
struct QX_EXPORT QXLibraryTrackFields {
    std::string persistentID; ///< 16 upper-case hex digits; empty until the track is inserted
    QXURL location;           ///< The file, as an absolute path
    std::optional<QXDate> dateAdded; ///< When the track was inserted; set by insertTrack() when empty
    /// four characters: kVdM movie, kVdT TV show, kVdV music video, kVdH home video, kUnk unknown
    std::string mediaKind = "kUnk";
    std::optional<QXDate> releaseDate; ///< The full release date; the "year" number holds its year
    std::map<std::string, std::string, std::less<>> texts; ///< Text properties; a missing one reads as empty
    std::map<std::string, int64_t, std::less<>> numbers;   ///< Number properties; a missing one reads as 0
    std::vector<QXData> artworks; ///< encoded pictures (PNG, JPEG), first is the cover

    /// A text property; empty when the track has none.
    std::string text(std::string_view property) const;
    /// A number property; 0 when the track has none.
    int64_t number(std::string_view property) const;
};

/// The local media library: one SQLite database per library identifier
/// (`$XDG_DATA_HOME/qxmedia/<identifier>.sqlite`) and a library folder that
/// added files are copied into.
///
/// Several processes may use one library at once: the database runs in WAL
/// mode with a busy timeout (10 s unless set), and every change is one
/// immediate transaction, so writers take turns. A connection belongs to one
/// thread at a time. Locations are stored relative to the library folder, so
/// that the folder and its database can move together.
///
/// Failures are reported through the optional `error` argument as errors of
/// QXMediaErrorDomain with code -13007, SQLite's message as description and
/// the database's path under NSFilePathErrorKey.
class QX_EXPORT QXLibraryDatabase {
public:
    /// The schema this build writes; older databases are migrated on open.
    static constexpr int kSchemaVersion = 2;

    /// $XDG_DATA_HOME/qxmedia (default ~/.local/share/qxmedia).
    static QXURL defaultDirectory();
    /// Opens (creating when missing) the library of an identifier in
    /// defaultDirectory(). Null, with the reason in `error`, on failure.
    static std::unique_ptr<QXLibraryDatabase> open(const std::string& identifier, QXErrorRef* error = nullptr);
    /// Opens (creating when missing) the database at `path`, migrating it up to `version` (tests
    /// make old databases with a lower one). Null, with the reason in `error`, on failure.
    static std::unique_ptr<QXLibraryDatabase> openAtPath(const QXURL& path, QXErrorRef* error = nullptr,
                                                         int version = kSchemaVersion);
    ~QXLibraryDatabase();
    QXLibraryDatabase(const QXLibraryDatabase&) = delete;
    QXLibraryDatabase& operator=(const QXLibraryDatabase&) = delete;

    /// The schema version the database file holds (0 for a new, empty file).
    int schemaVersion() const;
    /// The database file, as given when it was opened.
    const QXURL& path() const { return path_; }
    /// Where added files are filed; by default the database's path without
    /// its extension.
    QXURL folder() const;
    /// Moves the library folder (made absolute) and rewrites every track's
    /// stored location against it, in one transaction; the files are not moved.
    bool setFolder(const QXURL& folder, QXErrorRef* error = nullptr);
    /// How long a statement waits for another writer; negative waits forever.
    void setBusyTimeout(int milliseconds);

    /// Runs `body` in one immediate transaction: committed when it returns
    /// true, rolled back when it returns false or throws (the exception goes on).
    /// True when committed; transactions do not nest.
    bool transaction(const std::function<bool()>& body, QXErrorRef* error = nullptr);

    // Queries.
    /// The track of that ID; nullopt when there is none (or the ID is empty).
    std::optional<QXLibraryTrackFields> trackWithPersistentID(const std::string& persistentID) const;
    /// The track filed at that path; nullopt when there is none.
    std::optional<QXLibraryTrackFields> trackAtLocation(const QXURL& location) const;
    /// Every track, in the order they were inserted.
    std::vector<QXLibraryTrackFields> allTracks() const;
    /// Whether a track is filed at this location (or a file exists there).
    bool isLocationTaken(const QXURL& location) const;

    // Changes (inside or outside a transaction). insertTrack fills a new
    // persistent id and the date added when they are empty.
    /// Adds a track, filling a new persistent ID and the date added into
    /// `track` when they are empty. False when the ID is taken.
    bool insertTrack(QXLibraryTrackFields& track, QXErrorRef* error = nullptr);
    /// Replaces everything stored for the track of track.persistentID (its
    /// pictures too). False when there is no such track.
    bool updateTrack(const QXLibraryTrackFields& track, QXErrorRef* error = nullptr);
    /// Forgets a track; the file stays. False when there was no such track.
    bool removeTrack(const std::string& persistentID, QXErrorRef* error = nullptr);

    /// The SQLite connection, for queries this class has no call for; owned by the database object.
    sqlite3* handle() const { return db_; }

private:
    QXLibraryDatabase(sqlite3* db, QXURL path) : db_(db), path_(std::move(path)) {}
    bool migrate(int version, QXErrorRef* error);
    bool execute(const char* sql, QXErrorRef* error = nullptr) const;
    QXErrorRef lastError(const std::string& what) const;
    std::string relativeLocation(const QXURL& location) const;
    QXURL absoluteLocation(const std::string& stored) const;
    std::vector<QXLibraryTrackFields> selectTracks(const std::string& where, const std::string& argument) const;
    bool writeArtworks(int64_t rowID, const std::vector<QXData>& artworks, QXErrorRef* error);
    std::vector<QXData> readArtworks(int64_t rowID) const;

    sqlite3* db_ = nullptr;
    QXURL path_;
    mutable std::optional<QXURL> folder_;
};

///@{
/// The text and number properties a file track has, in column order.
const std::vector<std::string>& QXLibraryTextProperties();
const std::vector<std::string>& QXLibraryNumberProperties();
///@}
