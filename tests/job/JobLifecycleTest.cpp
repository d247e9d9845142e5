#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

std::shared_ptr<QXMovie> emptyMovie()
{
    return std::make_shared<QXMovie>(std::vector<QXURL> {});
}

// Stands in for the run: remembers the step start() chose, leaves the
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

} // namespace

TEST(JobLifecycle, ChunkOffsetsWidenAboveTheCodecsLimit)
{
    const std::tuple<int32_t, uint64_t, bool> cases[] = {
        {AV_CODEC_ID_H264, 0x40000000, false}, {AV_CODEC_ID_H264, 0x40000001, true}, {0, 0x40000001, true},
        {AV_CODEC_ID_HEVC, 0x20000000, false}, {AV_CODEC_ID_HEVC, 0x20000001, true}, {AV_CODEC_ID_VP9, 0x20000001, true},
    };
    for (const auto& [codec, size, wide] : cases) {
        auto movie = emptyMovie();
        movie->fileSize = size;
        if (codec) {
            movie->tracks.push_back(QXVideoTrack::init());
            movie->tracks.back()->codec_id = codec;
        }
        EXPECT_EQ(QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p))->use64BitData, wide)
            << codec << " " << size;
    }
}

TEST(JobLifecycle, CancelIsAcceptedOnlyBetweenQueueAndTheEnd)
{
    auto job = QXJob::initWithMovie(emptyMovie(), QXPreset::initWithIdentifier(QXPresetApple1080p));
    EXPECT_TRUE(job->canEditChapters());
    EXPECT_TRUE(job->queue());
    EXPECT_FALSE(job->canAttachSubtitles());

    for (int64_t status = QXJobStatusIdle; status <= QXJobStatusCancelled; ++status) {
        job->status = status;
        job->setError(nullptr);
        job->cancel();
        const bool accepted = status >= QXJobStatusQueued && status <= QXJobStatusAddingToLibrary;
        EXPECT_EQ(job->status, accepted ? QXJobStatusCancelled : status) << status;
        EXPECT_EQ(job->error() && job->error()->domain() == NSCocoaErrorDomain && job->error()->code() == 3072,
                  accepted) << status;
    }
}

// The update presets rewrite the source; every other preset converts. The
// end of a run finishes only a run that has neither failed nor been cancelled.
TEST(JobLifecycle, StartChoosesTheRunAndTheEndKeepsFailureAndCancel)
{
    for (const char* identifier : {QXPresetUpdate, QXPresetUpdateRename, QXPresetApple1080p}) {
        auto job = QXJob::initWithMovie<ScriptedJob>(emptyMovie(), QXPreset::initWithIdentifier(identifier));
        job->preset = QXPreset::initWithIdentifier(identifier); // planning falls back to update without video
        job->start();
        EXPECT_EQ(job->step, identifier == std::string(QXPresetApple1080p) ? "processing" : "update") << identifier;
    }
    for (int64_t outcome = QXJobStatusProcessing; outcome <= QXJobStatusCancelled; ++outcome) {
        auto job = QXJob::initWithMovie<ScriptedJob>(emptyMovie(), QXPreset::initWithIdentifier(QXPresetApple1080p));
        job->outcome = outcome;
        job->start();
        EXPECT_EQ(job->waitUntilFinished(), outcome < QXJobStatusFailed) << outcome;
        EXPECT_EQ(job->status, outcome < QXJobStatusFailed ? QXJobStatusFinished : outcome);
        EXPECT_EQ(job->progress->completedUnitCount(), 100);
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

// An archive keeps the status alone; what comes back does not run.
TEST(JobLifecycle, ArchiveHoldsTheStatusOnly)
{
    auto job = QXJob::initWithMovie(emptyMovie(), QXPreset::initWithIdentifier(QXPresetApple1080p));
    job->destination = "/tmp/out.m4v";
    job->status = QXJobStatusProcessing;
    const QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*job);
    EXPECT_EQ(archive.dictionary()->at("$top").dictionary()->at("root").dictionary()->size(), 2u); // $class, status

    auto restored = QXKeyedUnarchiver::unarchivedObjectOfClass<QXJob>(*QXKeyedArchiver::archivedDataWithRootObject(*job));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->status, QXJobStatusProcessing);
    EXPECT_FALSE(restored->movie || restored->progress || !restored->destination.empty());
    EXPECT_FALSE(restored->waitUntilFinished());
}
