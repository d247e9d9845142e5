#include "qxmedia/platform/image/QXImage.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include "qxmedia/core/QXEncoderList.h"

namespace {

// Size limit of an image: enough for any artwork or frame, small enough that
// a damaged header cannot ask for gigabytes.
constexpr int kMaxSide = 16384;

bool validSize(int width, int height)
{
    return width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide &&
           av_image_check_size(unsigned(width), unsigned(height), 0, nullptr) == 0;
}

std::unique_ptr<uint8_t[]> allocatePixels(int width, int height, bool zeroed)
{
    const size_t size = size_t(width) * size_t(height) * 4;
    std::unique_ptr<uint8_t[]> pixels(zeroed ? new (std::nothrow) uint8_t[size]() : new (std::nothrow) uint8_t[size]);
    return pixels;
}

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct ScaleDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using ScalePtr = std::unique_ptr<SwsContext, ScaleDeleter>;

// The full-range "J" formats are the plain YUV formats with a full range;
// swscale wants them that way.
AVPixelFormat withoutJ(AVPixelFormat format, bool& fullRange)
{
    switch (format) {
    case AV_PIX_FMT_YUVJ420P: fullRange = true; return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: fullRange = true; return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: fullRange = true; return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P: fullRange = true; return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P: fullRange = true; return AV_PIX_FMT_YUV411P;
    default: return format;
    }
}

bool isRGB(AVPixelFormat format)
{
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    return descriptor && (descriptor->flags & (AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_PAL));
}

struct Picture {
    const uint8_t* const* data;
    const int* linesize;
    int width;
    int height;
    AVPixelFormat format;
    bool fullRange;
    int colorspace; // AVColorSpace; its numbers are swscale's SWS_CS_ values
};

// Converts and scales `source` into the destination planes.
bool convert(const Picture& source, uint8_t* const destinationData[], const int destinationLinesize[],
             int destinationWidth, int destinationHeight, AVPixelFormat destinationFormat, bool destinationFullRange,
             int flags)
{
    bool sourceFull = source.fullRange;
    const AVPixelFormat sourceFormat = withoutJ(source.format, sourceFull);
    bool destinationFull = destinationFullRange;
    destinationFormat = withoutJ(destinationFormat, destinationFull);
    ScalePtr scale(sws_getContext(source.width, source.height, sourceFormat, destinationWidth, destinationHeight,
                                  destinationFormat, flags, nullptr, nullptr, nullptr));
    if (!scale) return false;
    int* inverseTable = nullptr;
    int* table = nullptr;
    int srcRange = 0, dstRange = 0, brightness = 0, contrast = 0, saturation = 0;
    // swscale's range flag means full-range YUV or grey; an RGB side keeps 0.
    if ((!isRGB(sourceFormat) || !isRGB(destinationFormat)) &&
        sws_getColorspaceDetails(scale.get(), &inverseTable, &srcRange, &table, &dstRange, &brightness, &contrast,
                                 &saturation) >= 0) {
        sws_setColorspaceDetails(scale.get(), sws_getCoefficients(source.colorspace),
                                 sourceFull && !isRGB(sourceFormat) ? 1 : 0, sws_getCoefficients(SWS_CS_ITU601),
                                 destinationFull && !isRGB(destinationFormat) ? 1 : 0, brightness, contrast,
                                 saturation);
    }
    const int height = sws_scale(scale.get(), source.data, source.linesize, 0, source.height, destinationData,
                                 destinationLinesize);
    return height == destinationHeight;
}

std::shared_ptr<QXImage> imageFromPicture(const Picture& picture)
{
    if (!validSize(picture.width, picture.height)) return nullptr;
    auto pixels = allocatePixels(picture.width, picture.height, false);
    if (!pixels) return nullptr;
    uint8_t* destination[4] = {pixels.get(), nullptr, nullptr, nullptr};
    int destinationLinesize[4] = {picture.width * 4, 0, 0, 0};
    if (picture.format == AV_PIX_FMT_RGBA) {
        av_image_copy_plane(pixels.get(), picture.width * 4, picture.data[0], picture.linesize[0], picture.width * 4,
                            picture.height);
    } else if (!convert(picture, destination, destinationLinesize, picture.width, picture.height, AV_PIX_FMT_RGBA,
                        true, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT)) {
        return nullptr;
    }
    return std::make_shared<QXImage>(picture.width, picture.height, std::move(pixels));
}

AVCodecID codecForBytes(const uint8_t* bytes, size_t length)
{
    auto startsWith = [&](std::initializer_list<uint8_t> magic) {
        return length >= magic.size() && std::equal(magic.begin(), magic.end(), bytes);
    };
    if (startsWith({0xFF, 0xD8, 0xFF})) return AV_CODEC_ID_MJPEG;
    if (startsWith({0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A})) return AV_CODEC_ID_PNG;
    if (startsWith({'G', 'I', 'F', '8'})) return AV_CODEC_ID_GIF;
    if (startsWith({'B', 'M'})) return AV_CODEC_ID_BMP;
    if (startsWith({'I', 'I', 0x2A, 0x00}) || startsWith({'M', 'M', 0x00, 0x2A})) return AV_CODEC_ID_TIFF;
    return AV_CODEC_ID_NONE;
}

// Walks the marker segments of a JPEG up to its end-of-image marker. The
// decoder would make up the missing rest of a cut-off file, so data without
// that marker are refused; anything behind it is ignored.
bool jpegHasEndMarker(const uint8_t* bytes, size_t length)
{
    auto isRestart = [](uint8_t marker) { return marker >= 0xD0 && marker <= 0xD7; };
    size_t i = 2; // behind the start-of-image marker
    while (i + 1 < length) {
        if (bytes[i] != 0xFF) return false;
        const uint8_t marker = bytes[i + 1];
        if (marker == 0xFF) { // fill byte
            ++i;
            continue;
        }
        if (marker == 0xD9) return true;
        if (marker == 0x01 || isRestart(marker)) { // no length field
            i += 2;
            continue;
        }
        if (i + 3 >= length) return false;
        const size_t segment = size_t(bytes[i + 2]) << 8 | bytes[i + 3];
        if (segment < 2) return false;
        i += 2 + segment;
        if (marker == 0xDA) {
            // Entropy-coded data run to the next marker; FF 00 and restart
            // markers belong to them.
            while (i + 1 < length && !(bytes[i] == 0xFF && bytes[i + 1] != 0 && !isRestart(bytes[i + 1]))) ++i;
        }
    }
    return false;
}

FramePtr decode(AVCodecID codecId, const uint8_t* bytes, size_t length)
{
    const AVCodec* codec = avcodec_find_decoder(codecId);
    if (!codec || length > size_t(INT32_MAX - AV_INPUT_BUFFER_PADDING_SIZE)) return nullptr;
    CodecContextPtr context(avcodec_alloc_context3(codec));
    PacketPtr packet(av_packet_alloc());
    FramePtr frame(av_frame_alloc());
    if (!context || !packet || !frame) return nullptr;
    // Damage is an error, not something to conceal. The TIFF decoder would
    // also refuse every tag it does not know, so it is spared that rule.
    context->err_recognition = AV_EF_CRCCHECK;
    if (codecId == AV_CODEC_ID_MJPEG || codecId == AV_CODEC_ID_PNG) {
        context->err_recognition |= AV_EF_BITSTREAM | AV_EF_EXPLODE;
    }
    // Undecodable bytes are an answer (no image), not an event: the
    // decoder's complaints go to the debug level.
    context->log_level_offset = AV_LOG_DEBUG - AV_LOG_ERROR;
    context->thread_count = 1;
    if (QXAvcodecOpen(context.get(), codec, nullptr) < 0) return nullptr;
    if (av_new_packet(packet.get(), int(length)) < 0) return nullptr;
    std::memcpy(packet->data, bytes, length);
    packet->flags |= AV_PKT_FLAG_KEY;
    if (avcodec_send_packet(context.get(), packet.get()) < 0) return nullptr;
    avcodec_send_packet(context.get(), nullptr);
    if (avcodec_receive_frame(context.get(), frame.get()) < 0) return nullptr;
    if ((frame->flags & AV_FRAME_FLAG_CORRUPT) || frame->decode_error_flags) return nullptr;
    return frame;
}

QXData encode(AVCodecID codecId, AVFrame* frame, int quantiser)
{
    const AVCodec* codec = avcodec_find_encoder(codecId);
    if (!codec) return {};
    CodecContextPtr context(avcodec_alloc_context3(codec));
    PacketPtr packet(av_packet_alloc());
    if (!context || !packet) return {};
    context->width = frame->width;
    context->height = frame->height;
    context->pix_fmt = AVPixelFormat(frame->format);
    context->time_base = {1, 25};
    context->thread_count = 1;
    if (codecId == AV_CODEC_ID_MJPEG) {
        context->color_range = AVCOL_RANGE_JPEG;
        context->flags |= AV_CODEC_FLAG_QSCALE;
        context->global_quality = quantiser * FF_QP2LAMBDA;
        frame->quality = context->global_quality;
    } else {
        av_opt_set(context->priv_data, "pred", "paeth", 0);
    }
    if (QXAvcodecOpen(context.get(), codec, nullptr) < 0) return {};
    frame->pts = 0;
    if (avcodec_send_frame(context.get(), frame) < 0) return {};
    avcodec_send_frame(context.get(), nullptr);
    QXData data;
    while (avcodec_receive_packet(context.get(), packet.get()) == 0) {
        data.insert(data.end(), packet->data, packet->data + packet->size);
        av_packet_unref(packet.get());
    }
    return data;
}

} // namespace

