// Subtitles end to end through a job: text formats in a source or attached
// as files, copied tx3g, VobSub and PGS pictures read by OCR. The output's
// tx3g track is read back by FFmpeg (lines and times), its samples parse to
// the source's runs and boxes, and its timeline has no gaps or overlaps.

#include <gtest/gtest.h>

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
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace subtitletest;

namespace {

struct Cue {
    int64_t startMs, endMs;
    std::string text;
};

const std::vector<Cue> kCues {
    {500, 1500, "Where were you last night?"},
    {1500, 2700, "I told you, I was at the station."},
    {3200, 4000, "Nobody saw you there, Thomas."},
};

std::string srtTime(int64_t ms)
{
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d,%03d", int(ms / 3600000), int(ms / 60000 % 60),
                  int(ms / 1000 % 60), int(ms % 1000));
    return text;
}

std::string srtOf(const std::vector<Cue>& cues)
{
    std::string srt;
    for (size_t i = 0; i < cues.size(); ++i) {
        srt += std::to_string(i + 1) + "\n" + srtTime(cues[i].startMs) + " --> " + srtTime(cues[i].endMs) + "\n" +
               cues[i].text + "\n\n";
    }
    return srt;
}

// The output's first subtitle track as FFmpeg turns it into SubRip, without
// the empty samples.
std::vector<Cue> readBack(const std::filesystem::path& file, int index = 0)
{
    std::string srt;
    qxtest::run("ffmpeg -v error -i '" + file.string() + "' -map 0:s:" + std::to_string(index) + " -f srt -", &srt);
    std::vector<Cue> cues;
    const std::regex timing(R"((\d+):(\d+):(\d+),(\d+) --> (\d+):(\d+):(\d+),(\d+))");
    std::istringstream lines(srt);
    std::string line;
    auto ms = [](const std::smatch& m, int first) {
        return std::stoll(m[first]) * 3600000 + std::stoll(m[first + 1]) * 60000 + std::stoll(m[first + 2]) * 1000 +
               std::stoll(m[first + 3]);
    };
    while (std::getline(lines, line)) {
        std::smatch match;
        if (!std::regex_search(line, match, timing)) continue;
        Cue cue {ms(match, 1), ms(match, 5), ""};
        while (std::getline(lines, line) && !line.empty() && line != "\r") {
            cue.text += (cue.text.empty() ? "" : "\n") + line;
        }
        // FFmpeg's SubRip writer marks up the sample's font and styles.
        cue.text = std::regex_replace(cue.text, std::regex("<[^>]*>"), "");
        if (!cue.text.empty()) cues.push_back(cue);
    }
    return cues;
}

// The tx3g samples of the output: they follow each other from zero, and
// none is malformed.
std::vector<TX3GSample> samplesOf(const std::filesystem::path& file, int* ticks = nullptr)
{
    const qxtest::StreamPackets stream = qxtest::readStream(file, 100000, AVMEDIA_TYPE_SUBTITLE);
    std::vector<TX3GSample> samples;
    int64_t next = 0;
    for (const qxtest::Packet& packet : stream.packets) {
        EXPECT_EQ(packet.pts, next) << "gap or overlap before sample " << samples.size();
        next = packet.pts + packet.duration;
        samples.push_back(parseTX3G(packet.data));
        EXPECT_TRUE(samples.back().wellFormed);
    }
    if (ticks) *ticks = stream.timeBase.den;
    return samples;
}

class SubtitleRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir = qxtest::makeTempDir("subtitle-run");
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
    }

    // Plans the source with the preset, attaches the files, runs the job.
    std::filesystem::path convert(const std::filesystem::path& input, const std::vector<QXURL>& attached = {})
    {

        const auto output = dir / "out.m4v";
        auto movie = QXMovie::initWithURL(input);
        EXPECT_TRUE(movie);
        if (!movie) return {};
        auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p));
        job->attachSubtitleTracksWithURLs(attached);
        // The video is copied, so the run needs no video encoder.
        std::vector<QXTrackJobRef> lines = job->tracks;
        for (QXTrackJobRef& line : lines) {
            if (line->source->mediaType() == AVMediaTypeVideo) {
                line = QXTrackJob::initWithSource(line->source, line->source->copy(), QXTrackJobTypeRemux);
            }
        }
        job->tracks = lines;
        planned = lines;
        job->destination = output;
        job->queue();
        EXPECT_TRUE(job->start());
        EXPECT_TRUE(job->waitUntilFinished()) << (job->error() ? job->error()->description() : "");
        return output;
    }

    void expectCues(const std::filesystem::path& output, const std::vector<Cue>& expected, int64_t tolerance = 1)
    {
        const std::vector<Cue> cues = readBack(output);
        ASSERT_EQ(cues.size(), expected.size());
        for (size_t i = 0; i < cues.size(); ++i) {
            EXPECT_EQ(cues[i].text, expected[i].text);
            EXPECT_NEAR(double(cues[i].startMs), double(expected[i].startMs), double(tolerance)) << i;
            EXPECT_NEAR(double(cues[i].endMs), double(expected[i].endMs), double(tolerance)) << i;
        }
    }

    std::filesystem::path dir;
    std::vector<QXTrackJobRef> planned;
};

std::filesystem::path withSubtitles(const std::string& name, const std::filesystem::path& subtitles,
                                    const std::string& codec, const std::string& format = "")
{
    const auto video = videoSource(640, 360, 5);
    return qxtest::generate(name, "-i '" + video.string() + "' -i '" + subtitles.string() +
                                      "' -map 0:v -map 1:s -c:v copy -c:s " + codec +
                                      " -metadata:s:s:0 language=fra" + format);
}

} // namespace

TEST_F(SubtitleRun, SubRipInMatroskaBecomesTimedTextWithItsLinesAndTimes)
{
    const auto srt = qxtest::mediaDir() / "run-cues.srt";
    qxtest::writeFile(srt, srtOf(kCues));
    const auto output = convert(withSubtitles("subtitle-srt-forced.mkv", srt, "srt", " -disposition:s:0 forced"));
    expectCues(output, kCues);
    const auto samples = samplesOf(output);
    EXPECT_EQ(samples.size(), 6u) << "empty, line, line, empty, line, closing empty";
    // What an Apple player looks at: a disabled track in the subtitle
    // group, its language, the forced mark of the source.
    std::string info;
    qxtest::run("mediainfo --Inform='Text;%Format%|%Language%|%AlternateGroup%|%Default%|%Forced%' '" +
                    output.string() + "'",
                &info);
    EXPECT_EQ(info.substr(0, info.find('\n')), "Timed Text|fr|2|No|Yes");
}

TEST_F(SubtitleRun, AssStylesAndPositionsBecomeRunsAndBoxes)
{
    const auto ass = qxtest::mediaDir() / "run-styles.ass";
    qxtest::writeFile(ass, "[Script Info]\nScriptType: v4.00+\nPlayResX: 1280\nPlayResY: 720\n\n"
                           "[V4+ Styles]\nFormat: Name, Fontname, Fontsize, PrimaryColour, SecondaryColour, "
                           "OutlineColour, BackColour, Bold, Italic, Underline, StrikeOut, ScaleX, ScaleY, Spacing, "
                           "Angle, BorderStyle, Outline, Shadow, Alignment, MarginL, MarginR, MarginV, Encoding\n"
                           "Style: Default,DejaVu Sans,40,&H00FFFFFF,&H000000FF,&H00000000,&H00000000,0,0,0,0,100,"
                           "100,0,0,1,2,0,2,10,10,10,1\n\n"
                           "[Events]\nFormat: Layer, Start, End, Style, Name, MarginL, MarginR, MarginV, Effect, Text\n"
                           "Dialogue: 0,0:00:01.00,0:00:02.00,Default,,0,0,0,,{\\b1}Bold{\\b0} then plain\n"
                           "Dialogue: 0,0:00:02.50,0:00:03.50,Default,,0,0,0,,{\\pos(640,360)}Centre\n");
    // An attached file obeys its positions; its script size is the source's.
    const auto output = convert(videoSource(640, 360, 5), {ass});
    expectCues(output, {{1000, 2000, "Bold then plain"}, {2500, 3500, "Centre"}});
    std::vector<TX3GSample> texts;
    for (const TX3GSample& sample : samplesOf(output)) {
        if (!sample.text.empty()) texts.push_back(sample);
    }
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].styles, (std::vector<StyleRun> {{0, 4, 1, 24, 0xffffffff}, {4, 15, 0, 24, 0xffffffff}}));
    // The source's 1280x720 script space scaled to the 640x360 picture.
    ASSERT_TRUE(texts[1].box);
    EXPECT_EQ(*texts[1].box, (Box {120, 214, 240, 426}));
}

