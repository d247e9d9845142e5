// `qxconvert info --json` against ffprobe on the same sources: the tool's
// tracks are FFmpeg's streams less the attached pictures (they become
// artwork) and the chapter text streams (they become the chapter list),
// with the same codecs, sizes and durations.

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "SourceMedia.h"
#include "support/TestMedia.h"

namespace {

using Fields = std::map<std::string, std::string>;

// The tool lives beside the tests: <build>/tests/test_source, <build>/tools/qxconvert.
std::filesystem::path toolPath()
{
    std::error_code failed;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", failed);
    return failed ? std::filesystem::path() : self.parent_path().parent_path() / "tools" / "qxconvert";
}

// Flattens a JSON document into "a.0.b" = value lines with python3's own
// parser, which also proves the tool's output is well-formed JSON.
Fields flattenJson(const std::filesystem::path& json, const std::filesystem::path& dir)
{
    const auto script = dir / "flatten.py";
    qxtest::writeFile(script, "import json, sys\n"
                              "def walk(path, value):\n"
                              "    if isinstance(value, dict):\n"
                              "        for key, item in value.items(): walk(path + [key], item)\n"
                              "    elif isinstance(value, list):\n"
                              "        for index, item in enumerate(value): walk(path + [str(index)], item)\n"
                              "    else:\n"
                              "        text = 'null' if value is None else str(value)\n"
                              "        print('.'.join(path) + '=' + text.replace('\\n', ' '))\n"
                              "walk([], json.load(open(sys.argv[1])))\n");
    std::string output;
    EXPECT_EQ(qxtest::run("python3 '" + script.string() + "' '" + json.string() + "'", &output), 0)
        << json << " is not JSON";
    Fields fields;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos) fields[line.substr(0, equals)] = line.substr(equals + 1);
    }
    return fields;
}

std::string field(const Fields& fields, const std::string& key)
{
    auto found = fields.find(key);
    return found == fields.end() ? std::string() : found->second;
}

double number(const Fields& fields, const std::string& key)
{
    const std::string text = field(fields, key);
    return text.empty() || text == "null" ? NAN : std::stod(text);
}

