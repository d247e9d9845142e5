// What the base input does to a track: durations of video samples, edit
// lists, chunk lengths, and an input that never runs.

#include <gtest/gtest.h>

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// Writes `samples` through one input of `kind` and answers what the file
// holds for its track.
std::vector<mp4::SampleInfo> writeTrack(const fs::path& path, const std::shared_ptr<TestInput>& input,
                                        std::vector<CMSampleBufferRef> samples)
{
    MuxerRun run(path);
    run.muxer->addInput(input);
    EXPECT_TRUE(run.start());
    Feeder feeder(input, std::move(samples));
    EXPECT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    EXPECT_EQ(input->status, QXMuxerInputStatusFinished);
    return samplesOfTrack(path, 1);
}

CMTime lastTimestampOf(const MuxerRun& run, const std::shared_ptr<QXMuxerInput>& input)
{
    CMTime time = kCMTimeInvalid;
    run.onMuxerQueue([&] { time = input->lastTimestamp; });
    return time;
}

} // namespace

TEST(MuxerInputVideo, EachSampleLastsUntilTheNextDecodeTime)
{
    auto dir = qxtest::makeTempDir("input-durations");
    qxtest::LogCapture log;
    auto input = TestInput::make(Kind::Video, 1000);
    // Every sample brings a duration of 10 of its own; the sizes tell them apart.
    std::vector<CMSampleBufferRef> samples {
        makeSample(0, 0, 10, 1000, 100),             // 0: until 40
        makeSample(40, 40, 10, 1000, 101),           // 1: same decode time as the next: 0
        makeSample(80, 40, 10, 1000, 102),           // 2: until 120, shown 40 later
        makeSample(120, 120, 10, 1000, 103),         // 3: until 160 (the next one is dropped)
        makeSample(90, 90, 10, 1000, 104),           // 4: goes backwards: dropped
        makeSample(160, 160, 10, 1000, 105),         // 5: the next has no decode time: its own
        makeSample(200, std::nullopt, 10, 1000, 106), // 6: no decode time: its own
        makeSample(240, 240, 10, 1000, 107),         // 7: until 280
        makeSample(280, 280, 10, 1000, 108),         // 8: the last: its own
    };
    auto written = writeTrack(dir / "v.m4v", input, samples);
    ASSERT_EQ(written.size(), 8u);
    const uint32_t sizes[] = {100, 101, 102, 103, 105, 106, 107, 108};
    const uint32_t durations[] = {40, 0, 80, 40, 10, 10, 40, 10};
    const int32_t offsets[] = {0, 0, 40, 0, 0, 0, 0, 0};
    for (size_t i = 0; i < written.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(written[i].size, sizes[i]);
        EXPECT_EQ(written[i].duration, durations[i]);
        EXPECT_EQ(written[i].renderingOffset, offsets[i]);
    }
    EXPECT_TRUE(log.contains("Invalid new duration: ", QXLogFlagWarning));
    EXPECT_TRUE(log.contains(", ignoring sample!", QXLogFlagWarning));
}

TEST(MuxerInputVideo, ALoneSampleKeepsItsOwnDuration)
{
    auto dir = qxtest::makeTempDir("input-lone");
    auto written = writeTrack(dir / "v.m4v", TestInput::make(Kind::Video, 90000), {makeSample(0, 0, 3003, 90000)});
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].duration, 3003u);
}

TEST(MuxerInputFlow, OnlyVideoIsHeldBack)
{
    auto dir = qxtest::makeTempDir("input-held");
    MuxerRun run(dir / "x.m4v");
    auto video = TestInput::make(Kind::Video, 1000);
    auto audio = TestInput::make(Kind::Audio, 48000);
    auto text = TestInput::make(Kind::Subtitle, 1000);
    for (const auto& input : {video, audio, text}) run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    Feeder feedVideo(video, {makeSample(0, 0, 40, 1000)}, false);
    Feeder feedAudio(audio, {makeSample(0, 0, 1024, 48000)}, false);
    Feeder feedText(text, {makeSample(500, 500, 1000, 1000)}, false);
    EXPECT_TRUE(waitUntil([&] { return lastTimestampOf(run, audio) == CMTimeMake(0, 48000); }));
    EXPECT_TRUE(waitUntil([&] { return lastTimestampOf(run, text) == CMTimeMake(500, 1000); }));
    // The video sample waits for the next one to know its duration.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(lastTimestampOf(run, video), kCMTimeNegativeInfinity);
    for (const auto& input : {video, audio, text}) input->markAsFinished();
    ASSERT_TRUE(run.waitForCompletion());
    EXPECT_EQ(lastTimestampOf(run, video), CMTimeMake(0, 1000));
    for (uint32_t track = 1; track <= 3; ++track) EXPECT_EQ(samplesOfTrack(dir / "x.m4v", track).size(), 1u);
}