QXSize QXAspectFitSize(QXSize aspect, QXSize bounds)
{
    if (aspect.width <= 0 || aspect.height <= 0 || bounds.width <= 0 || bounds.height <= 0) return {};
    const double scale = std::min(bounds.width / aspect.width, bounds.height / aspect.height);
    return {aspect.width * scale, aspect.height * scale};
}

QXRect QXAspectFitRect(QXSize aspect, QXRect bounds)
{
    const QXSize size = QXAspectFitSize(aspect, bounds.size);
    return {{bounds.origin.x + (bounds.size.width - size.width) / 2, bounds.origin.y + (bounds.size.height - size.height) / 2},
            size};
}

std::shared_ptr<QXImage> QXImage::imageWithSize(int width, int height)
{
    if (!validSize(width, height)) return nullptr;
    auto pixels = allocatePixels(width, height, true);
    if (!pixels) return nullptr;
    return std::make_shared<QXImage>(width, height, std::move(pixels));
}

std::shared_ptr<QXImage> QXImage::imageWithData(const uint8_t* bytes, size_t length)
{
    if (!bytes || length == 0) return nullptr;
    const AVCodecID codecId = codecForBytes(bytes, length);
    if (codecId == AV_CODEC_ID_NONE) return nullptr;
    if (codecId == AV_CODEC_ID_MJPEG && !jpegHasEndMarker(bytes, length)) return nullptr;
    FramePtr frame = decode(codecId, bytes, length);
    return frame ? imageWithFrame(frame.get()) : nullptr;
}

