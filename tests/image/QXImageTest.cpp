// Images: PNG and JPEG both ways, against what FFmpeg writes and reads, scaling and pixel formats.

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

void fill(QXImage& image, Pixel colour)
{
    for (int y = 0; y < image.pixelsHigh(); ++y) {
        for (int x = 0; x < image.pixelsWide(); ++x) {
            std::memcpy(image.mutableBitmapData() + size_t(y) * size_t(image.bytesPerRow()) + size_t(x) * 4,
                        colour.data(), 4);
        }
    }
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

TEST(QXImage, PNGRoundTripIsExact)
{
    auto image = pattern(37, 23, false);
    const QXData png = image->PNGRepresentation();
    auto decoded = QXImage::imageWithData(png);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->pixelsWide(), 37);
    ASSERT_EQ(decoded->pixelsHigh(), 23);
    EXPECT_EQ(std::memcmp(decoded->bitmapData(), image->bitmapData(), size_t(37 * 23 * 4)), 0);
}

TEST(QXImage, JPEGRoundTripIsClose)
{
    auto image = pattern(160, 90, true);
    const QXData jpeg = image->JPEGRepresentation();
    auto decoded = QXImage::imageWithData(jpeg);
    ASSERT_TRUE(decoded);
    ASSERT_EQ(decoded->pixelsWide(), 160);
    EXPECT_LT(meanColourError(*image, *decoded), 4.0);
    EXPECT_EQ(pixelAt(*decoded, 80, 45)[3], 255) << "JPEG has no alpha";

    // Odd sizes survive the halved chroma planes.
    auto odd = QXImage::imageWithData(pattern(33, 17, true)->JPEGRepresentation());
    ASSERT_TRUE(odd);
    EXPECT_EQ(odd->pixelsWide(), 33);
    EXPECT_EQ(odd->pixelsHigh(), 17);

    // Transparent pixels come out black.
    auto clear = QXImage::imageWithSize(16, 16);
    auto black = QXImage::imageWithData(clear->JPEGRepresentation());
    ASSERT_TRUE(black);
    EXPECT_LE(pixelAt(*black, 8, 8)[0], 2);
}

TEST(QXImage, EncodedFilesReadBackWithFFprobe)
{
    if (!qxtest::haveTool("ffprobe")) GTEST_SKIP() << "no ffprobe";
    const auto dir = qxtest::makeTempDir("image-probe");
    auto image = pattern(64, 48, false);
    const QXData jpeg = image->JPEGRepresentation();
    const QXData png = image->PNGRepresentation();
    qxtest::writeFile(dir / "a.jpg", std::string(jpeg.begin(), jpeg.end()));
    qxtest::writeFile(dir / "a.png", std::string(png.begin(), png.end()));
    for (const char* name : {"a.jpg", "a.png"}) {
        std::string output;
        ASSERT_EQ(qxtest::run("ffprobe -v error -show_entries stream=codec_name,width,height -of csv=p=0 '" +
                                  (dir / name).string() + "'",
                              &output),
                  0);
        EXPECT_NE(output.find("64,48"), std::string::npos) << name << ": " << output;
    }
}

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

TEST(QXImage, ScalesToAnySize)
{
    auto image = QXImage::imageWithSize(40, 20);
    fill(*image, {200, 10, 10, 255});
    // Right half blue.
    auto blue = QXImage::imageWithSize(20, 20);
    fill(*blue, {10, 10, 200, 255});
    image->drawImage(*blue, 20, 0, QXCompositingOperation::Copy);

    auto scaled = image->imageByScalingToSize(97, 33);
    ASSERT_TRUE(scaled);
    EXPECT_EQ(scaled->pixelsWide(), 97);
    EXPECT_EQ(scaled->pixelsHigh(), 33);
    const Pixel left = pixelAt(*scaled, 2, 16), right = pixelAt(*scaled, 94, 16);
    EXPECT_NEAR(left[0], 200, 3);
    EXPECT_NEAR(left[2], 10, 3);
    EXPECT_NEAR(right[2], 200, 3);
    EXPECT_EQ(left[3], 255);

    auto smaller = image->imageByScalingToSize(4, 2);
    ASSERT_TRUE(smaller);
    EXPECT_GT(pixelAt(*smaller, 0, 0)[0], 150);
    EXPECT_GT(pixelAt(*smaller, 3, 1)[2], 150);

    EXPECT_FALSE(image->imageByScalingToSize(0, 10));
    EXPECT_FALSE(QXImage::imageWithSize(-1, 10));
    EXPECT_FALSE(QXImage::imageWithSize(100000, 100000));
}