TEST(MuxerInputEdits, TheFirstSampleTimeBecomesTheEditList)
{
    auto dir = qxtest::makeTempDir("input-edits");
    auto audioRun = [&](const std::string& name, int64_t first) {
        auto input = TestInput::make(Kind::Audio, 48000);
        input->offsetFromFirstSample = true;
        std::vector<CMSampleBufferRef> samples;
        for (int64_t k = 0; k < 47; ++k) samples.push_back(makeSample(first + k * 1024, first + k * 1024, 1024, 48000));
        writeTrack(dir / name, input, samples);
        auto file = mp4::MP4File::read(dir / name);
        return file ? file->track(1)->edits() : std::vector<mp4::EditEntry> {};
    };
    // 47 packets of 1024 at 48 kHz: 1002.67 ms, 1003 in the movie's 1/1000.
    const uint64_t length = 1003;

    // Starts late: an empty edit, then the whole track.
    auto late = audioRun("late.m4v", 24000);
    ASSERT_EQ(late.size(), 2u);
    EXPECT_EQ(late[0].mediaTime, -1);
    EXPECT_EQ(late[0].segmentDuration, 500u);
    EXPECT_EQ(late[1].mediaTime, 0);
    EXPECT_EQ(late[1].segmentDuration, length);
    EXPECT_EQ(ffprobeFormat(dir / "late.m4v", "stream=start_time"), "0.500000");

    // Starts early: one edit that skips into the media; its length is the
    // track's plus the offset's magnitude.
    auto early = audioRun("early.m4v", -9600);
    ASSERT_EQ(early.size(), 1u);
    EXPECT_EQ(early[0].mediaTime, 9600);
    EXPECT_EQ(early[0].segmentDuration, length + 200);

    // Starts at zero: no edit list at all.
    EXPECT_TRUE(audioRun("zero.m4v", 0).empty());

    // An input that sets no offset writes none either.
    auto input = TestInput::make(Kind::Audio, 48000);
    writeTrack(dir / "none.m4v", input, {makeSample(24000, 24000, 1024, 48000)});
    auto file = mp4::MP4File::read(dir / "none.m4v");
    ASSERT_TRUE(file);
    EXPECT_TRUE(file->track(1)->edits().empty());
}

TEST(MuxerInputChunks, EveryTrackGetsTheChunkLengthOfTheFirst)
{
    auto dir = qxtest::makeTempDir("input-chunks");
    auto queue = dispatch_queue_create("chunks", DISPATCH_QUEUE_SERIAL);
    {
        std::shared_ptr<mp4::MP4File> file = mp4::MP4File::create(dir / "a.mp4");
        auto video = TestInput::make(Kind::Video, 90000);
        auto audio = TestInput::make(Kind::Audio, 48000);
        ASSERT_TRUE(video->initWritingToFileHandle(file, queue));
        ASSERT_TRUE(audio->initWritingToFileHandle(file, queue));
        // 4.5 frames at 25 fps, and the same 180 ms in the audio's scale.
        EXPECT_EQ(file->trackDurationPerChunk(1), 16200u);
        EXPECT_EQ(file->trackDurationPerChunk(2), 8640u);
    }
    {
        // A first track that is not video sets no length, and neither do the
        // ones after it follow anything else.
        std::shared_ptr<mp4::MP4File> file = mp4::MP4File::create(dir / "b.mp4");
        auto audio = TestInput::make(Kind::Audio, 48000);
        ASSERT_TRUE(audio->initWritingToFileHandle(file, queue));
        const uint64_t untouched = file->trackDurationPerChunk(1);
        EXPECT_FALSE(audio->tuneTrackDurationPerChunk());
        EXPECT_EQ(file->trackDurationPerChunk(1), untouched);
    }
    {
        // A video track without a frame rate gets no length rather than a
        // meaningless one.
        std::shared_ptr<mp4::MP4File> file = mp4::MP4File::create(dir / "c.mp4");
        auto video = TestInput::make(Kind::Video, 90000);
        std::static_pointer_cast<QXVideoTrack>(video->destination)->frameRate = {0, 1};
        ASSERT_TRUE(video->initWritingToFileHandle(file, queue));
        EXPECT_FALSE(video->tuneTrackDurationPerChunk());
    }
}

TEST(MuxerInputLifecycle, AnInputThatNeverStartedIgnoresTheEnd)
{
    auto input = TestInput::make(Kind::Video, 1000);
    std::atomic<int> pulls {0};
    auto queue = dispatch_queue_create("channel", DISPATCH_QUEUE_SERIAL);
    input->requestMediaDataWhenReadyOnQueue(queue, [&] { ++pulls; });
    // No muxer behind it: appending is accepted.
    EXPECT_TRUE(input->appendSampleBuffer(nullptr));
    input->markAsFinished();
    input->markAsFinished();
    dispatch_sync(queue, [] {});
    EXPECT_EQ(input->status, QXMuxerInputStatusIdle);
    EXPECT_EQ(pulls, 0);
    EXPECT_EQ(dispatch_group_wait(input->inputGroup, DISPATCH_TIME_NOW), 0);
}

TEST(MuxerInputLifecycle, ThePullBlockRunsAtTheStartAndAfterEachWrittenSample)
{
    auto dir = qxtest::makeTempDir("input-pulls");
    MuxerRun run(dir / "x.m4v");
    auto input = TestInput::make(Kind::Audio, 48000);
    std::atomic<int> pulls {0};
    auto queue = dispatch_queue_create("channel", DISPATCH_QUEUE_SERIAL);
    input->requestMediaDataWhenReadyOnQueue(queue, [&] { ++pulls; });
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    EXPECT_TRUE(waitUntil([&] { return pulls == 1; }));
    Feeder feeder(input, {makeSample(0, 0, 1024, 48000), makeSample(1024, 1024, 1024, 48000)});
    ASSERT_TRUE(run.waitForCompletion());
    dispatch_sync(queue, [] {});
    EXPECT_EQ(pulls, 3);
    // A second end after the finish changes nothing.
    input->markAsFinished();
    EXPECT_EQ(input->status, QXMuxerInputStatusFinished);
    EXPECT_EQ(run.handlerCalls(), 1);
}
