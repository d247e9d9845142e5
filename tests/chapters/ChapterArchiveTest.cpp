// Chapter lists through the keyed archive: values, scales, images and the defaults of missing keys.

#include <gtest/gtest.h>

#include <cstring>

#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"
#include "qxmedia/source/QXChapterTrack.h"

using namespace qx;

namespace {

std::shared_ptr<QXImage> gradient(int width, int height)
{
    auto image = QXImage::imageWithSize(width, height);
    uint8_t* p = image->mutableBitmapData();
    for (int i = 0; i < width * height; ++i, p += 4) {
        p[0] = uint8_t(i * 7), p[1] = uint8_t(i * 13), p[2] = uint8_t(255 - i), p[3] = uint8_t(i % 2 ? 255 : 128);
    }
    return image;
}

QXChapterTrackRef roundTrip(const QXChapterTrack& track, QXPropertyListFormat format)
{
    QXErrorRef error;
    const std::optional<QXData> data = QXKeyedArchiver::archivedDataWithRootObject(track, format, &error);
    EXPECT_TRUE(data && !data->empty());
    EXPECT_FALSE(error);
    if (!data) return nullptr;
    return QXKeyedUnarchiver::unarchivedObjectOfClass<QXChapterTrack>(*data, &error);
}

} // namespace

TEST(ChapterArchive, ListsTimesTitlesAndImagesSurvive)
{
    auto track = QXChapterTrack::init();
    track->trackID = 7;
    track->addChapter("Opening", kCMTimeZero);
    track->addChapter("Déjà vu", CMTimeMake(1500000001, 1000000000)); // nanosecond exact
    track->addChapter("", CMTimeMake(1001, 30000));
    track->chapters.push_back(QXChapter::init()); // no title at all
    track->chapters[1]->image = gradient(12, 7);
    for (const auto& chapter : track->chapters) track->originalChapters.push_back(chapter->copy());
    track->chapters[0]->title = "Renamed";
    track->removeChapter(track->chapters[2]);

    for (QXPropertyListFormat format : {QXPropertyListFormat::Binary, QXPropertyListFormat::XML}) {
        auto copy = roundTrip(*track, format);
        ASSERT_TRUE(copy);
        ASSERT_EQ(copy->chapterCount(), 3u);
        ASSERT_EQ(copy->originalChapters.size(), 4u);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(copy->chapters[i]->title, track->chapters[i]->title) << i;
            // Times come back in their own scale, not merely as equal values.
            EXPECT_EQ(copy->chapters[i]->timestamp.value, track->chapters[i]->timestamp.value) << i;
            EXPECT_EQ(copy->chapters[i]->timestamp.timescale, track->chapters[i]->timestamp.timescale) << i;
        }
        EXPECT_FALSE(copy->chapters[2]->title.has_value());
        EXPECT_EQ(copy->originalChapters[2]->title, "");
        EXPECT_EQ(copy->originalChapters[0]->title, "Opening") << "the edit before archiving still shows";

        // Images are kept without loss, alpha included.
        ASSERT_TRUE(copy->chapters[1]->image);
        const QXImage& image = *copy->chapters[1]->image;
        ASSERT_EQ(image.pixelsWide(), 12);
        ASSERT_EQ(image.pixelsHigh(), 7);
        EXPECT_EQ(std::memcmp(image.bitmapData(), track->chapters[1]->image->bitmapData(), 12 * 7 * 4), 0);
    }
}

TEST(ChapterArchive, KeysAndDefaults)
{
    auto track = QXChapterTrack::init();
    track->addChapter("Only", kCMTimeZero);
    const QXValue archive = QXKeyedArchiver::archivedPropertyListWithRootObject(*track);
    const QXValue* root = archive.find("$top") ? archive.find("$top")->find("root") : nullptr;
    ASSERT_TRUE(root && root->find("chapters") && root->find("chapters")->array());
    const QXValue& chapter = root->find("chapters")->array()->at(0);
    EXPECT_FALSE(chapter.find("image")); // nothing is stored for a missing image

    // An archive that lacks keys gives the defaults: no chapters, track 0,
    // and a chapter without time gets the invalid time.
    const QXValue sparse = QXDictionary {
        {"$archiver", QXValue("QXKeyedArchiver")},
        {"$version", QXValue(1)},
        {"$top", QXValue(QXDictionary {{"root", QXValue(QXDictionary {
                                                    {"$class", QXValue("QXChapterTrack")},
                                                    {"chapters", QXValue(QXArray {QXValue(QXDictionary {
                                                                     {"$class", QXValue("QXChapter")},
                                                                     {"title", QXValue("Untimed")},
                                                                 })})},
                                                })}})},
    };
    auto decoded = std::dynamic_pointer_cast<QXChapterTrack>(QXKeyedUnarchiver::unarchiveObjectWithPropertyList(sparse));
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->chapterCount(), 1u);
    EXPECT_FALSE(CMTIME_IS_VALID(decoded->chapters[0]->timestamp));
    EXPECT_TRUE(decoded->originalChapters.empty());
}
