// The library's SQLite store: schema, migrations, transactions and rows.

#include "qxmedia/library/QXLibraryDatabase.h"

#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <random>

#include "qxmedia/core/QXMedia.h"

namespace fs = std::filesystem;

namespace {

constexpr int64_t kDatabaseErrorCode = -13007;
constexpr int kDefaultBusyTimeoutMs = 10000;

double secondsOf(QXDate date)
{
    return std::chrono::duration<double>(date.time_since_epoch()).count();
}

QXDate dateOf(double seconds)
{
    return QXDate(std::chrono::duration_cast<QXDate::duration>(std::chrono::duration<double>(seconds)));
}

std::string newPersistentID()
{
    static thread_local std::mt19937_64 generator {std::random_device {}()};
    char text[17];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(generator()));
    return text;
}

// A prepared statement that finalises itself.
class Statement {
public:
    Statement(sqlite3* db, const std::string& sql) { sqlite3_prepare_v2(db, sql.c_str(), -1, &statement_, nullptr); }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return statement_ != nullptr; }
    sqlite3_stmt* get() const { return statement_; }
    void bind(int index, const std::string& text) { sqlite3_bind_text(statement_, index, text.c_str(), -1, SQLITE_TRANSIENT); }
    void bind(int index, int64_t number) { sqlite3_bind_int64(statement_, index, number); }
    void bind(int index, std::optional<QXDate> date)
    {
        if (date) sqlite3_bind_double(statement_, index, secondsOf(*date));
        else sqlite3_bind_null(statement_, index);
    }
    void bind(int index, const QXData& data)
    {
        sqlite3_bind_blob(statement_, index, data.data(), int(data.size()), SQLITE_TRANSIENT);
    }
    int step() { return sqlite3_step(statement_); }
    std::string text(int column) const
    {
        const unsigned char* text = sqlite3_column_text(statement_, column);
        return text ? reinterpret_cast<const char*>(text) : "";
    }
    std::optional<QXDate> date(int column) const
    {
        if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
        return dateOf(sqlite3_column_double(statement_, column));
    }

private:
    sqlite3_stmt* statement_ = nullptr;
};

// Version 1 held a few tags and absolute locations; version 2 has every
// property of a file track, artwork, settings, and relative locations.
constexpr const char* kSchemaV1 =
    "CREATE TABLE tracks(id INTEGER PRIMARY KEY, persistentID TEXT UNIQUE NOT NULL, location TEXT NOT NULL,"
    " dateAdded REAL, mediaKind TEXT NOT NULL DEFAULT 'kUnk', name TEXT, album TEXT, artist TEXT, genre TEXT,"
    " comment TEXT);"
    "CREATE INDEX tracksByLocation ON tracks(location);";

constexpr const char* kSchemaV2 =
    "CREATE TABLE settings(key TEXT PRIMARY KEY, value TEXT);"
    "CREATE TABLE artworks(track INTEGER NOT NULL REFERENCES tracks(id) ON DELETE CASCADE,"
    " position INTEGER NOT NULL, data BLOB NOT NULL, PRIMARY KEY(track, position));"
    "ALTER TABLE tracks ADD COLUMN releaseDate REAL;";

const std::vector<std::string>& v1TextColumns()
{
    static const std::vector<std::string> columns {"name", "album", "artist", "genre", "comment"};
    return columns;
}

} // namespace

const std::vector<std::string>& QXLibraryTextProperties()
{
    static const std::vector<std::string> properties {
        "name",    "album",     "albumArtist", "artist",          "category",  "comment",
        "composer", "episodeID", "genre",      "grouping",        "longDescription", "lyrics",
        "objectDescription", "show", "sortAlbum", "sortAlbumArtist", "sortArtist", "sortComposer",
        "sortName", "sortShow", "albumRatingKind", "ratingKind"};
    return properties;
}

const std::vector<std::string>& QXLibraryNumberProperties()
{
    static const std::vector<std::string> properties {"albumRating", "rating",       "discCount",  "discNumber",
                                                      "episodeNumber", "seasonNumber", "trackCount", "trackNumber",
                                                      "year"};
    return properties;
}

std::string QXLibraryTrackFields::text(std::string_view property) const
{
    auto it = texts.find(property);
    return it == texts.end() ? std::string() : it->second;
}

