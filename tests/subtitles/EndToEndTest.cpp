// Subtitles end to end through a job, read back by FFmpeg and mediainfo.

#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <regex>
#include <sstream>

extern "C" {
#include <libavutil/avutil.h>
}

#include "SubtitleMedia.h"
#include "TX3GReading.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace subtitletest;

namespace {

struct Cue {
    int64_t startMs, endMs;
    std::string text;
};

const std::vector<Cue> kCues {{500, 1500, "Where were you last night?"},
                              {1500, 2700, "I told you, I was at the station."},
                              {3200, 4000, "Nobody saw you there, Thomas."}};

std::string srtOf(const std::vector<Cue>& cues)
{
    std::string srt;
    char timing[64];
    for (size_t i = 0; i < cues.size(); ++i) {
        const int64_t a = cues[i].startMs, b = cues[i].endMs;
        std::snprintf(timing, sizeof timing, "00:00:%02d,%03d --> 00:00:%02d,%03d", int(a / 1000), int(a % 1000),
                      int(b / 1000), int(b % 1000));
        srt += std::to_string(i + 1) + "\n" + timing + "\n" + cues[i].text + "\n\n";
    }
    return srt;
}

// A subtitle track as FFmpeg's SubRip, without markup or empty samples.
std::vector<Cue> readBack(const std::filesystem::path& file, int index = 0)
{
    std::string srt;
    qxtest::run("ffmpeg -v error -i '" + file.string() + "' -map 0:s:" + std::to_string(index) + " -f srt -", &srt);
    std::vector<Cue> cues;
    const std::regex timing(R"((\d+):(\d+):(\d+),(\d+) --> (\d+):(\d+):(\d+),(\d+))");
    auto ms = [](const std::smatch& m, int i) {
        return ((std::stoll(m[i]) * 60 + std::stoll(m[i + 1])) * 60 + std::stoll(m[i + 2])) * 1000 + std::stoll(m[i + 3]);
    };
    std::istringstream lines(srt);
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (!std::regex_search(line, match, timing)) continue;
        Cue cue {ms(match, 1), ms(match, 5), ""};
        while (std::getline(lines, line) && !line.empty()) cue.text += (cue.text.empty() ? "" : "\n") + line;
        cue.text = std::regex_replace(cue.text, std::regex("<[^>]*>"), "");
        if (!cue.text.empty()) cues.push_back(cue);
    }
    return cues;
}

// The non-empty tx3g samples of the first subtitle track, after checking
// that all of them are well formed and follow each other from zero.
std::vector<TX3GSample> textSamples(const std::filesystem::path& file)
{
    std::vector<TX3GSample> samples;
    int64_t next = 0;
    for (const qxtest::Packet& packet : qxtest::readStream(file, 100000, AVMEDIA_TYPE_SUBTITLE).packets) {
        EXPECT_EQ(packet.pts, next) << "gap or overlap";
        next = packet.pts + packet.duration;
        const TX3GSample sample = parseTX3G(packet.data);
        EXPECT_TRUE(sample.wellFormed);
        if (!sample.text.empty()) samples.push_back(sample);
    }
    return samples;
}

std::filesystem::path withSubtitles(const std::string& name, const std::string& subtitles, const std::string& codec,
                                    const std::string& more = "")
{
    const auto file = qxtest::mediaDir() / (name + ".srt");
    qxtest::writeFile(file, subtitles);
    return qxtest::generate(name, "-i '" + videoSource(640, 360, 5).string() + "' -i '" + file.string() +
                                      "' -map 0:v -map 1:s -c:v copy -c:s " + codec +
                                      " -metadata:s:s:0 language=fra" + more);
}

class SubtitleRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = qxtest::makeTempDir("subtitle-run");
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    }

    // The video is copied, so that no video encoder is needed.
    std::filesystem::path convert(const std::filesystem::path& input, const std::vector<QXURL>& attached = {})
    {
        auto job = QXJob::initWithMovie(QXMovie::initWithURL(input), QXPreset::initWithIdentifier(QXPresetApple1080p));
        job->attachSubtitleTracksWithURLs(attached);
        std::vector<QXTrackJobRef> lines = job->tracks;
        for (QXTrackJobRef& line : lines) {
            if (line->source->mediaType() == AVMediaTypeVideo) {
                line = QXTrackJob::initWithSource(line->source, line->source->copy(), QXTrackJobTypeRemux);
            }
        }
        job->tracks = lines;
        job->destination = dir / "out.m4v";
        job->queue();
        EXPECT_TRUE(job->start());
        EXPECT_TRUE(job->waitUntilFinished()) << (job->error() ? job->error()->description() : "");
        return job->destination;
    }

    std::filesystem::path dir;
};

