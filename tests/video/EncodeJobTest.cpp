// Encoding end to end through QXJob: sources of several codecs and
// containers made with ffmpeg, converted by a catalogue preset, and checked
// with ffprobe and ffmpeg: codec and sample entry, size, profile and level,
// picture count, audio and video starting together, colour and aspect as
// the source, a clean decode, and SSIM against the source.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

namespace {

struct EncodeCase {
    const char* name;
    const char* file;
    const char* ffmpeg; // makes the source, with audio
    const char* preset;
    const char* codec;
    const char* tag;
    int width, height;
    const char* profile;
    int level;            // 0: not checked
    const char* aspect;   // sample aspect ratio as ffprobe prints it
    const char* range;    // colour range as ffprobe prints it
    const char* primaries;
    bool ssim;            // compared against the source scaled the same way
};

constexpr const char* kAudio = " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2";

const EncodeCase kCases[] = {
    {"Mpeg2TransportStreamTo720p", "enc-mpeg2.ts",
     "-f lavfi -i testsrc2=size=352x288:rate=25:duration=2 -f lavfi -i sine=sample_rate=48000:duration=2"
     " -c:v mpeg2video -q:v 3 -color_primaries bt709 -color_trc bt709 -colorspace bt709 -c:a mp2",
     QXPresetApple720p, "h264", "avc1", 352, 288, "High", 42, "1:1", "tv", "bt709", true},
    {"Mpeg4PartTwoAviTo1080p", "enc-mpeg4.avi",
     "-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -f lavfi -i sine=sample_rate=44100:duration=2"
     " -c:v mpeg4 -q:v 3 -c:a libmp3lame",
     QXPresetApple1080p, "h264", "avc1", 320, 240, "High", 42, "1:1", "tv", nullptr, false},
    {"Vp9WebmToHevc", "enc-vp9.webm",
     "-f lavfi -i testsrc2=size=320x180:rate=30:duration=2 -f lavfi -i sine=sample_rate=48000:duration=2"
     " -c:v libvpx-vp9 -deadline realtime -cpu-used 8 -b:v 300k -c:a libopus",
     QXPresetApple720pHEVC, "hevc", "hvc1", 320, 180, "Main", 0, "1:1", "tv", nullptr, false},
    {"TenBitHevcMatroskaToHevc", "enc-hevc10.mkv",
     "-f lavfi -i testsrc2=size=320x240:rate=25:duration=2 -f lavfi -i sine=sample_rate=48000:duration=2"
     " -c:v libx265 -preset ultrafast -pix_fmt yuv420p10le -x265-params log-level=none -color_primaries bt2020"
     " -color_trc smpte2084 -colorspace bt2020nc -c:a aac",
     QXPresetApple1080pHEVC, "hevc", "hvc1", 320, 240, "Main", 0, "1:1", "tv", "bt2020", false},
    {"AnamorphicFullRangeH264MatroskaTo720p", "enc-anamorphic.mkv",
     "-f lavfi -i testsrc2=size=720x480:rate=25:duration=2 -f lavfi -i sine=sample_rate=48000:duration=2"
     " -vf setsar=32/27 -c:v libx264 -preset ultrafast -pix_fmt yuvj420p -color_range pc -c:a ac3",
     QXPresetApple720p, "h264", "avc1", 720, 480, "High", 42, "32:27", "pc", nullptr, true},
};

std::map<std::string, std::string> probeStream(const std::filesystem::path& file, const char* selector)
{
    std::string text;
    qxtest::run(std::string("ffprobe -v error -count_frames -select_streams ") + selector +
                    " -show_entries stream=codec_name,codec_tag_string,width,height,profile,level,"
                    "sample_aspect_ratio,color_range,color_primaries,nb_read_frames,start_time,r_frame_rate"
                    " -of default=nw=1 '" + file.string() + "'",
                &text);
    std::map<std::string, std::string> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (auto equals = line.find('='); equals != std::string::npos) values[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return values;
}

double frameRate(const std::string& rational)
{
    const auto slash = rational.find('/');
    return slash == std::string::npos ? std::atof(rational.c_str())
                                      : std::atof(rational.c_str()) / std::atof(rational.c_str() + slash + 1);
}

class EncodeJobPassthrough : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = qxtest::makeTempDir("encode-job");
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    }
    std::filesystem::path dir;
};

class EncodeJob : public EncodeJobPassthrough, public ::testing::WithParamInterface<EncodeCase> {};

