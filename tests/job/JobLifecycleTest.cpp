#include <gtest/gtest.h>

#include <thread>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

std::shared_ptr<QXMovie> emptyMovie()
{
    return std::make_shared<QXMovie>(std::vector<QXURL> {});
}

// Stands in for the run: remembers which step start() chose, leaves the
// status it is told to and ends the run.
class ScriptedJob : public QXJob {
public:
    std::string step;
    int64_t outcome = QXJobStatusProcessing;

protected:
    bool startProcessing(QXErrorRef*) override { return run("processing"); }
    bool updateMetadata(QXErrorRef*) override { return run("update"); }

private:
    bool run(const char* name)
    {
        step = name;
        status = outcome;
        endRun();
        return true;
    }
};

std::shared_ptr<ScriptedJob> scriptedJob(const char* presetIdentifier)
{
    return QXJob::initWithMovie<ScriptedJob>(emptyMovie(), QXPreset::initWithIdentifier(presetIdentifier));
}

} // namespace

TEST(JobLifecycle, ChunkOffsetsWiden)
{
    struct Case {
        int32_t videoCodec; // 0: no video
        uint64_t fileSize;
        bool wide;
    };
    const Case cases[] = {
        {AV_CODEC_ID_H264, 0x40000000, false}, {AV_CODEC_ID_H264, 0x40000001, true},
        {0, 0x40000000, false},                {0, 0x40000001, true},
        {AV_CODEC_ID_HEVC, 0x20000000, false}, {AV_CODEC_ID_HEVC, 0x20000001, true},
        {AV_CODEC_ID_VP9, 0x20000000, false},  {AV_CODEC_ID_VP9, 0x20000001, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.videoCodec << " " << c.fileSize);
        auto movie = emptyMovie();
        movie->fileSize = c.fileSize;
        auto audio = QXAudioTrack::init();
        audio->codec_id = AV_CODEC_ID_HEVC; // only video tracks count
        movie->tracks.push_back(audio);
        if (c.videoCodec) {
            auto video = QXVideoTrack::init();
            video->codec_id = c.videoCodec;
            movie->tracks.push_back(video);
        }
        auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p));
        EXPECT_EQ(job->use64BitData, c.wide);
    }
}

TEST(JobLifecycle, NewJobStateAndEditingEndsWithQueue)
{
    auto job = QXJob::initWithMovie(emptyMovie(), QXPreset::initWithIdentifier(QXPresetApple720p));
    EXPECT_EQ(job->status, QXJobStatusIdle);
    ASSERT_TRUE(job->progress);
    ASSERT_TRUE(job->group);
    ASSERT_TRUE(job->processing_semaphore);
    EXPECT_FALSE(job->optimize || job->addToiTunes || job->moveToTrash);
    EXPECT_TRUE(job->canEditChapters());
    EXPECT_TRUE(job->canAttachSubtitles());

    QXErrorRef untouched = QXMedia::errorWithDomain(QXMediaErrorDomain, -13001);
    const QXErrorRef before = untouched;
    EXPECT_TRUE(job->queue(&untouched));
    EXPECT_EQ(untouched, before);
    EXPECT_EQ(job->status, QXJobStatusQueued);
    EXPECT_FALSE(job->canEditChapters());
    EXPECT_FALSE(job->canAttachSubtitles());
}

TEST(JobLifecycle, CancelIsAcceptedOnlyBetweenQueueAndTheEnd)
{
    for (int64_t status = QXJobStatusIdle; status <= QXJobStatusCancelled; ++status) {
        SCOPED_TRACE(status);
        auto movie = emptyMovie();
        auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p));
        job->status = status;
        job->cancel();
        const bool accepted = status >= QXJobStatusQueued && status <= QXJobStatusAddingToLibrary;
        EXPECT_EQ(job->status, accepted ? QXJobStatusCancelled : status);
        const QXErrorRef error = job->error();
        if (accepted) {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
            EXPECT_EQ(error->code(), 3072);
        } else {
            EXPECT_FALSE(error);
        }
    }
}

TEST(JobLifecycle, StartChoosesTheRunByPreset)
{
    const std::pair<const char*, const char*> cases[] = {
        {QXPresetUpdate, "update"},
        {QXPresetUpdateRename, "update"},
        {QXPresetApple1080p, "processing"},
        {QXPresetPassthrough, "processing"},
    };
    for (const auto& [identifier, step] : cases) {
        SCOPED_TRACE(identifier);
        auto job = scriptedJob(identifier);
        const double before = qx::CACurrentMediaTime();
        job->start();
        EXPECT_EQ(job->step, step);
        EXPECT_GE(job->startTime, before);
        EXPECT_EQ(job->progress->totalUnitCount(), 100);
        EXPECT_EQ(job->progress->completedUnitCount(), 100);
    }
    // A derived preset is never an update preset.
    auto job = QXJob::initWithMovie<ScriptedJob>(emptyMovie(), QXPreset::initWithIdentifier(QXPresetApple1080p)->copy());
    job->start();
    EXPECT_EQ(job->step, "processing");
}

// The end of a run finishes only a run that is still going.
TEST(JobLifecycle, EndOfRunNeverTurnsFailureOrCancelIntoSuccess)
{
    for (int64_t outcome = QXJobStatusProcessing; outcome <= QXJobStatusCancelled; ++outcome) {
        SCOPED_TRACE(outcome);
        auto job = scriptedJob(QXPresetApple1080p);
        job->outcome = outcome;
        job->start();
        const bool success = outcome < QXJobStatusFailed;
        EXPECT_EQ(job->waitUntilFinished(), success);
        EXPECT_EQ(job->status, success ? QXJobStatusFinished : outcome);
        EXPECT_FALSE(job->progressMovie());
    }
}

TEST(JobLifecycle, TimeLeftIsKnownOnlyAfterTenSecondsAndOnePercent)
{
    auto job = QXJob::initWithMovie(emptyMovie(), QXPreset::initWithIdentifier(QXPresetApple1080p));
    EXPECT_EQ(job->estimatedTimeLeft(), QXJobTimeLeftUnknown);
    job->progress->setTotalUnitCount(1000);
    job->progress->setCompletedUnitCount(500);
    job->startTime = qx::CACurrentMediaTime() - 5;
    EXPECT_EQ(job->estimatedTimeLeft(), QXJobTimeLeftUnknown);
    job->startTime = qx::CACurrentMediaTime() - 20;
    EXPECT_NEAR(job->estimatedTimeLeft(), 20.0, 0.5);
    job->progress->setCompletedUnitCount(10); // exactly 1%
    EXPECT_EQ(job->estimatedTimeLeft(), QXJobTimeLeftUnknown);
}

TEST(JobLifecycle, PauseWithoutAProgressMovieChangesNothing)
{
    auto job = QXJob::initWithMovie(emptyMovie(), QXPreset::initWithIdentifier(QXPresetApple1080p));
    job->status = QXJobStatusProcessing;
    job->startTime = 1234.5;
    std::thread([&] { job->togglePause(); }).join();
    EXPECT_EQ(job->startTime, 1234.5);
    EXPECT_EQ(job->status, QXJobStatusProcessing);
}
