// The steps after the output exists: fast start, the hand-over to the
// media library, the trash, and failed library events. Each blocks the
// calling thread (the end of the run) while its work runs on a global
// queue, and reports through status and error.

#include <sys/stat.h>

#include <cstdlib>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/platform/trash/QXTrash.h"

namespace fs = std::filesystem;
using namespace qx;

namespace {

constexpr int64_t kOptimizeFailedCode = -13004;
constexpr int64_t kLibraryHadItemCode = -13005;
constexpr int64_t kLibraryAddFailedCode = -13006;
constexpr int64_t kAutomationDenied = -1743;
constexpr int64_t kAutomationDeniedByTarget = -1742;
constexpr int64_t kEventBusy = -54;
constexpr int64_t kTickNanoseconds = 500000;

std::string describe(const QXErrorRef& error)
{
    return error ? error->description() : std::string("(null)");
}

std::string fourCharacters(uint32_t code)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) text += char(code >> shift);
    return text;
}

// A folder beside `url` (same file system, so the result is renamed in),
// or an empty path.
QXURL temporaryFolderFor(const QXURL& url)
{
    std::string pattern = (fs::absolute(url).parent_path() / ".qxmedia-optimize-XXXXXX").string();
    return mkdtemp(pattern.data()) ? QXURL(pattern) : QXURL();
}

// Runs `work` on a global queue and calls `tick` every half millisecond
// until it is done.
void runWithTicks(const std::function<void()>& work, const std::function<void()>& tick)
{
    dispatch_semaphore_t done = dispatch_semaphore_create(0);
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT), [work, done] {
        work();
        dispatch_semaphore_signal(done);
    });
    while (dispatch_semaphore_wait(done, dispatch_time(DISPATCH_TIME_NOW, kTickNanoseconds)) != 0) tick();
}

} // namespace

bool QXJob::optimizeFile(const QXURL& url)
{
    status = QXJobStatusOptimizing;
    auto child = QXProgress::progressWithTotalUnitCount(-1);
    bool optimized = false;
    QXErrorRef stepError;
    runWithTicks(
        [&] {
            std::error_code failure;
            uintmax_t size = fs::file_size(url, failure);
            if (failure) size = 0;
            else child->setTotalUnitCount(int64_t(size));
            const QXURL folder = temporaryFolderFor(url);
            if (folder.empty()) return;
            const QXURL temporary = folder / url.filename();
            optimized = mp4::MP4File::optimize(url, temporary, [&](double done) {
                child->setCompletedUnitCount(int64_t(done * double(size)));
            });
            if (optimized) {
                // The rewrite takes the original's permissions, not its own.
                struct stat original {};
                if (::stat(url.c_str(), &original) == 0) ::chmod(temporary.c_str(), original.st_mode & 07777);
                fs::rename(temporary, url, failure);
                if (failure) {
                    optimized = false;
                    stepError = QXMedia::errorWithDomain(NSCocoaErrorDomain, NSFileWriteUnknownError,
                                                         {{NSFilePathErrorKey, QXValue(url.string())},
                                                          {NSLocalizedDescriptionKey, QXValue(failure.message())}});
                }
            }
            fs::remove_all(folder, failure);
            if (failure) QXLogWarning("Failed to remove temporary file: %s", failure.message().c_str());
        },
        [] {});
    child->setCompletedUnitCount(child->totalUnitCount());
    if (optimized) return true;

    if (!stepError) {
        QXDictionary info {{NSLocalizedDescriptionKey, QXValue("Failed to optimize Video for Web Streaming")}};
        if (!url.empty()) info.emplace(NSURLErrorKey, QXValue(url));
        stepError = QXMedia::errorWithDomain(QXMediaErrorDomain, kOptimizeFailedCode, info);
    }
    setError(stepError);
    status = QXJobStatusFailed;
    return false;
}

std::shared_ptr<QXMediaManagerTrack> QXJob::addFileToiTunes(const QXURL& url)
{
    status = QXJobStatusAddingToLibrary;
    auto child = QXProgress::progressWithTotalUnitCount(2147483647);
    std::shared_ptr<QXMediaManagerTrack> added;
    runWithTicks([&] { added = handOverToLibrary(url); },
                 [&] { child->setCompletedUnitCount(child->completedUnitCount() + 1); });
    child->setCompletedUnitCount(child->totalUnitCount());
    return added;
}