int64_t QXLibraryTrackFields::number(std::string_view property) const
{
    auto it = numbers.find(property);
    return it == numbers.end() ? 0 : it->second;
}

QXURL QXLibraryDatabase::defaultDirectory()
{
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    if (dataHome && *dataHome == '/') return QXURL(dataHome) / "qxmedia";
    const char* home = std::getenv("HOME");
    return QXURL(home && *home ? home : "/tmp") / ".local/share/qxmedia";
}

std::unique_ptr<QXLibraryDatabase> QXLibraryDatabase::open(const std::string& identifier, QXErrorRef* error)
{
    return openAtPath(defaultDirectory() / (identifier + ".sqlite"), error);
}

std::unique_ptr<QXLibraryDatabase> QXLibraryDatabase::openAtPath(const QXURL& path, QXErrorRef* error, int version)
{
    std::error_code ignored;
    fs::create_directories(path.parent_path(), ignored);
    sqlite3* db = nullptr;
    const int opened = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::unique_ptr<QXLibraryDatabase> database(new QXLibraryDatabase(db, path));
    if (opened != SQLITE_OK) {
        QXSetError(error, database->lastError("open " + path.string()));
        return nullptr;
    }
    database->setBusyTimeout(kDefaultBusyTimeoutMs);
    // WAL lets readers go on while one process writes.
    if (!database->execute("PRAGMA journal_mode=WAL; PRAGMA foreign_keys=ON;", error)) return nullptr;
    if (!database->migrate(version, error)) return nullptr;
    return database;
}

QXLibraryDatabase::~QXLibraryDatabase()
{
    sqlite3_close_v2(db_);
}

void QXLibraryDatabase::setBusyTimeout(int milliseconds)
{
    sqlite3_busy_timeout(db_, milliseconds < 0 ? INT32_MAX : milliseconds);
}

bool QXLibraryDatabase::execute(const char* sql, QXErrorRef* error) const
{
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK) return true;
    QXSetError(error, lastError(sql));
    return false;
}

QXErrorRef QXLibraryDatabase::lastError(const std::string& what) const
{
    const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    return QXMedia::errorWithDomain(QXMediaErrorDomain, kDatabaseErrorCode,
                                    {{NSFilePathErrorKey, QXValue(path_.string())},
                                     {NSLocalizedDescriptionKey, QXValue(message + " (" + what + ")")}});
}

int QXLibraryDatabase::schemaVersion() const
{
    Statement query(db_, "PRAGMA user_version");
    return query.ok() && query.step() == SQLITE_ROW ? sqlite3_column_int(query.get(), 0) : 0;
}

bool QXLibraryDatabase::migrate(int version, QXErrorRef* error)
{
    if (schemaVersion() >= version) return true;
    int present = 0;
    return transaction(
        [&] {
            // Read again under the write lock: another process may have
            // migrated meanwhile.
            present = schemaVersion();
            if (present >= version) return true;
            if (present < 1 && version >= 1) {
                if (!execute(kSchemaV1, error)) return false;
                present = 1;
            }
            if (present < 2 && version >= 2) {
                // Read the absolute locations before the folder setting exists.
                std::vector<std::pair<int64_t, std::string>> locations;
                {
                    Statement rows(db_, "SELECT id, location FROM tracks");
                    while (rows.step() == SQLITE_ROW) locations.emplace_back(sqlite3_column_int64(rows.get(), 0), rows.text(1));
                }
                if (!execute(kSchemaV2, error)) return false;
                for (const std::string& column : QXLibraryTextProperties()) {
                    if (std::find(v1TextColumns().begin(), v1TextColumns().end(), column) != v1TextColumns().end()) {
                        continue;
                    }
                    if (!execute(("ALTER TABLE tracks ADD COLUMN " + column + " TEXT").c_str(), error)) return false;
                }
                for (const std::string& column : QXLibraryNumberProperties()) {
                    const std::string sql = "ALTER TABLE tracks ADD COLUMN " + column + " INTEGER NOT NULL DEFAULT 0";
                    if (!execute(sql.c_str(), error)) return false;
                }
                for (const auto& [row, location] : locations) {
                    Statement update(db_, "UPDATE tracks SET location = ? WHERE id = ?");
                    update.bind(1, relativeLocation(location));
                    update.bind(2, row);
                    if (update.step() != SQLITE_DONE) return (QXSetError(error, lastError("migrate")), false);
                }
                present = 2;
            }
            return execute(("PRAGMA user_version = " + std::to_string(present)).c_str(), error);
        },
        error);
}

