#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <set>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

namespace {

struct Row {
    const char* identifier;
    uint64_t width, height;
    uint32_t codec;
    uint8_t level, profile, encoderPreset;
    double crf;
};

constexpr uint32_t avc1 = QXPresetVideoCodecAVC1;
constexpr uint32_t hvc1 = QXPresetVideoCodecHVC1;
constexpr uint32_t alias = QXPresetVideoCodecHEVCAlias;

} // namespace

// The values that decide what a job produces: box, codec, H.264 level and
// profile, encoder speed and quality.
TEST(PresetCatalogue, EveryEntryHasItsBoxCodecAndQuality)
{
    const Row rows[] = {
        {QXPresetUpdate, 3840, 2160, alias, 42, 100, 5, 20},
        {QXPresetUpdateRename, 3840, 2160, alias, 42, 100, 5, 20},
        {QXPresetApple2160p, 3840, 2160, avc1, 51, 100, 5, 24},
        {QXPresetApple2160pHQ, 3840, 2160, avc1, 51, 100, 5, 19},
        {QXPresetApple1080p, 1920, 1080, avc1, 42, 100, 5, 22},
        {QXPresetApple1080pHQ, 1920, 1080, avc1, 42, 100, 5, 18},
        {QXPresetApple720p, 1280, 720, avc1, 42, 100, 5, 21},
        {QXPresetApple720pHQ, 1280, 720, avc1, 42, 100, 5, 17},
        {QXPresetApple480p, 640, 480, avc1, 30, 66, 4, 20},
        {QXPresetApple2160pHEVC, 3840, 2160, hvc1, 42, 100, 6, 24},
        {QXPresetApple2160pHQHEVC, 3840, 2160, hvc1, 42, 100, 6, 19},
        {QXPresetApple1080pHEVC, 1920, 1080, hvc1, 42, 100, 6, 22},
        {QXPresetApple1080pHQHEVC, 1920, 1080, hvc1, 42, 100, 6, 18},
        {QXPresetApple720pHEVC, 1280, 720, hvc1, 42, 100, 6, 21},
        {QXPresetApple720pHQHEVC, 1280, 720, hvc1, 42, 100, 6, 17},
        {QXPresetHLS1, 640, 360, hvc1, 42, 100, 6, 21},
        {QXPresetUniversal, 720, 576, avc1, 30, 77, 4, 20},
        {QXPresetiPod, 320, 240, avc1, 13, 77, 5, 22},
        {QXPresetiPhone, 480, 320, avc1, 31, 77, 5, 22},
        {QXPresetiPad, 1280, 720, avc1, 31, 77, 5, 20},
        {QXPresetAppleTV, 960, 720, avc1, 31, 77, 5, 20},
    };
    std::set<std::string> names;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.identifier);
        auto preset = QXPreset::initWithIdentifier(row.identifier);
        EXPECT_EQ(preset->identifier, row.identifier);
        EXPECT_EQ(preset->videoWidth, row.width);
        EXPECT_EQ(preset->videoHeight, row.height);
        EXPECT_EQ(preset->videoCodec, row.codec);
        EXPECT_EQ(preset->level, row.level);
        EXPECT_EQ(preset->profile, row.profile);
        EXPECT_EQ(preset->encoderPreset, row.encoderPreset);
        EXPECT_DOUBLE_EQ(preset->encoderCRF, row.crf);
        EXPECT_EQ(preset->pictureModulus, 2);
        EXPECT_FALSE(preset->toolTip.empty());
        EXPECT_TRUE(names.insert(preset->name).second) << "name used twice: " << preset->name;
    }
}

TEST(PresetCatalogue, EncodingAudioAndPictureSwitches)
{
    // Only the update and pass-through presets may copy video.
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        const bool copies = identifier == QXPresetUpdate || identifier == QXPresetUpdateRename ||
                            identifier == QXPresetPassthrough;
        EXPECT_EQ(QXPreset::initWithIdentifier(identifier)->requireEncode, !copies) << identifier;
    }

    struct Audio {
        const char* identifier;
        bool largeFile, surround;
        uint32_t bitrate;
        int64_t picturePAR;
    };
    const Audio rows[] = {
        {QXPresetApple1080p, true, true, 160000, 2},  {QXPresetApple480p, false, false, 128000, 2},
        {QXPresetUniversal, false, true, 128000, 2},  {QXPresetiPod, false, false, 128000, 0},
        {QXPresetiPhone, true, false, 128000, 2},     {QXPresetiPad, true, false, 128000, 2},
        {QXPresetAppleTV, true, true, 160000, 2},     {QXPresetHLS1, true, true, 160000, 2},
    };
    for (const Audio& row : rows) {
        SCOPED_TRACE(row.identifier);
        auto preset = QXPreset::initWithIdentifier(row.identifier);
        EXPECT_EQ(preset->largeFile, row.largeFile);
        EXPECT_EQ(preset->allowSurroundAudio, row.surround);
        EXPECT_EQ(preset->audioBitrate, row.bitrate);
        EXPECT_EQ(preset->picturePAR, row.picturePAR);
    }
}

