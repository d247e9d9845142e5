// tx3g samples made from ASS dialogue: text, style runs counted in UTF-16
// units, the text box from positions and alignments, the length limit.

#include <gtest/gtest.h>

#include "TX3GReading.h"
#include "qxmedia/reader/QXTX3GTextWriter.h"
#include "support/TestMedia.h"

using namespace subtitletest;

namespace {

constexpr uint32_t kWhite = 0xffffffff;
const QXTX3GGeometry kSame {true, 640, 360, 640, 360};
const QXTX3GGeometry kHalf {true, 1280, 720, 640, 360};

struct DialogueCase {
    const char* name;
    std::string dialogue;
    QXTX3GGeometry geometry;
    std::string text;
    bool hasStyles;
    std::vector<StyleRun> styles;
    std::optional<Box> box;
};

const std::vector<DialogueCase> kDialogues {
    {"plain line has text only", "Hello world", kSame, "Hello world", false, {}, std::nullopt},
    {"bold first word gives two runs", "{\\b1}Hello{\\b0} world", kSame, "Hello world", true,
     {{0, 5, 1, 24, kWhite}, {5, 11, 0, 24, kWhite}}, std::nullopt},
    {"a run after a line break counts the line feed", "One\\N{\\i1}two", kSame, "One\ntwo", true,
     {{0, 3, 0, 24, kWhite}, {4, 7, 2, 24, kWhite}}, std::nullopt},
    {"UTF-16 units, not bytes", "{\\u1}\xc3\xa9\xf0\x9f\x98\x80", kSame, "\xc3\xa9\xf0\x9f\x98\x80", true,
     {{0, 3, 4, 24, kWhite}}, std::nullopt},
    {"colour is BGR in the code", "{\\c&H0000FF&}Red", kSame, "Red", true, {{0, 3, 0, 24, 0xff0000ff}}, std::nullopt},
    {"colour and alpha", "{\\c&H00FF00&\\alpha&H40&}G", kSame, "G", true, {{0, 1, 0, 24, 0x00ff0040}}, std::nullopt},
    {"font size", "{\\fs40}Big", kSame, "Big", true, {{0, 3, 0, 40, kWhite}}, std::nullopt},
    {"position scaled to the destination", "{\\pos(640,360)}Mid", kHalf, "Mid", false, {}, Box {120, 214, 240, 426}},
    {"position ignored unless obeyed", "{\\pos(640,360)}Mid", {false, 1280, 720, 640, 360}, "Mid", false, {},
     std::nullopt},
    {"alignment alone takes a third", "{\\an8}Top", kSame, "Top", false, {}, Box {240, 213, 360, 426}},
    {"anchor at the box's bottom right for 1", "{\\an1\\pos(100,300)}x", kSame, "x", false, {}, Box {180, 0, 300, 100}},
    {"movement uses its midpoint", "{\\move(0,0,100,100)}x", kSame, "x", false, {}, Box {0, 0, 110, 156}},
    {"no source size means the destination's", "{\\pos(320,180)}x", {true, 0, 0, 640, 360}, "x", false, {},
     Box {120, 214, 240, 426}},
};

class Dialogue : public ::testing::TestWithParam<DialogueCase> {};

} // namespace

TEST_P(Dialogue, BecomesTheSampleAPlayerReads)
{
    const DialogueCase& c = GetParam();
    const TX3GSample sample = parseTX3G(QXTX3GSampleFromDialogue(c.dialogue, c.geometry));
    EXPECT_TRUE(sample.wellFormed);
    EXPECT_EQ(sample.text, c.text);
    EXPECT_EQ(sample.hasStyles, c.hasStyles);
    EXPECT_EQ(sample.styles, c.styles);
    EXPECT_EQ(sample.box, c.box);
    EXPECT_FALSE(sample.forced);
}

INSTANTIATE_TEST_SUITE_P(TX3G, Dialogue, ::testing::ValuesIn(kDialogues),
                         [](const auto& info) {
                             std::string name = info.param.name;
                             for (char& c : name) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return name;
                         });

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

TEST(TX3G, RecognisedTextIsPlainAndForcedPicturesAreMarked)
{
    const TX3GSample plain = parseTX3G(QXTX3GSampleFromString("Two\nlines", false));
    EXPECT_TRUE(plain.wellFormed);
    EXPECT_EQ(plain.text, "Two\nlines");
    EXPECT_FALSE(plain.hasStyles || plain.forced || plain.box);

    // Long recognised text is cut at a character boundary within the limit.
    const std::string longText = std::string(2046, 'a') + "\xc3\xa9";
    EXPECT_EQ(parseTX3G(QXTX3GSampleFromString(longText, false)).text, std::string(2046, 'a'));

    const TX3GSample forced = parseTX3G(QXTX3GSampleFromString("Stop!", true));
    EXPECT_TRUE(forced.wellFormed);
    EXPECT_EQ(forced.text, "Stop!");
    EXPECT_TRUE(forced.forced);
}