bool QXLibraryDatabase::transaction(const std::function<bool()>& body, QXErrorRef* error)
{
    // IMMEDIATE takes the write lock at once (waiting up to the busy
    // timeout), so two writers never both read and then collide.
    if (!execute("BEGIN IMMEDIATE", error)) return false;
    bool committed = false;
    try {
        committed = body() && execute("COMMIT", error);
    } catch (...) {
        execute("ROLLBACK");
        throw;
    }
    if (!committed) execute("ROLLBACK");
    return committed;
}

QXURL QXLibraryDatabase::folder() const
{
    // Read once per connection: every location is resolved against it.
    if (folder_) return *folder_;
    QXURL folder = QXURL(path_).replace_extension();
    if (schemaVersion() >= 2) {
        Statement query(db_, "SELECT value FROM settings WHERE key = 'folder'");
        if (query.ok() && query.step() == SQLITE_ROW) folder = query.text(0);
        folder_ = folder;
    }
    return folder;
}

bool QXLibraryDatabase::setFolder(const QXURL& folder, QXErrorRef* error)
{
    // Locations are relative to the folder: they are rewritten with it.
    std::vector<QXLibraryTrackFields> tracks = allTracks();
    const bool changed = transaction(
        [&] {
            Statement set(db_, "INSERT OR REPLACE INTO settings(key, value) VALUES('folder', ?)");
            set.bind(1, fs::absolute(folder).lexically_normal().string());
            if (set.step() != SQLITE_DONE) return (QXSetError(error, lastError("set folder")), false);
            folder_ = fs::absolute(folder).lexically_normal();
            for (const QXLibraryTrackFields& track : tracks) {
                if (!updateTrack(track, error)) return false;
            }
            return true;
        },
        error);
    if (!changed) folder_.reset();
    return changed;
}

std::string QXLibraryDatabase::relativeLocation(const QXURL& location) const
{
    return fs::absolute(location).lexically_normal().lexically_relative(fs::absolute(folder()).lexically_normal()).string();
}

QXURL QXLibraryDatabase::absoluteLocation(const std::string& stored) const
{
    return (fs::absolute(folder()) / stored).lexically_normal();
}

std::vector<QXLibraryTrackFields> QXLibraryDatabase::selectTracks(const std::string& where,
                                                                  const std::string& argument) const
{
    std::string sql = "SELECT id, persistentID, location, dateAdded, mediaKind, releaseDate";
    for (const std::string& column : QXLibraryTextProperties()) sql += ", " + column;
    for (const std::string& column : QXLibraryNumberProperties()) sql += ", " + column;
    sql += " FROM tracks " + where + " ORDER BY id";
    Statement query(db_, sql);
    std::vector<QXLibraryTrackFields> tracks;
    if (!query.ok()) return tracks;
    if (!argument.empty()) query.bind(1, argument);
    while (query.step() == SQLITE_ROW) {
        QXLibraryTrackFields track;
        const int64_t row = sqlite3_column_int64(query.get(), 0);
        track.persistentID = query.text(1);
        track.location = absoluteLocation(query.text(2));
        track.dateAdded = query.date(3);
        track.mediaKind = query.text(4);
        track.releaseDate = query.date(5);
        int column = 6;
        for (const std::string& property : QXLibraryTextProperties()) track.texts[property] = query.text(column++);
        for (const std::string& property : QXLibraryNumberProperties()) {
            track.numbers[property] = sqlite3_column_int64(query.get(), column++);
        }
        track.artworks = readArtworks(row);
        tracks.push_back(std::move(track));
    }
    return tracks;
}

std::optional<QXLibraryTrackFields> QXLibraryDatabase::trackWithPersistentID(const std::string& persistentID) const
{
    if (persistentID.empty()) return std::nullopt;
    auto tracks = selectTracks("WHERE persistentID = ?", persistentID);
    if (tracks.empty()) return std::nullopt;
    return tracks.front();
}

