// What the base input does to a track: durations of video samples and edit
// lists.

#include <gtest/gtest.h>

#include "MuxerSupport.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// Writes `samples` through `input` alone and answers its track as written.
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

} // namespace

TEST(MuxerInputVideo, EachSampleLastsUntilTheNextDecodeTime)
{
    auto dir = qxtest::makeTempDir("input-durations");
    qxtest::LogCapture log;
    // Every sample brings a duration of 10; the sizes tell them apart.
    auto written = writeTrack(dir / "v.m4v", TestInput::make(Kind::Video, 1000),
                              {
                                  makeSample(0, 0, 10, 1000, 100),
                                  makeSample(40, 40, 10, 1000, 101),   // the next has the same decode time
                                  makeSample(80, 40, 10, 1000, 102),   // shown 40 after its decode time
                                  makeSample(120, 120, 10, 1000, 103), // measured against the one after next
                                  makeSample(90, 90, 10, 1000, 104),   // goes backwards: dropped
                                  makeSample(160, 160, 10, 1000, 105), // the next has no decode time
                                  makeSample(200, std::nullopt, 10, 1000, 106),
                                  makeSample(240, 240, 10, 1000, 107),
                                  makeSample(280, 280, 10, 1000, 108), // the last keeps its own
                              });
    ASSERT_EQ(written.size(), 8u);
    const uint32_t sizes[] = {100, 101, 102, 103, 105, 106, 107, 108};
    const uint32_t durations[] = {40, 0, 80, 40, 10, 10, 40, 10};
    for (size_t i = 0; i < written.size(); ++i) {
        EXPECT_EQ(written[i].size, sizes[i]) << i;
        EXPECT_EQ(written[i].duration, durations[i]) << i;
        EXPECT_EQ(written[i].renderingOffset, i == 2 ? 40 : 0) << i;
    }
    EXPECT_TRUE(log.contains("Invalid new duration: {-30/1000 = -0.030}, ignoring sample!", QXLogFlagWarning));

    written = writeTrack(dir / "one.m4v", TestInput::make(Kind::Video, 90000), {makeSample(0, 0, 3003, 90000)});
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].duration, 3003u);
}

TEST(MuxerInputEdits, TheFirstSampleTimeBecomesTheEditList)
{
    auto dir = qxtest::makeTempDir("input-edits");
    auto edits = [&](const std::string& name, int64_t first, bool setOffset = true) {
        auto input = TestInput::make(Kind::Audio, 48000);
        input->offsetFromFirstSample = setOffset;
        std::vector<CMSampleBufferRef> samples;
        for (int64_t k = 0; k < 47; ++k) samples.push_back(makeSample(first + k * 1024, first + k * 1024, 1024, 48000));
        writeTrack(dir / name, input, samples);
        auto file = mp4::MP4File::read(dir / name);
        return file ? file->track(1)->edits() : std::vector<mp4::EditEntry> {};
    };
    const uint64_t length = 1003; // 47 * 1024 / 48 kHz, in the movie's 1/1000

    // Starts late: an empty edit, then the whole track.
    auto late = edits("late.m4v", 24000);
    ASSERT_EQ(late.size(), 2u);
    EXPECT_EQ(late[0].mediaTime, -1);
    EXPECT_EQ(late[0].segmentDuration, 500u);
    EXPECT_EQ(late[1].mediaTime, 0);
    EXPECT_EQ(late[1].segmentDuration, length);
    EXPECT_EQ(ffprobe("-show_entries stream=start_time -of csv=p=0", dir / "late.m4v"), "0.500000");
    // Starts early: one edit into the media, as long as the track plus the offset's magnitude.
    auto early = edits("early.m4v", -9600);
    ASSERT_EQ(early.size(), 1u);
    EXPECT_EQ(early[0].mediaTime, 9600);
    EXPECT_EQ(early[0].segmentDuration, length + 200);
    // At zero, or without an offset: none.
    EXPECT_TRUE(edits("zero.m4v", 0).empty());
    EXPECT_TRUE(edits("none.m4v", 24000, false).empty());
}
