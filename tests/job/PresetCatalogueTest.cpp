#include <gtest/gtest.h>

#include <regex>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

namespace {
constexpr uint32_t avc1 = QXPresetVideoCodecAVC1, hvc1 = QXPresetVideoCodecHVC1;
constexpr uint32_t alias = QXPresetVideoCodecHEVCAlias;
} // namespace

// The values that decide what a job produces, for one entry of each kind.
TEST(PresetCatalogue, CharacteristicEntries)
{
    struct Row {
        const char* identifier;
        uint64_t width, height;
        uint32_t codec;
        int level, profile, encoderPreset;
        double crf;
        uint32_t audioBitrate;
        bool surround, largeFile;
    };
    const Row rows[] = {
        {QXPresetUpdate, 3840, 2160, alias, 42, 100, 5, 20, 160000, true, true},
        {QXPresetApple2160p, 3840, 2160, avc1, 51, 100, 5, 24, 160000, true, true},
        {QXPresetApple1080pHQ, 1920, 1080, avc1, 42, 100, 5, 18, 160000, true, true},
        {QXPresetApple720p, 1280, 720, avc1, 42, 100, 5, 21, 160000, true, true},
        {QXPresetApple480p, 640, 480, avc1, 30, 66, 4, 20, 128000, false, false},
        {QXPresetApple2160pHQHEVC, 3840, 2160, hvc1, 42, 100, 6, 19, 160000, true, true},
        {QXPresetApple720pHEVC, 1280, 720, hvc1, 42, 100, 6, 21, 160000, true, true},
        {QXPresetHLS1, 640, 360, hvc1, 42, 100, 6, 21, 160000, true, true},
        {QXPresetUniversal, 720, 576, avc1, 30, 77, 4, 20, 128000, true, false},
        {QXPresetiPod, 320, 240, avc1, 13, 77, 5, 22, 128000, false, false},
        {QXPresetiPhone, 480, 320, avc1, 31, 77, 5, 22, 128000, false, true},
        {QXPresetiPad, 1280, 720, avc1, 31, 77, 5, 20, 128000, false, true},
        {QXPresetAppleTV, 960, 720, avc1, 31, 77, 5, 20, 160000, true, true},
    };
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
        EXPECT_EQ(preset->audioBitrate, row.audioBitrate);
        EXPECT_EQ(preset->allowSurroundAudio, row.surround);
        EXPECT_EQ(preset->largeFile, row.largeFile);
        EXPECT_EQ(preset->picturePAR, row.identifier == std::string(QXPresetiPod) ? 0 : 2);
        EXPECT_EQ(preset->encoderOptions.empty(), row.identifier != std::string(QXPresetAppleTV));
    }
    // Every offered preset has a row; only the update and pass-through
    // presets may copy video.
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        auto preset = QXPreset::initWithIdentifier(identifier);
        const bool copies = identifier == QXPresetUpdate || identifier == QXPresetUpdateRename ||
                            identifier == QXPresetPassthrough;
        EXPECT_NE(preset->name, "Unknown") << identifier;
        EXPECT_EQ(preset->requireEncode, !copies) << identifier;
    }
}

TEST(PresetCatalogue, SpecialEntries)
{
    auto passthrough = QXPreset::initWithIdentifier(QXPresetPassthrough);
    EXPECT_EQ(passthrough->encodesHEVC(), QXMedia::sharedMedia().hasHardwareHEVCEncoder());
    EXPECT_EQ(passthrough->videoCodec, passthrough->encodesHEVC() ? alias : avc1);
    EXPECT_EQ(passthrough->name, "Apple compatible");

    const QXDictionary appleTVOptions{{"qpmin", 4},   {"cabac", 0},   {"ref", 2},           {"b-pyramid", "none"},
                                      {"weightb", 0}, {"weightp", 0}, {"vbv-maxrate", 9500}, {"vbv-bufsize", 9500}};
    auto appleTV = QXPreset::initWithIdentifier(QXPresetAppleTV);
    EXPECT_EQ(appleTV->encoderOptions, appleTVOptions);
    EXPECT_EQ(appleTV->encoderOptions.at("ref").type(), QXValue::Type::Int);

    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetApple2160pHQHEVC)->iconName, "4k.tv.fill");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetApple480p)->iconName, "tv.fill");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetiPhone)->iconName, "iphone.homebutton");
    EXPECT_EQ(QXPreset::initWithIdentifier(QXPresetHLS1)->iconName, "applelogo");

    QXSetTranslator([](std::string_view key) -> std::string {
        return key == "Create High Quality 1080p  HEVC Video compatible with the latest generation of Apple devices"
                   ? "übersetzt"
                   : "";
    });
    auto translated = QXPreset::initWithIdentifier(QXPresetApple1080pHQHEVC);
    QXSetTranslator(nullptr);
    EXPECT_EQ(translated->toolTip, "übersetzt");
    EXPECT_EQ(translated->name, "1080p HQ (HEVC)");
}