TEST(PresetCatalogue, PassthroughFollowsTheMachinesHEVCEncoder)
{
    auto preset = QXPreset::initWithIdentifier(QXPresetPassthrough);
    EXPECT_EQ(preset->videoCodec, QXMedia::sharedMedia().hasHardwareHEVCEncoder() ? alias : avc1);
    EXPECT_TRUE(preset->encodesHEVC() == QXMedia::sharedMedia().hasHardwareHEVCEncoder());
    EXPECT_EQ(preset->name, "Apple compatible");
    EXPECT_EQ(preset->encoderPreset, 4);
    EXPECT_EQ(preset->videoWidth, 3840u);
}

TEST(PresetCatalogue, OnlyTheOldAppleTVHasEncoderOptions)
{
    auto appleTV = QXPreset::initWithIdentifier(QXPresetAppleTV);
    ASSERT_EQ(appleTV->encoderOptions.size(), 8u);
    EXPECT_EQ(appleTV->encoderOptions.at("qpmin").type(), QXValue::Type::Int);
    EXPECT_EQ(appleTV->encoderOptions.at("qpmin"), QXValue(4));
    EXPECT_EQ(appleTV->encoderOptions.at("cabac"), QXValue(0));
    EXPECT_EQ(appleTV->encoderOptions.at("ref"), QXValue(2));
    EXPECT_EQ(appleTV->encoderOptions.at("b-pyramid"), QXValue("none"));
    EXPECT_EQ(appleTV->encoderOptions.at("vbv-maxrate"), QXValue(9500));
    EXPECT_EQ(appleTV->encoderOptions.at("vbv-bufsize"), QXValue(9500));
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        if (identifier != QXPresetAppleTV) {
            EXPECT_TRUE(QXPreset::initWithIdentifier(identifier)->encoderOptions.empty()) << identifier;
        }
    }
}

TEST(PresetCatalogue, IdentifierListAndConstants)
{
    const auto& identifiers = QXPreset::presetIdentifiers();
    ASSERT_EQ(identifiers.size(), 21u);
    EXPECT_EQ(identifiers.front(), "QXPresetUpdate");
    EXPECT_EQ(identifiers[6], "QXPresetApple480p");
    EXPECT_EQ(identifiers[10], "QXPresetApple2160pHEVC");
    EXPECT_EQ(identifiers[16], "QXPresetUniversal");
    EXPECT_EQ(identifiers.back(), "QXPresetAppleTV");
    EXPECT_EQ(std::set<std::string>(identifiers.begin(), identifiers.end()).size(), 21u);
    EXPECT_EQ(std::count(identifiers.begin(), identifiers.end(), QXPresetHLS1), 0);
    EXPECT_STREQ(QXPresetApple2160pHQHEVC10, "QXPresetApple2160pHQHEVC10");
    EXPECT_STREQ(QXPresetHLS12, "QXPresetHLS12");
    EXPECT_STREQ(QXPresetiPod, "QXPresetiPod");
}

// Exported identifiers without a row, and texts that are no identifier, keep
// the base values under their own identifier.
TEST(PresetCatalogue, IdentifiersWithoutARowKeepTheBase)
{
    for (const char* identifier : {QXPresetHLS2, QXPresetApple2160pHQHEVC10, "qxpresetapple1080p", ""}) {
        SCOPED_TRACE(identifier);
        auto preset = QXPreset::initWithIdentifier(identifier);
        EXPECT_EQ(preset->identifier, identifier);
        EXPECT_EQ(preset->name, "Unknown");
        EXPECT_EQ(preset->videoWidth, 1920u);
        EXPECT_EQ(preset->videoHeight, 0u);
        EXPECT_EQ(preset->videoCodec, avc1);
        EXPECT_EQ(preset->audioBitrate, 160000u);
        EXPECT_EQ(preset->encoderPreset, 5);
        EXPECT_DOUBLE_EQ(preset->encoderCRF, 20.0);
        EXPECT_TRUE(preset->requireEncode);
        EXPECT_FALSE(preset->isBuiltin());
        EXPECT_TRUE(preset->isCopyable());
    }
    auto bare = QXPreset::init();
    EXPECT_EQ(bare->name, "Unknown");
    EXPECT_EQ(bare->videoWidth, 0u);
    EXPECT_FALSE(bare->requireEncode);
}

