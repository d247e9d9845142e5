#include "qxmedia/muxer/QXMuxerAC3Input.h"

#include <cstdio>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/muxer/QXMuxerAudioSamples.h"
#include "qxmedia/reader/QXReaderCodec.h"
#include "qxmedia/source/QXAudioTrack.h"

using namespace qx;

namespace {

// Index: fscod.
constexpr uint16_t ac3_sample_rate_tab[3] = {48000, 44100, 32000};
// Bits per second; index: bit_rate_code.
constexpr uint32_t ac3_bit_rate_tab[19] = {32000,  40000,  48000,  56000,  64000,  80000,  96000,
                                           112000, 128000, 160000, 192000, 224000, 256000, 320000,
                                           384000, 448000, 512000, 576000, 640000};

const QXAudioTrack* audioOf(const QXTrackRef& track) { return dynamic_cast<const QXAudioTrack*>(track.get()); }

std::string describe(const char* className, const void* input, const QXTrackRef& destination)
{
    char text[96];
    std::snprintf(text, sizeof text, "<%s: %p>", className, input);
    return destination ? std::string(text) + " " + destination->description() : std::string(text);
}

} // namespace

// ---------------------------------------------------------------------------
// The shared encoder

QXMuxerDolbyEncoderInput::QXMuxerDolbyEncoderInput(std::shared_ptr<QXTrackReaderOutput> sourceOutput,
                                                   std::shared_ptr<QXTrack> destinationTrack)
    : QXMuxerInput(std::move(sourceOutput), std::move(destinationTrack))
{
    bitRate = destination ? destination->bitrate : 0;
    const QXAudioTrack* audio = audioOf(destination);
    sampleRate = audio ? audio->sample_rate : 0;
}

QXMuxerDolbyEncoderInput::~QXMuxerDolbyEncoderInput()
{
    avcodec_free_context(&context);
    if (fifo) av_audio_fifo_free(fifo);
}

bool QXMuxerDolbyEncoderInput::initWritingToFileHandle(QXErrorRef* error)
{
    const AVCodec* codec = avcodec_find_encoder(AVCodecID(encoderCodecId()));
    if (!codec) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -11834,
                                                   {{AVErrorMediaSubTypeKey, int64_t(mediaSubType())}}));
        return false;
    }
    context = avcodec_alloc_context3(codec);
    if (!context) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, AVERROR(ENOMEM)));
        return false;
    }
    av_channel_layout_uninit(&context->ch_layout);
    if (const uint64_t mask = encoderChannelLayout()) {
        av_channel_layout_from_mask(&context->ch_layout, mask);
    } else {
        // A destination without a mask: the usual layout of its channels.
        const QXAudioTrack* audio = audioOf(destination);
        av_channel_layout_default(&context->ch_layout, audio && audio->channels > 0 ? audio->channels : 2);
    }
    context->bit_rate = bitRate;
    context->sample_rate = int(sampleRate);
    context->time_base = {1, int(sampleRate ? sampleRate : 1)};
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    if (int result = QXAvcodecOpen(context, codec, nullptr); result < 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, result));
        return false;
    }
    fifo = av_audio_fifo_alloc(context->sample_fmt, context->ch_layout.nb_channels,
                               context->frame_size > 0 ? context->frame_size : 1536);
    if (!fifo) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, AVERROR(ENOMEM)));
        return false;
    }

    const uint32_t trackId = addTrack();
    destination->trackID = int32_t(trackId);
    if (trackId == 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011,
                                                   {{AVErrorPersistentTrackIDKey, int64_t(trackId)}}));
        return false;
    }
    tuneTrackDurationPerChunk();
    return destination->writeToFile(*file, error);
}

