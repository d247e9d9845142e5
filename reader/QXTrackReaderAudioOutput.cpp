#include "qxmedia/reader/QXTrackReaderAudioOutput.h"

#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/source/QXAudioTrack.h"

using namespace qx;

namespace {

constexpr uint64_t kMono = AV_CH_LAYOUT_MONO;
constexpr uint64_t kStereo = AV_CH_LAYOUT_STEREO;
constexpr uint64_t kFivePointOne = AV_CH_LAYOUT_5POINT1; // side surrounds
constexpr int kSilentFrames = 1024;

int channelsOf(uint64_t mask) { return av_popcount64(mask); }

// A frame's layout as a mask; a layout without one is taken as the usual
// layout of its channel count.
uint64_t frameLayout(const AVFrame& frame)
{
    if (frame.ch_layout.order == AV_CHANNEL_ORDER_NATIVE && frame.ch_layout.u.mask) return frame.ch_layout.u.mask;
    if (frame.ch_layout.nb_channels <= 0) return 0;
    AVChannelLayout layout;
    av_channel_layout_default(&layout, frame.ch_layout.nb_channels);
    const uint64_t mask = layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
    av_channel_layout_uninit(&layout);
    return mask;
}

const char* formatName(int format)
{
    const char* name = av_get_sample_fmt_name(AVSampleFormat(format));
    return name ? name : "?";
}

} // namespace

void qx_ff_set_sample_fmt(AVCodecContext* context, const AVCodec* codec, int wanted)
{
    if (!context || !codec || codec->type != AVMEDIA_TYPE_AUDIO || !codec->sample_fmts) return;
    const AVSampleFormat want = AVSampleFormat(wanted);
    const AVSampleFormat alt = av_sample_fmt_is_planar(want) ? av_get_packed_sample_fmt(want)
                                                             : av_get_planar_sample_fmt(want);
    AVSampleFormat chosen = AV_SAMPLE_FMT_NONE;
    for (const AVSampleFormat* format = codec->sample_fmts; *format != AV_SAMPLE_FMT_NONE; ++format) {
        if (*format == want) {
            chosen = want;
            break;
        }
        if (*format == alt) chosen = alt;
    }
    if (chosen == AV_SAMPLE_FMT_NONE) chosen = codec->sample_fmts[0];
    context->request_sample_fmt = chosen;
    context->sample_fmt = chosen;
}

std::shared_ptr<QXTrackReaderAudioOutput>
QXTrackReaderAudioOutput::initWithSource(const std::shared_ptr<QXTrack>& source,
                                         const std::shared_ptr<QXTrack>& destination)
{
    return makeFinished<QXTrackReaderAudioOutput>(source, destination);
}

QXTrackReaderAudioOutput::QXTrackReaderAudioOutput(std::shared_ptr<QXTrack> source,
                                                   const std::shared_ptr<QXTrack>& destination)
    : QXTrackReaderOutput(source, source ? queueLengthForSeconds(*source, kEncoderLeadSeconds) : kQueuedSamples)
{
    const auto* audio = dynamic_cast<const QXAudioTrack*>(destination.get());
    const int32_t channels = audio ? audio->channels : 2;
    channelLayout = channels == 1 ? kMono : channels == 6 ? kFivePointOne : kStereo;
    naturalTimeScale = destination ? destination->naturalTimeScale : 0;
    lastChannelLayout = channelLayout;
    sampleRate = audio ? int32_t(audio->sample_rate) : 0;
    lastSampleRate = sampleRate;
    lastSampleFormat = AV_SAMPLE_FMT_FLTP;
    if (track) openDecoder(__PRETTY_FUNCTION__);
}

QXTrackReaderAudioOutput::~QXTrackReaderAudioOutput() { swr_free(&swr_); }

std::string QXTrackReaderAudioOutput::description() const
{
    return "<QXTrackReaderAudioOutput " + (track ? track->description() : std::string("(no track)")) + ">";
}