void compareWithProbe(const std::filesystem::path& source, const std::string& label)
{
    SCOPED_TRACE(label);
    ASSERT_FALSE(source.empty());
    const auto dir = qxtest::makeTempDir("info-" + label);
    const auto toolJson = dir / "tool.json";
    const auto probeJson = dir / "probe.json";
    ASSERT_EQ(qxtest::run("'" + toolPath().string() + "' info '" + source.string() + "' --json > '" +
                          toolJson.string() + "' 2>/dev/null"),
              0);
    ASSERT_EQ(qxtest::run("ffprobe -v error -show_streams -show_format -of json '" + source.string() + "' > '" +
                          probeJson.string() + "'"),
              0);
    const Fields tool = flattenJson(toolJson, dir);
    const Fields probe = flattenJson(probeJson, dir);
    ASSERT_FALSE(tool.empty());

    // Absent durations are null on both sides, an absent bit rate is 0 here.
    auto expectSeconds = [](double actual, double expected, const std::string& what) {
        if (std::isnan(expected)) {
            EXPECT_TRUE(std::isnan(actual)) << what << " should have no duration";
        } else {
            EXPECT_NEAR(actual, expected, 1e-3) << what;
        }
    };
    const double containerDuration = number(probe, "format.duration");
    expectSeconds(number(tool, "duration"), containerDuration, "movie");
    EXPECT_EQ(field(tool, "format"), field(probe, "format.format_name"));
    EXPECT_EQ(field(tool, "fileSize"), field(probe, "format.size"));
    const std::string probeBitrate = field(probe, "format.bit_rate");
    EXPECT_EQ(field(tool, "bitrate"), probeBitrate.empty() ? "0" : probeBitrate);

    size_t expectedTracks = 0;
    size_t trackCount = 0;
    while (tool.count("tracks." + std::to_string(trackCount) + ".streamIndex")) ++trackCount;
    std::map<int, std::string> trackByStream;
    for (size_t i = 0; i < trackCount; ++i) {
        const std::string prefix = "tracks." + std::to_string(i) + ".";
        trackByStream[std::stoi(field(tool, prefix + "streamIndex"))] = prefix;
    }
    for (int s = 0; probe.count("streams." + std::to_string(s) + ".index"); ++s) {
        const std::string stream = "streams." + std::to_string(s) + ".";
        const std::string type = field(probe, stream + "codec_type");
        const bool picture = field(probe, stream + "disposition.attached_pic") == "1";
        const bool chapterText = type == "data" && field(probe, stream + "codec_name") == "bin_data";
        auto found = trackByStream.find(std::stoi(field(probe, stream + "index")));
        if (picture || chapterText) {
            EXPECT_EQ(found, trackByStream.end()) << "stream " << s << " is artwork or chapters, not a track";
            continue;
        }
        ++expectedTracks;
        ASSERT_NE(found, trackByStream.end()) << "no track for stream " << s;
        const std::string& track = found->second;
        const int codec = std::stoi(field(tool, track + "codec_id"));
        EXPECT_EQ(avcodec_get_name(AVCodecID(codec)), field(probe, stream + "codec_name")) << track;
        // The track ID is the stream id ("0x100" in ffprobe's words); Matroska has none.
        if (const std::string id = field(probe, stream + "id"); !id.empty()) {
            EXPECT_EQ(std::stol(id, nullptr, 16), std::stol(field(tool, track + "trackID"))) << track;
        } else {
            EXPECT_EQ(field(tool, track + "trackID"), "0") << track;
        }
        if (type == "video") {
            EXPECT_EQ(field(tool, track + "width"), field(probe, stream + "width")) << track;
            EXPECT_EQ(field(tool, track + "height"), field(probe, stream + "height")) << track;
        } else if (type == "audio") {
            EXPECT_EQ(field(tool, track + "channels"), field(probe, stream + "channels")) << track;
            EXPECT_EQ(field(tool, track + "sample_rate"), field(probe, stream + "sample_rate")) << track;
        }
        // A stream without a duration of its own (Matroska) takes the container's.
        const double streamDuration = number(probe, stream + "duration");
        expectSeconds(number(tool, track + "duration"), std::isnan(streamDuration) ? containerDuration : streamDuration,
                      track);
    }
    EXPECT_EQ(trackCount, expectedTracks);
}

} // namespace

TEST(InfoTool, AgreesWithFFprobe)
{
    if (!std::filesystem::exists(toolPath())) GTEST_SKIP() << "build the qxconvert target first: " << toolPath();
    compareWithProbe(sourcemedia::matroska(), "matroska");
    compareWithProbe(sourcemedia::hevcEac3(), "hevc-eac3");
    compareWithProbe(sourcemedia::transportStream(), "ts");
    compareWithProbe(sourcemedia::m4v(), "m4v");
    compareWithProbe(sourcemedia::coverOnly(), "cover");
    compareWithProbe(sourcemedia::multiTrackMP4(), "multi");
    // A subtitle file on its own: no durations at all.
    const auto srt = qxtest::makeTempDir("info-srt-source") / "Film.de.srt";
    qxtest::writeFile(srt, sourcemedia::srtText());
    compareWithProbe(srt, "srt");
}

TEST(InfoTool, FailsOnAMissingFile)
{
    if (!std::filesystem::exists(toolPath())) GTEST_SKIP() << "build the qxconvert target first";
    std::string output;
    EXPECT_EQ(qxtest::run("'" + toolPath().string() + "' info /nonexistent/film.mkv --json 2>&1", &output), 1);
    EXPECT_NE(output.find("cannot open /nonexistent/film.mkv"), std::string::npos) << output;
}
