// Pause and cancel of a running job, called from threads other than the one
// that started it, on a real read loop.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

// Long enough that the read loop fills its queues and blocks before the
// test lets the consumer drain them.
std::filesystem::path longVideo()
{
    return qxtest::generate("job-long.mkv", "-f lavfi -i testsrc2=size=64x48:rate=25:duration=40 "
                                            "-c:v libx264 -preset ultrafast -pix_fmt yuv420p");
}

// A run reduced to its skeleton: the movie's read loop feeds one output,
// a consumer drains it once the test opens its gate, and the run ends when
// the output has ended.
class ReadingJob : public QXJob {
public:
    dispatch_semaphore_t gate = dispatch_semaphore_create(0);
    std::atomic<size_t> samples {0};

protected:
    bool startProcessing(QXErrorRef*) override
    {
        auto output = QXTrackReaderOutput::initWithSource(movie->tracks.front());
        movie->tracks.front()->addOutput(output);
        setProgressMovie(movie);
        progress->becomeCurrentWithPendingUnitCount(100);
        const bool reading = movie->startReading();
        progress->resignCurrent();
        if (!reading) {
            fail(movie->error());
            endRun();
            return true;
        }
        auto self = std::static_pointer_cast<ReadingJob>(shared_from_this());
        dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [self, output] {
            dispatch_semaphore_wait(self->gate, DISPATCH_TIME_FOREVER);
            while (CMSampleBufferRef sample = output->copyNextSample()) ++self->samples;
            // As a real run ends: once the read loop is gone, tracks, outputs
            // and readers let go of each other.
            dispatch_group_wait(self->movie->readLoopGroup, DISPATCH_TIME_FOREVER);
            for (const QXTrackRef& track : self->movie->tracks) {
                dispatch_sync(track->outQueue, [] {});
                track->outputs.clear();
            }
            self->movie->releaseReaders();
            self->endRun();
        });
        return true;
    }
};

std::shared_ptr<ReadingJob> readingJob()
{
    auto movie = QXMovie::initWithURL(longVideo());
    if (!movie || movie->tracks.empty()) return nullptr;
    auto job = QXJob::initWithMovie<ReadingJob>(movie, QXPreset::initWithIdentifier(QXPresetApple1080p));
    // Cancel finds the movies to stop through the plan.
    const QXTrackRef& video = movie->tracks.front();
    job->tracks = {QXTrackJob::initWithSource(video, video->copy(), QXTrackJobTypeKeep)};
    job->queue();
    return job;
}

} // namespace

TEST(JobThreads, CancelOfAPausedJobReleasesThePauseAndEndsTheRun)
{
    auto job = readingJob();
    ASSERT_TRUE(job);
    std::thread([&] { job->start(); }).join();
    ASSERT_EQ(job->progressMovie(), job->movie);

    std::thread([&] { job->togglePause(); }).join();
    EXPECT_TRUE(job->movie->isPaused);
    EXPECT_EQ(job->status, QXJobStatusProcessing) << "a paused job is still processing";
    EXPECT_LT(job->startTime, 60.0) << "while paused the start time holds the time elapsed";

    std::thread([&] { job->cancel(); }).join();
    EXPECT_FALSE(job->movie->isPaused);
    EXPECT_EQ(job->status, QXJobStatusCancelled);
    EXPECT_EQ(job->movie->status, QXMovieStatusCancelled);
    dispatch_semaphore_signal(job->gate);

    EXPECT_FALSE(job->waitUntilFinished());
    EXPECT_EQ(job->status, QXJobStatusCancelled);
    ASSERT_TRUE(job->error());
    EXPECT_EQ(job->error()->code(), 3072);
    EXPECT_LT(job->samples, 1000u);
    // After the end pause and cancel are harmless.
    const double startTime = job->startTime;
    job->togglePause();
    job->cancel();
    EXPECT_EQ(job->startTime, startTime);
    EXPECT_EQ(job->status, QXJobStatusCancelled);
}