void QXTrackReaderAudioOutput::openDecoder(const char* function)
{
    const AVCodec* codec = avcodec_find_decoder(AVCodecID(track->codec_id));
    if (!codec) {
        QXLogWarning("Could not find necessary decoder!");
        return;
    }
    AVCodecContextPtr context(avcodec_alloc_context3(codec));
    if (!context || !track->codecParameters()) {
        QXLogWarning("%s does not have a codec context!", track->description().c_str());
        return;
    }
    if (int result = avcodec_parameters_to_context(context.get(), track->codecParameters()); result < 0) {
        QXLogWarning("%s Failed to copy codec parameters: %s", function, QXAvErrorText(result).c_str());
        return;
    }
    qx_ff_set_sample_fmt(context.get(), codec, AV_SAMPLE_FMT_FLTP);

    // Dolby, DTS and TrueHD decoders can mix down themselves: let them make
    // mono or 5.1; a stereo mix is always made here, from 5.1, with the
    // matrix encoding.
    const auto* audio = dynamic_cast<const QXAudioTrack*>(track.get());
    const int32_t codecId = track->codec_id;
    if ((codecId == AV_CODEC_ID_AC3 || codecId == AV_CODEC_ID_DTS || codecId == AV_CODEC_ID_EAC3 ||
         codecId == AV_CODEC_ID_TRUEHD) &&
        audio && audio->channel_layout != channelLayout) {
        AVChannelLayout requested;
        av_channel_layout_from_mask(&requested, channelLayout == kStereo ? kFivePointOne : channelLayout);
        // Not every build's decoder has the option; the converter mixes then.
        av_opt_set_chlayout(context.get(), "downmix", &requested, AV_OPT_SEARCH_CHILDREN);
        av_channel_layout_uninit(&requested);
    }

    if (int result = QXAvcodecOpen(context.get(), codec, nullptr); result < 0) {
        QXLogWarning("%s failed to open decoder: %s", function, QXAvErrorText(result).c_str());
        return;
    }
    avctx_ = std::move(context);
}

bool QXTrackReaderAudioOutput::setUpConverter(uint64_t layout, int rate, int format)
{
    swr_free(&swr_);
    AVChannelLayout out;
    AVChannelLayout in;
    av_channel_layout_from_mask(&out, channelLayout);
    av_channel_layout_from_mask(&in, layout);
    int result = swr_alloc_set_opts2(&swr_, &out, AV_SAMPLE_FMT_FLTP, sampleRate, &in, AVSampleFormat(format), rate,
                                     0, nullptr);
    if (result >= 0 && channelLayout == kStereo) {
        av_opt_set_int(swr_, "matrix_encoding", AV_MATRIX_ENCODING_DPLII, 0);
    }
    if (result >= 0) result = swr_init(swr_);
    av_channel_layout_uninit(&out);
    av_channel_layout_uninit(&in);
    const char* text = result >= 0 ? "Created sample rate converter for conversion of %d Hz %s %d channels to %d Hz %s "
                                     "%d channels!"
                                   : "Cannot create sample rate converter for conversion of %d Hz %s %d channels to %d "
                                     "Hz %s %d channels!";
    if (result >= 0) {
        QXLogInfo(text, rate, formatName(format), channelsOf(layout), sampleRate, formatName(AV_SAMPLE_FMT_FLTP),
                  channelsOf(channelLayout));
        lastChannelLayout = layout;
        lastSampleRate = rate;
        lastSampleFormat = format;
        return true;
    }
    // The last set-up stays, so the next frame tries again.
    QXLogWarning(text, rate, formatName(format), channelsOf(layout), sampleRate, formatName(AV_SAMPLE_FMT_FLTP),
                 channelsOf(channelLayout));
    return false;
}

