#include "qxmedia/reader/QXTrackReaderRawAudioOutput.h"

#include <algorithm>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
#include <libavutil/samplefmt.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/foundation/QXError.h"

using namespace qx;

namespace {

uint64_t layoutMask(const AVChannelLayout& layout)
{
    return layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
}

// How many rounds silentSample gives an encoder with a start-up delay.
constexpr int kEncodeRounds = 10;

} // namespace

std::shared_ptr<QXTrackReaderRawAudioOutput>
QXTrackReaderRawAudioOutput::initWithSource(const std::shared_ptr<QXTrack>& source,
                                            const std::shared_ptr<QXTrack>& destination)
{
    return makeFinished<QXTrackReaderRawAudioOutput>(source, destination);
}

QXTrackReaderRawAudioOutput::QXTrackReaderRawAudioOutput(std::shared_ptr<QXTrack> source,
                                                         const std::shared_ptr<QXTrack>& destination)
    : QXTrackReaderOutput(std::move(source))
{
    if (track) avctx_ = QXOpenTrackDecoder(*track, __func__);
    if (track && avctx_) frameLength_ = QXCodedFrameLength::forTrack(*track);
    naturalTimeScale = destination && destination->naturalTimeScale > 0 ? destination->naturalTimeScale
                       : track                                          ? track->naturalTimeScale
                                                                        : 0;
    if (avctx_) {
        takeFormat(avctx_->bit_rate, layoutMask(avctx_->ch_layout), avctx_->ch_layout.nb_channels,
                   avctx_->sample_fmt, avctx_->sample_rate);
    }
}

QXTrackReaderRawAudioOutput::~QXTrackReaderRawAudioOutput() = default;

std::string QXTrackReaderRawAudioOutput::description() const
{
    return "<QXTrackReaderRawAudioOutput " + (track ? track->description() : std::string("(no track)")) + ">";
}

void QXTrackReaderRawAudioOutput::takeFormat(int64_t bitRate, uint64_t layout, int32_t channels, int32_t format,
                                             int32_t rate)
{
    currentBitRate.store(bitRate, std::memory_order_relaxed);
    currentChannelLayout.store(layout, std::memory_order_relaxed);
    currentChannels.store(channels, std::memory_order_relaxed);
    currentSampleFormat.store(format, std::memory_order_relaxed);
    currentSampleRate.store(rate, std::memory_order_relaxed);
}

void QXTrackReaderRawAudioOutput::processSample(const CMSampleBufferRef& sample)
{
    if (frameLength_) {
        if (!sample) {
            QXTrackReaderOutput::processSample(nullptr);
        } else if (!handOnMeasured(sample)) {
            QXLogWarning("%s Failed to decode audio sample: not a whole frame", __func__);
        }
        return;
    }
    struct Decoded {
        int32_t frames;
        int32_t rate;
        int64_t pts;
    };
    std::vector<Decoded> decoded;
    bool ended = false;
    {
        std::lock_guard<std::mutex> guard(decoderLock_);
        int result = AVERROR(EINVAL); // what a send without a decoder answers
        if (sample) {
            AVPacketPtr packet = QXPacketWithSampleData(sample);
            if (avctx_ && packet) {
                packet->pts = QXPacketTime(CMSampleBufferGetPresentationTimeStamp(sample), naturalTimeScale);
                packet->dts = AV_NOPTS_VALUE;
                result = avcodec_send_packet(avctx_.get(), packet.get());
            } else if (avctx_) {
                result = AVERROR(ENOMEM);
            }
        } else if (avctx_) {
            result = avcodec_send_packet(avctx_.get(), nullptr);
        }
        if (result < 0) {
            QXLogWarning("%s Failed to decode audio sample: %s", __func__, QXAvErrorText(result).c_str());
            // The sample is lost; the end of the stream must still arrive.
            ended = !sample;
        } else {
            AVFramePtr frame(av_frame_alloc());
            while (frame && (result = avcodec_receive_frame(avctx_.get(), frame.get())) >= 0) {
                const uint64_t frameLayout = layoutMask(frame->ch_layout);
                const bool ownLayout = frameLayout != 0 || (frame->ch_layout.order != AV_CHANNEL_ORDER_NATIVE &&
                                                             frame->ch_layout.nb_channels > 0);
                const int32_t rate = frame->sample_rate ? frame->sample_rate : avctx_->sample_rate;
                takeFormat(avctx_->bit_rate, ownLayout ? frameLayout : layoutMask(avctx_->ch_layout),
                           ownLayout ? frame->ch_layout.nb_channels : avctx_->ch_layout.nb_channels,
                           frame->format ? frame->format : avctx_->sample_fmt, rate);
                decoded.push_back({frame->nb_samples, rate, frame->best_effort_timestamp});
                av_frame_unref(frame.get());
            }
            if (result == AVERROR_EOF) {
                ended = true;
            } else if (result != AVERROR(EAGAIN)) {
                QXLogWarning("%s Failed to decode audio sample: %s", __func__, QXAvErrorText(result).c_str());
                ended = !sample;
            }
        }
    }

    // The frames of a sample go with it; those of the end go with the last
    // sample if the decoder held its frame back, and beyond that have no
    // coded sample to go with. A last sample still unanswered at the end
    // goes out with the length of the frame before, so no coded sample is
    // lost. Handing on may wait for the channel, so the decoder is free by now.
    const CMSampleBufferRef owner = sample ? sample : unanswered_;
    unanswered_ = sample && decoded.empty() ? sample : nullptr;
    for (const Decoded& frame : decoded) {
        if (!owner) break;
        lastFrameDuration_ = CMTimeMake(frame.frames, frame.rate);
        handOn(owner, lastFrameDuration_,
               frame.pts == AV_NOPTS_VALUE ? kCMTimeInvalid : CMTimeMake(frame.pts, naturalTimeScale));
        if (!sample) break;
    }
    if (!sample && decoded.empty() && owner && CMTIME_IS_VALID(lastFrameDuration_)) {
        handOn(owner, lastFrameDuration_, CMSampleBufferGetPresentationTimeStamp(owner));
    }
    if (ended) QXTrackReaderOutput::processSample(nullptr);
}

