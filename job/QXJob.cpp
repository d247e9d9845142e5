// The job object: creation, status, start, pause, cancel, waiting and the
// estimate of time left.

#include "qxmedia/job/QXJob.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

double qx::CACurrentMediaTime()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool qx::isSameFile(const QXURL& a, const QXURL& b)
{
    struct stat first {}, second {};
    if (::stat(a.c_str(), &first) != 0 || ::stat(b.c_str(), &second) != 0) return false;
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

QXURL qx::partialURLFor(const QXURL& url)
{
    static std::atomic<unsigned> counter {0};
    const QXURL absolute = std::filesystem::absolute(url);
    const std::string stem = "." + absolute.stem().string() + ".part-" + std::to_string(::getpid()) + "-";
    for (;;) {
        QXURL candidate =
            absolute.parent_path() / (stem + std::to_string(++counter) + absolute.extension().string());
        std::error_code ignored;
        if (!std::filesystem::exists(std::filesystem::symlink_status(candidate, ignored))) return candidate;
    }
}

namespace {

// Beyond these sizes 32-bit chunk offsets may not reach the end of the
// output: HEVC and VP9 sources shrink less when converted, so they get the
// lower limit.
constexpr uint64_t kLarge32BitLimit = 0x40000000;
constexpr uint64_t kCompact32BitLimit = 0x20000000;

bool needs64BitData(const QXMovie& movie)
{
    uint64_t limit = kLarge32BitLimit;
    for (const QXTrackRef& track : movie.tracks) {
        if (!std::dynamic_pointer_cast<QXVideoTrack>(track)) continue;
        if (track->codec_id == AV_CODEC_ID_HEVC || track->codec_id == AV_CODEC_ID_VP9) limit = kCompact32BitLimit;
    }
    return movie.fileSize > limit;
}

bool isUpdatePreset(const QXPreset* preset)
{
    return preset && (preset->identifier == QXPresetUpdate || preset->identifier == QXPresetUpdateRename);
}

} // namespace

QXJob::~QXJob() = default;

std::shared_ptr<QXJob> QXJob::init()
{
    return std::make_shared<QXJob>();
}

std::shared_ptr<QXJob> QXJob::initWithMovie(const std::shared_ptr<QXMovie>& movie,
                                            const std::shared_ptr<QXPreset>& preset)
{
    return initWithMovie<QXJob>(movie, preset);
}

void QXJob::setUp(const std::shared_ptr<QXMovie>& newMovie, const std::shared_ptr<QXPreset>& newPreset)
{
    preset = newPreset;
    movie = newMovie;
    attachedMovies.clear();
    attachedTracks.clear();
    tracks.clear();
    removedTracks.clear();
    progress = QXProgress::init();
    status = QXJobStatusIdle;
    use64BitData = movie && needs64BitData(*movie);
    optimize = addToiTunes = moveToTrash = false;
    group = dispatch_group_create();
    processing_semaphore = dispatch_semaphore_create(0);
    applyPreset(newPreset);
}

QXErrorRef QXJob::error() const
{
    std::lock_guard<std::mutex> hold(lock_);
    return error_;
}

void QXJob::setError(const QXErrorRef& error)
{
    std::lock_guard<std::mutex> hold(lock_);
    error_ = error;
}

std::shared_ptr<QXMovie> QXJob::progressMovie() const
{
    std::lock_guard<std::mutex> hold(lock_);
    return progressMovie_.lock();
}

void QXJob::setProgressMovie(const std::shared_ptr<QXMovie>& movie)
{
    std::lock_guard<std::mutex> hold(lock_);
    progressMovie_ = movie;
}

bool QXJob::queue(QXErrorRef*)
{
    status = QXJobStatusQueued;
    return true;
}

bool QXJob::start(QXErrorRef* error)
{
    if (progress) progress->setTotalUnitCount(100);
    startTime = CACurrentMediaTime();
    status = QXJobStatusProcessing;
    if (isUpdatePreset(preset.get())) return updateMetadata(error);
    return startProcessing(error);
}

void QXJob::togglePause()
{
    const std::shared_ptr<QXMovie> reading = progressMovie();
    if (!reading) return;
    // The first toggle turns the start time into the time elapsed so far,
    // the second turns that back into a start time shifted by the pause.
    startTime = CACurrentMediaTime() - startTime;
    reading->togglePause();
}

void QXJob::cancel()
{
    const int64_t current = status;
    if (current < QXJobStatusQueued || current > QXJobStatusAddingToLibrary) return;

    // A paused read loop must run on to see that its movie was cancelled.
    if (const std::shared_ptr<QXMovie> reading = progressMovie(); reading && reading->isPaused) reading->togglePause();

    // Status and error are in place before any reader learns of the cancel.
    status = QXJobStatusCancelled;
    setError(QXMedia::errorWithDomain(NSCocoaErrorDomain, QXErrorUserCancelled));

    std::vector<std::shared_ptr<QXMovie>> movies;
    for (const QXTrackJobRef& trackJob : tracks) {
        std::shared_ptr<QXMovie> source = trackJob && trackJob->source ? trackJob->source->source.lock() : nullptr;
        if (source && std::find(movies.begin(), movies.end(), source) == movies.end()) movies.push_back(source);
    }
    for (const std::shared_ptr<QXMovie>& source : movies) source->cancelReading();
}

bool QXJob::waitUntilFinished()
{
    // A job brought back from an archive never runs.
    if (processing_semaphore) dispatch_semaphore_wait(processing_semaphore, DISPATCH_TIME_FOREVER);
    return status == QXJobStatusFinished;
}

double QXJob::estimatedTimeLeft() const
{
    const double start = startTime;
    if (!(start > 0)) return QXJobTimeLeftUnknown;
    const double elapsed = CACurrentMediaTime() - start;
    if (!(elapsed > 10.0)) return QXJobTimeLeftUnknown;
    const double fraction = progress ? progress->fractionCompleted() : 0.0;
    if (!(fraction > 0.01)) return QXJobTimeLeftUnknown;
    return elapsed / fraction - elapsed;
}

void QXJob::endRun()
{
    setProgressMovie(nullptr);
    if (progress) progress->setCompletedUnitCount(progress->totalUnitCount());
    // A cancel that races the end keeps its status.
    int64_t current = status;
    while (current < QXJobStatusFinished && !status.compare_exchange_weak(current, QXJobStatusFinished)) {
    }
    if (processing_semaphore) dispatch_semaphore_signal(processing_semaphore);
}

void QXJob::fail(const QXErrorRef& error)
{
    status = QXJobStatusFailed;
    if (error) setError(error);
}

QXURL QXJob::sourceAtDestination() const
{
    if (destination.empty()) return {};
    std::vector<std::shared_ptr<QXMovie>> sources = attachedMovies;
    sources.push_back(movie);
    for (const QXTrackJobRef& line : tracks) {
        if (line) sources.push_back(line->movie.lock());
    }
    for (const std::shared_ptr<QXMovie>& source : sources) {
        if (!source) continue;
        for (const QXURL& url : source->fileURLs) {
            if (isSameFile(url, destination)) return url;
        }
    }
    return {};
}

std::string QXJob::description() const
{
    return "<QXJob " + (movie ? movie->description() : std::string("(no movie)")) +
           " status: " + std::to_string(status.load()) + ">";
}
