#pragma once
// QXImage: a bitmap of 8-bit RGBA pixels (straight, not premultiplied,
// alpha), rows top to bottom and tightly packed. It decodes JPEG, PNG, BMP,
// GIF and TIFF bytes, encodes JPEG and PNG, scales, and draws one image into
// another. Everything goes through libavcodec and libswscale.
//
// Images shared as QXImageRef (see QXValue) are not changed any more; the
// drawing operations are for images still being built.

#include <cstdint>
#include <memory>
#include <string>

#include "qxmedia/platform/foundation/QXValue.h"

struct AVFrame;

// A size in pixels. Doubles, as drawing code computes with fractions.
struct QXSize {
    double width = 0;
    double height = 0;
};

struct QXPoint {
    double x = 0;
    double y = 0;
};

struct QXRect {
    QXPoint origin;
    QXSize size;
};

// The largest size of the aspect ratio of `aspect` that fits in `bounds`,
// and its rectangle centred in a rectangle of that size. A zero aspect gives
// a zero size.
QXSize QXAspectFitSize(QXSize aspect, QXSize bounds);
QXRect QXAspectFitRect(QXSize aspect, QXRect bounds);

enum class QXCompositingOperation {
    Copy,       // the source replaces the destination, alpha included
    SourceOver, // the source is laid over the destination by its alpha
};

class QXImage {
public:
    // A transparent image (all pixels 0, 0, 0, 0). Null for an empty or
    // overly large size.
    static std::shared_ptr<QXImage> imageWithSize(int width, int height);
    // Decodes the first picture of JPEG, PNG, BMP, GIF or TIFF bytes. Null
    // for anything else and for damaged or truncated data.
    static std::shared_ptr<QXImage> imageWithData(const uint8_t* bytes, size_t length);
    static std::shared_ptr<QXImage> imageWithData(const QXData& data);
    // Converts a decoded picture of any pixel format FFmpeg knows.
    static std::shared_ptr<QXImage> imageWithFrame(const AVFrame* frame);
    // Converts packed pixels in an FFmpeg pixel format (e.g. AV_PIX_FMT_RGB24).
    static std::shared_ptr<QXImage> imageWithPixels(int width, int height, int avPixelFormat, const uint8_t* pixels,
                                                    int bytesPerRow);

    int pixelsWide() const { return width_; }
    int pixelsHigh() const { return height_; }
    QXSize size() const { return {double(width_), double(height_)}; }
    int bytesPerRow() const { return width_ * 4; }
    const uint8_t* bitmapData() const { return pixels_.get(); }
    uint8_t* mutableBitmapData() { return pixels_.get(); }

    // JPEG (4:2:0, full range) at a fixed quantiser of 4. That is the
    // quantiser FFmpeg's mjpeg encoder settles on by itself for a single
    // picture at its default settings; fixing it keeps the output the same
    // whatever the picture. Alpha is dropped: transparent pixels come out
    // black. Empty on failure.
    QXData JPEGRepresentation() const;
    // PNG with alpha, lossless. Empty on failure.
    QXData PNGRepresentation() const;

    // A new image of the given size with this one scaled to fill it (bicubic;
    // the aspect ratio is not kept). Null on failure.
    std::shared_ptr<QXImage> imageByScalingToSize(int width, int height) const;

    // Draws `image` with its top-left corner at (x, y) of this image (origin
    // top left); what falls outside is clipped.
    void drawImage(const QXImage& image, int x, int y,
                   QXCompositingOperation operation = QXCompositingOperation::SourceOver);
    // Draws `image` scaled to fill `rect`.
    void drawImageInRect(const QXImage& image, QXRect rect,
                         QXCompositingOperation operation = QXCompositingOperation::SourceOver);

    std::string description() const;

    QXImage(int width, int height, std::unique_ptr<uint8_t[]> pixels)
        : width_(width), height_(height), pixels_(std::move(pixels))
    {
    }

private:
    int width_;
    int height_;
    std::unique_ptr<uint8_t[]> pixels_;
};
