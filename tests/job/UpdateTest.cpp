// The in-place update through a job: chapters, tracks, tags and the rename,
// checked with ffprobe, ffmpeg and AtomicParsley.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <functional>

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

using namespace qx;
namespace fs = std::filesystem;

namespace {

// Four seconds of H.264 and two AAC tracks, with two chapters.
fs::path source()
{
    const fs::path chapterFile = qxtest::mediaDir() / "update-chapters.ffmeta";
    qxtest::writeFile(chapterFile, ";FFMETADATA1\ntitle=Old Title\n"
                                   "[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=1000\ntitle=Opening\n"
                                   "[CHAPTER]\nTIMEBASE=1/1000\nSTART=1000\nEND=4000\ntitle=Middle\n");
    return qxtest::generate("update-source.m4v",
                            "-f lavfi -i testsrc2=size=160x90:rate=25:duration=4"
                            " -f lavfi -i sine=frequency=440:sample_rate=48000:duration=4"
                            " -f lavfi -i sine=frequency=880:sample_rate=48000:duration=4 -i " +
                                chapterFile.string() +
                                " -map 0:v -map 1:a -map 2:a -map_metadata 3 -map_chapters 3 -c:v libx264"
                                " -preset ultrafast -pix_fmt yuv420p -c:a aac -b:a 64k -metadata:s:a:1 language=deu");
}

std::string probe(const fs::path& file, const std::string& entries)
{
    std::string text;
    qxtest::run("ffprobe -v error -show_entries " + entries + " -of csv=p=0 '" + file.string() + "'", &text);
    return text;
}

// One line per chapter: start,end,title.
std::string chapters(const fs::path& file)
{
    return probe(file, "chapter=start_time,end_time:chapter_tags=title");
}

// The packets of the first `streams` streams, one hash line each.
std::string packetHashes(const fs::path& file, int streams)
{
    std::string maps;
    for (int i = 0; i < streams; ++i) maps += " -map 0:" + std::to_string(i);
    std::string text;
    qxtest::run("ffmpeg -v error -i '" + file.string() + "'" + maps + " -c copy -f streamhash -", &text);
    return text;
}

class Update : public ::testing::Test {
protected:
    void SetUp() override
    {
        const fs::path original = source();
        ASSERT_FALSE(original.empty());
        folder = qxtest::makeTempDir("update");
        file = folder / "Movie.m4v";
        fs::copy_file(original, file);
    }

    std::shared_ptr<QXJob> makeJob(const char* presetIdentifier)
    {
        auto movie = QXMovie::initWithURL(file);
        if (!movie) return nullptr;
        auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(presetIdentifier));
        job->metadata = movie->metadata;
        job->chapters = movie->chapters ? movie->chapters : QXChapterTrack::init();
        job->destination = file;
        return job;
    }

    static bool run(const std::shared_ptr<QXJob>& job)
    {
        job->queue();
        job->start();
        return job->waitUntilFinished();
    }

    fs::path folder, file;
};

struct ChapterCase {
    const char* name;
    std::function<void(QXChapterTrack&)> edit;
    const char* expected; // chapters as ffprobe lists them; null: as before
};

class UpdateChapters : public Update, public ::testing::WithParamInterface<ChapterCase> {};

TEST_P(UpdateChapters, WritesTheEditedListAndKeepsEverySample)
{
    const ChapterCase& c = GetParam();
    const std::string before = chapters(file);
    const std::string packetsBefore = packetHashes(file, 3);
    const auto sizeBefore = fs::file_size(file);
    auto job = makeJob(QXPresetUpdate);
    ASSERT_TRUE(job);
    ASSERT_EQ(job->preset->identifier, QXPresetUpdate);
    c.edit(*job->chapters);
    ASSERT_TRUE(run(job)) << (job->error() ? job->error()->description() : "");

    EXPECT_EQ(chapters(file), c.expected ? std::string(c.expected) : before);
    EXPECT_EQ(packetHashes(file, 3), packetsBefore);
    std::string errors;
    qxtest::run("ffmpeg -v error -i '" + file.string() + "' -f null - 2>&1", &errors);
    EXPECT_EQ(errors, "");
    // Even an update that changes nothing writes the movie box anew.
    if (!c.expected) {
        EXPECT_NE(fs::file_size(file), sizeBefore);
    }
    if (c.expected && std::string(c.expected).empty()) {
        EXPECT_EQ(probe(file, "stream=codec_type").find("data"), std::string::npos);
        EXPECT_EQ(probe(file, "stream=codec_name").find("mjpeg"), std::string::npos);
    }
}

void setChapters(QXChapterTrack& track, std::vector<std::pair<const char*, double>> list)
{
    track.clearChapters();
    for (const auto& [title, seconds] : list) track.addChapter(std::string(title), CMTimeMake(int64_t(seconds * 1000), 1000));
}

