// Times as hh:mm:ss.mmm text, read and written.

#include <gtest/gtest.h>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXTimeFormat.h"
#include "support/TestMedia.h"

using namespace qx;

TEST(SmpteTime, Parsing)
{
    const std::pair<const char*, int64_t> cases[] = {
        {"01:02:03", 3723000},
        {"01:02:03.5", 3723500},
        {"01:02:03.005", 3723005}, // leading zeros of the fraction count
        {"01:02:03,5", 3723000},   // a comma ends the scan: no fraction
        {"00:00:01.250 trailing", 1250},
    };
    for (const auto& [text, milliseconds] : cases) {
        const CMTime t = CMTimeFromSmpteString(text);
        EXPECT_EQ(CMTimeCompare(t, CMTimeMake(milliseconds, 1000)), 0) << text;
    }
}

TEST(SmpteTime, MissingFieldIsInvalidAndLogged)
{
    qxtest::LogCapture capture;
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeFromSmpteString("01:02")));
    EXPECT_TRUE(capture.contains("Failed to parse Timestamp 01:02!", QXLogFlagWarning));
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeFromSmpteString(std::string_view())));
}

TEST(SmpteTime, Formatting)
{
    EXPECT_EQ(CMTimeCopySmpteDescription(CMTimeMake(3723500, 1000)), "01:02:03.500");
    EXPECT_EQ(CMTimeCopySmpteDescription(CMTimeMake(25 * 3600, 1)), "01:00:00.000"); // hours wrap at 24
    EXPECT_EQ(CMTimeCopySmpteDescription(CMTimeMakeWithSeconds(1.9996, 10000)), "00:00:01.000");
    EXPECT_EQ(CMTimeCopySmpteDescription(CMTimeMake(1001, 30000)), "00:00:00.033");
    // Round trip of every millisecond pattern in the first seconds.
    for (int64_t ms = 0; ms < 3000; ms += 7) {
        const CMTime t = CMTimeMake(ms, 1000);
        EXPECT_EQ(CMTimeCompare(CMTimeFromSmpteString(CMTimeCopySmpteDescription(t)), t), 0) << ms;
    }
}
