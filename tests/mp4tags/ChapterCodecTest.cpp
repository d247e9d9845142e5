// The chapter codecs: Nero chpl payloads, chapter text samples, start and duration conversion.

#include <gtest/gtest.h>

#include "qxmedia/mp4/tags/MP4Chapters.h"

using namespace qx::mp4;

TEST(MP4ChapterCodec, ChplLayoutAndRoundTrip)
{
    const std::vector<MP4NeroChapter> chapters {{0, "Intro"}, {12'345'0000, "Zw\xc3\xb6lf"}};
    const std::vector<uint8_t> payload = MP4ChplEncode(chapters);
    // version 1, flags, reserved byte, 32-bit count; FFmpeg reads the count
    // from the last of those bytes.
    const std::vector<uint8_t> head {1, 0, 0, 0, 0, 0, 0, 0, 2};
    ASSERT_GE(payload.size(), head.size());
    EXPECT_TRUE(std::equal(head.begin(), head.end(), payload.begin()));
    EXPECT_EQ(payload.size(), head.size() + (8 + 1 + 5) + (8 + 1 + 6));
    EXPECT_EQ(MP4ChplDecode(payload), chapters);

    // Version 0 has an 8-bit count right after the flags.
    const std::vector<uint8_t> v0 {0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 10, 2, 'h', 'i'};
    EXPECT_EQ(MP4ChplDecode(v0), (std::vector<MP4NeroChapter> {{10, "hi"}}));
}

TEST(MP4ChapterCodec, ChplLimitsAndDamage)
{
    // Titles are cut to 255 bytes without splitting a character.
    const std::string longTitle = std::string(254, 'a') + "\xc3\xa9" + "b";
    const auto decoded = MP4ChplDecode(MP4ChplEncode({{0, longTitle}}));
    ASSERT_TRUE(decoded && decoded->size() == 1);
    EXPECT_EQ((*decoded)[0].title, std::string(254, 'a'));

    std::vector<MP4NeroChapter> many(300, {0, "c"});
    EXPECT_EQ(MP4ChplDecode(MP4ChplEncode(many))->size(), 255u);

    // A count beyond the data gives what is there.
    std::vector<uint8_t> truncated = MP4ChplEncode({{0, "one"}, {1, "two"}});
    truncated.resize(truncated.size() - 2);
    EXPECT_EQ(MP4ChplDecode(truncated)->size(), 1u);
    EXPECT_FALSE(MP4ChplDecode(std::vector<uint8_t> {1, 0, 0}).has_value());
}

TEST(MP4ChapterCodec, TextSamples)
{
    const std::vector<uint8_t> sample {0, 10, 'K', 'a', 'p', 'i', 't', 'e', 'l', ' ', 0xC3, 0xBC,
                                       0, 0, 0, 12, 'e', 'n', 'c', 'd', 0, 0, 1, 0};
    EXPECT_EQ(MP4ChapterTitleFromSample(sample), "Kapitel \xc3\xbc");
    const std::vector<uint8_t> withBom {0, 5, 0xEF, 0xBB, 0xBF, 'O', 'k'};
    EXPECT_EQ(MP4ChapterTitleFromSample(withBom), "Ok");

    // UTF-16 with a byte order mark, as some QuickTime writers store it.
    const std::vector<uint8_t> utf16ok {0, 10, 0xFE, 0xFF, 0, 'H', 0, 0xE9, 0xD8, 0x3D, 0xDE, 0x00};
    EXPECT_EQ(MP4ChapterTitleFromSample(utf16ok), "H\xc3\xa9\xf0\x9f\x98\x80");
    EXPECT_EQ(MP4ChapterTitleFromSample(std::vector<uint8_t> {0, 0}), "");
}

TEST(MP4ChapterCodec, StartsAndDurations)
{
    const std::vector<MP4Chapter> chapters {{1500, "A"}, {0, "B"}, {2500, "C"}};
    const auto nero = MP4ChaptersToNero(chapters);
    ASSERT_EQ(nero.size(), 3u);
    EXPECT_EQ(nero[2].start, 15'000'000u);
    EXPECT_EQ(MP4ChaptersFromNero(nero, 4000), chapters);
    // The last chapter ends with the movie; a start past the end gives 0.
    EXPECT_EQ(MP4ChaptersFromNero(nero, 1000).back().duration, 0u);
    EXPECT_EQ(MP4TruncateUTF8("\xe2\x82\xac", 2), "");
}

