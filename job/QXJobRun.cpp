// The conversion run: the plan becomes a graph of reader outputs, channels
// and muxer inputs around one muxer; each source movie runs its own read
// loop, and one dispatch group tells when everything has ended.

#include <algorithm>
#include <mutex>
#include <set>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/muxer/QXMuxer.h"
#include "qxmedia/muxer/QXMuxerChapterInput.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/platform/trash/QXTrash.h"
#include "qxmedia/reader/QXSampleBufferChannel.h"
#include "qxmedia/reader/QXSync.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

// What a run keeps while its blocks live. The error cell is written by the
// start of the muxer and read by the group's notification.
struct RunState {
    std::vector<std::shared_ptr<QXSampleBufferChannel>> channels;
    std::vector<std::shared_ptr<QXMovie>> movies; // started, in the order of their first track job
    std::vector<std::shared_ptr<QXMovie>> reading; // those whose read loop runs
    std::vector<QXTrackJobRef> lines;              // joined by the channels, in the same order
    std::mutex lock;
    QXErrorRef errorCell;

    QXErrorRef error()
    {
        std::lock_guard hold(lock);
        return errorCell;
    }

    void stopAll() const
    {
        for (const auto& started : movies) started->cancelReading();
        for (const auto& channel : channels) channel->cancel();
    }

    // Once the channels stopped pulling, a read loop can stay blocked on a
    // full output. Cancelled, each loop stops at its next test once it gets
    // going again, so the outputs of running loops are emptied, all at the
    // same time (a loop feeds them in turn), until their ends.
    void drainReadLoops() const
    {
        for (const auto& started : movies) {
            started->cancelReading();
            if (started->isPaused) started->togglePause();
        }
        dispatch_group_t drained = dispatch_group_create();
        for (const QXTrackJobRef& line : lines) {
            std::shared_ptr<QXMovie> owner = line->source->source.lock();
            if (std::find(reading.begin(), reading.end(), owner) == reading.end()) continue;
            std::shared_ptr<QXTrackReaderOutput> output = line->readerOutput;
            dispatch_group_async(drained, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT), [output] {
                while (CMSampleBufferRef sample = output->copyNextSample()) {
                }
            });
        }
        dispatch_group_wait(drained, DISPATCH_TIME_FOREVER);
    }
};

bool takesPart(const QXTrackJob& trackJob)
{
    return trackJob.type != QXTrackJobTypeKeep && trackJob.muxerInput;
}

std::shared_ptr<QXMovie> movieOf(const QXTrackJob& trackJob)
{
    return trackJob.source ? trackJob.source->source.lock() : nullptr;
}

std::string describe(const QXErrorRef& error)
{
    return error ? error->description() : std::string("(null)");
}

// Tracks and their reader outputs hold each other during a run; the end of
// the run lets go of both sides, once each read loop is done with them.
void releaseOutputs(const std::vector<QXTrackJobRef>& tracks)
{
    std::vector<std::shared_ptr<QXMovie>> movies;
    for (const QXTrackJobRef& trackJob : tracks) {
        if (!trackJob || !takesPart(*trackJob)) continue;
        std::shared_ptr<QXMovie> source = movieOf(*trackJob);
        if (source && std::find(movies.begin(), movies.end(), source) == movies.end()) movies.push_back(source);
    }
    for (const auto& source : movies) source->endRun();
}

} // namespace

bool QXJob::startProcessing(QXErrorRef* error)
{
    // Refused before anything is written: the rename at the end would
    // replace the source with its own conversion.
    if (const QXURL source = sourceAtDestination(); !source.empty()) {
        QXErrorRef refusal = QXMedia::errorWithDomain(
            NSCocoaErrorDomain, QXErrorFileWriteFileExists,
            {{NSFilePathErrorKey, QXValue(destination.string())},
             {NSLocalizedDescriptionKey, QXValue("the output is the source " + source.string() + " itself")}});
        QXSetError(error, refusal);
        fail(refusal);
        endRun();
        return false;
    }
    partialDestination = partialURLFor(destination);

    if (chapters && !chapters->chapters.empty()) {
        progress->becomeCurrentWithPendingUnitCount(100);
        generateChapterImages();
        progress->resignCurrent();
        progress->setCompletedUnitCount(0);
    }

    auto muxer = QXMuxer::initWithURL(partialDestination, "com.apple.m4v-video", error);
    muxer->use64BitData = use64BitData;
    muxer->metadata = metadata;
    auto sync = QXSync::init();

    std::weak_ptr<QXJob> weakSelf = weak_from_this();
    auto finished = [weakSelf, muxer](const QXErrorRef& runError) {
        std::shared_ptr<QXJob> self = weakSelf.lock();
        if (self) self->finishProcessing(runError, muxer);
    };
    startMuxing(muxer, sync, finished, error);
    return true;
}

void QXJob::finishProcessing(const QXErrorRef& runError, const std::shared_ptr<QXMuxer>& muxer)
{
    if (runError) {
        fail(runError);
    } else if (muxer && muxer->status == QXMuxerStatusFailed) {
        fail(muxer->error);
    }
    QXURL output = partialDestination;
    if (status < QXJobStatusFailed) renamePartialOutput();
    if (status < QXJobStatusFailed) {
        output = destination;
        finishOutput();
    }

    // A failed or cancelled run moves its output to the trash, where the
    // user can still look at what was written; `destination` then names
    // the trashed file. A run that failed before the rename leaves whatever
    // sat under the final name untouched.
    const int64_t ended = status;
    if (!output.empty() && (ended == QXJobStatusFailed || ended == QXJobStatusCancelled) &&
        std::filesystem::exists(output)) {
        QXURL trashed;
        QXErrorRef trashError;
        if (!trashItemAtURL(output, &trashed, &trashError)) {
            QXLogWarning("Failed to delete %s: %s", output.c_str(), describe(trashError).c_str());
        } else if (!trashed.empty()) {
            destination = trashed;
        }
    }

    if (status < QXJobStatusFailed && moveToTrash) {
        std::set<QXURL> urls;
        for (const QXTrackJobRef& trackJob : tracks) {
            std::shared_ptr<QXMovie> owner = trackJob ? trackJob->movie.lock() : nullptr;
            if (owner) urls.insert(owner->fileURLs.begin(), owner->fileURLs.end());
        }
        for (const QXURL& url : urls) {
            QXErrorRef trashError;
            if (!trashItemAtURL(url, nullptr, &trashError)) {
                QXLogWarning("Failed to move to trash %s: %s", url.c_str(), describe(trashError).c_str());
            }
        }
    }

    endRun();
}