std::shared_ptr<QXMediaManagerTrack> QXJob::handOverToLibrary(const QXURL& url)
{
    std::shared_ptr<QXMediaManagerTrack> added;
    try {
        iTunesError = nullptr;
        auto application = libraryIdentifier.empty()
                               ? QXMediaManagerApplication::applicationForMediaKind(metadata ? metadata->videoKind : 0)
                               : QXMediaManagerApplication::applicationWithBundleIdentifier(libraryIdentifier);
        if (application) {
            application->setTimeout(-2);
            application->copiesFiles = libraryCopiesFiles;
            std::weak_ptr<QXJob> weakSelf = weak_from_this();
            application->delegate = [weakSelf](uint32_t eventType, const QXErrorRef& error) {
                if (auto self = weakSelf.lock()) self->eventDidFail(eventType, error);
            };
            const QXDate before = std::chrono::system_clock::now();
            added = application->add(url);
            if (!added) {
                status = QXJobStatusFailed;
                QXDictionary info {{NSURLErrorKey, QXValue(url)}};
                if (iTunesError) {
                    info.emplace(NSUnderlyingErrorKey, QXValue(iTunesError->description()));
                    if (iTunesError->code() == kAutomationDenied || iTunesError->code() == kAutomationDeniedByTarget) {
                        info.emplace(NSLocalizedDescriptionKey,
                                     QXValue("iTunes does not allow Quorix to add files because access to iTunes was "
                                             "denied by the user."));
                    }
                }
                setError(QXMedia::errorWithDomain(QXMediaErrorDomain, kLibraryAddFailedCode, info));
            } else if (added->dateAdded() && added->location() &&
                       std::chrono::floor<std::chrono::seconds>(before) > *added->dateAdded()) {
                // The library answered with an item it already had.
                setError(QXMedia::errorWithDomain(QXMediaErrorDomain, kLibraryHadItemCode,
                                                  {{NSURLErrorKey, QXValue(url)}}));
            } else if (auto location = added->location(); location && !isSameFile(url, *location)) {
                QXLogInfo("iTunes copied file %s to %s. Deleting source!", url.c_str(), location->c_str());
                std::error_code failure;
                fs::remove(url, failure);
                if (failure) QXLogWarning("Failed to delete %s: %s", url.c_str(), failure.message().c_str());
            }
            if (added && metadata) added->setMetadata(*metadata);
        }
        if (!error() && iTunesError) setError(iTunesError);
    } catch (const std::exception& exception) {
        QXLogWarning("Exception adding video to Apple TV/iTunes: %s", exception.what());
        added = nullptr;
        status = QXJobStatusFailed;
        setError(QXMedia::errorWithDomain(QXMediaErrorDomain, kLibraryAddFailedCode,
                                          {{NSURLErrorKey, QXValue(url)},
                                           {NSLocalizedDescriptionKey, QXValue(exception.what())}}));
    }
    return added;
}

bool QXJob::trashItemAtURL(const QXURL& url, QXURL* trashedURL, QXErrorRef* error)
{
    QXURL trashed;
    QXErrorRef trashError;
    if (qx::trashItemAtURL(url, &trashed, &trashError)) {
        if (trashedURL) *trashedURL = trashed;
        return true;
    }
    // A volume without a trash is no news: the item is deleted instead.
    if (!(trashError && trashError->domain() == NSCocoaErrorDomain && trashError->code() == NSFeatureUnsupportedError)) {
        QXLogWarning("Failed to move %s to trash: %s", url.c_str(), describe(trashError).c_str());
    }
    std::error_code failure;
    fs::remove_all(url, failure);
    if (!failure) return true;
    QXSetError(error, QXMedia::errorWithDomain(NSCocoaErrorDomain, NSFileWriteUnknownError,
                                               {{NSFilePathErrorKey, QXValue(url.string())},
                                                {NSLocalizedDescriptionKey, QXValue(failure.message())}}));
    return false;
}

void QXJob::eventDidFail(uint32_t descriptorType, const QXErrorRef& error)
{
    // A busy library (-54) is worth a line, not a failure.
    if (!error) iTunesError = nullptr;
    else if (!(error->domain() == NSOSStatusErrorDomain && error->code() == kEventBusy)) iTunesError = error;

    const std::string event = fourCharacters(descriptorType);
    if (!error) QXLogWarning("iTunes eventDidFail for %s", event.c_str());
    else if (error->userInfo().empty()) QXLogWarning("iTunes eventDidFail for %s: %s", event.c_str(), describe(error).c_str());
    else
        QXLogWarning("iTunes eventDidFail for %s: %s (%s)", event.c_str(), describe(error).c_str(),
                     QXValue(error->userInfo()).description().c_str());
}

// The finishing steps of an in-place update around its rename: the library
// entry of the source takes the new tags and the file is made fast-start
// before it; the file is handed to the library after it.
void QXJob::finishUpdatedFile()
{
    if (originalTrack && status < QXJobStatusFailed) {
        status = QXJobStatusAddingToLibrary;
        auto child = QXProgress::progressWithTotalUnitCount(-1);
        runWithTicks(
            [&] {
                originalTrack->refresh();
                if (metadata) originalTrack->setMetadata(*metadata);
                if (auto location = originalTrack->location(); location && movie) movie->fileURL = *location;
            },
            [&] { child->setCompletedUnitCount(child->completedUnitCount() <= 0 ? 1 : 0); });
    }
    if (optimize && movie && status < QXJobStatusFailed) {
        progress->setCompletedUnitCount(0);
        progress->becomeCurrentWithPendingUnitCount(100);
        optimizeFile(movie->fileURL);
        progress->resignCurrent();
    }
}

void QXJob::addUpdatedFileToLibrary()
{
    finishOutputToLibrary();
}
