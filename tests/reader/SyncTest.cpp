// The timeline sync: how audio is kept gapless and when held subtitles
// leave.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include <cmath>
#include <thread>

#include "ReaderSupport.h"
#include "qxmedia/reader/QXSync.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/reader/QXTrackReaderAudioOutputProtocol.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace readertest;

namespace {

// An input that keeps what is appended, in order, with the stream it came
// from; it can refuse.
class RecordingInput : public QXMuxerInputProtocol {
public:
    explicit RecordingInput(std::string name = {}) : name_(std::move(name)) {}

    bool isReadyForMoreMediaData() const override { return true; }
    void requestMediaDataWhenReadyOnQueue(dispatch_queue_t queue, std::function<void()> block) override
    {
        dispatch_async(queue, std::move(block));
    }
    bool appendSampleBuffer(const CMSampleBufferRef& sample) override
    {
        std::lock_guard guard(lock_);
        appended.push_back(sample);
        if (log) log->push_back(name_);
        return accept;
    }
    void processSample(const CMSampleBufferRef&) override {}
    void markAsFinished() override { finished = true; }

    std::vector<CMSampleBufferRef> samples() const
    {
        std::lock_guard guard(lock_);
        std::vector<CMSampleBufferRef> present;
        for (const auto& sample : appended) {
            if (sample) present.push_back(sample);
        }
        return present;
    }

    bool accept = true;
    std::atomic<bool> finished {false};
    std::vector<std::string>* log = nullptr; // shared order of appends across inputs
    std::vector<CMSampleBufferRef> appended;

private:
    std::string name_;
    mutable std::mutex lock_;
};

// An audio output that makes silence of a fixed length.
class SilentOutput : public QXTrackReaderOutput, public QXTrackReaderAudioOutputProtocol {
public:
    SilentOutput(std::shared_ptr<QXTrack> track, int64_t silenceMs) : QXTrackReaderOutput(std::move(track)), ms_(silenceMs)
    {
    }
    CMSampleBufferRef silentSample() override { return timed(0, ms_); }

    static CMSampleBufferRef timed(int64_t ptsMs, int64_t durationMs)
    {
        CMSampleBufferRef sample = makeSample(ptsMs, ptsMs);
        CMSampleTimingInfo timing {CMTimeMake(durationMs, 1000), CMTimeMake(ptsMs, 1000), CMTimeMake(ptsMs, 1000)};
        CMSampleBufferRef copy;
        CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy);
        return copy;
    }

private:
    int64_t ms_;
};

// A sample at ptsMs lasting durationMs (dts equal to pts), in milliseconds.
CMSampleBufferRef at(int64_t ptsMs, int64_t durationMs = 40)
{
    return SilentOutput::timed(ptsMs, durationMs);
}

struct Lane {
    // The track and its reader hold each other, as in a run; a lane ends the
    // cycle as a finished run does.
    ~Lane()
    {
        if (output && output->track && output->track->reader) output->track->reader->releaseTrack();
    }

    std::shared_ptr<QXTrackReaderOutput> output;
    std::shared_ptr<RecordingInput> input = std::make_shared<RecordingInput>();
};

Lane videoLane()
{
    auto track = QXVideoTrack::init();
    track->codec_id = AV_CODEC_ID_H264; // the media type follows the codec
    track->reader = QXTrackReader::initWithTrack(track);
    track->reader->filtered_average = CMTimeMake(40, 1000);
    return {std::make_shared<QXTrackReaderOutput>(track)};
}

Lane audioLane(std::optional<int64_t> silenceMs = std::nullopt)
{
    auto track = QXAudioTrack::init();
    track->codec_id = AV_CODEC_ID_AAC;
    if (silenceMs) return {std::make_shared<SilentOutput>(track, *silenceMs)};
    return {std::make_shared<QXTrackReaderOutput>(track)};
}

Lane subtitleLane()
{
    auto track = QXSubtitleTrack::init();
    track->codec_id = AV_CODEC_ID_MOV_TEXT;
    return {std::make_shared<QXTrackReaderOutput>(track)};
}

double seconds(CMTime time)
{
    return CMTimeGetSeconds(time);
}

std::vector<double> ptsOf(const std::vector<CMSampleBufferRef>& samples)
{
    std::vector<double> times;
    for (const auto& sample : samples) times.push_back(std::round(seconds(pts(sample)) * 1000) / 1000);
    return times;
}

// A sync whose offset is settled at zero by a first video frame.
std::shared_ptr<QXSync> settledSync(Lane& video)
{
    auto sync = QXSync::init();
    sync->processSample(at(0), *video.output, video.input);
    return sync;
}