TEST(PresetCatalogue, NamesAndToolTipsAreLocalisationKeys)
{
    QXSetTranslator([](std::string_view key) -> std::string {
        if (key == "1080p HQ (HEVC)") return "1080p HQ (HEVC) übersetzt";
        if (key == "Create High Quality 1080p  HEVC Video compatible with the latest generation of Apple devices")
            return "Tooltip übersetzt";
        return "";
    });
    auto preset = QXPreset::initWithIdentifier(QXPresetApple1080pHQHEVC);
    QXSetTranslator(nullptr);
    EXPECT_EQ(preset->name, "1080p HQ (HEVC) übersetzt");
    EXPECT_EQ(preset->toolTip, "Tooltip übersetzt");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetiPad)->toolTip, "Optimize Video for iPad & iPad 2");
}

TEST(PresetCatalogue, IconNamesByDevice)
{
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetApple2160pHQHEVC)->iconName, "4k.tv.fill");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetApple480p)->iconName, "tv.fill");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetApple720pHEVC)->iconName, "tv.fill");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetiPhone)->iconName, "iphone.homebutton");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetAppleTV)->iconName, "appletv");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetHLS1)->iconName, "applelogo");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetUniversal)->iconName, "applelogo");
}

TEST(PresetQuality, CRFAndQualityConvertBothWays)
{
    auto preset = QXPreset::initWithIdentifier(QXPresetApple1080p);
    preset->encoderCRF = 51;
    EXPECT_NEAR(preset->encoderQuality(), 0, 1e-9);
    preset->encoderCRF = 0;
    EXPECT_NEAR(preset->encoderQuality(), 100, 1e-9);
    preset->encoderCRF = 22;
    EXPECT_NEAR(preset->encoderQuality(), 56.862745, 1e-6);

    preset->setEncoderQuality(100);
    EXPECT_NEAR(preset->encoderCRF, 0, 1e-9);
    preset->setEncoderQuality(0);
    EXPECT_NEAR(preset->encoderCRF, 51, 1e-9);
    preset->setEncoderQuality(60);
    EXPECT_NEAR(preset->encoderCRF, 20.4, 1e-9);
    EXPECT_NEAR(preset->encoderQuality(), 60, 1e-9);
}

TEST(PresetCopy, CopiesAreIndependentAndNeverBuiltIn)
{
    auto original = QXPreset::initWithIdentifier(QXPresetAppleTV);
    ASSERT_TRUE(original->isBuiltin());
    auto first = original->copy();
    auto second = original->copy();

    const std::regex uuid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    EXPECT_TRUE(std::regex_match(first->identifier, uuid)) << first->identifier;
    EXPECT_NE(first->identifier, second->identifier);
    EXPECT_FALSE(first->isBuiltin());
    EXPECT_TRUE(first->isCopyable());
    EXPECT_FALSE(first->isEqualTo(*original));
    EXPECT_TRUE(original->isEqualTo(*QXPreset::initWithIdentifier(QXPresetAppleTV)));

    EXPECT_EQ(first->name, original->name);
    EXPECT_EQ(first->toolTip, original->toolTip);
    EXPECT_EQ(first->videoWidth, 960u);
    EXPECT_EQ(first->level, 31);
    EXPECT_EQ(first->encoderOptions, original->encoderOptions);
    EXPECT_EQ(first->iconName, "appletv");

    first->name = "Mine";
    first->videoWidth = 1;
    first->encoderOptions["ref"] = 4;
    EXPECT_EQ(original->name, "Apple TV (Legacy)");
    EXPECT_EQ(original->videoWidth, 960u);
    EXPECT_EQ(original->encoderOptions.at("ref"), QXValue(2));
    EXPECT_EQ(second->encoderOptions.at("ref"), QXValue(2));
}

TEST(PresetCopy, UpdatePresetsAreNotCopyable)
{
    EXPECT_FALSE(QXPreset::initWithIdentifier(QXPresetUpdate)->isCopyable());
    EXPECT_FALSE(QXPreset::initWithIdentifier(QXPresetUpdateRename)->isCopyable());
    EXPECT_TRUE(QXPreset::initWithIdentifier(QXPresetPassthrough)->isCopyable());
    EXPECT_TRUE(QXPreset::initWithIdentifier("Something else")->isCopyable());
}
