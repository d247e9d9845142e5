// Chapters and the chapter list: text form, ordering, equality, editing, the
// filler chapter, change tracking and chapters at an interval.

#include <gtest/gtest.h>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/foundation/QXLocalization.h"
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

TEST(Chapter, TextFormAndComparison)
{
    auto chapter = QXChapter::init("Intro", CMTimeMake(3723500, 1000));
    EXPECT_EQ(chapter->description(), "01:02:03.500: Intro");
    EXPECT_EQ(QXChapter::init()->description(), "00:00:00.000: (null)");

    chapter->setSmpte("00:00:07.25");
    EXPECT_EQ(chapter->timestamp.value, 7250);
    EXPECT_EQ(chapter->timestamp.timescale, 1000);
    chapter->setSmpte("07:25"); // two fields are not a time
    EXPECT_FALSE(CMTIME_IS_VALID(chapter->timestamp));

    auto early = QXChapter::init("a", ms(1000));
    auto late = QXChapter::init("b", CMTimeMake(2, 1));
    EXPECT_LT(early->compare(late.get()), 0);
    EXPECT_EQ(early->compare(QXChapter::init("other", CMTimeMake(1, 1)).get()), 0); // the title does not order
    // A missing chapter reads as the all-zero (invalid) time, which is last.
    EXPECT_LT(early->compare(nullptr), 0);
}

TEST(Chapter, EqualityIgnoresImageAndCopiesAreDeep)
{
    auto a = QXChapter::init("Scene", ms(1500));
    auto b = QXChapter::init("Scene", CMTimeMake(3, 2)); // same time in another scale
    EXPECT_TRUE(a->isEqualToChapter(*b));
    b->title = "scene";
    EXPECT_FALSE(a->isEqualToChapter(*b));
    b->title = "Scene";
    b->timestamp = ms(1501);
    EXPECT_FALSE(a->isEqualToChapter(*b));

    auto copy = a->copy();
    copy->title = "Changed";
    EXPECT_EQ(a->title, "Scene");
}

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

    // The filler's word goes through the host's translator.
    QXSetTranslator([](std::string_view key) { return key == "Chapter" ? std::string("Kapitel") : std::string(); });
    auto translated = QXChapterTrack::init();
    translated->addChapter("Zwei", ms(100));
    QXSetTranslator(nullptr);
    EXPECT_EQ(titlesOf(*translated), (std::vector<std::string> {"Kapitel 1", "Zwei"}));
}

TEST(ChapterTrack, EditingAndSorting)
{
    auto track = QXChapterTrack::init();
    auto c = QXChapter::init("C", ms(3000));
    auto a = QXChapter::init("A", ms(1000));
    auto b1 = QXChapter::init("B1", ms(2000));
    auto b2 = QXChapter::init("B2", ms(2000));
    // Appending as is: no filler, no sorting.
    for (const auto& chapter : {c, b1, a, b2, c}) track->addChapter(chapter);
    EXPECT_EQ(titlesOf(*track), (std::vector<std::string> {"C", "B1", "A", "B2", "C"}));

    // Removal goes by identity and takes every occurrence; an equal twin stays.
    auto twin = c->copy();
    track->addChapter(twin);
    track->removeChapter(c);
    EXPECT_EQ(titlesOf(*track), (std::vector<std::string> {"B1", "A", "B2", "C"}));
    EXPECT_EQ(track->chapters.back(), twin);

    // Sorting keeps chapters at the same time in their order.
    track->sortChapters();
    EXPECT_EQ(titlesOf(*track), (std::vector<std::string> {"A", "B1", "B2", "C"}));
    EXPECT_TRUE(track->hasChapterAt(CMTimeMake(2, 1)));
    EXPECT_FALSE(track->hasChapterAt(ms(2001)));
}

TEST(ChapterTrack, ModifiedComparesWithTheListAsRead)
{
    auto track = QXChapterTrack::init();
    track->addChapter("One", kCMTimeZero);
    track->addChapter("Two", ms(60000));
    for (const auto& chapter : track->chapters) track->originalChapters.push_back(chapter->copy());
    EXPECT_FALSE(track->isModified());

    // Only title, time, count and order count.
    track->chapters[1]->timestamp = ms(60001);
    EXPECT_TRUE(track->isModified());
    track->chapters[1]->timestamp = CMTimeMake(60, 1);
    EXPECT_FALSE(track->isModified());
    std::swap(track->chapters[0], track->chapters[1]);
    EXPECT_TRUE(track->isModified());
    std::swap(track->chapters[0], track->chapters[1]);
    track->addChapter("Three", ms(90000));
    EXPECT_TRUE(track->isModified());
    track->removeChapter(track->chapters.back());
    EXPECT_FALSE(track->isModified());
    track->clearChapters();
    EXPECT_EQ(track->originalChapters.size(), 2u); // editing never touches the list as read
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
