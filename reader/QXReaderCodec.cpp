#include "qxmedia/reader/QXReaderCodec.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/source/QXTrack.h"

namespace qx {

void AVCodecContextDeleter::operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
void AVFrameDeleter::operator()(AVFrame* frame) const { av_frame_free(&frame); }
void AVPacketDeleter::operator()(AVPacket* packet) const { av_packet_free(&packet); }

std::string QXAvErrorText(int code)
{
    char buffer[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, buffer, sizeof buffer);
    return buffer;
}

AVCodecContextPtr QXOpenTrackDecoder(const QXTrack& track, const char* function, int flags)
{
    const AVCodec* codec = avcodec_find_decoder(AVCodecID(track.codec_id));
    if (!codec) {
        QXLogWarning("Could not find necessary decoder!");
        return nullptr;
    }
    AVCodecContextPtr context(avcodec_alloc_context3(codec));
    // A track made from an archive or by hand has no stream parameters to
    // set a decoder up with.
    if (!context || !track.codecParameters()) {
        QXLogWarning("%s does not have a codec context!", track.description().c_str());
        return nullptr;
    }
    if (int result = avcodec_parameters_to_context(context.get(), track.codecParameters()); result < 0) {
        QXLogWarning("%s Failed to copy codec parameters: %s", function, QXAvErrorText(result).c_str());
        return nullptr;
    }
    context->flags |= flags;
    if (int result = QXAvcodecOpen(context.get(), codec, nullptr); result < 0) {
        QXLogWarning("%s failed to open decoder: %s", function, QXAvErrorText(result).c_str());
        return nullptr;
    }
    return context;
}

AVPacketPtr QXPacketWithSampleData(const CMSampleBufferRef& sample)
{
    AVPacketPtr packet(av_packet_alloc());
    if (!packet) return nullptr;
    const CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    const size_t length = data ? CMBlockBufferGetDataLength(data) : 0;
    if (length > size_t(INT32_MAX - AV_INPUT_BUFFER_PADDING_SIZE) || av_new_packet(packet.get(), int(length)) < 0) {
        return nullptr;
    }
    if (length > 0 && CMBlockBufferCopyDataBytes(data, 0, length, packet->data) != 0) {
        QXLogWarning("Failed to copy data from %s", sample->description().c_str());
    }
    return packet;
}

int64_t QXPacketTime(CMTime time, int32_t timescale)
{
    if (!CMTIME_IS_VALID(time) || CMTIME_IS_POSITIVE_INFINITY(time) || CMTIME_IS_NEGATIVE_INFINITY(time)) {
        return AV_NOPTS_VALUE;
    }
    if (CMTIME_IS_INDEFINITE(time)) {
        // A copied time still carries its value; a truly indefinite one
        // (no timescale) has none.
        if (time.timescale <= 0) return AV_NOPTS_VALUE;
        time = CMTimeMake(time.value, time.timescale);
    }
    if (timescale > 0 && time.timescale != timescale) {
        time = CMTimeConvertScale(time, timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero);
        if (!CMTIME_IS_NUMERIC(time)) return AV_NOPTS_VALUE;
    }
    return time.value;
}

} // namespace qx
