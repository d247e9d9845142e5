// The interleaving window: decode order across tracks, who may hold it
// back, how much is in flight, and a write that fails.

#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// Video at 25 fps in 1/90000 with two B-frames in every group of three
// (decode order I P B B ...: presentation times shifted), `seconds` long
// from `fromSecond`.
std::vector<CMSampleBufferRef> videoSamples(double seconds, double fromSecond = 0, size_t bytes = 100)
{
    std::vector<CMSampleBufferRef> samples;
    const int64_t frame = 3600;
    const int64_t first = int64_t(fromSecond * 25);
    const int64_t count = int64_t(seconds * 25);
    for (int64_t k = first; k < first + count; ++k) {
        // Presentation order within each group of three: 0 2 1 -> shown one
        // frame later than decoded, B-frames swapped.
        const int64_t group = k / 3 * 3, slot = k % 3;
        const int64_t shown = group + (slot == 0 ? 0 : slot == 1 ? 2 : 1) + 1;
        samples.push_back(makeSample(shown * frame, k * frame, frame, 90000, bytes, slot == 0));
    }
    return samples;
}

std::vector<CMSampleBufferRef> audioSamples(double seconds)
{
    std::vector<CMSampleBufferRef> samples;
    for (int64_t k = 0; k < int64_t(seconds * 48000 / 1024); ++k) {
        samples.push_back(makeSample(k * 1024, k * 1024, 1024, 48000));
    }
    return samples;
}

// Waits until the muxer has taken the video sample decoded at frame
// `frame`: every flush it caused has run once this returns.
bool waitForVideoFrame(const MuxerRun& run, const std::shared_ptr<QXMuxerInput>& input, int64_t frame)
{
    return waitUntil([&] {
        CMTime last = kCMTimeInvalid;
        run.onMuxerQueue([&] { last = input->lastTimestamp; });
        return last == CMTimeMake(frame * 3600, 90000);
    });
}

} // namespace

TEST(MuxerWindow, SamplesOfAllTracksAreWrittenInDecodeOrder)
{
    auto dir = qxtest::makeTempDir("window-order");
    const fs::path path = dir / "x.m4v";
    MuxerRun run(path);
    auto video = TestInput::make(Kind::Video, 90000);
    auto audio = TestInput::make(Kind::Audio, 48000);
    video->chunkPerSample = audio->chunkPerSample = true; // the file's order is the order of the writes
    run.muxer->addInput(video);
    run.muxer->addInput(audio);
    ASSERT_TRUE(run.start());
    const auto videoIn = videoSamples(8);
    const auto audioIn = audioSamples(8);
    {
        // The audio runs ahead and ends first; the video comes in bursts.
        Feeder feedAudio(audio, audioIn);
        feedAudio.join();
        Feeder feedVideo(video, videoIn);
    }
    ASSERT_TRUE(run.waitForCompletion());
    ASSERT_EQ(run.muxer->status, QXMuxerStatusCompleted);

    const auto written = samplesInFileOrder(path);
    ASSERT_EQ(written.size(), videoIn.size() + audioIn.size());
    for (size_t i = 1; i < written.size(); ++i) {
        ASSERT_LE(written[i - 1].decodeSeconds, written[i].decodeSeconds + 1e-9) << "sample " << i;
    }
    size_t syncSamples = 0;
    for (const auto& sample : written) syncSamples += sample.trackId == 1 && sample.info.isSync;
    EXPECT_EQ(syncSamples, (videoIn.size() + 2) / 3);
    // The independent reader sees every sample.
    EXPECT_EQ(ffprobeFormat(path, "stream=nb_frames"), std::to_string(videoIn.size()) + "\n" +
                                                            std::to_string(audioIn.size()));
}

TEST(MuxerWindow, ALaggingAudioInputHoldsTheWindowASubtitleInputDoesNot)
{
    auto dir = qxtest::makeTempDir("window-stall");
    const auto video = videoSamples(6);
    for (Kind other : {Kind::Audio, Kind::Subtitle}) {
        SCOPED_TRACE(other == Kind::Audio ? "audio" : "subtitle");
        const fs::path path = dir / (other == Kind::Audio ? "audio.m4v" : "subtitle.m4v");
        MuxerRun run(path);
        auto videoInput = TestInput::make(Kind::Video, 90000);
        auto otherInput = TestInput::make(other, other == Kind::Audio ? 48000 : 1000);
        run.muxer->addInput(videoInput);
        run.muxer->addInput(otherInput);
        ASSERT_TRUE(run.start());
        Feeder feeder(videoInput, video, false);
        feeder.join();
        // All but the last, which waits for a successor.
        ASSERT_TRUE(waitForVideoFrame(run, videoInput, int64_t(video.size()) - 2));
        const size_t held = run.samplesInWindow();
        if (other == Kind::Audio) {
            // Nothing can leave: the audio could still bring an earlier sample.
            EXPECT_EQ(held, video.size() - 1);
        } else {
            // 2.5 s of 25 fps stay, give or take the reordering.
            EXPECT_GE(held, 60u);
            EXPECT_LE(held, 66u);
        }
        videoInput->markAsFinished();
        otherInput->markAsFinished();
        ASSERT_TRUE(run.waitForCompletion());
        EXPECT_EQ(samplesOfTrack(path, 1).size(), video.size());
    }
}