std::shared_ptr<QXImage> QXImage::imageWithData(const QXData& data) { return imageWithData(data.data(), data.size()); }

std::shared_ptr<QXImage> QXImage::imageWithFrame(const AVFrame* frame)
{
    if (!frame || !frame->data[0] || frame->format < 0) return nullptr;
    return imageFromPicture({frame->data, frame->linesize, frame->width, frame->height, AVPixelFormat(frame->format),
                             frame->color_range == AVCOL_RANGE_JPEG, frame->colorspace});
}

std::shared_ptr<QXImage> QXImage::imageWithPixels(int width, int height, int avPixelFormat, const uint8_t* pixels,
                                                  int bytesPerRow)
{
    if (!pixels || bytesPerRow <= 0) return nullptr;
    const uint8_t* data[4] = {pixels, nullptr, nullptr, nullptr};
    const int linesize[4] = {bytesPerRow, 0, 0, 0};
    return imageFromPicture({data, linesize, width, height, AVPixelFormat(avPixelFormat), true, AVCOL_SPC_UNSPECIFIED});
}

QXData QXImage::JPEGRepresentation() const
{
    FramePtr frame(av_frame_alloc());
    if (!frame) return {};
    frame->width = width_;
    frame->height = height_;
    frame->format = AV_PIX_FMT_YUVJ420P;
    frame->color_range = AVCOL_RANGE_JPEG;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return {};
    const uint8_t* data[4] = {pixels_.get(), nullptr, nullptr, nullptr};
    const int linesize[4] = {bytesPerRow(), 0, 0, 0};
    const Picture source {data, linesize, width_, height_, AV_PIX_FMT_RGBA, true, AVCOL_SPC_RGB};
    if (!convert(source, frame->data, frame->linesize, width_, height_, AV_PIX_FMT_YUVJ420P, true,
                 SWS_BICUBIC | SWS_ACCURATE_RND)) {
        return {};
    }
    return encode(AV_CODEC_ID_MJPEG, frame.get(), 4);
}