TEST_F(SubtitleRun, AttachedFilesInAnyEncodingAreAdded)
{
    const auto video = videoSource(640, 360, 5);
    const auto latin1 = dir / "latin1.srt";
    // "Café crème" in ISO 8859-1.
    qxtest::writeFile(latin1, "1\n00:00:01,000 --> 00:00:02,000\nCaf\xe9 cr\xe8me, s'il vous pla\xeet.\n\n"
                              "2\n00:00:02,500 --> 00:00:03,000\nD\xe9j\xe0 vu, d\xe9j\xe0 entendu.\n\n");
    const auto vtt = dir / "cues.vtt";
    qxtest::writeFile(vtt, "WEBVTT\n\n00:00.500 --> 00:01.500\nFirst <b>cue</b>\n\n00:03.000 --> 00:04.000\nSecond\n");
    const auto output = convert(video, {latin1, vtt});
    size_t lines = 0;
    for (const QXTrackJobRef& line : planned) lines += line->destination->mediaType() == AVMediaTypeSubtitle;
    EXPECT_EQ(lines, 2u);
    expectCues(output, {{1000, 2000, "Caf\xc3\xa9 cr\xc3\xa8me, s'il vous pla\xc3\xaet."},
                        {2500, 3000, "D\xc3\xa9j\xc3\xa0 vu, d\xc3\xa9j\xc3\xa0 entendu."}});
    const std::vector<Cue> second = readBack(output, 1);
    ASSERT_EQ(second.size(), 2u);
    EXPECT_EQ(second[0].text, "First cue");
    EXPECT_EQ(second[1].startMs, 3000);
    EXPECT_EQ(second[1].endMs, 4000);
}

TEST_F(SubtitleRun, TimedTextInMP4IsCopiedGapless)
{
    const auto srt = qxtest::mediaDir() / "run-cues.srt";
    qxtest::writeFile(srt, srtOf(kCues));
    const auto output = convert(withSubtitles("subtitle-movtext.mp4", srt, "mov_text"));
    expectCues(output, kCues);
    EXPECT_GE(samplesOf(output).size(), 4u);
}