TEST(MuxerWindow, AnInputThatHasFinishedHoldsNothingBack)
{
    auto dir = qxtest::makeTempDir("window-finished");
    MuxerRun run(dir / "x.m4v");
    auto video = TestInput::make(Kind::Video, 90000);
    auto audio = TestInput::make(Kind::Audio, 48000);
    run.muxer->addInput(video);
    run.muxer->addInput(audio);
    ASSERT_TRUE(run.start());
    // The audio ends after half a second; the video goes on for six.
    Feeder(audio, audioSamples(0.5)).join();
    ASSERT_TRUE(waitUntil([&] { return audio->status == QXMuxerInputStatusFinished; }));
    Feeder(video, videoSamples(6), false).join();
    ASSERT_TRUE(waitForVideoFrame(run, video, 148));
    EXPECT_LE(run.samplesInWindow(), 66u);
    video->markAsFinished();
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
}

TEST(MuxerWindow, ALateSubtitleIsWrittenAndTheWindowSaysItWentBackwards)
{
    auto dir = qxtest::makeTempDir("window-late");
    const fs::path path = dir / "x.m4v";
    qxtest::LogCapture log;
    MuxerRun run(path);
    auto video = TestInput::make(Kind::Video, 90000);
    auto text = TestInput::make(Kind::Subtitle, 1000);
    run.muxer->addInput(video);
    run.muxer->addInput(text);
    ASSERT_TRUE(run.start());
    Feeder(video, videoSamples(5), false).join();
    ASSERT_TRUE(waitForVideoFrame(run, video, 123));
    // One second in, long after the window moved past it.
    Feeder(text, {makeSample(1000, 1000, 500, 1000)}).join();
    Feeder(video, videoSamples(1, 5)).join();
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_TRUE(log.contains("Written time of sample ", QXLogFlagInfo));
    EXPECT_TRUE(log.contains(" went backwards ", QXLogFlagInfo));
    EXPECT_EQ(samplesOfTrack(path, 2).size(), 1u);
    EXPECT_EQ(samplesOfTrack(path, 1).size(), 150u);
}

TEST(MuxerWindow, NoMoreThanTenSamplesWaitInEachHop)
{
    auto dir = qxtest::makeTempDir("window-bounded");
    MuxerRun run(dir / "x.m4v");
    auto video = TestInput::make(Kind::Video, 90000);
    auto audio = TestInput::make(Kind::Audio, 48000);
    run.muxer->addInput(video);
    run.muxer->addInput(audio);
    ASSERT_TRUE(run.start());
    // A muxer queue that does not move.
    auto gate = dispatch_semaphore_create(0);
    dispatch_async(run.muxer->serializationQueue, [gate] { dispatch_semaphore_wait(gate, DISPATCH_TIME_FOREVER); });

    const auto videoIn = videoSamples(4);
    const auto audioIn = audioSamples(4);
    Feeder feedVideo(video, videoIn);
    Feeder feedAudio(audio, audioIn);
    // Ten taken by the muxer's queue, one waiting for it on the process
    // queue, nine more behind that one; the video also holds one back.
    EXPECT_TRUE(waitUntil([&] { return feedAudio.appended == 20 && feedVideo.appended == 21; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(feedAudio.appended, 20u);
    EXPECT_EQ(feedVideo.appended, 21u);

    dispatch_semaphore_signal(gate);
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    EXPECT_EQ(samplesOfTrack(dir / "x.m4v", 1).size(), videoIn.size());
    EXPECT_EQ(samplesOfTrack(dir / "x.m4v", 2).size(), audioIn.size());
}

// The disk fills: run in a child process whose files may not grow past
// 1 MiB (and which ignores the signal that would otherwise end it).
TEST(MuxerWriteFailure, AFullDiskFailsTheRunOnce)
{
    const fs::path self = fs::read_symlink("/proc/self/exe");
    std::string output;
    const int status = qxtest::run("bash -c \"trap '' XFSZ; ulimit -f 1024; QX_MUXER_SMALL_DISK=1 exec '" +
                                       self.string() +
                                       "' --gtest_filter=MuxerWriteFailure.OnASmallDisk\" 2>&1",
                                   &output);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("[       OK ] MuxerWriteFailure.OnASmallDisk"), std::string::npos) << output;
}

TEST(MuxerWriteFailure, OnASmallDisk)
{
    if (!std::getenv("QX_MUXER_SMALL_DISK")) GTEST_SKIP() << "runs as the child of AFullDiskFailsTheRunOnce";
    auto dir = qxtest::makeTempDir("window-full");
    const fs::path path = dir / "x.m4v";
    qxtest::LogCapture log;
    MuxerRun run(path);
    auto video = TestInput::make(Kind::Video, 90000);
    auto audio = TestInput::make(Kind::Audio, 48000);
    audio->offsetFromFirstSample = true;
    run.muxer->addInput(video);
    run.muxer->addInput(audio);
    ASSERT_TRUE(run.start());
    Feeder feedVideo(video, videoSamples(20, 0, 20000)); // 10 MB
    Feeder feedAudio(audio, audioSamples(20));
    ASSERT_TRUE(run.waitForCompletion());
    feedVideo.join();
    feedAudio.join();
    EXPECT_EQ(run.muxer->status, QXMuxerStatusFailed);
    ASSERT_TRUE(run.muxer->error);
    EXPECT_EQ(run.muxer->error->domain(), QXMediaErrorDomain);
    EXPECT_EQ(run.muxer->error->code(), -11807);
    EXPECT_TRUE(log.contains("Writing failed because Disk is Full", QXLogFlagError));
    // The inputs learn of it from their appends.
    EXPECT_TRUE(feedVideo.refused || feedAudio.refused);
    EXPECT_EQ(run.handlerCalls(), 1);
    EXPECT_EQ(run.muxer->handle, nullptr);
    EXPECT_LE(fs::file_size(path), uint64_t(1) << 20);
}