const ChapterCase kChapterCases[] = {
    {"NothingChanged", [](QXChapterTrack&) {}, nullptr},
    {"EmptiedList", [](QXChapterTrack& t) { t.clearChapters(); }, ""},
    {"LastEndsAtTheVideosEnd", [](QXChapterTrack& t) { setChapters(t, {{"A", 0}, {"B", 2.5}}); },
     "0.000000,2.500000,A\n2.500000,4.000000,B\n"},
    {"ChapterPastTheEndIsDropped",
     [](QXChapterTrack& t) { setChapters(t, {{"A", 0}, {"B", 1}, {"C", 5}, {"D", 6}}); },
     "0.000000,1.000000,A\n1.000000,4.000000,B\n"},
};

INSTANTIATE_TEST_SUITE_P(Cases, UpdateChapters, ::testing::ValuesIn(kChapterCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Update, RemovesATrackAddsSubtitlesAndWritesTagsAndTrackRecords)
{
    const fs::path subtitles = folder / "Extra.srt";
    qxtest::writeFile(subtitles, "1\n00:00:00,500 --> 00:00:01,500\nHello\n\n2\n00:00:02,000 --> 00:00:03,000\nBye\n");
    const std::string videoBefore = packetHashes(file, 1);
    auto job = makeJob(QXPresetUpdate);
    ASSERT_TRUE(job);
    QXTrackJobRef german;
    for (const QXTrackJobRef& line : job->tracks)
        if (line->source->trackID == 3) german = line;
    ASSERT_TRUE(german);
    job->removeTrackJob(german);
    job->attachSubtitleTracksWithURLs({subtitles});
    job->metadata->setValue(QXValue("New Title"), QXName);
    job->tracksOfType(AVMediaTypeAudio).front()->destination->language = "fra";
    ASSERT_TRUE(run(job)) << (job->error() ? job->error()->description() : "");

    const std::string streams = probe(file, "stream=codec_name:stream_tags=language");
    EXPECT_EQ(streams.find("deu"), std::string::npos) << streams;
    EXPECT_NE(streams.find("aac,fra"), std::string::npos) << streams;
    EXPECT_NE(streams.find("mov_text"), std::string::npos) << streams;
    EXPECT_EQ(packetHashes(file, 1), videoBefore);
    std::string text;
    qxtest::run("ffmpeg -v error -i '" + file.string() + "' -map 0:s -f srt -", &text);
    EXPECT_NE(text.find("Hello"), std::string::npos) << text;
    EXPECT_NE(text.find("Bye"), std::string::npos) << text;
    if (qxtest::haveTool("AtomicParsley")) {
        qxtest::run("AtomicParsley '" + file.string() + "' -t", &text);
        EXPECT_NE(text.find("New Title"), std::string::npos) << text;
    }
}

struct RenameCase {
    const char* name;
    const char* preset;
    const char* target; // relative to the test folder; empty: the file itself
    bool occupied;      // a file exists at the target
    const char* expectedAt;
    bool succeeds;
};

class UpdateRename : public Update, public ::testing::WithParamInterface<RenameCase> {};

TEST_P(UpdateRename, EndsAtTheRightPlaceWithModeAndAttributes)
{
    const RenameCase& c = GetParam();
    const fs::path target = *c.target ? folder / c.target : file;
    if (c.occupied) qxtest::writeFile(target, "someone else's");
    ASSERT_EQ(::chmod(file.c_str(), 0640), 0);
    ASSERT_EQ(::setxattr(file.c_str(), "user.origin", "test", 4, 0), 0);
    auto job = makeJob(c.preset);
    ASSERT_TRUE(job);
    job->destination = target;
    job->moveToTrash = true; // no effect on an update
    EXPECT_EQ(run(job), c.succeeds);

    const fs::path at = folder / c.expectedAt;
    ASSERT_TRUE(fs::exists(at));
    EXPECT_EQ(fs::exists(file), at == file);
    if (c.succeeds) {
        EXPECT_EQ(job->destination, at);
    }
    if (c.occupied) {
        EXPECT_EQ(qxtest::readFile(target), "someone else's");
    }
    struct stat info {};
    ASSERT_EQ(::stat(at.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
    char value[8] = {};
    EXPECT_EQ(::getxattr(at.c_str(), "user.origin", value, sizeof value), 4);
}

const RenameCase kRenameCases[] = {
    {"UpdateKeepsThePlace", QXPresetUpdate, "Elsewhere.m4v", false, "Movie.m4v", true},
    {"RenameToTheSameFile", QXPresetUpdateRename, "", false, "Movie.m4v", true},
    {"RenameMakesTheFolder", QXPresetUpdateRename, "Shows/Season 01/New.m4v", false, "Shows/Season 01/New.m4v", true},
    {"RenameNeverReplaces", QXPresetUpdateRename, "Taken.m4v", true, "Movie.m4v", false},
};

INSTANTIATE_TEST_SUITE_P(Cases, UpdateRename, ::testing::ValuesIn(kRenameCases),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
