// Chapter lists from containers: Matroska's chapter table, an MP4 chapter
// text track, hand-built tables, and mkvextract's files of the same chapters.

#include <gtest/gtest.h>

#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "support/TestMedia.h"

using namespace qx;

namespace {

// Chapters in ffmpeg's metadata form: an untitled one among them, a title
// with markup characters and accents, one with a trailing blank.
const char* kChapterMetadata = ";FFMETADATA1\n"
                               "title=Chapter test\n"
                               "[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1500\ntitle=Opening\n"
                               "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1500\nEND=3250\ntitle=Déjà vu & <more>\n"
                               "[CHAPTER]\nTIMEBASE=1/1000\nSTART=3250\nEND=4000\n"
                               "[CHAPTER]\nTIMEBASE=1/1000\nSTART=4000\nEND=6000\ntitle=Last \n";

std::filesystem::path chapterSource(const std::string& name, const std::string& format)
{
    // Tests may run in parallel processes: write under a private name and
    // rename, so ffmpeg never reads a half-written file.
    const auto metadata = qxtest::mediaDir() / "chapters.ffmeta";
    const auto partial = qxtest::mediaDir() / ("chapters.ffmeta." + std::to_string(::getpid()));
    qxtest::writeFile(partial, kChapterMetadata);
    std::filesystem::rename(partial, metadata);
    return qxtest::generate(name, "-f lavfi -i testsrc2=size=160x90:rate=10:duration=6 -i '" + metadata.string() +
                                      "' -map 0:v -map_chapters 1 " + format);
}

struct FormatContext {
    explicit FormatContext(const std::filesystem::path& path)
    {
        if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) context = nullptr;
    }
    ~FormatContext() { avformat_close_input(&context); }
    AVFormatContext* context = nullptr;
};

std::vector<std::pair<std::string, int64_t>> listOf(const std::vector<QXChapterRef>& chapters)
{
    std::vector<std::pair<std::string, int64_t>> list;
    for (const auto& chapter : chapters)
        list.emplace_back(chapter->title.value_or("<none>"),
                          CMTimeConvertScale(chapter->timestamp, 1000, kCMTimeRoundingMethod_Default).value);
    return list;
}

const std::vector<std::pair<std::string, int64_t>> kExpected = {
    {"Opening", 0}, {"Déjà vu & <more>", 1500}, {"Last ", 4000}};

} // namespace

TEST(ContainerChapters, MatroskaChapterTable)
{
    const auto mkv = chapterSource("chapters.mkv", "-c:v mjpeg");
    ASSERT_FALSE(mkv.empty());
    FormatContext input(mkv);
    ASSERT_TRUE(input.context);
    ASSERT_EQ(input.context->nb_chapters, 4u);

    auto track = QXChapterTrack::initWithFormatContext(input.context);
    ASSERT_TRUE(track);
    // The untitled entry is left out; the times keep the container's exact
    // nanosecond scale.
    EXPECT_EQ(listOf(track->chapters), kExpected);
    EXPECT_EQ(track->chapters[1]->timestamp.timescale, 1000000000);
    // The list as read is a copy of its own, equal item for item.
    EXPECT_FALSE(track->isModified());
    track->chapters[2]->title = "Finale";
    EXPECT_TRUE(track->isModified());
    EXPECT_EQ(track->originalChapters[2]->title, "Last ");
}

TEST(ContainerChapters, ChapterFilesOfAnotherToolAgreeWithTheContainer)
{
    if (!qxtest::haveTool("mkvextract")) GTEST_SKIP() << "mkvextract is not installed";
    const auto mkv = chapterSource("chapters.mkv", "-c:v mjpeg");
    ASSERT_FALSE(mkv.empty());
    const auto dir = qxtest::makeTempDir("container-chapters");
    const auto xml = dir / "extracted.xml";
    const auto ogm = dir / "extracted.txt";
    ASSERT_EQ(qxtest::run("mkvextract '" + mkv.string() + "' chapters '" + xml.string() + "' >/dev/null 2>&1"), 0);
    ASSERT_EQ(qxtest::run("mkvextract '" + mkv.string() + "' chapters -s '" + ogm.string() + "' >/dev/null 2>&1"), 0);

    // The Matroska XML (with its byte order mark and nanosecond times) gives
    // the untitled chapter without a title.
    auto fromXML = QXChapterTrack::init();
    EXPECT_TRUE(fromXML->importChaptersFromURL(xml));
    auto withUntitled = kExpected;
    withUntitled.insert(withUntitled.begin() + 2, {"<none>", 3250});
    EXPECT_EQ(listOf(fromXML->chapters), withUntitled);

    // The simple form names every chapter.
    auto fromText = QXChapterTrack::init();
    EXPECT_TRUE(fromText->importChaptersFromURL(ogm));
    ASSERT_EQ(fromText->chapterCount(), 4u);
    EXPECT_EQ(listOf(fromText->chapters)[1], kExpected[1]);
    EXPECT_EQ(listOf(fromText->chapters)[3], kExpected[2]);
    std::filesystem::remove_all(dir);
}

TEST(ContainerChapters, ChapterStreamOfAnMP4GivesItsTrackID)
{
    const auto m4v = chapterSource("chapters.m4v", "-c:v libx264 -preset ultrafast -f ipod");
    ASSERT_FALSE(m4v.empty());
    FormatContext input(m4v);
    ASSERT_TRUE(input.context);
    int chapterStream = -1;
    for (unsigned i = 0; i < input.context->nb_streams; ++i) {
        const AVStream* stream = input.context->streams[i];
        if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) chapterStream = int(i);
    }
    ASSERT_GE(chapterStream, 0) << "the muxer wrote no chapter text track";

    auto track = QXChapterTrack::initWithFormatContext(input.context, chapterStream);
    EXPECT_EQ(track->trackID, input.context->streams[chapterStream]->id);
    // The MP4 chapter track names every chapter (the untitled one gets an
    // empty title); the samples arrive as the container's chapter table.
    ASSERT_GE(track->chapterCount(), 3u);
    EXPECT_EQ(track->chapters[0]->title, "Opening");
    EXPECT_EQ(track->chapters[1]->title, "Déjà vu & <more>");

    // An index out of range leaves the track ID alone.
    EXPECT_EQ(QXChapterTrack::initWithFormatContext(input.context, 99)->trackID, 0);
}
