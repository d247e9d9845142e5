// DVD folders made by dvdauthor, read by the project and by lsdvd: titles,
// lengths, chapter starts and stream languages must agree within the
// rounding of DVD times; a title opens as a source with its tags and
// chapters.

#include <gtest/gtest.h>

#include "DVDMedia.h"
#include "qxmedia/dvd/QXDVDFolder.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXDVDTitleSource.h"
#include "qxmedia/source/QXMovie.h"
#include "support/TestMedia.h"

namespace {

// lsdvd counts NTSC frames at 29.97 a second, the information files at 33 ms:
// a frame per chapter is the rounding both may differ by.
constexpr int64_t kFrameTolerance = 40;

std::filesystem::path requireFolder(const std::string& kind)
{
    for (const char* tool : {"dvdauthor", "spumux", "lsdvd", "ffmpeg"}) {
        if (!qxtest::haveTool(tool)) return {};
    }
    return dvdtest::dvdFolder(kind);
}

class DVDFolderAgainstLsdvd : public testing::TestWithParam<std::string> {};

TEST_P(DVDFolderAgainstLsdvd, TitlesChaptersAndLanguagesAgree)
{
    const auto folder = requireFolder(GetParam());
    if (folder.empty()) GTEST_SKIP() << "dvdauthor, spumux, lsdvd and ffmpeg are needed (scripts/setup.sh)";
    const auto expected = dvdtest::lsdvdTitles(folder);
    ASSERT_FALSE(expected.empty());

    // The folder above VIDEO_TS and VIDEO_TS itself are both accepted.
    for (const auto& path : {folder, folder / "VIDEO_TS"}) {
        QXErrorRef error;
        auto dvd = QXDVDFolder::initWithURL(path, &error);
        ASSERT_TRUE(dvd) << path;
        ASSERT_EQ(dvd->titles.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            const QXDVDTitle& title = dvd->titles[i];
            SCOPED_TRACE("title " + std::to_string(i + 1));
            EXPECT_EQ(title.number, int(i + 1));
            EXPECT_NEAR(title.milliseconds, expected[i].milliseconds, kFrameTolerance);
            ASSERT_EQ(title.chapterStarts.size(), expected[i].chapterStarts.size());
            for (size_t c = 0; c < title.chapterStarts.size(); ++c) {
                EXPECT_NEAR(title.chapterStarts[c], expected[i].chapterStarts[c], kFrameTolerance * int64_t(c + 1));
            }
            EXPECT_EQ(title.audioLanguages, expected[i].audioLanguages);
            EXPECT_EQ(title.subpictureLanguages, expected[i].subpictureLanguages);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Folders, DVDFolderAgainstLsdvd, testing::Values("pal", "ntsc"));

TEST(DVDTitleSource, TitleOpensWithTagsAndChaptersOfItsTitleSet)
{
    const auto folder = requireFolder("pal");
    if (folder.empty()) GTEST_SKIP() << "DVD tools missing";
    const auto expected = dvdtest::lsdvdTitles(folder);
    ASSERT_EQ(expected.size(), 2u);

    for (int number : {1, 2}) {
        SCOPED_TRACE("title " + std::to_string(number));
        QXErrorRef error;
        auto movie = QXMovieWithDVDTitle(folder, number, &error);
        ASSERT_TRUE(movie) << (error ? error->description() : "");
        char vob[32];
        std::snprintf(vob, sizeof vob, "VTS_%02d_1.VOB", number);
        EXPECT_EQ(movie->fileURL.filename(), vob);
        EXPECT_EQ(movie->metadata->discNumber, 1u);
        EXPECT_EQ(movie->metadata->discCount, 1u);
        EXPECT_EQ(movie->metadata->episodeNumber, uint64_t(number));
        const std::string name = movie->metadata->name.get() ? *movie->metadata->name.get() : "";
        EXPECT_FALSE(name.empty());
        EXPECT_EQ(movie->metadata->shortDescription.get() ? *movie->metadata->shortDescription.get() : "",
                  name + " - Title " + std::to_string(number));

        ASSERT_TRUE(movie->chapters);
        const auto& chapters = movie->chapters->chapters;
        const auto& starts = expected[number - 1].chapterStarts;
        ASSERT_EQ(chapters.size(), starts.size());
        for (size_t c = 0; c < chapters.size(); ++c) {
            EXPECT_EQ(chapters[c]->title.value_or(""), "Chapter " + std::to_string(c + 1));
            EXPECT_NEAR(qx::CMTimeGetSeconds(chapters[c]->timestamp) * 1000, double(starts[c]), kFrameTolerance);
        }
    }
}

TEST(DVDTitleSource, UnknownTitleOrFolderGivesAnError)
{
    const auto folder = requireFolder("pal");
    if (folder.empty()) GTEST_SKIP() << "DVD tools missing";
    const struct {
        std::filesystem::path folder;
        int title;
    } cases[] = {{folder, 3}, {folder, 0}, {folder / "missing", 1}};
    for (const auto& c : cases) {
        QXErrorRef error;
        EXPECT_FALSE(QXMovieWithDVDTitle(c.folder, c.title, &error)) << c.folder << " " << c.title;
        EXPECT_TRUE(error);
    }
}

TEST(DVDTitleSource, InfoToolListsTheTitles)
{
    const auto folder = requireFolder("pal");
    if (folder.empty()) GTEST_SKIP() << "DVD tools missing";
    std::error_code failed;
    const auto tool = std::filesystem::read_symlink("/proc/self/exe", failed).parent_path().parent_path() / "tools" /
                      "qxconvert";
    if (!std::filesystem::exists(tool)) GTEST_SKIP() << "build the qxconvert target first";
    std::string output;
    ASSERT_EQ(qxtest::run("'" + tool.string() + "' info '" + folder.string() + "' 2>/dev/null", &output), 0);
    EXPECT_NE(output.find("Title 2: 00:00:07.000, 2 chapters"), std::string::npos) << output;
    EXPECT_NE(output.find("audio: en, de"), std::string::npos) << output;
    EXPECT_NE(output.find("subpictures: fr"), std::string::npos) << output;
}

} // namespace
