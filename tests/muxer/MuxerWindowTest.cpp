// The interleaving window: decode order across tracks, one sample in two
// tracks, and how much is in flight.

#include <gtest/gtest.h>

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// 25 fps in 1/90000, groups of three decoded I P B and shown I B P, one
// frame after their decode time; `seconds` long from `fromSecond`.
std::vector<CMSampleBufferRef> videoSamples(double seconds, double fromSecond = 0, size_t bytes = 100)
{
    std::vector<CMSampleBufferRef> samples;
    for (int64_t k = int64_t(fromSecond * 25); k < int64_t((fromSecond + seconds) * 25); ++k) {
        const int64_t slot = k % 3, shown = k - slot + (slot == 0 ? 0 : 3 - slot) + 1;
        samples.push_back(makeSample(shown * 3600, k * 3600, 3600, 90000, bytes, slot == 0));
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
    Feeder(audio, audioIn).join(); // the audio runs ahead and ends first
    Feeder(video, videoIn).join();
    ASSERT_TRUE(run.waitForCompletion());
    ASSERT_EQ(run.muxer->status, QXMuxerStatusCompleted);

    const auto written = samplesInFileOrder(path);
    ASSERT_EQ(written.size(), videoIn.size() + audioIn.size());
    size_t syncSamples = 0;
    for (size_t i = 0; i < written.size(); ++i) {
        if (i) {
            ASSERT_LE(written[i - 1].decodeSeconds, written[i].decodeSeconds + 1e-9) << "sample " << i;
        }
        syncSamples += written[i].trackId == 1 && written[i].info.isSync;
    }
    EXPECT_EQ(syncSamples, (videoIn.size() + 2) / 3);
    EXPECT_EQ(ffprobe("-show_entries stream=nb_frames -of csv=p=0", path),
              std::to_string(videoIn.size()) + "\n" + std::to_string(audioIn.size()));
}

TEST(MuxerWindow, ASampleHandedOverByTwoInputsGoesIntoBothTracks)
{
    // Two uses of one source track hand the muxer the same sample objects.
    auto dir = qxtest::makeTempDir("window-shared");
    MuxerRun run(dir / "x.m4v");
    auto first = TestInput::make(Kind::Audio, 48000);
    auto second = TestInput::make(Kind::Audio, 48000);
    run.muxer->addInput(first);
    run.muxer->addInput(second);
    ASSERT_TRUE(run.start());
    const auto samples = audioSamples(4);
    Feeder feedFirst(first, samples);
    Feeder feedSecond(second, samples);
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(samplesOfTrack(dir / "x.m4v", 1).size(), samples.size());
    EXPECT_EQ(samplesOfTrack(dir / "x.m4v", 2).size(), samples.size());
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
    auto gate = dispatch_semaphore_create(0); // a muxer queue that does not move
    dispatch_async(run.muxer->serializationQueue, [gate] { dispatch_semaphore_wait(gate, DISPATCH_TIME_FOREVER); });
    Feeder feedVideo(video, videoSamples(4));
    Feeder feedAudio(audio, audioSamples(4));
    // Ten taken by the muxer's queue, one waiting for it on the process
    // queue, nine behind that one; the video also holds one back.
    EXPECT_TRUE(waitUntil([&] { return feedAudio.appended == 20 && feedVideo.appended == 21; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(feedAudio.appended, 20u);
    EXPECT_EQ(feedVideo.appended, 21u);
    dispatch_semaphore_signal(gate);
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(samplesOfTrack(dir / "x.m4v", 1).size(), 100u);
    EXPECT_EQ(samplesOfTrack(dir / "x.m4v", 2).size(), 187u);
}

// The disk fills: the test binary runs the next test in a child whose files
// may not grow past 1 MiB, with SIGXFSZ ignored so that writes fail.
TEST(MuxerWriteFailure, AFullDiskFailsTheRunOnce)
{
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    std::string output;
    const int status = qxtest::run("bash -c \"trap '' XFSZ; ulimit -f 1024; QX_MUXER_SMALL_DISK=1 exec '" + self +
                                       "' --gtest_filter=MuxerWriteFailure.OnASmallDisk\" 2>&1",
                                   &output);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("[       OK ] MuxerWriteFailure.OnASmallDisk"), std::string::npos) << output;
}

TEST(MuxerWriteFailure, OnASmallDisk)
{
    if (!std::getenv("QX_MUXER_SMALL_DISK")) GTEST_SKIP() << "runs in the child of AFullDiskFailsTheRunOnce";
    auto dir = qxtest::makeTempDir("window-full");
    qxtest::LogCapture log;
    MuxerRun run(dir / "x.m4v");
    auto video = TestInput::make(Kind::Video, 90000);
    auto audio = TestInput::make(Kind::Audio, 48000);
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
    EXPECT_EQ(run.muxer->error->code(), -11807);
    EXPECT_TRUE(log.contains("Writing failed because Disk is Full", QXLogFlagError));
    EXPECT_TRUE(feedVideo.refused || feedAudio.refused); // the inputs learn of it from their appends
    EXPECT_EQ(run.handlerCalls(), 1);
    EXPECT_EQ(run.muxer->handle, nullptr);
}
