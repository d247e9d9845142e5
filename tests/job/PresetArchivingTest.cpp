#include <gtest/gtest.h>

#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

namespace {

QXDictionary& rootObject(QXValue& archive)
{
    return *archive.dictionary()->at("$top").dictionary()->at("root").dictionary();
}

std::shared_ptr<QXPreset> unarchive(const QXValue& archive)
{
    return std::dynamic_pointer_cast<QXPreset>(QXKeyedUnarchiver::unarchiveObjectWithPropertyList(archive));
}

} // namespace

// A built-in preset is stored by identifier and comes back with the present
// catalogue, whatever else the archive holds.
TEST(PresetArchiving, BuiltInPresetsComeBackFromTheCatalogue)
{
    QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*QXPreset::initWithIdentifier(QXPresetiPod));
    EXPECT_EQ(rootObject(archive).size(), 2u); // "$class" and "identifier"

    auto derived = QXPreset::initWithIdentifier(QXPresetApple1080p)->copy();
    derived->videoWidth = 7;
    derived->name = "Old";
    archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*derived);
    rootObject(archive)["identifier"] = QXPresetApple1080p;
    auto restored = unarchive(archive);
    ASSERT_TRUE(restored);
    EXPECT_TRUE(restored->isBuiltin());
    EXPECT_EQ(restored->videoWidth, 1920u);
    EXPECT_EQ(restored->name, "1080p");
}

TEST(PresetArchiving, DerivedPresetKeepsEveryValue)
{
    auto preset = QXPreset::initWithIdentifier(QXPresetApple1080p)->copy();
    preset->name = "My 1080p";
    preset->toolTip = "Tip";
    preset->requireEncode = preset->largeFile = preset->allowSurroundAudio = false;
    preset->audioBitrate = 96000;
    preset->videoCodec = QXPresetVideoCodecHEVCAlias; // above INT32_MAX
    preset->videoWidth = 1440;
    preset->profile = 77;
    preset->level = 41;
    preset->pictureModulus = 16;
    preset->picturePAR = 0;
    preset->encoderPreset = 3;
    preset->encoderCRF = 23.5;
    preset->encoderOptions = {{"ref", 3}, {"b-pyramid", "strict"}};
    auto icon = QXImage::imageWithSize(4, 2);
    icon->mutableBitmapData()[0] = 200;
    preset->icon = icon;

    QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*preset);
    for (auto format : {QXPropertyListFormat::Binary, QXPropertyListFormat::XML}) {
        auto data = QXKeyedArchiver::archivedDataWithRootObject(*preset, format);
        ASSERT_TRUE(data);
        auto restored = QXKeyedUnarchiver::unarchivedObjectOfClass<QXPreset>(*data);
        ASSERT_TRUE(restored);
        // Every field is archived, so an equal archive means equal values.
        EXPECT_EQ(QXKeyedArchiver::archivedPropertyListWithRootObject(*restored), archive);
        EXPECT_EQ(restored->videoCodec, QXPresetVideoCodecHEVCAlias);
        EXPECT_DOUBLE_EQ(restored->encoderCRF, 23.5);
        EXPECT_EQ(restored->videoHeight, 1080u);
        ASSERT_TRUE(restored->icon);
        EXPECT_EQ(restored->icon->bitmapData()[0], 200);
    }

    // Keys missing from the archive read as zero, not as the base values.
    rootObject(archive) = {{"$class", "QXPreset"}, {"identifier", "ABC"}, {"videoWidth", 800}};
    auto sparse = unarchive(archive);
    ASSERT_TRUE(sparse);
    EXPECT_EQ(sparse->name, "Unknown");
    EXPECT_EQ(sparse->videoWidth, 800u);
    EXPECT_EQ(sparse->audioBitrate, 0u);
    EXPECT_FALSE(sparse->requireEncode);
}