bool QXTrackReaderRawAudioOutput::handOnMeasured(const CMSampleBufferRef& sample)
{
    const CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    const size_t size = data ? CMBlockBufferGetDataLength(data) : 0;
    uint8_t header[QXCodedFrameLength::kHeaderBytes] = {};
    const uint8_t* bytes = header;
    size_t headerSize = std::min(size, sizeof header);
    std::vector<uint8_t> whole;
    if (frameLength_->needsWholePacket() && size > 0) {
        // Read-loop samples are one block, so this is no copy.
        size_t contiguous = 0;
        char* pointer = nullptr;
        if (CMBlockBufferGetDataPointer(data, 0, &contiguous, nullptr, &pointer) == 0 && contiguous == size) {
            bytes = reinterpret_cast<const uint8_t*>(pointer);
        } else {
            whole.resize(size);
            if (CMBlockBufferCopyDataBytes(data, 0, size, whole.data()) != 0) return false;
            bytes = whole.data();
        }
        headerSize = size;
    } else if (headerSize > 0 && CMBlockBufferCopyDataBytes(data, 0, headerSize, header) != 0) {
        return false;
    }
    const auto length = frameLength_->lengthOf(bytes, headerSize, size);
    if (!length) return false;
    if (length->channels > 0) {
        takeFormat(length->bitRate, length->layout, length->channels,
                   currentSampleFormat.load(std::memory_order_relaxed), length->rate);
    }
    lastFrameDuration_ = CMTimeMake(length->frames, length->rate);
    const int64_t pts = QXPacketTime(CMSampleBufferGetPresentationTimeStamp(sample), naturalTimeScale);
    handOn(sample, lastFrameDuration_, pts == AV_NOPTS_VALUE ? kCMTimeInvalid : CMTimeMake(pts, naturalTimeScale));
    return true;
}

void QXTrackReaderRawAudioOutput::handOn(const CMSampleBufferRef& sample, CMTime duration, CMTime presentationTime)
{
    const CMSampleTimingInfo timing {duration, presentationTime, kCMTimeInvalid};
    CMSampleBufferRef copy;
    if (CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy) == 0) {
        QXTrackReaderOutput::processSample(copy);
    }
}