void QXMuxerDolbyEncoderInput::processSample(const CMSampleBufferRef& sample)
{
    // A sample before the encoder opened has nowhere to go.
    if (!context || !fifo) {
        if (!sample) QXMuxerInput::processSample(nullptr);
        return;
    }
    const int frameSize = context->frame_size > 0 ? context->frame_size : 1536;
    if (!sample) {
        if (av_audio_fifo_size(fifo) > 0) encode();
        QXMuxerInput::processSample(nullptr);
        return;
    }
    if (int result = QXWritePlanarSamples(fifo, sample, context->ch_layout.nb_channels); result < 0) {
        QXLogWarning("%s Error audio fifo write: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
    }
    while (av_audio_fifo_size(fifo) >= frameSize) encode();
}

void QXMuxerDolbyEncoderInput::encode()
{
    AVFramePtr frame(av_frame_alloc());
    AVPacketPtr packet(av_packet_alloc());
    if (!frame || !packet) return;
    frame->nb_samples = context->frame_size > 0 ? context->frame_size : 1536;
    frame->format = context->sample_fmt;
    frame->sample_rate = context->sample_rate;
    frame->pts = pts.value;
    int result = av_channel_layout_copy(&frame->ch_layout, &context->ch_layout);
    if (result >= 0) result = av_frame_get_buffer(frame.get(), 0);
    if (result < 0) {
        QXLogWarning("%s Error samples alloc: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
        return;
    }
    // A last, short frame ends in silence; the frame keeps its full length.
    av_samples_set_silence(frame->extended_data, 0, frame->nb_samples, frame->ch_layout.nb_channels,
                           AVSampleFormat(frame->format));
    if ((result = av_audio_fifo_read(fifo, reinterpret_cast<void**>(frame->extended_data), frame->nb_samples)) < 0) {
        QXLogWarning("%s Error audio fifo read: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
        return;
    }
    if ((result = avcodec_send_frame(context, frame.get())) < 0) {
        QXLogWarning("%s Error encoding audio: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
        return;
    }
    while ((result = avcodec_receive_packet(context, packet.get())) >= 0) {
        const CMTime duration = packet->duration == 0 ? kCMTimeInvalid
                                                      : CMTimeMake(frame->nb_samples, int32_t(sampleRate));
        const CMSampleTimingInfo timing {duration, pts, kCMTimeInvalid};
        pts = CMTimeAdd(pts, duration);
        if (CMSampleBufferRef sample = QXSampleWithBytes(packet->data, size_t(packet->size), timing)) {
            QXMuxerInput::processSample(sample);
        }
        av_packet_unref(packet.get());
    }
    // Usually the plain request for more input.
    if (logsEndOfPackets()) {
        QXLogWarning("%s Error encoding audio: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
    }
}

// ---------------------------------------------------------------------------
// AC-3

QXMuxerAC3Input::QXMuxerAC3Input(std::shared_ptr<QXTrackReaderOutput> sourceOutput,
                                 std::shared_ptr<QXTrack> destinationTrack)
    : QXMuxerDolbyEncoderInput(std::move(sourceOutput), std::move(destinationTrack))
{
}

std::string QXMuxerAC3Input::description() const { return describe("QXMuxerAC3Input", this, destination); }

int32_t QXMuxerAC3Input::encoderCodecId() const { return AV_CODEC_ID_AC3; }

QXMuxerAC3Input::TrackFields QXMuxerAC3Input::trackFields(uint32_t sampleRate, uint32_t bitRate)
{
    TrackFields fields;
    int shift = -1;
    for (int s = 0; s < 3 && shift < 0; ++s) {
        for (uint8_t i = 0; i < 3; ++i) {
            if (uint32_t(ac3_sample_rate_tab[i] >> s) == sampleRate) {
                fields.fscod = i;
                shift = s;
                break;
            }
        }
    }
    if (shift < 0) {
        QXLogWarning("Unknown AC3 samplerate");
        shift = 0;
    }
    fields.bsid = uint8_t(8 + shift);
    bool found = false;
    for (uint8_t i = 0; i < 19 && !found; ++i) {
        if ((ac3_bit_rate_tab[i] >> shift) == bitRate) {
            fields.bitRateCode = i;
            found = true;
        }
    }
    if (!found) QXLogWarning("Unknown AC3 bitrate");
    return fields;
}

uint32_t QXMuxerAC3Input::addTrack()
{
    const TrackFields fields = trackFields(uint32_t(context->sample_rate), bitRate);
    // Always 3/2 with LFE, complete main service: the layout the encoder
    // is given.
    return file->addAC3AudioTrack(sampleRate, fields.fscod, fields.bsid, 0, 7, 1, fields.bitRateCode);
}

// ---------------------------------------------------------------------------
// E-AC-3

QXMuxerEAC3Input::QXMuxerEAC3Input(std::shared_ptr<QXTrackReaderOutput> sourceOutput,
                                   std::shared_ptr<QXTrack> destinationTrack)
    : QXMuxerDolbyEncoderInput(std::move(sourceOutput), std::move(destinationTrack))
{
    const QXAudioTrack* audio = audioOf(destination);
    channelLayout = audio ? audio->channel_layout : 0;
}

std::string QXMuxerEAC3Input::description() const { return describe("QXMuxerEAC3Input", this, destination); }

int32_t QXMuxerEAC3Input::encoderCodecId() const { return AV_CODEC_ID_EAC3; }

std::array<uint8_t, 6> QXMuxerEAC3Input::dec3Payload(uint32_t bitRate)
{
    const uint32_t rate = bitRate / 1000;
    // data_rate (13 bits), num_ind_sub 0; fscod 0, bsid 16; acmod 7, lfeon 1.
    return {uint8_t(rate >> 5), uint8_t((rate & 31) << 3), 0x20, 0x0F, 0x00, 0x00};
}

uint32_t QXMuxerEAC3Input::addTrack()
{
    const std::array<uint8_t, 6> payload = dec3Payload(bitRate);
    return file->addEAC3AudioTrack(sampleRate, payload.data(), payload.size());
}
