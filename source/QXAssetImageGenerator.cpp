#include "qxmedia/source/QXAssetImageGenerator.h"

#include <algorithm>
#include <cinttypes>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/dispatch/dispatch.h"
#include "qxmedia/platform/image/QXImage.h"
#include "qxmedia/source/QXMovie.h"

using namespace qx;

namespace {

// Decoders with B-frames show a picture later than they read it: the
// stream-level seek starts this much earlier to make up for it.
constexpr int64_t kBFrameSeekLeadMicroseconds = 130434;
constexpr int kSeekAttempts = 6;

struct CodecFreer {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameFreer {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFreer {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

QXErrorRef fileError(int64_t code, const QXURL& url)
{
    return QXMedia::errorWithDomain(QXMediaErrorDomain, code, {{NSURLErrorKey, url}});
}

// Packed RGB of the frame's size, through libswscale.
std::shared_ptr<QXImage> rgbImage(const AVFrame* frame, const QXURL& url, QXErrorRef* error)
{
    uint8_t* planes[4] = {};
    int strides[4] = {};
    const int allocated = av_image_alloc(planes, strides, frame->width, frame->height, AV_PIX_FMT_RGB24, 1);
    if (allocated < 0) {
        QXSetError(error, fileError(allocated, url));
        return nullptr;
    }
    SwsContext* scaler = sws_getContext(frame->width, frame->height, AVPixelFormat(frame->format), frame->width,
                                        frame->height, AV_PIX_FMT_RGB24, 0, nullptr, nullptr, nullptr);
    std::shared_ptr<QXImage> image;
    if (scaler) {
        sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, planes, strides);
        sws_freeContext(scaler);
        image = QXImage::imageWithPixels(frame->width, frame->height, AV_PIX_FMT_RGB24, planes[0], strides[0]);
    }
    av_freep(&planes[0]);
    return image;
}

// Decodes from the current position until a picture at or after `target`
// (answered) or the end (the last picture). Pictures before the first
// intra-coded one are leftovers of the seek and are dropped. *tooLate tells
// that the first good picture already lay behind the target.
std::unique_ptr<AVFrame, FrameFreer> decodeUntil(AVFormatContext* format, AVCodecContext* decoder, int streamIndex,
                                                 int64_t target, bool* tooLate)
{
    std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
    std::unique_ptr<AVFrame, FrameFreer> last;
    std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
    bool draining = false, found = false, intraSeen = false;
    *tooLate = false;
    while (!found) {
        if (!draining) {
            if (av_read_frame(format, packet.get()) < 0) {
                draining = true; // the decoder still holds delayed pictures
                avcodec_send_packet(decoder, nullptr);
            } else {
                if (packet->stream_index == streamIndex) avcodec_send_packet(decoder, packet.get());
                av_packet_unref(packet.get());
            }
        }
        int received = 0;
        while (!found && (received = avcodec_receive_frame(decoder, frame.get())) == 0) {
            intraSeen = intraSeen || frame->pict_type == AV_PICTURE_TYPE_I;
            const bool usable = intraSeen && !(frame->flags & AV_FRAME_FLAG_CORRUPT);
            if (usable) {
                const int64_t shown = frame->best_effort_timestamp;
                found = shown != AV_NOPTS_VALUE && shown >= target;
                *tooLate = found && !last && shown > target;
                last.reset(av_frame_clone(frame.get()));
            }
            av_frame_unref(frame.get());
        }
        if (draining && !found && received != 0) break;
    }
    return last;
}

} // namespace

std::shared_ptr<QXAssetImageGenerator> QXAssetImageGenerator::initWithAsset(std::shared_ptr<QXMovie> asset)
{
    auto generator = std::shared_ptr<QXAssetImageGenerator>(new QXAssetImageGenerator());
    generator->asset = std::move(asset);
    return generator;
}

QXAssetImageGenerator::~QXAssetImageGenerator()
{
    if (formatCtx_) avformat_close_input(&formatCtx_);
}

std::shared_ptr<QXImage> QXAssetImageGenerator::copyCGImageAtTime(CMTime time, CMTime* actualTime, QXErrorRef* error)
{
    dispatch_semaphore_wait(semaphore_, DISPATCH_TIME_FOREVER);
    std::shared_ptr<QXImage> image;
    try {
        image = copyImageLocked(time, actualTime, error);
    } catch (...) {
        dispatch_semaphore_signal(semaphore_);
        throw;
    }
    dispatch_semaphore_signal(semaphore_);
    return image;
}

std::shared_ptr<QXImage> QXAssetImageGenerator::copyImageLocked(CMTime time, CMTime* actualTime, QXErrorRef* error)
{
    const QXURL url = asset ? asset->fileURL : QXURL();
    if (!formatCtx_) {
        const int opened = avformat_open_input(&formatCtx_, url.c_str(), nullptr, nullptr);
        if (opened < 0) {
            QXSetError(error, fileError(opened, url));
        } else if (const int found = avformat_find_stream_info(formatCtx_, nullptr); found < 0) {
            QXSetError(error, fileError(found, url));
        }
    }
    if (!formatCtx_) return nullptr;

    const int64_t fileStart = formatCtx_->start_time == AV_NOPTS_VALUE ? 0 : formatCtx_->start_time;
    const int64_t requested =
        CMTimeConvertScale(time, AV_TIME_BASE, kCMTimeRoundingMethod_RoundHalfAwayFromZero).value + fileStart;
    if (avformat_seek_file(formatCtx_, -1, INT64_MIN, requested, requested, 0) < 0) {
        QXLogWarning("Could not seek to position %0.3f", CMTimeGetSeconds(time));
    }
    const AVCodec* codec = nullptr;
    const int streamIndex = av_find_best_stream(formatCtx_, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (streamIndex < 0) {
        QXLogWarning("Failed to find video stream: %d", streamIndex);
        QXSetError(error, fileError(streamIndex, url));
        return nullptr;
    }
    const AVStream* stream = formatCtx_->streams[streamIndex];
    // Times count from the stream's first picture, as a player shows them.
    const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    const int64_t target = av_rescale_q(time.value, AVRational{1, time.timescale}, stream->time_base) + start;

    std::unique_ptr<AVCodecContext, CodecFreer> decoder(avcodec_alloc_context3(codec));
    if (!decoder) {
        QXLogWarning("Could not alloc context!");
        return nullptr;
    }
    if (const int copied = avcodec_parameters_to_context(decoder.get(), stream->codecpar); copied < 0) {
        QXLogWarning("Failed to copy codec parameter: %d", copied);
    }
    if (const int opened = QXAvcodecOpen(decoder.get(), codec, nullptr); opened < 0) {
        QXLogWarning("Failed to find codec: %d", opened);
    }
    int64_t lead = 0;
    if (!(formatCtx_->iformat->flags & AVFMT_SEEK_TO_PTS) && decoder->has_b_frames > 0) {
        lead = av_rescale_q(kBFrameSeekLeadMicroseconds, AV_TIME_BASE_Q, stream->time_base);
    }
    // A seek past the end finds nothing to decode: aim at the last second.
    int64_t aim = target;
    if (formatCtx_->duration > 0) {
        const int64_t end = start + av_rescale_q(formatCtx_->duration, AV_TIME_BASE_Q, stream->time_base);
        aim = std::min(aim, end - av_rescale_q(AV_TIME_BASE, AV_TIME_BASE_Q, stream->time_base));
    }
    std::unique_ptr<AVFrame, FrameFreer> last;
    // Demuxers that seek by byte position (program streams) may land behind
    // the target; the seek then starts earlier, a second, two, four ...
    const int64_t second = av_rescale_q(AV_TIME_BASE, AV_TIME_BASE_Q, stream->time_base);
    for (int attempt = 0; attempt < kSeekAttempts; ++attempt) {
        // Aiming before the first picture is allowed: it finds the start.
        const int64_t seekTo = aim - lead;
        if (avformat_seek_file(formatCtx_, streamIndex, INT64_MIN, seekTo, seekTo, 0) < 0) {
            QXLogWarning("Could not seek to position %0.3f", CMTimeGetSeconds(time));
        }
        avcodec_flush_buffers(decoder.get());
        bool tooLate = false;
        last = decodeUntil(formatCtx_, decoder.get(), streamIndex, target, &tooLate);
        if (!tooLate || seekTo < start - second) break;
        lead = lead == 0 ? second : lead * 2;
    }
    if (!last) return nullptr;

    std::shared_ptr<QXImage> image = rgbImage(last.get(), url, error);
    if (image && actualTime) {
        const int64_t shown = last->best_effort_timestamp == AV_NOPTS_VALUE ? start : last->best_effort_timestamp;
        *actualTime = CMTimeMake((shown - start) * stream->time_base.num, stream->time_base.den);
    }
    return image;
}

void QXAssetImageGenerator::generateCGImagesAsynchronouslyForTimes(const std::vector<CMTime>& times,
                                                                   QXAssetImageGeneratorCompletionHandler handler)
{
    cancelled = false;
    auto self = shared_from_this();
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT), [self, times, handler] {
        dispatch_apply(times.size(), dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_BACKGROUND), [&](size_t i) {
            const CMTime requested = times[i];
            if (self->cancelled) {
                handler(requested, nullptr, kCMTimeInvalid, QXAssetImageGeneratorCancelled, nullptr);
                return;
            }
            CMTime actual = kCMTimeInvalid;
            QXErrorRef error;
            std::shared_ptr<QXImage> image = self->copyCGImageAtTime(requested, &actual, &error);
            handler(requested, image, actual,
                    image ? QXAssetImageGeneratorSucceeded : QXAssetImageGeneratorFailed, error);
        });
    });
}
