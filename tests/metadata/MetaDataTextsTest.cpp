// Texts of the record's tags: iTunEXTC ratings, genre numbers, iTunMOVI credits, dates and tag strings.

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

TEST(MetaDataRatings, ITunEXTCTextBothWays)
{
    const struct {
        const char* country;
        int64_t kind;
        uint64_t rating;
        const char* annotation;
        const char* expected; // null: no text
    } cases[] = {
        {"US", 9, 300, nullptr, "mpaa|PG-13|300|"},
        {"US", 9, QXNoContentRating, nullptr, nullptr},
        {"US", 9, 0, nullptr, "mpaa|NR|000|"},
        {"US", 0, 0, nullptr, nullptr}, // no video kind
        {"US", 10, 600, "Violence", "us-tv|TV-MA|600|Violence"},
        {"US", 10, 450, nullptr, "us-tv|TV-14|500|"}, // between two: the next one up
        {"DE", 9, 75, nullptr, "de-movie|ab 0 Jahren|075|"},
        {"JP", 10, 300, nullptr, "us-tv|TV-G|300|"}, // no TV ratings of its own: those of the US
    };
    for (const auto& c : cases) {
        auto record = QXMetaData::init();
        record->countryCode.set(std::string(c.country));
        record->videoKind = c.kind;
        record->contentRating = c.rating;
        if (c.annotation) record->contentRatingAnnotation.set(std::string(c.annotation));
        const auto text = record->contentRatingStringMP4();
        EXPECT_EQ(text.value_or("(none)"), c.expected ? c.expected : "(none)") << c.country << " " << c.rating;
    }
    auto unrated = QXMetaData::init();
    unrated->videoKind = 9;
    EXPECT_EQ(unrated->contentRatingString(), "NC-17") << "no rating shows the last name of the table";

    auto reader = QXMetaData::init();
    reader->setContentRatingStringMP4("uk-movie|12A|325|Mild threat");
    EXPECT_EQ(reader->contentRating, 325u);
    EXPECT_EQ(*reader->contentRatingAnnotation.get(), "Mild threat");
    reader->setContentRatingStringMP4("mpaa|R|"); // third part empty
    EXPECT_EQ(reader->contentRating, 0u);
    EXPECT_EQ(*reader->contentRatingAnnotation.get(), "Mild threat");
    reader->setContentRatingStringMP4("mpaa|R"); // too short: nothing
    EXPECT_EQ(reader->contentRating, 0u);
}

TEST(MetaDataRatings, EveryRatingOfTheTableSurvivesTheItemText)
{
    // Each name finds its own value, and the item text written for a
    // value reads back as that value, in every country's movie and TV table.
    const QXContentRatings ratings;
    size_t checked = 0;
    for (const std::string& country : ratings.countryCodes()) {
        for (int64_t kind : {9, 10}) {
            const QXDictionary* row = ratings.ratingsForVideoKind(kind, country);
            ASSERT_TRUE(row) << country;
            const QXValue* table = row->count(QXRatings) ? &row->at(QXRatings) : nullptr;
            if (!table || !table->dictionary()) continue;
            for (const auto& [key, name] : *table->dictionary()) {
                SCOPED_TRACE(country + " " + std::to_string(kind) + " " + key);
                ASSERT_TRUE(name.string());
                const uint64_t value = std::stoull(key);
                EXPECT_EQ(ratings.ratingForString(*name.string(), kind, country), value);
                auto record = QXMetaData::init();
                record->countryCode.set(country);
                record->videoKind = kind;
                record->contentRating = value;
                const auto text = record->contentRatingStringMP4();
                ASSERT_TRUE(text);
                auto back = QXMetaData::init();
                back->setContentRatingStringMP4(*text);
                EXPECT_EQ(back->contentRating, value) << *text;
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, 100u) << "the table did not load";

    // Lookups that fall back: home videos use movie ratings, unknown countries the US.
    EXPECT_EQ(ratings.ratingsForVideoKind(6, "US"), ratings.ratingsForVideoKind(9, "US"));
    EXPECT_EQ(ratings.ratingsForVideoKind(10, "XX"), ratings.ratingsForVideoKind(10, "US"));
    EXPECT_EQ(ratings.ratingForString("16", 9, "DE"), 500u) << "digits of \"ab 16 Jahren\"";
    EXPECT_EQ(ratings.ratingForString("XYZ", 9, "US"), 0u);
}

TEST(MetaDataGenres, EveryGenreNameFindsItsNumberForItsKindOnly)
{
    for (const auto& [kind, table] : QXGenreIDs::genreIDs()) {
        for (const auto& [id, name] : table) {
            EXPECT_EQ(QXGenreIDs::genreIDForString(name, kind), id) << kind << " " << name;
        }
    }
    EXPECT_NE(QXGenreIDs::genreIDForString("Comedy", 9), QXGenreIDs::genreIDForString("Comedy", 10));
    EXPECT_EQ(QXGenreIDs::genreIDForString("comedy", 9), 0u) << "names are matched exactly";
    EXPECT_FALSE(QXGenreIDs::genreIDsForVideoKind(0));
}

TEST(MetaDataCredits, ITunMOVIBothWays)
{
    auto record = QXMetaData::init();
    record->studio.set(std::string("Studio & Co"));
    EXPECT_EQ(record->iTunMOVI()->find("<key>studio</key>") != std::string::npos, true);
    record->studio.set(std::string());
    EXPECT_FALSE(record->iTunMOVI()); // an empty studio is left out

    record->actors.set(QXStringList {"Anna <A>", "Ben"});
    record->directors.set(QXStringList {});
    const std::string text = *record->iTunMOVI();
    EXPECT_NE(text.find("<string>Anna &lt;A&gt;</string>"), std::string::npos);
    EXPECT_NE(text.find("<key>directors</key>\n\t<array/>"), std::string::npos);
    EXPECT_EQ(text.find("producers"), std::string::npos);

    auto back = QXMetaData::init();
    back->producers.set(QXStringList {"kept"});
    back->setITunMOVI(text);
    EXPECT_EQ(*back->actors.get(), (QXStringList {"Anna <A>", "Ben"}));
    EXPECT_TRUE(back->directors.isNull()); // an empty list reads as none
    EXPECT_EQ(*back->producers.get(), QXStringList {"kept"});

    back->setITunMOVI("not a property list");
    EXPECT_EQ(back->actors.get()->size(), 2u);

    EXPECT_FALSE(QXMetaData::nameArrayFromPropertyList({QXValue(QXDictionary {{"nom", QXValue("x")}})}));
    EXPECT_EQ(*QXMetaData::nameArrayFromPropertyList(
                  {QXValue(QXDictionary {{"name", QXValue("x")}}), QXValue("skip")}),
              QXStringList {"x"});
}

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

TEST(MetaDataDates, StringsFromTagBytes)
{
    EXPECT_EQ(QXMetaData::stringFromMetadata(nullptr), "");
    EXPECT_EQ(QXMetaData::stringFromMetadata("Caf\xc3\xa9"), "Caf\xc3\xa9");
    // Not UTF-8: read as UTF-16 where the bytes pair up.
    const char utf16[] = {'\xfe', '\xff', '\x4e', '\x2d', '\0'};
    EXPECT_EQ(QXMetaData::stringFromMetadata(utf16), "\xe4\xb8\xad");
    EXPECT_EQ(QXMetaData::stringFromMetadata("\xe9"), ""); // neither
}
