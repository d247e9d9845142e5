// tx3g samples made from ASS dialogue keep to the 2047-byte text limit.

#include <gtest/gtest.h>

#include "TX3GReading.h"
#include "qxmedia/reader/QXTX3GTextWriter.h"
#include "support/TestMedia.h"

using namespace subtitletest;

namespace {

constexpr uint32_t kWhite = 0xffffffff;
const QXTX3GGeometry kSame {true, 640, 360, 640, 360};

} // namespace

TEST(TX3G, TextStopsAt2047BytesAndLosesOnlyThePieceThatDoesNotFit)
{
    qxtest::LogCapture log;
    const std::string full(2047, 'a');
    EXPECT_EQ(parseTX3G(QXTX3GSampleFromDialogue(full, kSame)).text, full);

    const TX3GSample over = parseTX3G(QXTX3GSampleFromDialogue(full + "{\\b1}b{\\b0}", kSame));
    EXPECT_TRUE(over.wellFormed);
    EXPECT_EQ(over.text, full);
    ASSERT_EQ(over.styles.size(), 1u) << "the dropped piece has no run";
    EXPECT_TRUE(log.contains("Subtitle too long: 1 (free: 0)"));

    const TX3GSample split = parseTX3G(QXTX3GSampleFromDialogue(std::string(2000, 'a') + "{\\i1}" + std::string(100, 'b') + "{\\i0}c", kSame));
    EXPECT_EQ(split.text, std::string(2000, 'a') + "c") << "later pieces that fit still come";
    ASSERT_EQ(split.styles.size(), 2u);
    EXPECT_EQ(split.styles[1], (StyleRun {2000, 2001, 0, 24, kWhite}));
}
