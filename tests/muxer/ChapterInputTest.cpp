// Chapters written alongside copied video (their lengths follow the video
// actually written), and the copied tx3g subtitle input.

#include <gtest/gtest.h>

#include <cstring>

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

struct Entry {
    uint32_t duration;
    std::string title;
    bool operator==(const Entry&) const = default;
};

void PrintTo(const Entry& entry, std::ostream* out)
{
    *out << "{" << entry.duration << ", " << entry.title << "}";
}

// Copies `frames` frames of 40 ms (times in 1/1000) with the given chapters
// (null: none) and answers the file.
std::unique_ptr<mp4::MP4File> writeWithChapters(const fs::path& path, const QXChapterTrackRef& chapters, int frames)
{
    auto track = makeH264Track(1000);
    auto input = std::dynamic_pointer_cast<QXMuxerRawH264Input>(
        QXMuxerInput::initWithSource(QXTrackReaderOutput::initWithSource(track), track, false));
    EXPECT_TRUE(input);
    if (!input) return nullptr;
    input->chapters = chapters;
    std::vector<CMSampleBufferRef> samples;
    for (int k = 0; k < frames; ++k) samples.push_back(makeSample(40 * k, 40 * k, 40, 1000, 100, k % 25 == 0));
    MuxerRun run(path);
    run.muxer->addInput(input);
    EXPECT_TRUE(run.start());
    Feeder feeder(input, std::move(samples));
    EXPECT_TRUE(run.waitForCompletion());
    EXPECT_EQ(run.muxer->status, QXMuxerStatusCompleted);
    return mp4::MP4File::read(path);
}

// The titles of the chapter text track with their lengths; the picture
// track must keep the same rhythm.
std::vector<Entry> chapterEntries(const mp4::MP4File& file)
{
    std::vector<Entry> entries;
    mp4::MP4Track* titles = file.track(2);
    mp4::MP4Track* images = file.track(3);
    if (!titles || !images) return entries;
    EXPECT_EQ(images->sampleCount(), titles->sampleCount());
    std::vector<uint8_t> data;
    for (uint32_t i = 0; i < titles->sampleCount(); ++i) {
        mp4::SampleInfo info, image;
        titles->sampleInfo(i, info);
        images->sampleInfo(i, image);
        EXPECT_EQ(image.duration, info.duration) << i;
        titles->readSample(i, data);
        entries.push_back({info.duration, mp4::MP4ChapterTitleFromSample(data).value_or("?")});
    }
    return entries;
}

QXChapterTrackRef chapterList(const std::vector<std::pair<std::string, int64_t>>& marks)
{
    auto list = QXChapterTrack::init();
    for (const auto& [title, milliseconds] : marks) list->addChapter(title, CMTimeMake(milliseconds, 1000));
    return list;
}

std::vector<uint8_t> textSample(const std::string& text)
{
    std::vector<uint8_t> bytes(2 + text.size());
    bytes[0] = uint8_t(text.size() >> 8);
    bytes[1] = uint8_t(text.size());
    std::memcpy(bytes.data() + 2, text.data(), text.size());
    return bytes;
}

} // namespace

