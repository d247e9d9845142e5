// Reading subtitle pictures: rendered lines of known English text come back
// with at most 2% character errors through the pool of engines; a picture
// without text gives nothing; a language without trained data falls back
// to English, saying so once.

#include <gtest/gtest.h>

#include <iostream>

#include "SubtitleMedia.h"
#include "qxmedia/platform/vision/QXTextRecognition.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace subtitletest;

namespace {

const std::vector<std::string> kLines {
    "Where were you last night?",
    "I told you, I was at the station.",
    "The train left at quarter past nine.",
    "Nobody saw you there, Thomas.",
    "Then ask the man who sells tickets.",
    "He says the office was closed all evening.",
    "We need to find the red suitcase before dawn.",
    "Keep your voice down, they can hear us.",
    "Seventeen boxes, and every one of them empty.",
    "Just tell me the truth for once!",
};

// A picture as a bitmap subtitle decoder gives it: one palette index a
// pixel, 0 transparent, the others opaque greys.
QXTextImage asSubtitleBitmap(const GreyPicture& picture)
{
    std::vector<uint32_t> palette(256);
    for (uint32_t i = 1; i < 256; ++i) palette[i] = 0xff000000u | i << 16 | i << 8 | i;
    return QXTextImageFromPalettedBitmap(picture.pixels.data(), picture.width, picture.width, picture.height,
                                         palette.data(), 256);
}

} // namespace

TEST(OCR, RenderedEnglishLinesComeBackWithFewErrors)
{
    QXTextRecognitionPool pool("eng", 2);
    std::vector<std::future<std::string>> answers;
    for (const std::string& line : kLines) {
        const GreyPicture picture = renderLine(line);
        ASSERT_FALSE(picture.pixels.empty()) << line;
        answers.push_back(pool.recognize(asSubtitleBitmap(picture)));
    }
    std::string recognised, reference;
    for (size_t i = 0; i < kLines.size(); ++i) {
        const std::string text = answers[i].get();
        EXPECT_LE(characterErrorRate(text, kLines[i]), 0.1) << "line " << i << " read as '" << text << "'";
        recognised += text + "\n";
        reference += kLines[i] + "\n";
    }
    const double rate = characterErrorRate(recognised, reference);
    std::cout << "character error rate: " << rate * 100 << " % over " << reference.size() << " characters\n";
    RecordProperty("CharacterErrorRatePercent", std::to_string(rate * 100));
    EXPECT_LE(rate, 0.02);
}

TEST(OCR, APictureWithoutTextGivesNothing)
{
    GreyPicture blank {400, 40, std::vector<uint8_t>(400 * 40, 0)};
    QXTextRecognitionPool pool("eng", 1);
    EXPECT_EQ(pool.recognize(asSubtitleBitmap(blank)).get(), "");
    EXPECT_EQ(pool.recognize(QXTextImage {}).get(), "") << "no size at all";
}

TEST(OCR, LanguagesMapToTrainedDataAndFallBackToEnglish)
{
    const std::vector<std::pair<const char*, const char*>> names {
        {"ger", "deu"}, {"deu", "deu"}, {"fre", "fra"}, {"chi", "chi_sim"}, {"ENG", "eng"}, {"de", "deu"}, {"en", "eng"}, {"und", ""}, {"", ""}};
    for (const auto& [iso, data] : names) EXPECT_EQ(QXTesseractLanguage(iso), data) << iso;

    EXPECT_TRUE(QXTesseractHasLanguage("eng"));
    EXPECT_FALSE(QXTesseractHasLanguage("../eng"));
    qxtest::LogCapture log;
    {
        QXTextRecognitionPool english("eng", 1);
        EXPECT_EQ(english.dataName(), "eng");
    }
    EXPECT_TRUE(log.lines().empty());
    if (!QXTesseractHasLanguage("kat")) {
        QXTextRecognitionPool georgian("geo", 1);
        EXPECT_EQ(georgian.dataName(), "eng");
        EXPECT_EQ(log.lines().size(), 1u);
        EXPECT_TRUE(log.contains("geo"));
    }
}
