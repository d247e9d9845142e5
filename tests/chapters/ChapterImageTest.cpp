// Chapter images as JPEG bitmaps of a given size: scaling, black fill, bad sizes, copies.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/source/QXChapterTrack.h"

using namespace qx;

namespace {

struct Colour {
    int r, g, b, a;
};

// Left half one colour, right half another.
std::shared_ptr<QXImage> halves(int width, int height, Colour left, Colour right)
{
    auto image = QXImage::imageWithSize(width, height);
    uint8_t* pixels = image->mutableBitmapData();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const Colour& c = x < width / 2 ? left : right;
            uint8_t* p = pixels + y * image->bytesPerRow() + x * 4;
            p[0] = uint8_t(c.r), p[1] = uint8_t(c.g), p[2] = uint8_t(c.b), p[3] = uint8_t(c.a);
        }
    }
    return image;
}

::testing::AssertionResult near(const QXImage& image, int x, int y, Colour expected)
{
    const uint8_t* p = image.bitmapData() + y * image.bytesPerRow() + x * 4;
    const int tolerance = 24; // JPEG
    if (std::abs(p[0] - expected.r) <= tolerance && std::abs(p[1] - expected.g) <= tolerance &&
        std::abs(p[2] - expected.b) <= tolerance)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "pixel (" << x << "," << y << ") is " << int(p[0]) << "," << int(p[1])
                                         << "," << int(p[2]) << ", expected " << expected.r << "," << expected.g
                                         << "," << expected.b;
}

std::shared_ptr<QXImage> decode(const QXData& jpeg)
{
    EXPECT_GE(jpeg.size(), 4u);
    if (jpeg.size() < 4) return nullptr;
    EXPECT_EQ(jpeg[0], 0xFF); // SOI
    EXPECT_EQ(jpeg[1], 0xD8);
    return QXImage::imageWithData(jpeg);
}

const Colour kRed {230, 20, 20, 255};
const Colour kBlue {20, 20, 230, 255};
const Colour kBlack {0, 0, 0, 255};

} // namespace

TEST(ChapterImage, TheImageIsScaledToFillTheWholeBitmap)
{
    auto chapter = QXChapter::init("Scaled", kCMTimeZero);
    chapter->image = halves(64, 64, kRed, kBlue); // square into a wide frame: the aspect is not kept

    auto picture = decode(chapter->imageDataWithSize(320, 90));
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->pixelsWide(), 320);
    EXPECT_EQ(picture->pixelsHigh(), 90);
    EXPECT_TRUE(near(*picture, 150, 5, kRed));
    EXPECT_TRUE(near(*picture, 170, 85, kBlue));

    // Shrinking works as well, and fractions of a pixel are cut off.
    picture = decode(chapter->imageDataWithSize(33.9, 17.2));
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->pixelsWide(), 33);
    EXPECT_EQ(picture->pixelsHigh(), 17);
    EXPECT_TRUE(near(*picture, 2, 8, kRed));
    EXPECT_TRUE(near(*picture, 30, 8, kBlue));
}

TEST(ChapterImage, MissingOrTransparentImagesGiveBlack)
{
    auto chapter = QXChapter::init("No image", kCMTimeZero);
    auto picture = decode(chapter->imageDataWithSize(48, 32));
    ASSERT_TRUE(picture);
    EXPECT_TRUE(near(*picture, 47, 31, kBlack));

    chapter->image = halves(16, 16, {255, 255, 255, 0}, kBlue);
    picture = decode(chapter->imageDataWithSize(48, 32));
    ASSERT_TRUE(picture);
    EXPECT_TRUE(near(*picture, 5, 16, kBlack));
    EXPECT_TRUE(near(*picture, 40, 16, kBlue));

    // No bitmap can be made below one pixel or from a size that is no number.
    for (auto [w, h] : std::vector<std::pair<double, double>> {
             {0, 32}, {48, 0.5}, {-10, 10}, {std::nan(""), 10}, {10, std::numeric_limits<double>::infinity()}})
        EXPECT_TRUE(chapter->imageDataWithSize(w, h).empty()) << w << "x" << h;
}

TEST(ChapterImage, ImagesTravelWithCopiesButDoNotCount)
{
    auto track = QXChapterTrack::init();
    track->addChapter("One", kCMTimeZero);
    track->chapters[0]->image = halves(8, 8, kRed, kRed);
    track->originalChapters.push_back(track->chapters[0]->copy());
    EXPECT_EQ(track->originalChapters[0]->image, track->chapters[0]->image);

    track->chapters[0]->image = nullptr;
    EXPECT_FALSE(track->isModified());
}
