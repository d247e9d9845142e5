#include "qxmedia/reader/QXTrackReaderVideoOutput.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/coremedia/CMFormatDescription.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

// Lanczos with accurate rounding: pictures are scaled once, for keeps.
constexpr int kScaleFlags = SWS_LANCZOS | SWS_ACCURATE_RND;
constexpr int kPlaneAlignment = 16;

// The full-range ("J") formats are their plain twins with another range.
// The scaler is given the twin: it would squeeze full range into video
// range, while the picture keeps its range and is marked 'f420'.
AVPixelFormat withoutRangeVariant(int format)
{
    switch (format) {
    case AV_PIX_FMT_YUVJ420P: return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P: return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P: return AV_PIX_FMT_YUV411P;
    default: return AVPixelFormat(format);
    }
}

CMSampleBufferRef copyWithTiming(const CMSampleBufferRef& sample, CMTime duration)
{
    const CMSampleTimingInfo timing {duration, CMSampleBufferGetPresentationTimeStamp(sample), kCMTimeInvalid};
    CMSampleBufferRef copy;
    if (CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy) != 0) return sample;
    return copy;
}

} // namespace

std::shared_ptr<QXTrackReaderVideoOutput>
QXTrackReaderVideoOutput::initWithSource(const std::shared_ptr<QXTrack>& source,
                                         const std::shared_ptr<QXTrack>& destination)
{
    return makeFinished<QXTrackReaderVideoOutput>(source, destination);
}

QXTrackReaderVideoOutput::QXTrackReaderVideoOutput(std::shared_ptr<QXTrack> source,
                                                   const std::shared_ptr<QXTrack>& destination)
    : QXTrackReaderOutput(std::move(source))
{
    naturalTimeScale = destination ? destination->naturalTimeScale : 0;
    if (track) {
        const AVCodec* codec = avcodec_find_decoder(AVCodecID(track->codec_id));
        AVCodecContextPtr context(codec ? avcodec_alloc_context3(codec) : nullptr);
        if (!codec) {
            QXLogWarning("Could not find necessary decoder!");
        } else if (!context || !track->codecParameters()) {
            QXLogWarning("%s does not have a codec context!", track->description().c_str());
        } else if (int result = avcodec_parameters_to_context(context.get(), track->codecParameters()); result < 0) {
            QXLogWarning("%s Failed to copy codec parameters: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
        } else {
            context->workaround_bugs = FF_BUG_AUTODETECT;
            context->err_recognition = AV_EF_CRCCHECK;
            context->error_concealment = FF_EC_GUESS_MVS | FF_EC_DEBLOCK;
            context->pkt_timebase = AVRational {1, naturalTimeScale > 0 ? naturalTimeScale : 1};
            // Frame threads keep the decoder ahead of the encoder.
            context->thread_count = 0;
            if (int opened = QXAvcodecOpen(context.get(), codec, nullptr); opened < 0) {
                QXLogWarning("%s failed to open decoder: %s", __PRETTY_FUNCTION__, QXAvErrorText(opened).c_str());
            } else {
                codecContext_ = std::move(context);
            }
        }
    }
    if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(destination)) {
        swsWidth = int32_t(video->width);
        swsHeight = int32_t(video->height);
    }
    if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(track)) {
        ycbcrMatrix = video->YCbCrMatrix();
        colorPrimaries = video->colorPrimaries();
        transferFunction = video->transferFunction();
    }
}

QXTrackReaderVideoOutput::~QXTrackReaderVideoOutput() { sws_freeContext(scaleContext_); }

std::string QXTrackReaderVideoOutput::description() const
{
    return "<QXTrackReaderVideoOutput " + (track ? track->description() : std::string("(no track)")) + ">";
}

void QXTrackReaderVideoOutput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        finish();
        return;
    }
    if (!codecContext_) return;
    AVPacketPtr packet = QXPacketWithSampleData(sample);
    if (!packet) return;
    packet->dts = QXPacketTime(CMSampleBufferGetDecodeTimeStamp(sample), naturalTimeScale);
    packet->pts = QXPacketTime(CMSampleBufferGetPresentationTimeStamp(sample), naturalTimeScale);
    if (packet->pts == AV_NOPTS_VALUE) packet->pts = packet->dts;
    const auto attachments = CMSampleBufferGetFirstSampleAttachments(sample, false);
    const auto notSync = attachments ? attachments->value(kCMSampleAttachmentKey_NotSync) : std::nullopt;
    if (!notSync || !notSync->truth().value_or(false)) packet->flags |= AV_PKT_FLAG_KEY;

    if (int result = avcodec_send_packet(codecContext_.get(), packet.get()); result < 0) {
        QXLogWarning("%s Error decoding video: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
    }
    receiveFrames(false);
}

void QXTrackReaderVideoOutput::receiveFrames(bool draining)
{
    AVFramePtr frame(av_frame_alloc());
    while (frame) {
        const int result = avcodec_receive_frame(codecContext_.get(), frame.get());
        if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) break;
        if (result < 0) {
            QXLogWarning("%s Error decoding video: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
            // A broken packet ends its own frames; the drain ends at the error.
            if (draining) break;
            continue;
        }
        processFrame(frame.get());
        av_frame_unref(frame.get());
    }
}