CMSampleBufferRef QXTrackReaderRawAudioOutput::silentSample()
{
    if (!track) return nullptr;
    const AVCodec* codec = avcodec_find_encoder(AVCodecID(track->codec_id));
    if (!codec) return nullptr; // the synchroniser repeats samples instead
    AVCodecContextPtr encoder(avcodec_alloc_context3(codec));
    if (!encoder) return nullptr;

    {
        std::lock_guard<std::mutex> guard(decoderLock_);
        if (avctx_) {
            AVCodecParameters* parameters = avcodec_parameters_alloc();
            if (int result = avcodec_parameters_from_context(parameters, avctx_.get()); result < 0) {
                QXLogWarning("%s Failed to get parameters from context: %s", __func__, QXAvErrorText(result).c_str());
            } else if (int copied = avcodec_parameters_to_context(encoder.get(), parameters); copied < 0) {
                QXLogWarning("%s Failed to copy codec parameters: %s", __func__, QXAvErrorText(copied).c_str());
            }
            avcodec_parameters_free(&parameters);
        }
    }
    // An encoder writes its own setup bytes over the pointer without freeing
    // what is there (AAC does), and the decoder's are no use to it.
    av_freep(&encoder->extradata);
    encoder->extradata_size = 0;
    if (codec->capabilities & AV_CODEC_CAP_EXPERIMENTAL) encoder->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;

    encoder->bit_rate = currentBitRate.load(std::memory_order_relaxed);
    encoder->sample_rate = currentSampleRate.load(std::memory_order_relaxed);
    av_channel_layout_uninit(&encoder->ch_layout);
    if (const uint64_t mask = currentChannelLayout.load(std::memory_order_relaxed)) {
        av_channel_layout_from_mask(&encoder->ch_layout, mask);
    } else {
        av_channel_layout_default(&encoder->ch_layout, currentChannels.load(std::memory_order_relaxed));
    }
    encoder->sample_fmt = AVSampleFormat(currentSampleFormat.load(std::memory_order_relaxed));
    // Silence is the same in every sample format: take one the encoder has
    // if it cannot take the decoder's.
    if (const AVSampleFormat* formats = codec->sample_fmts) {
        const AVSampleFormat* end = formats;
        while (*end != AV_SAMPLE_FMT_NONE) ++end;
        if (end != formats && std::find(formats, end, encoder->sample_fmt) == end) encoder->sample_fmt = *formats;
    }

    if (int result = QXAvcodecOpen(encoder.get(), codec, nullptr); result < 0) {
        QXLogWarning("%s Error opening audio decoder video: %s", __func__, QXAvErrorText(result).c_str());
        return nullptr;
    }

    AVFramePtr frame(av_frame_alloc());
    AVPacketPtr packet(av_packet_alloc());
    if (!frame || !packet) return nullptr;
    frame->nb_samples = encoder->frame_size > 0 ? encoder->frame_size : 1024;
    frame->format = encoder->sample_fmt;
    frame->sample_rate = encoder->sample_rate;
    if (av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout) < 0 || av_frame_get_buffer(frame.get(), 0) < 0) {
        return nullptr;
    }
    av_samples_set_silence(frame->extended_data, 0, frame->nb_samples, frame->ch_layout.nb_channels,
                           AVSampleFormat(frame->format));

    bool havePacket = false;
    for (int round = 0; round < kEncodeRounds && !havePacket; ++round) {
        frame->pts = int64_t(round) * frame->nb_samples;
        if (int result = avcodec_send_frame(encoder.get(), frame.get()); result < 0) {
            QXLogWarning("%s Error encoding audio: %s", __func__, QXAvErrorText(result).c_str());
        }
        const int result = avcodec_receive_packet(encoder.get(), packet.get());
        if (result >= 0) {
            havePacket = true;
        } else if (result != AVERROR(EAGAIN)) {
            QXLogWarning("%s Error encoding audio: %s", __func__, QXAvErrorText(result).c_str());
        }
    }

    CMSampleBufferRef silence;
    if (havePacket) {
        const size_t size = size_t(packet->size);
        CMBlockBufferRef block;
        OSStatus status = CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                                             kCMBlockBufferAssureMemoryNowFlag, &block);
        if (status == 0) status = CMBlockBufferReplaceDataBytes(packet->data, block, 0, size);
        const CMSampleTimingInfo timing {packet->duration ? CMTimeMake(frame->nb_samples, encoder->sample_rate)
                                                          : kCMTimeInvalid,
                                         kCMTimeInvalid, kCMTimeInvalid};
        if (status == 0) {
            status = CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size,
                                          &silence);
        }
        if (status != 0) QXMedia::errorWithDomain(NSOSStatusErrorDomain, status);
        av_packet_unref(packet.get());
    }

    // Drain what the encoder still holds; none of it is wanted.
    if (avcodec_send_frame(encoder.get(), nullptr) >= 0) {
        int result;
        while ((result = avcodec_receive_packet(encoder.get(), packet.get())) >= 0) av_packet_unref(packet.get());
        if (result != AVERROR_EOF) {
            QXLogWarning("%s Error encoding audio: %s", __func__, QXAvErrorText(result).c_str());
        }
    }
    return silence;
}
