// The catalogue's rules, checked over every offered preset instead of
// copying its rows: names, codecs and boxes agree with what each preset says
// it makes, and the quality scale round-trips.

#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

namespace {

bool contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

bool isUpdate(const std::string& identifier)
{
    return identifier == QXPresetUpdate || identifier == QXPresetUpdateRename;
}

} // namespace

TEST(PresetCatalogue, EveryOfferedPresetAgreesWithItsName)
{
    std::set<std::string> names, seen;
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        SCOPED_TRACE(identifier);
        EXPECT_TRUE(seen.insert(identifier).second) << "offered twice";
        auto preset = QXPreset::initWithIdentifier(identifier);
        EXPECT_EQ(preset->identifier, identifier);
        EXPECT_TRUE(preset->isBuiltin());
        EXPECT_NE(preset->name, "Unknown") << "every offered preset has a row";
        EXPECT_TRUE(names.insert(preset->name).second) << "names tell presets apart";
        EXPECT_FALSE(preset->toolTip.empty());

        // Only the update and pass-through presets may copy video.
        EXPECT_EQ(preset->requireEncode, !isUpdate(identifier) && identifier != QXPresetPassthrough);
        if (preset->requireEncode) {
            EXPECT_EQ(preset->videoCodec, contains(preset->name, "HEVC") ? QXPresetVideoCodecHVC1
                                                                         : QXPresetVideoCodecAVC1);
        }
        // The box holds the size the name promises, landscape.
        for (auto [label, height] : {std::pair{"2160p", 2160u}, {"1080p", 1080u}, {"720p", 720u}, {"480p", 480u}}) {
            if (contains(preset->name, label)) {
                EXPECT_EQ(preset->videoHeight, height);
            }
        }
        EXPECT_GE(preset->videoWidth, preset->videoHeight);
        EXPECT_GE(preset->encoderCRF, 0.0);
        EXPECT_LE(preset->encoderCRF, 51.0);
        EXPECT_TRUE(preset->profile == 66 || preset->profile == 77 || preset->profile == 100) << int(preset->profile);
        EXPECT_GT(preset->audioBitrate, 0u);
        EXPECT_EQ(preset->isCopyable(), !isUpdate(identifier));

        // An HQ preset spends more bits than its plain twin.
        if (contains(preset->name, " HQ")) {
            std::string plain = identifier;
            plain.erase(plain.find("HQ"), 2);
            EXPECT_LT(preset->encoderCRF, QXPreset::initWithIdentifier(plain)->encoderCRF) << plain;
        }
    }
    EXPECT_FALSE(seen.count(QXPresetHLS1)) << "HLS1 has a row but is not offered";
    EXPECT_FALSE(QXPreset::initWithIdentifier(QXPresetHLS1)->isBuiltin());
}

TEST(PresetCatalogue, PassthroughFollowsTheHardwareAndToolTipsAreTranslated)
{
    auto passthrough = QXPreset::initWithIdentifier(QXPresetPassthrough);
    EXPECT_EQ(passthrough->encodesHEVC(), QXMedia::sharedMedia().hasHardwareHEVCEncoder());

    const std::string tip = QXPreset::initWithIdentifier(QXPresetApple1080pHQHEVC)->toolTip;
    QXSetTranslator([tip](std::string_view key) -> std::string { return key == tip ? "übersetzt" : ""; });
    auto translated = QXPreset::initWithIdentifier(QXPresetApple1080pHQHEVC);
    QXSetTranslator(nullptr);
    EXPECT_EQ(translated->toolTip, "übersetzt");
    EXPECT_EQ(translated->name, "1080p HQ (HEVC)") << "names are not translated";
}

// Exported identifiers without a row, and unknown texts (the lookup is
// exact), keep the base values under their own identifier.
TEST(PresetCatalogue, IdentifiersWithoutARowKeepTheBase)
{
    const auto base = QXPreset::initWithIdentifier("not a preset");
    EXPECT_GT(base->videoWidth, 0u) << "an unknown preset still makes a picture";
    EXPECT_TRUE(base->requireEncode);
    for (const char* identifier : {QXPresetHLS2, QXPresetApple2160pHQHEVC10, "qxpresetapple1080p"}) {
        auto preset = QXPreset::initWithIdentifier(identifier);
        EXPECT_EQ(preset->identifier, identifier);
        EXPECT_EQ(preset->name, base->name) << identifier;
        EXPECT_EQ(preset->videoWidth, base->videoWidth) << identifier;
        EXPECT_EQ(preset->videoCodec, base->videoCodec) << identifier;
        EXPECT_TRUE(preset->isCopyable()) << identifier;
    }
}

TEST(PresetCatalogue, QualityAndCRFConvertBothWays)
{
    auto preset = QXPreset::init();
    for (double quality : {0.0, 37.5, 60.0, 100.0}) {
        preset->setEncoderQuality(quality);
        EXPECT_NEAR(preset->encoderQuality(), quality, 1e-9);
    }
    preset->setEncoderQuality(100);
    EXPECT_NEAR(preset->encoderCRF, 0, 1e-9) << "best quality is lossless";
    preset->encoderCRF = 51;
    EXPECT_NEAR(preset->encoderQuality(), 0, 1e-9);
}

TEST(PresetCopy, CopiesAreIndependentAndNeverBuiltIn)
{
    auto original = QXPreset::initWithIdentifier(QXPresetAppleTV);
    auto first = original->copy();
    auto second = original->copy();

    const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    EXPECT_TRUE(std::regex_match(first->identifier, uuid)) << first->identifier;
    EXPECT_NE(first->identifier, second->identifier);
    EXPECT_FALSE(first->isBuiltin());
    EXPECT_FALSE(first->isEqualTo(*original));
    EXPECT_TRUE(original->isEqualTo(*QXPreset::initWithIdentifier(QXPresetAppleTV)));
    EXPECT_EQ(first->videoWidth, original->videoWidth);
    ASSERT_FALSE(original->encoderOptions.empty());
    EXPECT_EQ(first->encoderOptions, original->encoderOptions);

    first->name = "Mine";
    first->encoderOptions["ref"] = 4;
    EXPECT_NE(original->name, "Mine");
    EXPECT_EQ(second->encoderOptions, original->encoderOptions);
}