TEST(QXImage, DrawsIntoATransparentCanvasAtAnOffset)
{
    // A 300x200 picture centred on a 300x300 square, as square artwork is made.
    auto picture = QXImage::imageWithSize(300, 200);
    fill(*picture, {1, 2, 3, 255});
    auto square = QXImage::imageWithSize(300, 300);
    square->drawImage(*picture, 0, 50, QXCompositingOperation::Copy);
    EXPECT_EQ(pixelAt(*square, 150, 49), (Pixel {0, 0, 0, 0}));
    EXPECT_EQ(pixelAt(*square, 150, 50), (Pixel {1, 2, 3, 255}));
    EXPECT_EQ(pixelAt(*square, 299, 249), (Pixel {1, 2, 3, 255}));
    EXPECT_EQ(pixelAt(*square, 0, 250), (Pixel {0, 0, 0, 0}));
    auto png = QXImage::imageWithData(square->PNGRepresentation());
    ASSERT_TRUE(png);
    EXPECT_EQ(pixelAt(*png, 10, 10)[3], 0) << "transparency survives PNG";

    // Clipping on every side.
    auto small = QXImage::imageWithSize(10, 10);
    fill(*small, {9, 9, 9, 255});
    auto canvas = QXImage::imageWithSize(8, 8);
    canvas->drawImage(*small, -5, -5);
    canvas->drawImage(*small, 6, 6);
    canvas->drawImage(*small, 100, 0);
    EXPECT_EQ(pixelAt(*canvas, 4, 4)[0], 9);
    EXPECT_EQ(pixelAt(*canvas, 5, 5)[3], 0);
    EXPECT_EQ(pixelAt(*canvas, 7, 7)[0], 9);

    // Half-transparent white over opaque black gives mid grey; over a clear
    // canvas it keeps its colour and alpha.
    auto half = QXImage::imageWithSize(1, 1);
    fill(*half, {255, 255, 255, 128});
    auto dark = QXImage::imageWithSize(1, 1);
    fill(*dark, {0, 0, 0, 255});
    dark->drawImage(*half, 0, 0);
    EXPECT_NEAR(pixelAt(*dark, 0, 0)[0], 128, 1);
    EXPECT_EQ(pixelAt(*dark, 0, 0)[3], 255);
    auto clear = QXImage::imageWithSize(1, 1);
    clear->drawImage(*half, 0, 0);
    EXPECT_EQ(pixelAt(*clear, 0, 0), (Pixel {255, 255, 255, 128}));

    // Drawing into a rectangle scales first.
    auto target = QXImage::imageWithSize(20, 20);
    target->drawImageInRect(*small, {{5, 5}, {10, 4}});
    EXPECT_EQ(pixelAt(*target, 14, 8)[3], 255);
    EXPECT_EQ(pixelAt(*target, 14, 9)[3], 0);
}

TEST(QXImage, PackedPixelsAndAspectFit)
{
    // RGB24 rows with padding, as a still-frame grab delivers them.
    std::vector<uint8_t> rgb(size_t(8) * 3 * 2, 0);
    rgb[0] = 255;                 // (0,0) red
    rgb[8 * 3 + 3 * 2 + 1] = 255; // (2,1) green, rows of 24 bytes
    auto image = QXImage::imageWithPixels(7, 2, AV_PIX_FMT_RGB24, rgb.data(), 24);
    ASSERT_TRUE(image);
    EXPECT_EQ(pixelAt(*image, 0, 0), (Pixel {255, 0, 0, 255}));
    EXPECT_EQ(pixelAt(*image, 2, 1), (Pixel {0, 255, 0, 255}));

    const QXSize fit = QXAspectFitSize({1920, 1080}, {640, 640});
    EXPECT_DOUBLE_EQ(fit.width, 640);
    EXPECT_DOUBLE_EQ(fit.height, 360);
    const QXRect rect = QXAspectFitRect({100, 200}, {{0, 0}, {300, 300}});
    EXPECT_DOUBLE_EQ(rect.origin.x, 75);
    EXPECT_DOUBLE_EQ(rect.size.height, 300);
    EXPECT_DOUBLE_EQ(QXAspectFitSize({0, 10}, {10, 10}).width, 0);
}
