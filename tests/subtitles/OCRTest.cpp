// Reading subtitle pictures (the error rate on known text is measured end
// to end with PGS and VobSub): a picture without text gives nothing; a
// language without trained data falls back to English, saying so once.

#include <gtest/gtest.h>

#include "SubtitleMedia.h"
#include "qxmedia/platform/vision/QXTextRecognition.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace subtitletest;

namespace {

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