TEST_P(EncodeJob, ConvertsThroughThePresetIntoAnM4VThatPlays)
{
    const EncodeCase& c = GetParam();
    const auto input = qxtest::generate(c.file, std::string(c.ffmpeg));
    ASSERT_FALSE(input.empty());
    const auto output = dir / "out.m4v";

    auto movie = QXMovie::initWithURL(input);
    ASSERT_TRUE(movie);
    auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(c.preset));
    job->destination = output;
    job->queue();
    ASSERT_TRUE(job->start());
    ASSERT_TRUE(job->waitUntilFinished()) << (job->error() ? job->error()->description() : "");

    auto video = probeStream(output, "v:0");
    const auto source = probeStream(input, "v:0");
    EXPECT_EQ(video["codec_name"], c.codec);
    EXPECT_EQ(video["codec_tag_string"], c.tag);
    EXPECT_EQ(std::atoi(video["width"].c_str()), c.width);
    EXPECT_EQ(std::atoi(video["height"].c_str()), c.height);
    EXPECT_EQ(video["profile"], c.profile);
    if (c.level) {
        EXPECT_EQ(std::atoi(video["level"].c_str()), c.level);
    }
    EXPECT_EQ(video["nb_read_frames"], source.at("nb_read_frames"));
    EXPECT_EQ(video["sample_aspect_ratio"], c.aspect);
    EXPECT_EQ(video["color_range"], c.range);
    if (c.primaries) {
        EXPECT_EQ(video["color_primaries"], c.primaries);
    }

    const auto audio = probeStream(output, "a:0");
    ASSERT_FALSE(audio.empty());
    const double frame = 1.0 / frameRate(source.at("r_frame_rate"));
    EXPECT_LE(std::fabs(std::atof(audio.at("start_time").c_str()) - std::atof(video["start_time"].c_str())), frame);

    std::string decodeErrors;
    qxtest::run("ffmpeg -v error -i '" + output.string() + "' -f null - 2>&1", &decodeErrors);
    EXPECT_EQ(decodeErrors, "");

    if (c.ssim) {
        std::string report;
        qxtest::run("ffmpeg -v info -i '" + output.string() + "' -i '" + input.string() +
                        "' -lavfi \"[1:v]scale=" + std::to_string(c.width) + ":" + std::to_string(c.height) +
                        ":flags=lanczos,setpts=PTS-STARTPTS[ref];[0:v]setpts=PTS-STARTPTS[out];[out][ref]ssim\""
                        " -f null - 2>&1 | grep -o 'All:[0-9.]*'",
                    &report);
        ASSERT_FALSE(report.empty());
        EXPECT_GE(std::atof(report.c_str() + 4), 0.95) << report;
    }
}

TEST_F(EncodeJobPassthrough, EncodesExactlyTheVideoThatCannotBeCopied)
{
    const auto input = qxtest::generate(
        "enc-two-videos.mkv", "-f lavfi -i testsrc2=size=160x120:rate=25:duration=1"
                              " -f lavfi -i testsrc=size=160x120:rate=25:duration=1" + std::string(kAudio) +
                              " -map 0:v -map 1:v -map 2:a -c:v:0 libx264 -preset ultrafast -c:v:1 mpeg4 -c:a aac");
    ASSERT_FALSE(input.empty());
    auto movie = QXMovie::initWithURL(input);
    ASSERT_TRUE(movie);
    auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetPassthrough));
    std::map<int32_t, int64_t> lineTypes; // by source codec
    for (const QXTrackJobRef& line : job->tracks) {
        if (line->source->mediaType() == AVMediaTypeVideo) lineTypes[line->source->codec_id] = line->type;
        EXPECT_TRUE(line->muxerInput) << line->description();
    }
    EXPECT_EQ(lineTypes, (std::map<int32_t, int64_t> {{27, QXTrackJobTypeRemux}, {12, QXTrackJobTypeEncode}}));

    job->destination = dir / "passthrough.m4v";
    job->queue();
    ASSERT_TRUE(job->start());
    ASSERT_TRUE(job->waitUntilFinished()) << (job->error() ? job->error()->description() : "");
    for (const char* stream : {"v:0", "v:1"}) {
        auto video = probeStream(job->destination, stream);
        EXPECT_EQ(video["codec_name"], "h264") << stream;
        EXPECT_EQ(video["nb_read_frames"], "25") << stream;
    }
    std::string decodeErrors;
    qxtest::run("ffmpeg -v error -i '" + job->destination.string() + "' -map 0 -f null - 2>&1", &decodeErrors);
    EXPECT_EQ(decodeErrors, "");
}

INSTANTIATE_TEST_SUITE_P(Sources, EncodeJob, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<EncodeCase>& info) { return std::string(info.param.name); });

} // namespace
