// The library application and its file tracks over the local database.

#include "qxmedia/library/QXMediaManager.h"

#include <algorithm>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/library/QXLibraryLayout.h"
#include "qxmedia/library/QXLibraryMetadata.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"

namespace fs = std::filesystem;

namespace {

constexpr int64_t kFileNotFoundCode = 4;   // NSFileNoSuchFileError
constexpr int64_t kFileWriteCode = 512;    // NSFileWriteUnknownError
constexpr int64_t kNoTimeout = -2;

QXErrorRef fileError(int64_t code, const QXURL& url, const std::string& message)
{
    return QXMedia::errorWithDomain(NSCocoaErrorDomain, code,
                                    {{NSFilePathErrorKey, QXValue(url.string())},
                                     {NSLocalizedDescriptionKey, QXValue(message)}});
}

std::shared_ptr<QXMetaData> tagsOfFile(const QXURL& url)
{
    if (auto file = qx::mp4::MP4File::read(url)) {
        if (auto record = QXMetaData::initWithFile(file.get())) return record;
    }
    return QXMetaData::init();
}

bool isInside(const QXURL& path, const QXURL& folder)
{
    const std::string relative = path.lexically_relative(folder).string();
    return !relative.empty() && relative != "." && relative.rfind("..", 0) != 0;
}

// The first of "name.ext", "name (2).ext", ... that is neither a file nor a track.
QXURL freeLocation(const QXLibraryDatabase& database, const QXURL& wanted)
{
    QXURL candidate = wanted;
    for (int n = 2; database.isLocationTaken(candidate); ++n) {
        candidate = wanted.parent_path() /
                    (wanted.stem().string() + " (" + std::to_string(n) + ")" + wanted.extension().string());
    }
    return candidate;
}

// Removes a copy and the folders made for it, up to the library folder.
void removeCopy(const QXURL& copy, const QXURL& folder)
{
    std::error_code ignored;
    fs::remove(copy, ignored);
    for (QXURL parent = copy.parent_path(); isInside(parent, folder); parent = parent.parent_path()) {
        if (!fs::is_empty(parent, ignored) || !fs::remove(parent, ignored)) break;
    }
}

} // namespace

std::shared_ptr<QXMediaManagerApplication>
QXMediaManagerApplication::applicationWithBundleIdentifier(const std::string& identifier)
{
    auto application = std::make_shared<QXMediaManagerApplication>();
    application->identifier = identifier;
    return application;
}

std::shared_ptr<QXMediaManagerApplication> QXMediaManagerApplication::applicationForMediaKind(int64_t mediaKind)
{
    return applicationWithBundleIdentifier(mediaKind == 6 ? QXLibraryMusicIdentifier : QXLibraryTVIdentifier);
}

bool QXMediaManagerApplication::knowsIdentifier() const
{
    if (QXLibraryKindOfIdentifier(identifier)) return true;
    QXLogWarning("Wrong SBApplication type!");
    return false;
}

void QXMediaManagerApplication::setTimeout(int64_t seconds)
{
    timeout_ = seconds;
    if (database_) database_->setBusyTimeout(seconds == kNoTimeout ? -1 : int(seconds * 1000));
}

QXLibraryDatabase* QXMediaManagerApplication::database(QXErrorRef* error)
{
    if (!database_) {
        QXErrorRef failure;
        database_ = QXLibraryDatabase::open(identifier, &failure);
        if (!database_) {
            eventDidFail(QXLibraryEventOpen, failure);
            QXSetError(error, failure);
            return nullptr;
        }
        setTimeout(timeout_);
    }
    return database_.get();
}

void QXMediaManagerApplication::eventDidFail(uint32_t eventType, const QXErrorRef& error) const
{
    if (delegate) delegate(eventType, error);
}

std::shared_ptr<QXMediaManagerTrack> QXMediaManagerApplication::wrap(const QXLibraryTrackFields& fields)
{
    return QXMediaManagerTrack::trackWithIdentifier(identifier, fields, shared_from_this());
}

std::shared_ptr<QXMediaManagerTrack> QXMediaManagerApplication::add(const QXURL& url, QXErrorRef* error)
{
    if (!knowsIdentifier()) return nullptr;
    QXErrorRef failure;
    std::optional<QXLibraryTrackFields> fields;
    if (database(&failure)) fields = file(url, &failure);
    if (!fields) {
        eventDidFail(QXLibraryEventAdd, failure);
        QXSetError(error, failure);
        QXLogWarning("Failed to add file add %s: %s", url.c_str(), failure ? failure->description().c_str() : "(null)");
        return nullptr;
    }
    return wrap(*fields);
}