void expectCues(const std::vector<Cue>& cues, const std::vector<Cue>& expected)
{
    ASSERT_EQ(cues.size(), expected.size());
    for (size_t i = 0; i < cues.size(); ++i) {
        EXPECT_EQ(cues[i].text, expected[i].text);
        EXPECT_NEAR(double(cues[i].startMs), double(expected[i].startMs), 1.0) << i;
        EXPECT_NEAR(double(cues[i].endMs), double(expected[i].endMs), 1.0) << i;
    }
}

// Recognised lines against the known ones: character errors at most 2%.
void expectRecognised(const std::vector<Cue>& cues, const std::vector<std::string>& lines, const char* what)
{
    ASSERT_EQ(cues.size(), lines.size());
    std::string recognised, reference;
    for (size_t i = 0; i < lines.size(); ++i) {
        recognised += cues[i].text + "\n";
        reference += lines[i] + "\n";
    }
    const double rate = characterErrorRate(recognised, reference);
    std::cout << what << " character error rate: " << rate * 100 << " % of " << reference.size() << "\n";
    EXPECT_LE(rate, 0.02) << recognised;
}

} // namespace

TEST_F(SubtitleRun, TextSourcesBecomeTimedTextWithTheirLinesAndTimes)
{
    // SubRip in Matroska is converted; tx3g in MP4 is copied.
    for (const auto& [name, codec] : {std::pair {"subtitle-srt-forced.mkv", "srt"}, {"subtitle-tx3g.mp4", "mov_text"}}) {
        SCOPED_TRACE(name);
        const auto output = convert(withSubtitles(name, srtOf(kCues), codec, " -disposition:s:0 forced"));
        expectCues(readBack(output), kCues);
        EXPECT_EQ(textSamples(output).size(), kCues.size());
        // Disabled, in the subtitle group, with language and forced mark.
        std::string info;
        qxtest::run("mediainfo --Inform='Text;%Format%|%Language%|%AlternateGroup%|%Default%|%Forced%' '" +
                        output.string() + "'", &info);
        if (codec[0] == 's') {
            EXPECT_EQ(info.substr(0, info.find('\n')), "Timed Text|fr|2|No|Yes");
        }
    }
}

TEST_F(SubtitleRun, AttachedFilesInAnyEncodingWithStylesAndPositions)
{
    const auto latin1 = dir / "latin1.srt", vtt = dir / "cues.vtt", ass = dir / "styles.ass";
    qxtest::writeFile(latin1, "1\n00:00:01,000 --> 00:00:02,000\nCaf\xe9 cr\xe8me, s'il vous pla\xeet.\n\n");
    qxtest::writeFile(vtt, "WEBVTT\n\n00:00.500 --> 00:01.500\nFirst <b>cue</b>\n\n00:03.000 --> 00:04.000\nSecond\n");
    qxtest::writeFile(ass, "[Script Info]\nScriptType: v4.00+\nPlayResX: 1280\nPlayResY: 720\n\n[V4+ Styles]\n"
                           "Format: Name, Fontname, Fontsize, PrimaryColour, Bold, Alignment\n"
                           "Style: Default,DejaVu Sans,40,&H00FFFFFF,0,2\n\n[Events]\n"
                           "Format: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n"
                           "Dialogue: 0,0:00:01.00,0:00:02.00,Default,,0,0,0,,{\\b1}Bold{\\b0} then plain\n"
                           "Dialogue: 0,0:00:02.50,0:00:03.50,Default,,0,0,0,,{\\pos(640,360)}Centre\n");
    const auto output = convert(videoSource(640, 360, 5), {ass, latin1, vtt});
    expectCues(readBack(output, 0), {{1000, 2000, "Bold then plain"}, {2500, 3500, "Centre"}});
    expectCues(readBack(output, 1), {{1000, 2000, "Caf\xc3\xa9 cr\xc3\xa8me, s'il vous pla\xc3\xaet."}});
    expectCues(readBack(output, 2), {{500, 1500, "First cue"}, {3000, 4000, "Second"}});

    const auto styled = textSamples(output);
    ASSERT_EQ(styled.size(), 2u);
    EXPECT_EQ(styled[0].styles, (std::vector<StyleRun> {{0, 4, 1, 24, 0xffffffff}, {4, 15, 0, 24, 0xffffffff}}));
    // The script's 1280x720 play area scaled to the 640x360 picture.
    EXPECT_EQ(styled[1].box, (Box {120, 214, 240, 426}));
}

