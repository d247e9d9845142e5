// Images: decoding what FFmpeg writes, and damaged bytes.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include "qxmedia/platform/image/QXImage.h"
#include "support/TestMedia.h"

namespace {

using Pixel = std::array<uint8_t, 4>;

Pixel pixelAt(const QXImage& image, int x, int y)
{
    const uint8_t* p = image.bitmapData() + size_t(y) * size_t(image.bytesPerRow()) + size_t(x) * 4;
    return {p[0], p[1], p[2], p[3]};
}

// Gradients and varying alpha: a picture with no two rows alike.
std::shared_ptr<QXImage> pattern(int width, int height, bool opaque)
{
    auto image = QXImage::imageWithSize(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            uint8_t* p = image->mutableBitmapData() + size_t(y) * size_t(image->bytesPerRow()) + size_t(x) * 4;
            p[0] = uint8_t(x * 255 / std::max(1, width - 1));
            p[1] = uint8_t(y * 255 / std::max(1, height - 1));
            p[2] = uint8_t((x + y) * 4);
            p[3] = opaque ? 255 : uint8_t((x * 7 + y * 3) % 256);
        }
    }
    return image;
}

double meanColourError(const QXImage& a, const QXImage& b)
{
    double sum = 0;
    for (int y = 0; y < a.pixelsHigh(); ++y) {
        for (int x = 0; x < a.pixelsWide(); ++x) {
            const Pixel pa = pixelAt(a, x, y), pb = pixelAt(b, x, y);
            for (int c = 0; c < 3; ++c) sum += std::abs(int(pa[c]) - int(pb[c]));
        }
    }
    return sum / (3.0 * a.pixelsWide() * a.pixelsHigh());
}

QXData bytesOf(const std::string& text) { return QXData(text.begin(), text.end()); }

} // namespace

TEST(QXImage, DecodesWhatFFmpegWrites)
{
    // testsrc2's first frame, as JPEG and PNG, and FFmpeg's own RGBA decoding
    // of the JPEG to compare with.
    const auto jpegPath =
        qxtest::generate("image-testsrc.jpg", "-f lavfi -i testsrc2=size=96x64 -frames:v 1 -q:v 3");
    const auto pngPath = qxtest::generate("image-testsrc.png", "-f lavfi -i testsrc2=size=96x64 -frames:v 1");
    ASSERT_FALSE(jpegPath.empty());
    ASSERT_FALSE(pngPath.empty());
    std::string reference;
    ASSERT_EQ(qxtest::run("ffmpeg -nostdin -v error -i '" + jpegPath.string() +
                              "' -sws_flags bicubic+accurate_rnd+full_chroma_int -f rawvideo -pix_fmt rgba -",
                          &reference),
              0);
    ASSERT_EQ(reference.size(), size_t(96 * 64 * 4));

    auto jpeg = QXImage::imageWithData(bytesOf(qxtest::readFile(jpegPath)));
    ASSERT_TRUE(jpeg);
    ASSERT_EQ(jpeg->pixelsWide(), 96);
    ASSERT_EQ(jpeg->pixelsHigh(), 64);
    auto pixels = std::make_unique<uint8_t[]>(reference.size());
    std::memcpy(pixels.get(), reference.data(), reference.size());
    const QXImage ffmpegDecoded(96, 64, std::move(pixels));
    EXPECT_LT(meanColourError(*jpeg, ffmpegDecoded), 0.5) << "same range, matrix and chroma filter";

    auto png = QXImage::imageWithData(bytesOf(qxtest::readFile(pngPath)));
    ASSERT_TRUE(png);
    EXPECT_EQ(png->pixelsWide(), 96);
    EXPECT_EQ(pixelAt(*png, 10, 10)[3], 255) << "RGB without alpha is opaque";
    EXPECT_LT(meanColourError(*png, *jpeg), 12.0) << "the same picture";

    // The other formats cover art may come in.
    for (const char* name : {"image-testsrc.bmp", "image-testsrc.gif", "image-testsrc.tiff"}) {
        const auto path = qxtest::generate(name, "-f lavfi -i testsrc2=size=96x64 -frames:v 1");
        ASSERT_FALSE(path.empty()) << name;
        auto image = QXImage::imageWithData(bytesOf(qxtest::readFile(path)));
        ASSERT_TRUE(image) << name;
        EXPECT_EQ(image->pixelsWide(), 96) << name;
        EXPECT_EQ(image->pixelsHigh(), 64) << name;
        EXPECT_LT(meanColourError(*image, *png), 12.0) << name;
    }
}

TEST(QXImage, DamagedBytesGiveNoImage)
{
    auto image = pattern(64, 64, true);
    const QXData jpeg = image->JPEGRepresentation();
    const QXData png = image->PNGRepresentation();
    ASSERT_FALSE(jpeg.empty());
    ASSERT_FALSE(png.empty());

    for (const QXData* data : {&jpeg, &png}) {
        for (size_t keep : {size_t(2), size_t(8), size_t(30), data->size() / 2, data->size() - 3}) {
            const QXData truncated(data->begin(), data->begin() + long(keep));
            EXPECT_FALSE(QXImage::imageWithData(truncated)) << "truncated to " << keep << " of " << data->size();
        }
        // The right signature followed by garbage.
        QXData garbage(data->begin(), data->begin() + 8);
        for (int i = 0; i < 4000; ++i) garbage.push_back(uint8_t(i * 131 + 7));
        EXPECT_FALSE(QXImage::imageWithData(garbage));
    }
    // Bytes behind the end of a JPEG do not matter.
    QXData trailed = jpeg;
    trailed.insert(trailed.end(), {0x00, 0x00, 0x12, 0x34});
    EXPECT_TRUE(QXImage::imageWithData(trailed));

    EXPECT_FALSE(QXImage::imageWithData(QXData {}));
    EXPECT_FALSE(QXImage::imageWithData(bytesOf("not an image at all")));
    EXPECT_FALSE(QXImage::imageWithData(nullptr, 10));

    // A flipped byte inside the PNG data is caught by its checksums.
    QXData flipped = png;
    flipped[flipped.size() / 2] ^= 0x5A;
    EXPECT_FALSE(QXImage::imageWithData(flipped));
}