void QXTrackReaderVideoOutput::finish()
{
    if (codecContext_) {
        avcodec_send_packet(codecContext_.get(), nullptr);
        receiveFrames(true);
    }
    if (previousSample) {
        if (!CMTIME_IS_VALID(CMSampleBufferGetDuration(previousSample))) {
            // The last picture lasts as long as the average of all, the
            // picture count (one more than the durations summed) dividing.
            const CMTime average =
                CMTimeConvertScale(CMTimeMultiplyByRatio(duration, 1, int32_t(sampleId)), naturalTimeScale,
                                   kCMTimeRoundingMethod_RoundHalfAwayFromZero);
            previousSample = copyWithTiming(previousSample, average);
            QXLogInfo("Average duration used for last sample duration %s pts %s",
                      CMTimeCopyDescription(average).c_str(),
                      CMTimeCopyDescription(CMSampleBufferGetPresentationTimeStamp(previousSample)).c_str());
        }
        QXTrackReaderOutput::processSample(previousSample);
        previousSample.reset();
    }
    QXTrackReaderOutput::processSample(nullptr);
}

void QXTrackReaderVideoOutput::processFrame(const AVFrame* frame)
{
    uint8_t* planes[4] = {};
    int strides[4] = {};
    const int size = av_image_alloc(planes, strides, swsWidth, swsHeight, AV_PIX_FMT_YUV420P, kPlaneAlignment);
    if (size < 0) {
        QXLogWarning("%s Error allocating image: %s", __PRETTY_FUNCTION__, QXAvErrorText(size).c_str());
        return;
    }
    const AVPixelFormat sourceFormat = withoutRangeVariant(frame->format);
    if (frame->width == swsWidth && frame->height == swsHeight && sourceFormat == AV_PIX_FMT_YUV420P) {
        av_image_copy(planes, strides, const_cast<const uint8_t**>(frame->data), frame->linesize, AV_PIX_FMT_YUV420P,
                      swsWidth, swsHeight);
    } else {
        scaleContext_ = sws_getCachedContext(scaleContext_, frame->width, frame->height, sourceFormat,
                                             swsWidth, swsHeight, AV_PIX_FMT_YUV420P, kScaleFlags, nullptr, nullptr,
                                             nullptr);
        if (!scaleContext_) {
            QXLogWarning("%s Error allocating image: %s", __PRETTY_FUNCTION__, "no scaler for this format");
            av_freep(&planes[0]);
            return;
        }
        sws_scale(scaleContext_, frame->data, frame->linesize, 0, frame->height, planes, strides);
    }

    const bool fullRange = frame->color_range == AVCOL_RANGE_JPEG || sourceFormat != frame->format;
    const OSType format = fullRange ? kCVPixelFormatType_420YpCbCr8PlanarFullRange
                                                                 : kCVPixelFormatType_420YpCbCr8Planar;
    const size_t chromaWidth = size_t(swsWidth + 1) / 2;
    const size_t chromaHeight = size_t(swsHeight + 1) / 2;
    void* bases[3] = {planes[0], planes[1], planes[2]};
    size_t widths[3] = {size_t(swsWidth), chromaWidth, chromaWidth};
    size_t heights[3] = {size_t(swsHeight), chromaHeight, chromaHeight};
    size_t rows[3] = {size_t(strides[0]), size_t(strides[1]), size_t(strides[2])};
    CVPixelBufferRef pixelBuffer;
    const CVReturn created = CVPixelBufferCreateWithPlanarBytes(
        nullptr, size_t(swsWidth), size_t(swsHeight), format, planes[0], size_t(size), 3, bases, widths, heights,
        rows, [](void* block, const void*, size_t, size_t, const void**) { av_free(block); }, planes[0], nullptr,
        &pixelBuffer);
    if (created != kCVReturnSuccess) {
        QXLogAt(QXLogFlagError, "Failed to create pixel buffer: %d", int(created));
        av_freep(&planes[0]);
        return;
    }

    QXDictionary colour;
    if (colorPrimaries) colour[kCVImageBufferColorPrimariesKey] = colorPrimaries;
    if (transferFunction) colour[kCVImageBufferTransferFunctionKey] = transferFunction;
    if (ycbcrMatrix) colour[kCVImageBufferYCbCrMatrixKey] = ycbcrMatrix;
    CVBufferSetAttachments(pixelBuffer, colour, kCVAttachmentMode_ShouldPropagate);

    const CMTime pts = frame->best_effort_timestamp == AV_NOPTS_VALUE
                           ? kCMTimeInvalid
                           : CMTimeMake(frame->best_effort_timestamp, naturalTimeScale);
    CMVideoFormatDescriptionRef description;
    if (OSStatus status = CMVideoFormatDescriptionCreateForImageBuffer(nullptr, pixelBuffer, &description);
        status != 0) {
        QXLogWarning("CMVideoFormatDescriptionCreateForImageBuffer failed: %d", int(status));
        return;
    }
    const CMSampleTimingInfo timing {kCMTimeInvalid, pts, kCMTimeInvalid};
    CMSampleBufferRef sample;
    if (OSStatus status =
            CMSampleBufferCreateForImageBuffer(nullptr, pixelBuffer, true, {}, nullptr, description, &timing, &sample);
        status != 0) {
        QXLogWarning("CMSampleBufferCreateForImageBuffer failed: %d", int(status));
        return;
    }
    ++sampleId;
    if (previousSample) {
        // A missing time on either side leaves the duration invalid.
        const CMTime gap = CMTimeSubtract(pts, CMSampleBufferGetPresentationTimeStamp(previousSample));
        duration = CMTIME_IS_VALID(duration) ? CMTimeAdd(duration, gap) : gap;
        QXTrackReaderOutput::processSample(copyWithTiming(previousSample, gap));
    }
    previousSample = sample;
}