void QXTrackReaderAudioOutput::deliver(AVFrame* frame)
{
    const uint64_t layout = frameLayout(*frame);
    if (layout != lastChannelLayout || frame->sample_rate != lastSampleRate || frame->format != lastSampleFormat) {
        setUpConverter(layout, frame->sample_rate, frame->format);
    }

    const int channels = channelsOf(channelLayout);
    const uint8_t* const* planes = frame->extended_data;
    int frames = frame->nb_samples;
    uint8_t** converted = nullptr;
    if (swr_) {
        // Room for all the converter can give now, so nothing stays behind
        // when the rate goes up.
        const int room = swr_get_out_samples(swr_, frame->nb_samples);
        int result = room < 0 ? room
                              : av_samples_alloc_array_and_samples(&converted, nullptr, channels, room > 0 ? room : 1,
                                                                   AV_SAMPLE_FMT_FLTP, 0);
        if (result >= 0) {
            result = swr_convert(swr_, converted, room, const_cast<const uint8_t**>(frame->extended_data),
                                 frame->nb_samples);
        }
        if (result < 0) {
            QXLogWarning("swr_convert() failed!");
            if (converted) av_freep(&converted[0]);
            av_freep(&converted);
            return;
        }
        frames = result;
        planes = converted;
    }

    const size_t planeLength = size_t(frames) * sizeof(float);
    const size_t length = planeLength * size_t(channels);
    CMBlockBufferRef block;
    OSStatus status = CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, length, nullptr, nullptr, 0, length,
                                                         kCMBlockBufferAssureMemoryNowFlag, &block);
    for (int channel = 0; status == 0 && channel < channels && planeLength > 0; ++channel) {
        status = CMBlockBufferReplaceDataBytes(planes[channel], block, size_t(channel) * planeLength, planeLength);
    }
    if (converted) av_freep(&converted[0]);
    av_freep(&converted);

    // The duration is the decoded frame's: what the converter keeps back
    // still belongs to it.
    const int64_t time = frame->best_effort_timestamp;
    const CMSampleTimingInfo timing {CMTimeMake(frame->nb_samples, frame->sample_rate),
                                     time == AV_NOPTS_VALUE ? kCMTimeInvalid : CMTimeMake(time, naturalTimeScale),
                                     kCMTimeInvalid};
    CMSampleBufferRef sample;
    if (status == 0) {
        status = CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 0, nullptr, &sample);
    }
    if (status != 0) {
        QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
        return;
    }
    QXTrackReaderOutput::processSample(sample);
}

void QXTrackReaderAudioOutput::processSample(const CMSampleBufferRef& sample)
{
    int result = AVERROR(EINVAL); // what a send without a decoder answers
    if (sample) {
        AVPacketPtr packet = QXPacketWithSampleData(sample);
        if (avctx_ && packet) {
            packet->pts = QXPacketTime(CMSampleBufferGetPresentationTimeStamp(sample), naturalTimeScale);
            packet->dts = QXPacketTime(CMSampleBufferGetDecodeTimeStamp(sample), naturalTimeScale);
            result = avcodec_send_packet(avctx_.get(), packet.get());
        } else if (avctx_) {
            result = AVERROR(ENOMEM);
        }
    } else if (avctx_) {
        result = avcodec_send_packet(avctx_.get(), nullptr);
    }
    if (result < 0) {
        QXLogWarning("%s Failed to decode audio sample: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
        // The sample is lost; the end of the stream must still arrive.
        if (!sample) QXTrackReaderOutput::processSample(nullptr);
        return;
    }
    AVFramePtr frame(av_frame_alloc());
    while (frame && (result = avcodec_receive_frame(avctx_.get(), frame.get())) >= 0) {
        deliver(frame.get());
        av_frame_unref(frame.get());
    }
    if (result == AVERROR_EOF) {
        QXTrackReaderOutput::processSample(nullptr);
    } else if (result != AVERROR(EAGAIN)) {
        QXLogWarning("%s Failed to decode audio sample: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
        if (!sample) QXTrackReaderOutput::processSample(nullptr);
    }
}

CMSampleBufferRef QXTrackReaderAudioOutput::silentSample()
{
    // Zero is silence in float.
    const size_t length = size_t(kSilentFrames) * sizeof(float) * size_t(channelsOf(channelLayout));
    std::vector<uint8_t> zeros(length, 0);
    CMBlockBufferRef block;
    OSStatus status = CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, length, nullptr, nullptr, 0, length,
                                                         kCMBlockBufferAssureMemoryNowFlag, &block);
    if (status == 0) status = CMBlockBufferReplaceDataBytes(zeros.data(), block, 0, length);
    const CMSampleTimingInfo timing {CMTimeMake(kSilentFrames, sampleRate), kCMTimeInvalid, kCMTimeInvalid};
    CMSampleBufferRef sample;
    if (status == 0) {
        status = CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 0, nullptr, &sample);
    }
    return status == 0 ? sample : nullptr;
}
