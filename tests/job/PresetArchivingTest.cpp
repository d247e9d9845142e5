#include <gtest/gtest.h>

#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

namespace {

// The archived object's own dictionary.
QXDictionary archivedKeys(const QXPreset& preset)
{
    const QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(preset);
    const QXValue* root = archive.find("$top") ? archive.find("$top")->find("root") : nullptr;
    return root && root->dictionary() ? *root->dictionary() : QXDictionary();
}

std::shared_ptr<QXPreset> roundTrip(const QXPreset& preset, QXPropertyListFormat format)
{
    auto data = QXKeyedArchiver::archivedDataWithRootObject(preset, format);
    if (!data) return nullptr;
    return QXKeyedUnarchiver::unarchivedObjectOfClass<QXPreset>(*data);
}

} // namespace

TEST(PresetArchiving, BuiltInPresetsAreStoredByIdentifierAlone)
{
    const QXDictionary keys = archivedKeys(*QXPreset::initWithIdentifier(QXPresetApple1080p));
    EXPECT_EQ(keys.size(), 2u); // "$class" and "identifier"
    ASSERT_TRUE(keys.count("identifier"));
    EXPECT_EQ(keys.at("identifier"), QXValue("QXPresetApple1080p"));
}

// A built-in preset comes back with the catalogue of today, whatever the
// archive holds besides its identifier.
TEST(PresetArchiving, TheCatalogueWinsOverArchivedValues)
{
    auto derived = QXPreset::initWithIdentifier(QXPresetApple1080p)->copy();
    derived->videoWidth = 7;
    derived->encoderCRF = 40;
    derived->name = "Old";
    QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*derived);
    QXDictionary& object = *archive.dictionary()->at("$top").dictionary()->at("root").dictionary();
    object["identifier"] = QXPresetApple1080p;

    QXErrorRef error;
    auto restored =
        std::dynamic_pointer_cast<QXPreset>(QXKeyedUnarchiver::unarchiveObjectWithPropertyList(archive, &error));
    ASSERT_TRUE(restored) << (error ? error->description() : "");
    EXPECT_EQ(restored->identifier, QXPresetApple1080p);
    EXPECT_TRUE(restored->isBuiltin());
    EXPECT_EQ(restored->videoWidth, 1920u);
    EXPECT_DOUBLE_EQ(restored->encoderCRF, 22.0);
    EXPECT_EQ(restored->name, "1080p");
}

TEST(PresetArchiving, DerivedPresetKeepsEveryValue)
{
    auto preset = QXPreset::initWithIdentifier(QXPresetApple1080p)->copy();
    preset->name = "My 1080p";
    preset->toolTip = "Tip";
    preset->requireEncode = false;
    preset->largeFile = false;
    preset->allowSurroundAudio = false;
    preset->audioBitrate = 96000;
    preset->videoCodec = QXPresetVideoCodecHEVCAlias; // above INT32_MAX
    preset->videoWidth = 1440;
    preset->videoHeight = 1080;
    preset->profile = 77;
    preset->level = 41;
    preset->pictureModulus = 16;
    preset->picturePAR = 0;
    preset->encoderPreset = 3;
    preset->encoderCRF = 23.5;
    preset->encoderOptions = {{"ref", 3}, {"b-pyramid", "strict"}};
    auto icon = QXImage::imageWithSize(4, 2);
    icon->mutableBitmapData()[0] = 200;
    icon->mutableBitmapData()[3] = 255;
    preset->icon = icon;

    const QXDictionary keys = archivedKeys(*preset);
    for (const char* key : {"identifier", "name", "toolTip", "icon", "encoderOptions", "requireEncode", "largeFile",
                            "allowSurroundAudio", "audioBitrate", "videoCodec", "videoWidth", "videoHeight", "profile",
                            "level", "pictureModulus", "picturePAR", "encoderPreset", "encoderCRF"}) {
        EXPECT_TRUE(keys.count(key)) << key;
    }

    for (auto format : {QXPropertyListFormat::Binary, QXPropertyListFormat::XML}) {
        auto restored = roundTrip(*preset, format);
        ASSERT_TRUE(restored);
        EXPECT_EQ(restored->identifier, preset->identifier);
        EXPECT_FALSE(restored->isBuiltin());
        EXPECT_EQ(restored->name, "My 1080p");
        EXPECT_EQ(restored->toolTip, "Tip");
        EXPECT_FALSE(restored->requireEncode);
        EXPECT_FALSE(restored->largeFile);
        EXPECT_FALSE(restored->allowSurroundAudio);
        EXPECT_EQ(restored->audioBitrate, 96000u);
        EXPECT_EQ(restored->videoCodec, QXPresetVideoCodecHEVCAlias);
        EXPECT_EQ(restored->videoWidth, 1440u);
        EXPECT_EQ(restored->videoHeight, 1080u);
        EXPECT_EQ(restored->profile, 77);
        EXPECT_EQ(restored->level, 41);
        EXPECT_EQ(restored->pictureModulus, 16);
        EXPECT_EQ(restored->picturePAR, 0);
        EXPECT_EQ(restored->encoderPreset, 3);
        EXPECT_DOUBLE_EQ(restored->encoderCRF, 23.5);
        EXPECT_EQ(restored->encoderOptions, preset->encoderOptions);
        EXPECT_EQ(restored->iconName, "tv.fill");
        ASSERT_TRUE(restored->icon);
        EXPECT_EQ(restored->icon->pixelsWide(), 4);
        EXPECT_EQ(restored->icon->bitmapData()[0], 200);
    }
}

// Keys missing from the archive of a derived preset read as zero, not as
// the base values; the name stays "Unknown".
TEST(PresetArchiving, SparseArchiveOfADerivedPreset)
{
    QXDictionary object{{"$class", "QXPreset"}, {"identifier", "ABC"}, {"videoWidth", 800}};
    QXValue archive(QXDictionary{{"$archiver", "QXKeyedArchiver"},
                                 {"$version", 1},
                                 {"$top", QXDictionary{{"root", object}}}});
    auto restored = std::dynamic_pointer_cast<QXPreset>(QXKeyedUnarchiver::unarchiveObjectWithPropertyList(archive));
    ASSERT_TRUE(restored);
    EXPECT_EQ(restored->identifier, "ABC");
    EXPECT_EQ(restored->name, "Unknown");
    EXPECT_EQ(restored->videoWidth, 800u);
    EXPECT_EQ(restored->videoHeight, 0u);
    EXPECT_EQ(restored->audioBitrate, 0u);
    EXPECT_FALSE(restored->requireEncode);
    EXPECT_TRUE(restored->encoderOptions.empty());
    EXPECT_FALSE(restored->icon);
}
