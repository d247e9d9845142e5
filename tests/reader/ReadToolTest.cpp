// `qxconvert read` against ffprobe's packet counts: every packet of every
// track arrives, except what the reading pipeline drops on purpose.

#include <gtest/gtest.h>

#include <regex>

#include "ReaderMedia.h"
#include "ReaderSupport.h"
#include "support/TestMedia.h"

using namespace readertest;

namespace {

struct ToolTrack {
    int streamIndex;
    uint64_t samples;
    double lastPTS;
};

// The tool beside this test binary: <build>/tests/test_reader and
// <build>/tools/qxconvert.
std::filesystem::path tool()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "tools" / "qxconvert";
}

std::vector<ToolTrack> readWithTool(const std::filesystem::path& file, int* status = nullptr)
{
    EXPECT_FALSE(file.empty()) << "fixture was not generated";
    std::string output;
    const int rc = qxtest::run("'" + tool().string() + "' read '" + file.string() + "' --json 2>/dev/null", &output);
    EXPECT_EQ(rc, 0) << output;
    // The values in the order the tool writes them, whatever the layout.
    static const std::regex value(R"re("(status|streamIndex|samples|lastPTS)":\s*(null|[-+0-9.eE]+))re");
    std::vector<ToolTrack> tracks;
    for (std::sregex_iterator it(output.begin(), output.end(), value), end; it != end; ++it) {
        const std::string name = (*it)[1], text = (*it)[2];
        if (name == "status") {
            if (status) *status = std::stoi(text);
        } else if (name == "streamIndex") {
            tracks.push_back({std::stoi(text), 0, -1});
        } else if (!tracks.empty() && name == "samples") {
            tracks.back().samples = std::stoull(text);
        } else if (!tracks.empty() && name == "lastPTS") {
            tracks.back().lastPTS = text == "null" ? -1.0 : std::stod(text);
        }
    }
    EXPECT_FALSE(tracks.empty()) << output;
    return tracks;
}

} // namespace

TEST(ReadTool, EveryPacketOfWellFormedSourcesArrives)
{
    ASSERT_TRUE(std::filesystem::exists(tool())) << tool();
    // These sources start with a video key frame, and everything before it
    // in demuxing order is far below the startup bound: nothing is dropped.
    for (const auto& file : {readermedia::matroska(), readermedia::mp4(), readermedia::transportStream()}) {
        SCOPED_TRACE(file.filename().string());
        const auto expected = ffprobePacketCounts(file);
        int status = 0;
        const auto tracks = readWithTool(file, &status);
        EXPECT_EQ(status, 2);
        ASSERT_EQ(tracks.size(), expected.size());
        for (const ToolTrack& track : tracks) {
            EXPECT_EQ(track.samples, expected[size_t(track.streamIndex)]) << "stream " << track.streamIndex;
        }
    }
    EXPECT_EQ(ffprobePacketCounts(readermedia::matroska()).size(), 4u) << "H.264, AC-3, AAC and SRT";
}

TEST(ReadTool, SubtitleFileGoesStraightToItsTrack)
{
    // A movie of subtitles only has no movie reader: nothing waits for a
    // video key frame and nothing is rebased.
    const auto file = readermedia::subtitleFile();
    const auto tracks = readWithTool(file);
    ASSERT_EQ(tracks.size(), 1u);
    EXPECT_EQ(tracks[0].samples, ffprobePacketCounts(file).at(0));
    EXPECT_DOUBLE_EQ(tracks[0].lastPTS, 2.5);
}

TEST(ReadTool, CutTransportStreamLosesVideoBeforeItsFirstKeyFrameAndTheOldestEarlyAudio)
{
    const auto file = readermedia::cutTransportStream();
    const auto expected = ffprobePacketCounts(file);
    ASSERT_EQ(expected.size(), 2u);
    // In demuxing order: the packets of each stream before the first video
    // key frame.
    size_t videoBefore = 0, audioBefore = 0;
    for (const ProbedPacket& packet : ffprobePackets(file)) {
        if (packet.stream == 0 && packet.key) break;
        (packet.stream == 0 ? videoBefore : audioBefore) += 1;
    }
    // The fixture must show both rules: non-key video first, and more early
    // audio than the 100 samples per track (2 tracks) that are kept.
    ASSERT_GT(videoBefore, 0u);
    ASSERT_GT(audioBefore, 200u);

    const auto tracks = readWithTool(file);
    ASSERT_EQ(tracks.size(), 2u);
    EXPECT_EQ(tracks[0].samples, expected[0] - videoBefore) << "non-key video before the start is dropped";
    EXPECT_EQ(tracks[1].samples, expected[1] - (audioBefore - 200)) << "the oldest early audio is pushed out";
}

TEST(ReadTool, JumpingTransportStreamIsRebased)
{
    const auto file = readermedia::jumpingTransportStream();
    const auto expected = ffprobePacketCounts(file);
    const auto straggler = ffprobePacketCounts(readermedia::jumpingTransportStreamStraggler());
    ASSERT_EQ(expected.size(), 2u);
    ASSERT_EQ(straggler.size(), 2u);
    const auto tracks = readWithTool(file);
    ASSERT_EQ(tracks.size(), 2u);
    for (const ToolTrack& track : tracks) {
        const auto i = size_t(track.streamIndex);
        EXPECT_EQ(track.samples, expected[i] - straggler[i]) << "stream " << i << ": the straggling part is ignored";
        EXPECT_LT(track.lastPTS, 8.5) << "stream " << i << ": the 97 s jump is closed";
        EXPECT_GT(track.lastPTS, 7.5) << "stream " << i;
    }
}
