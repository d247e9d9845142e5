// DVD folders made by dvdauthor, read by the project and by lsdvd: titles,
// lengths, chapter starts and stream languages agree within the rounding of
// DVD times.

#include <gtest/gtest.h>

#include "DVDMedia.h"
#include "qxmedia/dvd/QXDVDFolder.h"
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

} // namespace
