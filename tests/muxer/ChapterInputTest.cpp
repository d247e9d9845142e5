// Chapters written alongside copied video (their lengths follow the video
// actually written), and the copied tx3g subtitle input.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "MuxerSupport.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/muxer/QXMuxerRawH264Input.h"
#include "qxmedia/muxer/QXMuxerRawTX3GInput.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace muxertest;
namespace fs = std::filesystem;

namespace {

// Writes `samples` through the input the factory picks for `track`.
std::unique_ptr<mp4::MP4File> write(const fs::path& path, const QXTrackRef& track, const QXChapterTrackRef& chapters,
                                    std::vector<CMSampleBufferRef> samples)
{
    auto input = QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, false);
    if (auto video = std::dynamic_pointer_cast<QXMuxerChapterInput>(input)) video->chapters = chapters;
    MuxerRun run(path);
    run.muxer->addInput(input);
    EXPECT_TRUE(run.start());
    Feeder feeder(input, std::move(samples));
    EXPECT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    return mp4::MP4File::read(path);
}

std::vector<uint8_t> textSample(const std::string& text)
{
    std::vector<uint8_t> bytes {uint8_t(text.size() >> 8), uint8_t(text.size())};
    for (char c : text) bytes.push_back(uint8_t(c));
    return bytes;
}

} // namespace

TEST(ChapterInput, ChaptersLastAsLongAsTheVideoWrittenForThem)
{
    auto dir = qxtest::makeTempDir("chapter-input");
    struct Case {
        std::vector<std::pair<std::string, int64_t>> marks; // title, start in ms
        int frames;                                         // of 40 ms
        std::vector<mp4::MP4Chapter> expected;
    };
    const Case cases[] = {
        // One chapter: written at the end, with the whole length.
        {{{"A", 0}}, 50, {{2000, "A"}}},
        // A mark after the last frame is never reached.
        {{{"A", 0}, {"B", 5000}}, 50, {{2000, "A"}}},
        // The first frame at or after a mark closes the chapter before it
        // (1520 for 1500); a second mark at the same time is skipped; a last
        // chapter of 80 ms gets no entry.
        {{{"A", 0}, {"B", 1000}, {"B twice", 1000}, {"C", 1500}}, 40, {{1000, "A"}, {520, "B"}}},
        // No frame, no chapter.
        {{{"A", 0}, {"B", 1000}}, 0, {}},
    };
    for (size_t n = 0; n < std::size(cases); ++n) {
        auto list = QXChapterTrack::init();
        for (const auto& [title, start] : cases[n].marks) list->addChapter(title, CMTimeMake(start, 1000));
        std::vector<CMSampleBufferRef> samples;
        for (int k = 0; k < cases[n].frames; ++k) samples.push_back(makeSample(40 * k, 40 * k, 40, 1000));
        auto file = write(dir / (std::to_string(n) + ".m4v"), makeH264Track(1000), list, samples);
        ASSERT_TRUE(file) << n;
        ASSERT_EQ(file->trackCount(), 3u) << n;
        EXPECT_EQ(file->track(1)->references(mp4::fourcc("chap")), (std::vector<uint32_t> {2, 3})) << n;
        std::vector<mp4::MP4Chapter> chapters;
        mp4::MP4GetChapters(*file, chapters, mp4::MP4ChapterTypeQt);
        EXPECT_EQ(chapters, cases[n].expected) << n;
        EXPECT_EQ(file->track(3)->sampleCount(), cases[n].expected.size()) << n << ": a picture for each title";
    }

    // Without chapters the video is all there is.
    for (const QXChapterTrackRef& none : {QXChapterTrackRef(), QXChapterTrack::init()}) {
        auto file = write(dir / "none.m4v", makeH264Track(1000), none, {makeSample(0, 0, 40, 1000)});
        ASSERT_TRUE(file);
        EXPECT_EQ(file->trackCount(), 1u);
    }
}

TEST(RawTX3GInput, SubtitleSamplesAreCopiedWithTheirTimesAndDescription)
{
    auto track = QXSubtitleTrack::init();
    track->codec_id = AV_CODEC_ID_MOV_TEXT;
    track->naturalTimeScale = 1000;
    track->font_size = 30;
    EXPECT_TRUE(std::dynamic_pointer_cast<QXMuxerRawTX3GInput>(
        QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, true)));

    // Back to back from 0.5 s: start, duration, text.
    const std::vector<std::tuple<int64_t, int64_t, std::string>> cues {
        {500, 1500, "First"}, {2000, 1000, ""}, {3000, 750, "Third line"}};
    std::vector<CMSampleBufferRef> samples;
    for (const auto& [start, duration, text] : cues) {
        samples.push_back(makeSampleWithBytes(textSample(text), start, start, duration, 1000));
    }
    auto dir = qxtest::makeTempDir("tx3g-input");
    auto file = write(dir / "subtitles.m4v", track, nullptr, samples);
    ASSERT_TRUE(file);
    mp4::MP4Track* subtitles = file->track(1);
    ASSERT_TRUE(subtitles);
    EXPECT_EQ(subtitles->type(), mp4::kSubtitleTrack);
    auto* entry = dynamic_cast<mp4::Tx3gSampleEntry*>(subtitles->sampleEntry());
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->fontSize, 30);
    ASSERT_EQ(subtitles->sampleCount(), cues.size());
    for (uint32_t i = 0; i < cues.size(); ++i) {
        mp4::SampleInfo info;
        std::vector<uint8_t> data;
        subtitles->sampleInfo(i, info);
        subtitles->readSample(i, data);
        EXPECT_EQ(info.duration, uint32_t(std::get<1>(cues[i]))) << i;
        EXPECT_EQ(data, textSample(std::get<2>(cues[i]))) << i;
    }
    // The first cue's time becomes an empty edit before the track.
    const auto edits = subtitles->edits();
    ASSERT_EQ(edits.size(), 2u);
    EXPECT_EQ(edits[0].mediaTime, -1);
    EXPECT_EQ(edits[0].segmentDuration, 500u);
    EXPECT_EQ(ffprobe("-show_entries packet=pts_time -of csv=p=0", dir / "subtitles.m4v"),
              "0.500000\n2.000000\n3.000000");
}