TEST_F(SubtitleRun, PgsPicturesAreReadWithForcedMarks)
{
    const auto sup = dir / "events.sup";
    std::vector<PictureEvent> events;
    for (size_t i = 0; i < kCues.size(); ++i) {
        events.push_back({kCues[i].startMs, kCues[i].endMs, renderLine(kCues[i].text), i == 1});
    }
    writeSup(sup, events, 1280, 720);
    const auto mkv = dir / "pgs.mkv";
    ASSERT_EQ(qxtest::run("mkvmerge -q -o '" + mkv.string() + "' '" + videoSource(1280, 720, 5).string() +
                          "' --language 0:eng '" + sup.string() + "'"),
              0);
    const auto output = convert(mkv);
    const std::vector<Cue> cues = readBack(output);
    ASSERT_EQ(cues.size(), kCues.size());
    std::string recognised, reference;
    for (size_t i = 0; i < cues.size(); ++i) {
        recognised += cues[i].text + "\n";
        reference += kCues[i].text + "\n";
        EXPECT_NEAR(double(cues[i].startMs), double(kCues[i].startMs), 1.0) << i;
        EXPECT_NEAR(double(cues[i].endMs), double(kCues[i].endMs), 1.0) << i;
    }
    EXPECT_LE(characterErrorRate(recognised, reference), 0.02) << recognised;
    std::vector<bool> forced;
    for (const TX3GSample& sample : samplesOf(output)) {
        if (!sample.text.empty()) forced.push_back(sample.forced);
    }
    EXPECT_EQ(forced, (std::vector<bool> {false, true, false}));
}

TEST_F(SubtitleRun, VobSubPicturesAreRead)
{
    if (!qxtest::haveTool("spumux")) GTEST_SKIP() << "spumux (dvdauthor) is not installed";
    const auto srt = dir / "vob.srt";
    qxtest::writeFile(srt, srtOf(kCues));
    const auto xml = dir / "spu.xml";
    qxtest::writeFile(xml, "<subpictures format=\"NTSC\"><stream><textsub filename=\"" + srt.string() +
                               "\" characterset=\"UTF-8\" fontsize=\"28.0\" font=\"/usr/share/fonts/truetype/dejavu/"
                               "DejaVuSans.ttf\" horizontal-alignment=\"center\" vertical-alignment=\"bottom\" "
                               "movie-fps=\"25\" subtitle-fps=\"25\" movie-width=\"720\" movie-height=\"574\"/>"
                               "</stream></subpictures>");
    const auto mpg = qxtest::generate("subtitle-dvd.mpg", "-f lavfi -i testsrc2=size=720x576:rate=25:duration=5 "
                                                          "-c:v mpeg2video -b:v 2M -f dvd");
    const auto vob = dir / "sub.vob";
    ASSERT_EQ(qxtest::run("cd '" + dir.string() + "' && VIDEO_FORMAT=PAL spumux -s0 '" + xml.string() + "' < '" +
                          mpg.string() + "' > '" + vob.string() + "' 2>/dev/null"),
              0);
    const auto mkv = dir / "vobsub.mkv";
    ASSERT_EQ(qxtest::run("ffmpeg -v error -i '" + videoSource(720, 576, 5).string() + "' -i '" + vob.string() +
                          "' -map 0:v -map 1:s -c copy -metadata:s:s:0 language=eng '" + mkv.string() + "'"),
              0);
    const auto output = convert(mkv);
    const std::vector<Cue> cues = readBack(output);
    ASSERT_EQ(cues.size(), kCues.size());
    // The pictures' times as the source holds them (the program stream's
    // start moved them when they went into Matroska).
    const qxtest::StreamPackets pictures = qxtest::readStream(mkv, 100, AVMEDIA_TYPE_SUBTITLE);
    ASSERT_EQ(pictures.packets.size(), kCues.size());
    std::string recognised, reference;
    for (size_t i = 0; i < cues.size(); ++i) {
        recognised += cues[i].text + "\n";
        reference += kCues[i].text + "\n";
        EXPECT_NEAR(double(cues[i].startMs), double(pictures.packets[i].pts * 1000 * pictures.timeBase.num /
                                                        pictures.timeBase.den), 1.0) << i;
        EXPECT_NEAR(double(cues[i].endMs - cues[i].startMs), double(kCues[i].endMs - kCues[i].startMs), 45.0) << i;
    }
    const double rate = characterErrorRate(recognised, reference);
    std::cout << "VobSub character error rate: " << rate * 100 << " %\n";
    EXPECT_LE(rate, 0.02) << recognised;
    samplesOf(output);
}
