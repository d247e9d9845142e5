// Regular expressions (options, groups, errors) and the language of a text.

#include <gtest/gtest.h>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/text/QXLanguageDetection.h"
#include "qxmedia/platform/text/QXRegularExpression.h"

TEST(RegularExpression, ChapterListWithLineAnchorsAndCaseInsensitivity)
{
    // The OGM chapter form, as chapter text files hold it.
    const std::string text = "CHAPTER01=00:00:00.000\r\nCHAPTER01NAME=Intro\r\n"
                             "chapter02=00:05:30.500\nchapter02name=Größe\n"
                             "CHAPTER03=00:10:00.000\r\nCHAPTER03NAME=\r\n";
    auto regex = QXRegularExpression::regularExpressionWithPattern(
        "^CHAPTER[0-9]+=(.+)$[\\r\\n]+^CHAPTER[0-9]+NAME=(.*)$",
        NSRegularExpressionCaseInsensitive | NSRegularExpressionAnchorsMatchLines);
    ASSERT_TRUE(regex);
    const auto matches = regex->matchesInString(text);
    ASSERT_EQ(matches.size(), 3u);
    EXPECT_EQ(matches[1].substring(text, 2), "Größe");
    EXPECT_EQ(matches[2].substring(text, 2), "");
    EXPECT_EQ(matches[1].rangeAtIndex(2).length, 7u) << "ranges count UTF-8 bytes";
}

TEST(RegularExpression, BadPatternAndEmptyMatches)
{
    QXErrorRef error;
    EXPECT_FALSE(QXRegularExpression::regularExpressionWithPattern("([a-z", 0, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 2048);

    // An empty match advances instead of looping for ever.
    auto empty = QXRegularExpression::regularExpressionWithPattern("x*");
    EXPECT_EQ(empty->numberOfMatchesInString("abc"), 4u);
    EXPECT_EQ(empty->stringByReplacingMatchesInString("ab", "-"), "-a-b-");
}

TEST(LanguageDetection, SentencesInThreeLanguages)
{
    const std::string german =
        "Der schnelle braune Fuchs springt über den faulen Hund. Am Abend gingen wir gemeinsam in die Stadt, "
        "um im Restaurant am Marktplatz zu essen, und danach haben wir noch lange über die Ferien gesprochen.";
    const std::string french =
        "Le renard brun rapide saute par-dessus le chien paresseux. Le soir, nous sommes allés ensemble en ville "
        "pour dîner au restaurant de la place du marché, puis nous avons longtemps parlé des vacances.";
    const std::string english =
        "The quick brown fox jumps over the lazy dog. In the evening we went into town together to eat at the "
        "restaurant on the market square, and afterwards we talked about the holidays for a long time.";
    EXPECT_EQ(QXBestLanguageForText(german), "de");
    EXPECT_EQ(QXBestLanguageForText(french), "fr");
    EXPECT_EQ(QXBestLanguageForText(english), "en");
    EXPECT_EQ(QXBestLanguageForText("12:34 --> 56:78"), "und");
    EXPECT_EQ(QXBestLanguageForText("\xFF\xFE broken"), "und");
}