std::optional<QXLibraryTrackFields> QXMediaManagerApplication::file(const QXURL& url, QXErrorRef* error)
{
    const QXURL source = fs::absolute(url).lexically_normal();
    std::error_code failure;
    if (!fs::is_regular_file(source, failure)) {
        QXSetError(error, fileError(kFileNotFoundCode, source, "no such file"));
        return std::nullopt;
    }
    if (auto existing = database_->trackAtLocation(source)) return existing;

    const std::shared_ptr<QXMetaData> tags = tagsOfFile(source);
    const QXLibraryMetadataWriter writer(*QXLibraryKindOfIdentifier(identifier));
    QXLibraryTrackFields fields;
    writer.write(*tags, fields);
    fields.mediaKind = writer.mediaKind(tags->videoKind);
    if (auto date = tags->releaseDate.get()) fields.releaseDate = *date;

    const QXURL folder = fs::absolute(database_->folder()).lexically_normal();
    QXURL copy;
    const bool added = database_->transaction(
        [&] {
            fields.location = source;
            if (copiesFiles && !isInside(source, folder)) {
                // Named inside the transaction: another writer waits, so no
                // two adds pick the same free name.
                const QXURL target = freeLocation(*database_, folder / QXLibraryRelativePath(*tags, source));
                const QXURL partial = target.parent_path() / ("." + target.filename().string() + ".partial");
                copy = target;
                fs::create_directories(target.parent_path(), failure);
                if (!failure) fs::copy_file(source, partial, fs::copy_options::overwrite_existing, failure);
                if (!failure) fs::rename(partial, target, failure);
                if (failure) {
                    QXSetError(error, fileError(kFileWriteCode, target, failure.message()));
                    fs::remove(partial, failure);
                    return false;
                }
                fields.location = target;
            }
            return database_->insertTrack(fields, error);
        },
        error);
    if (!added) {
        if (!copy.empty()) removeCopy(copy, folder);
        return std::nullopt;
    }
    return fields;
}

std::shared_ptr<QXMediaManagerTrack> QXMediaManagerApplication::trackWithPersistentID(const std::string& persistentID)
{
    if (!knowsIdentifier() || !database()) return nullptr;
    auto fields = database_->trackWithPersistentID(persistentID);
    return fields ? wrap(*fields) : nullptr;
}

std::vector<std::shared_ptr<QXMediaManagerTrack>> QXMediaManagerApplication::fileTracks()
{
    std::vector<std::shared_ptr<QXMediaManagerTrack>> tracks;
    if (!knowsIdentifier() || !database()) return tracks;
    for (const QXLibraryTrackFields& fields : database_->allTracks()) tracks.push_back(wrap(fields));
    return tracks;
}

bool QXMediaManagerApplication::remove(const std::string& persistentID, bool deleteFile, QXErrorRef* error)
{
    if (!knowsIdentifier() || !database(error)) return false;
    auto fields = database_->trackWithPersistentID(persistentID);
    if (!fields) return false;
    if (!database_->transaction([&] { return database_->removeTrack(persistentID, error); }, error)) return false;
    if (deleteFile) removeCopy(fields->location, fs::absolute(database_->folder()).lexically_normal());
    return true;
}

std::shared_ptr<QXMediaManagerTrack>
QXMediaManagerTrack::trackWithIdentifier(const std::string& identifier, const QXLibraryTrackFields& track,
                                         std::shared_ptr<QXMediaManagerApplication> owner)
{
    auto wrapped = std::make_shared<QXMediaManagerTrack>();
    wrapped->identifier = identifier;
    wrapped->track = track;
    wrapped->owner_ = owner;
    return wrapped;
}

std::shared_ptr<QXMetaData> QXMediaManagerTrack::metadata() const
{
    auto kind = QXLibraryKindOfIdentifier(identifier);
    if (!kind) {
        QXLogWarning("Wrong SBObject type!");
        return QXMetaData::init();
    }
    return QXLibraryMetadataWriter(*kind).metadataOfTrack(track);
}

void QXMediaManagerTrack::setMetadata(const QXMetaData& metadata)
{
    auto kind = QXLibraryKindOfIdentifier(identifier);
    QXErrorRef failure;
    if (!kind) {
        QXLogWarning("Wrong SBObject type!");
    } else {
        const QXLibraryMetadataWriter writer(*kind);
        writer.write(metadata, track);
        writer.writeRatingsAndKind(metadata, track);
        if (save(&failure)) return;
    }
    QXLogWarning("Error writing metadata to track: %s", failure ? failure->description().c_str() : "(null)");
}

std::optional<QXDate> QXMediaManagerTrack::dateAdded() const
{
    return track.dateAdded;
}

std::optional<QXURL> QXMediaManagerTrack::location() const
{
    if (track.location.empty()) return std::nullopt;
    return track.location;
}

void QXMediaManagerTrack::refresh()
{
    auto kind = QXLibraryKindOfIdentifier(identifier);
    if (!kind) return (void)QXLogWarning("Wrong SBObject type!");
    const std::shared_ptr<QXMetaData> tags = tagsOfFile(track.location);
    const QXLibraryMetadataWriter writer(*kind);
    writer.write(*tags, track);
    track.mediaKind = writer.mediaKind(tags->videoKind);
    if (auto date = tags->releaseDate.get()) track.releaseDate = *date;
    QXErrorRef failure;
    if (!save(&failure)) QXLogWarning("Error writing metadata to track: %s", failure->description().c_str());
}

QXURL QXMediaManagerTrack::reveal() const
{
    if (!QXLibraryKindOfIdentifier(identifier)) QXLogWarning("Wrong SBObject type!");
    return track.location.parent_path();
}

bool QXMediaManagerTrack::save(QXErrorRef* error)
{
    std::shared_ptr<QXMediaManagerApplication> owner = owner_.lock();
    QXLibraryDatabase* database = owner ? owner->database(error) : nullptr;
    if (!database) return false;
    const bool saved = database->transaction([&] { return database->updateTrack(track, error); }, error);
    if (!saved && owner->delegate) owner->delegate(QXLibraryEventSet, error ? *error : nullptr);
    return saved;
}