TEST(ChapterInput, ChaptersLastAsLongAsTheVideoWrittenForThem)
{
    auto dir = qxtest::makeTempDir("chapter-input");
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, int64_t>> marks;
        int frames;
        std::vector<Entry> expected;
    };
    const Case cases[] = {
        // One chapter: written at the end, with the whole length.
        {"one", {{"A", 0}}, 50, {{2000, "A"}}},
        // The second mark lies after the last frame: it is never reached.
        {"beyond", {{"A", 0}, {"B", 5000}}, 50, {{2000, "A"}}},
        // The first frame at or after a mark closes the chapter before it
        // (1520 for 1500); a second mark at the same time is skipped; a last
        // chapter of 80 ms gets no entry.
        {"marks", {{"A", 0}, {"B", 1000}, {"B twice", 1000}, {"C", 1500}}, 40, {{1000, "A"}, {520, "B"}}},
        // No frame, no chapter.
        {"empty", {{"A", 0}, {"B", 1000}}, 0, {}},
    };
    for (const Case& c : cases) {
        auto file = writeWithChapters(dir / (std::string(c.name) + ".m4v"), chapterList(c.marks), c.frames);
        ASSERT_TRUE(file) << c.name;
        ASSERT_EQ(file->trackCount(), 3u) << c.name;
        EXPECT_EQ(file->track(1)->references(mp4::fourcc("chap")), (std::vector<uint32_t> {2, 3})) << c.name;
        EXPECT_EQ(chapterEntries(*file), c.expected) << c.name;
        EXPECT_EQ(file->track(1)->sampleCount(), uint32_t(c.frames)) << c.name;
    }

    // Without chapters the video is all there is.
    for (const QXChapterTrackRef& none : {QXChapterTrackRef(), QXChapterTrack::init()}) {
        auto file = writeWithChapters(dir / "none.m4v", none, 10);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->trackCount(), 1u);
        EXPECT_FALSE(file->track(1)->hasReference(mp4::fourcc("chap")));
    }
}

TEST(RawTX3GInput, SubtitleSamplesAreCopiedWithTheirTimesAndDescription)
{
    auto track = QXSubtitleTrack::init();
    track->codec_id = AV_CODEC_ID_MOV_TEXT;
    track->naturalTimeScale = 1000;
    track->width = 320;
    track->height = 60;
    track->font_size = 30;
    auto source = QXTrackReaderOutput::initWithSource(track);
    for (bool encode : {true, false}) {
        EXPECT_TRUE(std::dynamic_pointer_cast<QXMuxerRawTX3GInput>(QXMuxerInput::initWithSource(source, track, encode)));
    }
    auto input = QXMuxerInput::initWithSource(source, track, false);

    // Back to back from 0.5 s; the texts tell the samples apart.
    const std::vector<std::tuple<int64_t, int64_t, std::string>> cues {
        {500, 1500, "First"}, {2000, 1000, ""}, {3000, 750, "Third line"}};
    std::vector<CMSampleBufferRef> samples;
    for (const auto& [start, duration, text] : cues) {
        samples.push_back(makeSampleWithBytes(textSample(text), start, start, duration, 1000));
    }
    auto dir = qxtest::makeTempDir("tx3g-input");
    const fs::path path = dir / "subtitles.m4v";
    MuxerRun run(path);
    run.muxer->addInput(input);
    ASSERT_TRUE(run.start());
    Feeder feeder(input, samples);
    ASSERT_TRUE(run.waitForCompletion());
    ASSERT_EQ(run.muxer->status, QXMuxerStatusCompleted);

    auto file = mp4::MP4File::read(path);
    ASSERT_TRUE(file);
    mp4::MP4Track* subtitles = file->track(1);
    ASSERT_TRUE(subtitles);
    EXPECT_EQ(subtitles->type(), mp4::kSubtitleTrack);
    auto* entry = dynamic_cast<mp4::Tx3gSampleEntry*>(subtitles->sampleEntry());
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->fontSize, 30);
    const auto written = samplesOfTrack(path, 1);
    ASSERT_EQ(written.size(), cues.size());
    for (size_t i = 0; i < cues.size(); ++i) {
        EXPECT_EQ(written[i].duration, uint32_t(std::get<1>(cues[i]))) << i;
        std::vector<uint8_t> data;
        EXPECT_TRUE(subtitles->readSample(uint32_t(i), data));
        EXPECT_EQ(data, textSample(std::get<2>(cues[i]))) << i;
    }
    // The first cue's time becomes an empty edit before the track.
    const auto edits = subtitles->edits();
    ASSERT_EQ(edits.size(), 2u);
    EXPECT_EQ(edits[0].mediaTime, -1);
    EXPECT_EQ(edits[0].segmentDuration, 500u);
    EXPECT_EQ(edits[1].segmentDuration, 3250u);
    EXPECT_EQ(ffprobe("-show_entries packet=pts_time -of csv=p=0", path), "0.500000\n2.000000\n3.000000");
}
