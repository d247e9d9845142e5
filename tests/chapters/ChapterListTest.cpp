// The chapter list: the filler chapter and chapters at an interval.

#include <gtest/gtest.h>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/source/QXChapterTrack.h"

using namespace qx;

namespace {

std::vector<std::string> titlesOf(const QXChapterTrack& track)
{
    std::vector<std::string> titles;
    for (const auto& chapter : track.chapters) titles.push_back(chapter->title.value_or("<none>"));
    return titles;
}

std::vector<int64_t> millisecondsOf(const QXChapterTrack& track)
{
    std::vector<int64_t> times;
    for (const auto& chapter : track.chapters)
        times.push_back(CMTimeConvertScale(chapter->timestamp, 1000, kCMTimeRoundingMethod_Default).value);
    return times;
}

CMTime ms(int64_t milliseconds)
{
    return CMTimeMake(milliseconds, 1000);
}

} // namespace

TEST(ChapterTrack, FirstChapterBringsAFillerAtZero)
{
    auto track = QXChapterTrack::init();
    auto added = track->addChapter("Later", ms(5000));
    ASSERT_EQ(track->chapterCount(), 2u);
    EXPECT_EQ(track->chapters[1], added);
    EXPECT_EQ(millisecondsOf(*track), (std::vector<int64_t> {0, 5000}));

    // Only the first add does that, and not when it starts at zero.
    track->addChapter("Even later", ms(9000));
    EXPECT_EQ(track->chapterCount(), 3u);
    auto atZero = QXChapterTrack::init();
    atZero->addChapter("Start", CMTimeMake(0, 90000));
    EXPECT_EQ(titlesOf(*atZero), (std::vector<std::string> {"Start"}));
}

TEST(ChapterTrack, ChaptersAtAFixedInterval)
{
    // A total that is a multiple of the interval gets no chapter at the end.
    auto track = QXChapterTrack::init();
    track->addChaptersEvery(60, CMTimeMake(300, 1));
    EXPECT_EQ(millisecondsOf(*track), (std::vector<int64_t> {0, 60000, 120000, 180000, 240000}));

    // Existing times are skipped, numbers count steps, new ones go behind
    // the old until sorted.
    auto mixed = QXChapterTrack::init();
    mixed->addChapter("Start", kCMTimeZero);
    mixed->addChapter("Two minutes", CMTimeMake(120, 1));
    mixed->addChaptersEvery(60, CMTimeMakeWithSeconds(200.5, 1000));
    EXPECT_EQ(titlesOf(*mixed), (std::vector<std::string> {"Start", "Two minutes", "Chapter 2", "Chapter 4"}));
    mixed->sortChapters();
    EXPECT_EQ(titlesOf(*mixed), (std::vector<std::string> {"Start", "Chapter 2", "Two minutes", "Chapter 4"}));
    EXPECT_EQ(millisecondsOf(*mixed), (std::vector<int64_t> {0, 60000, 120000, 180000}));

    // The step is kept in milliseconds and accumulates exactly.
    auto fine = QXChapterTrack::init();
    fine->addChaptersEvery(0.1, CMTimeMake(1, 1));
    EXPECT_EQ(fine->chapterCount(), 10u);
    EXPECT_EQ(millisecondsOf(*fine).back(), 900);

    // Steps and totals that would never end the walk add nothing.
    auto none = QXChapterTrack::init();
    none->addChaptersEvery(0, CMTimeMake(10, 1));
    none->addChaptersEvery(-5, CMTimeMake(10, 1));
    none->addChaptersEvery(10, kCMTimeInvalid);
    none->addChaptersEvery(10, kCMTimePositiveInfinity);
    EXPECT_EQ(none->chapterCount(), 0u);
}
