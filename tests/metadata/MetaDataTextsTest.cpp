// Dates read from the free texts of tags, and written back.

#include <gtest/gtest.h>

#include <ctime>

#include "qxmedia/metadata/QXContentRatings.h"
#include "qxmedia/metadata/QXGenreIDs.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "support/TestMedia.h"

namespace {

// The calendar day of a date in the default time zone.
std::string localDay(QXDate date)
{
    const std::time_t t = std::chrono::system_clock::to_time_t(date);
    std::tm tm {};
    localtime_r(&t, &tm);
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &tm);
    return text;
}

QXDate localTime(int year, int month, int day, int hour, int minute)
{
    std::tm tm {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_isdst = -1;
    return std::chrono::system_clock::from_time_t(std::mktime(&tm));
}

} // namespace

TEST(MetaDataDates, ReadingAndWritingDays)
{
    qxtest::LogCapture log;
    auto day = QXMetaData::dateFromMetadata("2020-05-01");
    ASSERT_TRUE(day);
    EXPECT_EQ(localDay(*day), "2020-05-01");
    for (const char* text : {"2020-05-01T22:30:00Z", "2020-05-01 and some words", "2020-05-01xyz"}) {
        auto date = QXMetaData::dateFromMetadata(text);
        ASSERT_TRUE(date) << text;
        EXPECT_EQ(*date, *day) << text;
    }
    // The pattern matches but there is no such day: nil, with no other try.
    EXPECT_FALSE(QXMetaData::dateFromMetadata("2020-02-30"));
    EXPECT_FALSE(QXMetaData::dateFromMetadata("2021-13-01 May 1, 2020"));
    EXPECT_FALSE(log.contains("Date according to standard"));

    EXPECT_FALSE(QXMetaData::dateFromMetadata(nullptr));
    EXPECT_FALSE(QXMetaData::dateFromMetadata("no date here"));
    EXPECT_TRUE(log.contains("Date according to standard: no date here", 2));

    // Other forms are found anywhere in the text.
    for (const char* text : {"Released on May 1, 2020 in cinemas", "1 May 2020", "05/01/2020"}) {
        auto date = QXMetaData::dateFromMetadata(text);
        ASSERT_TRUE(date) << text;
        EXPECT_EQ(localDay(*date), "2020-05-01") << text;
    }

    EXPECT_EQ(QXMetaData::formattedDate(localTime(2020, 5, 1, 0, 0)), "2020-05-01T10:00:00Z");
    EXPECT_EQ(QXMetaData::formattedDate(localTime(2020, 5, 1, 23, 59)), "2020-05-01T10:00:00Z");
    // A date read with a time of day is written back at 10:00.
    EXPECT_EQ(QXMetaData::formattedDate(*QXMetaData::dateFromMetadata("1999-12-31T23:00:00Z")),
              "1999-12-31T10:00:00Z");
}
