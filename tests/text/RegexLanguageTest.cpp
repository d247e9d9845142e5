// Regular expressions (options, groups, ranges, templates, errors) and the language of a text.

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
    EXPECT_EQ(matches[0].substring(text, 1), "00:00:00.000");
    EXPECT_EQ(matches[1].substring(text, 2), "Größe");
    EXPECT_EQ(matches[2].substring(text, 2), "");
    // Ranges are byte offsets into the UTF-8 text.
    EXPECT_EQ(text.substr(matches[1].rangeAtIndex(2).location, 7), "Größe");
    EXPECT_EQ(matches[1].rangeAtIndex(2).length, 7u);

    // Without the options the anchors see only the whole text and case counts.
    auto plain = QXRegularExpression::regularExpressionWithPattern("^CHAPTER[0-9]+=(.+)$");
    EXPECT_EQ(plain->numberOfMatchesInString(text), 0u);
    auto lines = QXRegularExpression::regularExpressionWithPattern("^CHAPTER[0-9]+=(.+)$",
                                                                  NSRegularExpressionAnchorsMatchLines);
    EXPECT_EQ(lines->numberOfMatchesInString(text), 2u);
}

TEST(RegularExpression, OptionalGroupsRangesAndReplacement)
{
    auto regex = QXRegularExpression::regularExpressionWithPattern("([0-9]{2}).([0-9]{2})(x)?");
    ASSERT_TRUE(regex);
    const std::string text = "at 12:34 and 56.78x";
    const auto matches = regex->matchesInString(text);
    ASSERT_EQ(matches.size(), 2u);
    EXPECT_FALSE(matches[0].rangeAtIndex(3).found());
    EXPECT_EQ(matches[1].substring(text, 3), "x");
    EXPECT_EQ(regex->rangeOfFirstMatchInString(text), (QXRange {3, 5}));
    EXPECT_FALSE(regex->rangeOfFirstMatchInString("none").found());

    EXPECT_EQ(regex->stringByReplacingMatchesInString(text, "$2-$1"), "at 34-12 and 78-56");
    EXPECT_EQ(regex->stringByReplacingMatchesInString(text, "\\$1[$0]"), "at $1[12:34] and $1[56.78x]");
    // $12 names group 1 followed by "2" when there is no group 12.
    EXPECT_EQ(regex->stringByReplacingMatchesInString("11:22", "$12"), "112");

    // A range limits the search, and anchors see the range as the text.
    const auto limited = regex->matchesInString(text, QXRange {9, 100});
    ASSERT_EQ(limited.size(), 1u);
    EXPECT_EQ(limited[0].range().location, 13u);
    auto anchored = QXRegularExpression::regularExpressionWithPattern("^[0-9]+");
    EXPECT_EQ(anchored->matchesInString("ab12", QXRange {2, 2}).size(), 1u);

    // Special characters escape into a literal pattern and template.
    const std::string literal = "a+b (c) $1 [x]";
    auto escaped =
        QXRegularExpression::regularExpressionWithPattern(QXRegularExpression::escapedPatternForString(literal));
    ASSERT_TRUE(escaped);
    EXPECT_EQ(escaped->rangeOfFirstMatchInString("zz " + literal), (QXRange {3, literal.size()}));
    EXPECT_EQ(escaped->stringByReplacingMatchesInString(literal, QXRegularExpression::escapedTemplateForString("$0\\")),
              "$0\\");
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

    auto dvd = QXRegularExpression::regularExpressionWithPattern("VTS_[0-9]{2}_[0-9].VOB",
                                                                 NSRegularExpressionCaseInsensitive);
    EXPECT_TRUE(dvd->firstMatchInString("vts_01_1.vob"));
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

    // The middle half of a text, counted in characters: the German part.
    const std::string mixed = english + " " + german + german + " " + english;
    const int64_t length = QXCharacterCount(mixed);
    EXPECT_EQ(qx::CFStringTokenizerCopyBestStringLanguage(mixed, qx::CFRangeMake(length / 4, length / 2)), "de");
    EXPECT_EQ(qx::CFStringTokenizerCopyBestStringLanguage(mixed, qx::CFRangeMake(0, 0)), "");
    EXPECT_EQ(qx::CFStringTokenizerCopyBestStringLanguage(german, qx::CFRangeMake(0, 1 << 30)), "de");
    EXPECT_EQ(QXCharacterCount("Größe"), 5);
}