TEST(PresetCatalogue, OfferedIdentifiers)
{
    const auto& identifiers = QXPreset::presetIdentifiers();
    ASSERT_EQ(identifiers.size(), 21u);
    EXPECT_EQ(identifiers[6], "QXPresetApple480p");
    EXPECT_EQ(identifiers[10], "QXPresetApple2160pHEVC");
    EXPECT_EQ(identifiers.back(), "QXPresetAppleTV");
    EXPECT_EQ(std::count(identifiers.begin(), identifiers.end(), QXPresetHLS1), 0);
    EXPECT_FALSE(QXPreset::initWithIdentifier(QXPresetHLS1)->isBuiltin());
    EXPECT_TRUE(QXPreset::initWithIdentifier(QXPresetiPod)->isBuiltin());
}

// Exported identifiers without a row, and unknown texts, keep the base
// values under their own identifier.
TEST(PresetCatalogue, IdentifiersWithoutARowKeepTheBase)
{
    for (const char* identifier : {QXPresetHLS2, QXPresetApple2160pHQHEVC10, "qxpresetapple1080p"}) {
        SCOPED_TRACE(identifier);
        auto preset = QXPreset::initWithIdentifier(identifier);
        EXPECT_EQ(preset->identifier, identifier);
        EXPECT_EQ(preset->name, "Unknown");
        EXPECT_EQ(preset->videoWidth, 1920u);
        EXPECT_EQ(preset->videoHeight, 0u);
        EXPECT_EQ(preset->videoCodec, avc1);
        EXPECT_DOUBLE_EQ(preset->encoderCRF, 20.0);
        EXPECT_TRUE(preset->requireEncode);
        EXPECT_TRUE(preset->isCopyable());
    }
    EXPECT_EQ(QXPreset::init()->name, "Unknown");
}

TEST(PresetCatalogue, QualityAndCRFConvertBothWays)
{
    auto preset = QXPreset::init();
    preset->encoderCRF = 22;
    EXPECT_NEAR(preset->encoderQuality(), 56.862745, 1e-6);
    preset->encoderCRF = 51;
    EXPECT_NEAR(preset->encoderQuality(), 0, 1e-9);
    preset->setEncoderQuality(100);
    EXPECT_NEAR(preset->encoderCRF, 0, 1e-9);
    preset->setEncoderQuality(60);
    EXPECT_NEAR(preset->encoderCRF, 20.4, 1e-9);
    EXPECT_NEAR(preset->encoderQuality(), 60, 1e-9);
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
    EXPECT_TRUE(first->isCopyable());
    EXPECT_FALSE(first->isEqualTo(*original));
    EXPECT_TRUE(original->isEqualTo(*QXPreset::initWithIdentifier(QXPresetAppleTV)));
    EXPECT_EQ(first->name, original->name);
    EXPECT_EQ(first->videoWidth, 960u);
    EXPECT_EQ(first->encoderOptions, original->encoderOptions);

    first->name = "Mine";
    first->encoderOptions["ref"] = 4;
    EXPECT_EQ(original->name, "Apple TV (Legacy)");
    EXPECT_EQ(original->encoderOptions.at("ref"), QXValue(2));
    EXPECT_EQ(second->encoderOptions.at("ref"), QXValue(2));

    EXPECT_FALSE(QXPreset::initWithIdentifier(QXPresetUpdate)->isCopyable());
    EXPECT_FALSE(QXPreset::initWithIdentifier(QXPresetUpdateRename)->isCopyable());
    EXPECT_TRUE(QXPreset::initWithIdentifier(QXPresetPassthrough)->isCopyable());
}