// Feeds audio samples of 32 ms starting at the given times.
void feedAudio(QXSync& sync, Lane& audio, std::initializer_list<int64_t> startsMs, int64_t durationMs = 32)
{
    for (int64_t start : startsMs) sync.processSample(at(start, durationMs), *audio.output, audio.input);
}

} // namespace

TEST(Sync, AudioIsAGaplessChainThatDropsLateSamplesAndFillsGaps)
{
    Lane video = videoLane();
    auto sync = settledSync(video);

    // Late by 10 ms: kept, restamped. Late by 20 ms: dropped, told when the
    // timeline moves on.
    {
        qxtest::LogCapture log;
        Lane audio = audioLane(32);
        feedAudio(*sync, audio, {0, 32 - 10, 64 - 20 - 10 + 32, 96});
        // Timeline: 0, 32 (the 22 ms sample), then 64 expected; 66 is in time.
        EXPECT_EQ(ptsOf(audio.input->samples()), (std::vector<double> {0, 0.032, 0.064, 0.096}));
        Lane lateAudio = audioLane(32);
        feedAudio(*sync, lateAudio, {0, 32, 64 - 32 - 20 + 32, 64});
        EXPECT_EQ(ptsOf(lateAudio.input->samples()), (std::vector<double> {0, 0.032, 0.064}));
        EXPECT_TRUE(log.contains("time went backwards")) << "the drop is told with the next sample kept";
    }

    // A gap of 69 ms follows on; 70 ms is filled.
    for (int64_t gap : {69, 70}) {
        Lane audio = audioLane(32);
        feedAudio(*sync, audio, {0, 32 + gap});
        EXPECT_EQ(audio.input->samples().size(), gap == 69 ? 2u : 4u) << gap;
    }

    // 200 ms with 32 ms samples and 32 ms silence: six silent samples, 8 ms left.
    {
        qxtest::LogCapture log;
        Lane audio = audioLane(32);
        feedAudio(*sync, audio, {0, 232});
        const auto samples = audio.input->samples();
        ASSERT_EQ(samples.size(), 8u);
        EXPECT_EQ(seconds(pts(samples.back())), 0.224);
        EXPECT_TRUE(log.contains("sync: adding {200/1000"));
    }

    // Without a way to make silence the sample itself is repeated.
    {
        qxtest::LogCapture log;
        Lane audio = audioLane();
        feedAudio(*sync, audio, {0, 132});
        const auto samples = audio.input->samples();
        EXPECT_EQ(samples.size(), 5u) << "0, then 100 ms filled by three copies, then the sample";
        EXPECT_TRUE(log.contains("sync: duplicating"));
    }
}

TEST(Sync, SubtitleLeavesWithTheFrameThatReachesItsTime)
{
    Lane video = videoLane(), subtitle = subtitleLane();
    std::vector<std::string> order;
    video.input = std::make_shared<RecordingInput>("video");
    subtitle.input = std::make_shared<RecordingInput>("subtitle");
    video.input->log = subtitle.input->log = &order;

    auto sync = QXSync::init();
    sync->processSample(at(0), *video.output, video.input);
    sync->processSample(at(5000, 1500), *subtitle.output, subtitle.input);
    for (int64_t t : {4920, 4960, 5000, 5040}) sync->processSample(at(t), *video.output, video.input);
    // Frames leave one late: 0, 4.92, 4.96 went out; 5.0 went out with the
    // subtitle just ahead of it.
    ASSERT_EQ(subtitle.input->samples().size(), 1u);
    EXPECT_EQ(seconds(pts(subtitle.input->samples()[0])), 5.0);
    EXPECT_EQ(seconds(CMSampleBufferGetDuration(subtitle.input->samples()[0])), 1.5);
    EXPECT_EQ(order, (std::vector<std::string> {"video", "video", "video", "subtitle", "video"}));
}

TEST(Sync, SubtitleTrackThatEndsFirstHandsOverItsHeldLinesBeforeItsEnd)
{
    // The channel tells the input of the end right after the sync has seen
    // it: a line still held then would reach a finished input.
    Lane video = videoLane(), subtitle = subtitleLane(), other = subtitleLane();
    auto sync = settledSync(video);
    for (int64_t t : {3000, 1000}) sync->processSample(at(t, 500), *subtitle.output, subtitle.input);
    sync->processSample(at(2000, 500), *other.output, other.input);
    sync->processSample(nullptr, *subtitle.output, subtitle.input);
    EXPECT_EQ(ptsOf(subtitle.input->samples()), (std::vector<double> {1.0, 3.0}));
    EXPECT_TRUE(other.input->samples().empty()) << "another track's line waits for the video";
    for (int64_t t : {1960, 2000, 2040}) sync->processSample(at(t), *video.output, video.input);
    EXPECT_EQ(ptsOf(other.input->samples()), (std::vector<double> {2.0}));
}
