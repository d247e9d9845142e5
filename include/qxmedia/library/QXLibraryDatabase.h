#pragma once
// QXLibraryDatabase: the local media library, one SQLite database per
// library identifier ($XDG_DATA_HOME/qxmedia/<identifier>.sqlite) and a
// library folder that added files are copied into.
//
// Several processes may use one library at once: the database runs in WAL
// mode with a busy timeout, and every change is one immediate transaction,
// so writers take turns. A connection belongs to one thread at a time.
// Locations are stored relative to the library folder, so that the folder
// and its database can move together.

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

// One file track as the database holds it. Text and number properties are
// keyed by their library property names ("name", "sortShow", "trackCount").
struct QX_EXPORT QXLibraryTrackFields {
    std::string persistentID; // 16 upper-case hex digits
    QXURL location;           // absolute
    std::optional<QXDate> dateAdded;
    std::string mediaKind = "kUnk"; // four characters: kVdM, kVdT, kVdV, kVdH, kUnk
    std::optional<QXDate> releaseDate;
    std::map<std::string, std::string, std::less<>> texts;
    std::map<std::string, int64_t, std::less<>> numbers;
    std::vector<QXData> artworks; // encoded pictures, first is the cover

    std::string text(std::string_view property) const;
    int64_t number(std::string_view property) const;
};

class QX_EXPORT QXLibraryDatabase {
public:
    // The schema this build writes; older databases are migrated on open.
    static constexpr int kSchemaVersion = 2;

    // $XDG_DATA_HOME/qxmedia (default ~/.local/share/qxmedia).
    static QXURL defaultDirectory();
    // Opens (creating when missing) the library of an identifier in
    // defaultDirectory(). Null, with the reason in `error`, on failure.
    static std::unique_ptr<QXLibraryDatabase> open(const std::string& identifier, QXErrorRef* error = nullptr);
    // Opens the database at `path`, migrating it up to `version` (tests
    // make old databases with a lower one).
    static std::unique_ptr<QXLibraryDatabase> openAtPath(const QXURL& path, QXErrorRef* error = nullptr,
                                                         int version = kSchemaVersion);
    ~QXLibraryDatabase();
    QXLibraryDatabase(const QXLibraryDatabase&) = delete;
    QXLibraryDatabase& operator=(const QXLibraryDatabase&) = delete;

    int schemaVersion() const;
    const QXURL& path() const { return path_; }
    // Where added files are filed; by default the database's path without
    // its extension.
    QXURL folder() const;
    bool setFolder(const QXURL& folder, QXErrorRef* error = nullptr);
    // How long a statement waits for another writer; negative waits forever.
    void setBusyTimeout(int milliseconds);

    // Runs `body` in one immediate transaction: committed when it returns
    // true, rolled back when it returns false or throws.
    bool transaction(const std::function<bool()>& body, QXErrorRef* error = nullptr);

    // Queries.
    std::optional<QXLibraryTrackFields> trackWithPersistentID(const std::string& persistentID) const;
    std::optional<QXLibraryTrackFields> trackAtLocation(const QXURL& location) const;
    std::vector<QXLibraryTrackFields> allTracks() const;
    // Whether a track is filed at this location (or a file exists there).
    bool isLocationTaken(const QXURL& location) const;

    // Changes (inside or outside a transaction). insertTrack fills a new
    // persistent id and the date added when they are empty.
    bool insertTrack(QXLibraryTrackFields& track, QXErrorRef* error = nullptr);
    bool updateTrack(const QXLibraryTrackFields& track, QXErrorRef* error = nullptr);
    bool removeTrack(const std::string& persistentID, QXErrorRef* error = nullptr);

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

// The text and number properties a file track has, in column order.
const std::vector<std::string>& QXLibraryTextProperties();
const std::vector<std::string>& QXLibraryNumberProperties();