std::optional<QXLibraryTrackFields> QXLibraryDatabase::trackAtLocation(const QXURL& location) const
{
    auto tracks = selectTracks("WHERE location = ?", relativeLocation(location));
    if (tracks.empty()) return std::nullopt;
    return tracks.front();
}

std::vector<QXLibraryTrackFields> QXLibraryDatabase::allTracks() const
{
    return selectTracks("", "");
}

bool QXLibraryDatabase::isLocationTaken(const QXURL& location) const
{
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(location, ignored))) return true;
    Statement query(db_, "SELECT 1 FROM tracks WHERE location = ?");
    query.bind(1, relativeLocation(location));
    return query.step() == SQLITE_ROW;
}

std::vector<QXData> QXLibraryDatabase::readArtworks(int64_t rowID) const
{
    Statement query(db_, "SELECT data FROM artworks WHERE track = ? ORDER BY position");
    std::vector<QXData> artworks;
    if (!query.ok()) return artworks;
    query.bind(1, rowID);
    while (query.step() == SQLITE_ROW) {
        const auto* bytes = static_cast<const uint8_t*>(sqlite3_column_blob(query.get(), 0));
        artworks.emplace_back(bytes, bytes + sqlite3_column_bytes(query.get(), 0));
    }
    return artworks;
}

bool QXLibraryDatabase::writeArtworks(int64_t rowID, const std::vector<QXData>& artworks, QXErrorRef* error)
{
    Statement clear(db_, "DELETE FROM artworks WHERE track = ?");
    clear.bind(1, rowID);
    if (clear.step() != SQLITE_DONE) return (QXSetError(error, lastError("artwork")), false);
    for (size_t i = 0; i < artworks.size(); ++i) {
        Statement insert(db_, "INSERT INTO artworks(track, position, data) VALUES(?, ?, ?)");
        insert.bind(1, rowID);
        insert.bind(2, int64_t(i));
        insert.bind(3, artworks[i]);
        if (insert.step() != SQLITE_DONE) return (QXSetError(error, lastError("artwork")), false);
    }
    return true;
}

bool QXLibraryDatabase::insertTrack(QXLibraryTrackFields& track, QXErrorRef* error)
{
    if (track.persistentID.empty()) track.persistentID = newPersistentID();
    if (!track.dateAdded) track.dateAdded = std::chrono::system_clock::now();
    Statement insert(db_, "INSERT INTO tracks(persistentID, location) VALUES(?, ?)");
    insert.bind(1, track.persistentID);
    insert.bind(2, relativeLocation(track.location));
    if (!insert.ok() || insert.step() != SQLITE_DONE) return (QXSetError(error, lastError("add track")), false);
    return updateTrack(track, error);
}

bool QXLibraryDatabase::updateTrack(const QXLibraryTrackFields& track, QXErrorRef* error)
{
    std::string sql = "UPDATE tracks SET location = ?, dateAdded = ?, mediaKind = ?, releaseDate = ?";
    for (const std::string& column : QXLibraryTextProperties()) sql += ", " + column + " = ?";
    for (const std::string& column : QXLibraryNumberProperties()) sql += ", " + column + " = ?";
    sql += " WHERE persistentID = ? RETURNING id";
    Statement update(db_, sql);
    if (!update.ok()) return (QXSetError(error, lastError("update track")), false);
    int index = 1;
    update.bind(index++, relativeLocation(track.location));
    update.bind(index++, track.dateAdded);
    update.bind(index++, track.mediaKind);
    update.bind(index++, track.releaseDate);
    for (const std::string& property : QXLibraryTextProperties()) update.bind(index++, track.text(property));
    for (const std::string& property : QXLibraryNumberProperties()) update.bind(index++, track.number(property));
    update.bind(index, track.persistentID);
    if (update.step() != SQLITE_ROW) return (QXSetError(error, lastError("update track")), false);
    const int64_t row = sqlite3_column_int64(update.get(), 0);
    while (update.step() == SQLITE_ROW) {
    }
    return writeArtworks(row, track.artworks, error);
}

bool QXLibraryDatabase::removeTrack(const std::string& persistentID, QXErrorRef* error)
{
    Statement remove(db_, "DELETE FROM tracks WHERE persistentID = ?");
    remove.bind(1, persistentID);
    if (remove.step() != SQLITE_DONE) return (QXSetError(error, lastError("remove track")), false);
    return sqlite3_changes(db_) > 0;
}
