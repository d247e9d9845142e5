#pragma once
/// @file
/// The media library as a job sees it: an application (one library,
/// chosen by identifier) that takes files and finds tracks, and the file
/// tracks it gives back. The three identifiers of QXLibraryMetadata.h are
/// the libraries known; each is a local library (QXLibraryDatabase).
///
/// Objects of these classes have no lock: one thread uses them at a time.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/library/QXLibraryDatabase.h"
#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

class QXMetaData;
class QXMediaManagerTrack;

///@{
/// Four-character codes of the library's events, as a failed event reports them:
/// adding a file ('Add '), saving a track's tags ('setd'), opening the library ('odoc').
constexpr uint32_t QXLibraryEventAdd = 0x41646420;     // 'Add '
constexpr uint32_t QXLibraryEventSet = 0x73657464;     // 'setd'
constexpr uint32_t QXLibraryEventOpen = 0x6F646F63;    // 'odoc'
///@}

/// One library, chosen by identifier: takes files and finds tracks. Calls on an
/// identifier that is none of the three known ones log a warning and give
/// nothing (null, empty, false). Always held in a shared pointer: its tracks
/// keep a weak reference to it.
class QX_EXPORT QXMediaManagerApplication : public std::enable_shared_from_this<QXMediaManagerApplication> {
public:
    /// The library of an identifier (QXLibraryTVIdentifier and the like); nothing is opened yet.
    static std::shared_ptr<QXMediaManagerApplication> applicationWithBundleIdentifier(const std::string& identifier);
    /// Music videos (6) go to the Music library, every other kind to TV.
    static std::shared_ptr<QXMediaManagerApplication> applicationForMediaKind(int64_t mediaKind);

    std::string identifier; ///< The library's identifier; it names its database file.
    /// Whether added files are copied into the library folder (and the
    /// source then removed by the caller); false files them where they are.
    bool copiesFiles = true;
    /// Told of every failed event, with its four-character code, on the
    /// calling thread; may be empty.
    std::function<void(uint32_t eventType, const QXErrorRef& error)> delegate;

    /// Seconds a call waits for another process using the library (10 unless set); -2 waits
    /// without limit.
    void setTimeout(int64_t seconds);

    /// Files a video: copies it into the library folder (unless copiesFiles
    /// is false or it already lies there) and records a track with its tags,
    /// as one unit. A file already in the library gives its existing track.
    /// Null on failure, with the reason in `error` (a missing file is
    /// NSCocoaErrorDomain code 4, a failed copy code 512) and told to the delegate.
    std::shared_ptr<QXMediaManagerTrack> add(const QXURL& url, QXErrorRef* error = nullptr);
    /// The track of that ID; null when there is none or the library cannot be opened.
    std::shared_ptr<QXMediaManagerTrack> trackWithPersistentID(const std::string& persistentID);
    /// Every track of the library, in the order they were added; empty when it cannot be opened.
    std::vector<std::shared_ptr<QXMediaManagerTrack>> fileTracks();
    /// Forgets a track; the file stays unless deleteFile (which also removes
    /// folders left empty inside the library folder). False when there is no such track.
    bool remove(const std::string& persistentID, bool deleteFile, QXErrorRef* error = nullptr);

    /// The library's database, opened at first use; null if it cannot be.
    /// Owned by the application.
    QXLibraryDatabase* database(QXErrorRef* error = nullptr);

private:
    bool knowsIdentifier() const;
    void eventDidFail(uint32_t eventType, const QXErrorRef& error) const;
    std::shared_ptr<QXMediaManagerTrack> wrap(const QXLibraryTrackFields& fields);
    std::optional<QXLibraryTrackFields> file(const QXURL& source, QXErrorRef* error);

    std::unique_ptr<QXLibraryDatabase> database_;
    int64_t timeout_ = 10;
};

/// A file track of a library, as a copy of its stored fields; changes are
/// saved through the application that gave it, as long as that lives.
class QX_EXPORT QXMediaManagerTrack {
public:
    /// A track of the library `identifier` over these fields, saved through `owner` (held weakly).
    static std::shared_ptr<QXMediaManagerTrack> trackWithIdentifier(const std::string& identifier,
                                                                    const QXLibraryTrackFields& track,
                                                                    std::shared_ptr<QXMediaManagerApplication> owner);

    QXLibraryTrackFields track; ///< The stored fields as last read or saved.
    std::string identifier;     ///< The identifier of the track's library; decides which fields it keeps.

    /// Never null: a track that cannot be read gives an empty record.
    std::shared_ptr<QXMetaData> metadata() const;
    /// Writes every field, then the ratings and the media kind; failures
    /// are log lines (and a save failure is told to the delegate as 'setd').
    void setMetadata(const QXMetaData& metadata);
    /// When the track was added to the library; nullopt when unknown.
    std::optional<QXDate> dateAdded() const;
    /// The file's absolute path; nullopt when the track has none.
    std::optional<QXURL> location() const;
    /// Reads the file's tags again into the track and saves it.
    void refresh();
    /// The folder that holds the file.
    QXURL reveal() const;

private:
    bool save(QXErrorRef* error = nullptr);
    std::weak_ptr<QXMediaManagerApplication> owner_;
};