void QXJob::finishOutput()
{
    if (optimize && status < QXJobStatusFailed) {
        progress->setCompletedUnitCount(0);
        progress->becomeCurrentWithPendingUnitCount(100);
        optimizeFile(destination);
        progress->resignCurrent();
    }
    finishOutputToLibrary();
}

void QXJob::finishOutputToLibrary()
{
    if (addToiTunes && status < QXJobStatusFailed) {
        progress->setCompletedUnitCount(0);
        progress->becomeCurrentWithPendingUnitCount(100);
        if (auto added = addFileToiTunes(destination)) {
            track = added;
            if (auto location = added->location()) destination = *location;
        }
        progress->resignCurrent();
    }
}

void QXJob::renamePartialOutput()
{
    std::error_code failure;
    std::filesystem::rename(partialDestination, destination, failure);
    if (!failure) return;
    fail(QXMedia::errorWithDomain(NSCocoaErrorDomain, QXErrorFileWriteUnknown,
                                  {{NSFilePathErrorKey, QXValue(destination.string())},
                                   {NSLocalizedDescriptionKey, QXValue(failure.message())}}));
}

bool QXJob::startMuxing(const std::shared_ptr<QXMuxer>& muxer, const std::shared_ptr<QXSync>& sync,
                        std::function<void(const QXErrorRef&)> completionHandler, QXErrorRef* error)
{
    auto run = std::make_shared<RunState>();
    std::weak_ptr<QXJob> weakSelf = weak_from_this();

    dispatch_group_enter(group);
    dispatch_group_notify(group, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT),
                          [run, muxer, weakSelf, completionHandler] {
                              // A failed write or start stops the channels, not the read loops.
                              if (!muxer || muxer->status != QXMuxerStatusCompleted) run->drainReadLoops();
                              // The read loops are done before the file gets its final
                              // name or goes, and before an update closes its edit.
                              releaseOutputs(run->lines);
                              if (completionHandler) completionHandler(run->error());
                              if (std::shared_ptr<QXJob> self = weakSelf.lock()) self->setProgressMovie(nullptr);
                          });

    for (const QXTrackJobRef& trackJob : tracks) {
        if (!trackJob || trackJob->type == QXTrackJobTypeKeep || !trackJob->readerOutput || !trackJob->muxerInput) {
            continue;
        }
        if (auto chapterInput = std::dynamic_pointer_cast<QXMuxerChapterInput>(trackJob->muxerInput)) {
            chapterInput->chapters = chapters;
        }
        trackJob->source->addOutput(trackJob->readerOutput);
        muxer->addInput(trackJob->muxerInput);
        auto channel = QXSampleBufferChannel::initWithReaderOutput(trackJob->readerOutput, trackJob->muxerInput, sync);
        run->channels.push_back(channel);
        run->lines.push_back(trackJob);
        dispatch_group_enter(group);
        dispatch_group_t runGroup = group;
        channel->startWithDelegate(this, [runGroup] { dispatch_group_leave(runGroup); });
    }

    QXErrorRef startFailure;
    for (const QXTrackJobRef& trackJob : tracks) {
        if (!trackJob || !takesPart(*trackJob)) continue;
        std::shared_ptr<QXMovie> source = movieOf(*trackJob);
        if (!source) continue;
        if (std::dynamic_pointer_cast<QXVideoTrack>(trackJob->source) && !progressMovie()) setProgressMovie(source);
        if (std::find(run->movies.begin(), run->movies.end(), source) != run->movies.end()) continue;

        const bool reportsProgress = source == progressMovie();
        if (reportsProgress) progress->becomeCurrentWithPendingUnitCount(100);
        const bool started = source->startReading();
        if (started && source->status == QXMovieStatusFinished && source->error()) {
            setError(source->error());
        } else if (!started && source->status != QXMovieStatusCancelled) {
            QXLogWarning("Failed reading: %s: %s", source->description().c_str(), describe(source->error()).c_str());
            status = QXJobStatusFailed;
            if (source->error()) startFailure = source->error();
        }
        if (started) run->reading.push_back(source);
        if (reportsProgress) progress->resignCurrent();
        run->movies.push_back(source);
    }

    if (startFailure) {
        QXSetError(error, startFailure);
        setError(startFailure);
        run->stopAll();
        dispatch_group_leave(group);
        return false;
    }

    // Writing starts once every read loop runs: the loops wait on their
    // bounded queues until the inputs start pulling.
    dispatch_group_enter(group);
    dispatch_group_t runGroup = group;
    QXErrorRef startError;
    if (!muxer->startWritingWithCompletionHandler([runGroup] { dispatch_group_leave(runGroup); }, &startError)) {
        {
            std::lock_guard hold(run->lock);
            run->errorCell = startError;
        }
        QXSetError(error, startError);
        run->stopAll();
    }
    dispatch_group_leave(group);
    return true;
}