TEST_F(SubtitleRun, PgsPicturesAreReadWithForcedMarks)
{
    const std::vector<std::string> lines {
        "Where were you last night?",          "I told you, I was at the station.",
        "Keep your voice down, they can hear us.", "Seventeen boxes, every one empty.",
    };
    std::vector<PictureEvent> events;
    for (size_t i = 0; i < lines.size(); ++i) {
        events.push_back({int64_t(i) * 600 + 200, int64_t(i) * 600 + 700, renderLine(lines[i]), i == 1});
    }
    writeSup(dir / "events.sup", events, 1280, 720);
    const auto mkv = dir / "pgs.mkv";
    ASSERT_EQ(qxtest::run("mkvmerge -q -o '" + mkv.string() + "' '" + videoSource(1280, 720, 5).string() +
                          "' --language 0:eng '" + (dir / "events.sup").string() + "'"), 0);
    const auto output = convert(mkv);
    const std::vector<Cue> cues = readBack(output);
    expectRecognised(cues, lines, "PGS");
    for (size_t i = 0; i < cues.size(); ++i) {
        EXPECT_EQ(cues[i].startMs, events[i].startMs);
        EXPECT_EQ(cues[i].endMs, events[i].endMs);
    }
    std::vector<bool> forced;
    for (const TX3GSample& sample : textSamples(output)) forced.push_back(sample.forced);
    EXPECT_EQ(forced, (std::vector<bool> {false, true, false, false}));
}

TEST_F(SubtitleRun, VobSubPicturesAreRead)
{
    qxtest::writeFile(dir / "vob.srt", srtOf(kCues));
    qxtest::writeFile(dir / "spu.xml", "<subpictures format=\"PAL\"><stream><textsub filename=\"vob.srt\" "
                                       "characterset=\"UTF-8\" fontsize=\"28.0\" font=\"/usr/share/fonts/truetype/"
                                       "dejavu/DejaVuSans.ttf\" horizontal-alignment=\"center\" "
                                       "vertical-alignment=\"bottom\" movie-fps=\"25\" subtitle-fps=\"25\" "
                                       "movie-width=\"720\" movie-height=\"574\"/></stream></subpictures>");
    const auto mpg = qxtest::generate("subtitle-dvd.mpg", "-f lavfi -i testsrc2=size=720x576:rate=25:duration=5 "
                                                          "-c:v mpeg2video -b:v 2M -f dvd");
    const auto mkv = dir / "vobsub.mkv";
    ASSERT_EQ(qxtest::run("cd '" + dir.string() + "' && VIDEO_FORMAT=PAL spumux -s0 spu.xml < '" + mpg.string() +
                          "' > sub.vob 2>/dev/null && ffmpeg -v error -i '" + videoSource(720, 576, 5).string() +
                          "' -i sub.vob -map 0:v -map 1:s -c copy -metadata:s:s:0 language=eng '" + mkv.string() + "'"),
              0);
    const auto output = convert(mkv);
    const std::vector<Cue> cues = readBack(output);
    std::vector<std::string> lines;
    for (const Cue& cue : kCues) lines.push_back(cue.text);
    expectRecognised(cues, lines, "VobSub");
    // The pictures' times as the source holds them (the program stream's
    // start moved them on their way into Matroska).
    const qxtest::StreamPackets pictures = qxtest::readStream(mkv, 100, AVMEDIA_TYPE_SUBTITLE);
    ASSERT_EQ(pictures.packets.size(), cues.size());
    for (size_t i = 0; i < cues.size(); ++i) {
        EXPECT_EQ(cues[i].startMs, pictures.packets[i].pts * 1000 * pictures.timeBase.num / pictures.timeBase.den);
        EXPECT_NEAR(double(cues[i].endMs - cues[i].startMs), double(kCues[i].endMs - kCues[i].startMs), 45.0);
    }
    textSamples(output);
}