QXData QXImage::PNGRepresentation() const
{
    FramePtr frame(av_frame_alloc());
    if (!frame) return {};
    frame->width = width_;
    frame->height = height_;
    frame->format = AV_PIX_FMT_RGBA;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return {};
    av_image_copy_plane(frame->data[0], frame->linesize[0], pixels_.get(), bytesPerRow(), bytesPerRow(), height_);
    return encode(AV_CODEC_ID_PNG, frame.get(), 0);
}

std::shared_ptr<QXImage> QXImage::imageByScalingToSize(int width, int height) const
{
    if (!validSize(width, height)) return nullptr;
    auto pixels = allocatePixels(width, height, false);
    if (!pixels) return nullptr;
    if (width == width_ && height == height_) {
        std::memcpy(pixels.get(), pixels_.get(), size_t(bytesPerRow()) * size_t(height_));
    } else {
        const uint8_t* data[4] = {pixels_.get(), nullptr, nullptr, nullptr};
        const int linesize[4] = {bytesPerRow(), 0, 0, 0};
        uint8_t* destination[4] = {pixels.get(), nullptr, nullptr, nullptr};
        int destinationLinesize[4] = {width * 4, 0, 0, 0};
        const Picture source {data, linesize, width_, height_, AV_PIX_FMT_RGBA, true, AVCOL_SPC_RGB};
        if (!convert(source, destination, destinationLinesize, width, height, AV_PIX_FMT_RGBA, true,
                     SWS_BICUBIC | SWS_ACCURATE_RND)) {
            return nullptr;
        }
    }
    return std::make_shared<QXImage>(width, height, std::move(pixels));
}

void QXImage::drawImage(const QXImage& image, int x, int y, QXCompositingOperation operation)
{
    const int left = std::max(0, x), top = std::max(0, y);
    const int right = int(std::min<int64_t>(width_, int64_t(x) + image.width_));
    const int bottom = int(std::min<int64_t>(height_, int64_t(y) + image.height_));
    if (left >= right || top >= bottom) return;
    for (int row = top; row < bottom; ++row) {
        const uint8_t* source = image.pixels_.get() + size_t(row - y) * size_t(image.bytesPerRow()) + size_t(left - x) * 4;
        uint8_t* destination = pixels_.get() + size_t(row) * size_t(bytesPerRow()) + size_t(left) * 4;
        const size_t count = size_t(right - left);
        if (operation == QXCompositingOperation::Copy) {
            std::memcpy(destination, source, count * 4);
            continue;
        }
        for (size_t i = 0; i < count; ++i, source += 4, destination += 4) {
            const unsigned sa = source[3];
            if (sa == 255) {
                std::memcpy(destination, source, 4);
                continue;
            }
            if (sa == 0) continue;
            // Straight alpha: out = src*sa + dst*da*(1-sa), divided by the
            // resulting alpha; all in units of 255.
            const unsigned da = destination[3];
            const unsigned dstWeight = da * (255 - sa);         // up to 255*255
            const unsigned outAlpha255 = sa * 255 + dstWeight;  // alpha times 255
            for (int c = 0; c < 3; ++c) {
                destination[c] =
                    uint8_t((source[c] * sa * 255 + destination[c] * dstWeight + outAlpha255 / 2) / outAlpha255);
            }
            destination[3] = uint8_t((outAlpha255 + 127) / 255);
        }
    }
}

void QXImage::drawImageInRect(const QXImage& image, QXRect rect, QXCompositingOperation operation)
{
    const int width = int(std::lround(rect.size.width));
    const int height = int(std::lround(rect.size.height));
    std::shared_ptr<QXImage> scaled = image.imageByScalingToSize(width, height);
    if (scaled) drawImage(*scaled, int(std::lround(rect.origin.x)), int(std::lround(rect.origin.y)), operation);
}

std::string QXImage::description() const
{
    return "<QXImage " + std::to_string(width_) + "x" + std::to_string(height_) + ">";
}
