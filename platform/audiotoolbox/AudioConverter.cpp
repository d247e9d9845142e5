#include "qxmedia/platform/audiotoolbox/AudioConverter.h"

#include <algorithm>
#include <cstring>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

#include "qxmedia/core/QXEncoderList.h"


namespace qx {

struct OpaqueAudioConverter {
    AudioStreamBasicDescription input;
    AudioStreamBasicDescription output;
    uint32_t quality = 64;
    uint32_t controlMode = kAudioCodecBitRateControlMode_VariableConstrained;
    uint32_t bitRate = 0;
    AVCodecContext* encoder = nullptr;
    AVPacket* packet = nullptr;
    bool stale = true;   // the encoder does not have the current settings
    bool flushed = false; // the end of the input was sent; it is final
    int64_t nextPts = 0;
    std::vector<uint8_t> cookie;
};

namespace {

// Per stereo pair; a mono stream gets half.
constexpr uint32_t kStereoRates[] = {32000,  40000,  48000,  56000,  64000,  80000,  96000,  112000,
                                     128000, 144000, 160000, 192000, 224000, 256000, 288000, 320000};

uint32_t channelsOf(const OpaqueAudioConverter& c) { return std::max<uint32_t>(c.output.mChannelsPerFrame, 1); }

std::vector<AudioValueRange> applicableRates(const OpaqueAudioConverter& c)
{
    // AAC allows at most 6144 bits a channel for each frame of 1024 samples.
    const double ceiling = 6144.0 * c.output.mSampleRate / 1024.0 * channelsOf(c);
    std::vector<AudioValueRange> ranges;
    for (const uint32_t rate : kStereoRates) {
        const double scaled = double(rate) * channelsOf(c) / 2.0;
        if (scaled <= ceiling) ranges.push_back({scaled, scaled});
    }
    return ranges;
}

// A descriptor length in the four-byte form Apple's cookies use.
void putLength(std::vector<uint8_t>& out, size_t length)
{
    out.push_back(uint8_t(0x80 | ((length >> 21) & 0x7F)));
    out.push_back(uint8_t(0x80 | ((length >> 14) & 0x7F)));
    out.push_back(uint8_t(0x80 | ((length >> 7) & 0x7F)));
    out.push_back(uint8_t(length & 0x7F));
}

void putBigEndian(std::vector<uint8_t>& out, uint32_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i) out.push_back(uint8_t(value >> (8 * i)));
}

// The esds payload: version and flags, then the ES descriptor with the
// decoder configuration and its specific info (the AudioSpecificConfig).
std::vector<uint8_t> esdsCookie(const AVCodecContext& encoder)
{
    const size_t specificLength = size_t(encoder.extradata_size);
    const size_t configLength = 13 + 5 + specificLength;
    const size_t esLength = 3 + 5 + configLength + 5 + 1;
    std::vector<uint8_t> out(4, 0);
    out.push_back(0x03);
    putLength(out, esLength);
    putBigEndian(out, 0, 3); // ES_ID, flags
    out.push_back(0x04);
    putLength(out, configLength);
    out.push_back(0x40); // MPEG-4 audio
    out.push_back(0x15); // audio stream
    putBigEndian(out, 768 * uint32_t(std::max(encoder.ch_layout.nb_channels, 1)), 3);
    putBigEndian(out, uint32_t(encoder.bit_rate), 4);
    putBigEndian(out, uint32_t(encoder.bit_rate), 4);
    out.push_back(0x05);
    putLength(out, specificLength);
    out.insert(out.end(), encoder.extradata, encoder.extradata + specificLength);
    out.push_back(0x06);
    putLength(out, 1);
    out.push_back(0x02);
    return out;
}

void closeEncoder(OpaqueAudioConverter& c)
{
    avcodec_free_context(&c.encoder);
    c.cookie.clear();
    c.flushed = false;
}

OSStatus sendSilence(OpaqueAudioConverter& c)
{
    AVFrame* frame = av_frame_alloc();
    if (!frame) return kAudioConverterErr_UnspecifiedError;
    frame->nb_samples = c.encoder->frame_size > 0 ? c.encoder->frame_size : 1024;
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = c.encoder->sample_rate;
    frame->pts = c.nextPts;
    c.nextPts += frame->nb_samples;
    OSStatus status = 0;
    if (av_channel_layout_copy(&frame->ch_layout, &c.encoder->ch_layout) < 0 || av_frame_get_buffer(frame, 0) < 0) {
        status = kAudioConverterErr_UnspecifiedError;
    } else {
        av_samples_set_silence(frame->extended_data, 0, frame->nb_samples, frame->ch_layout.nb_channels,
                               AV_SAMPLE_FMT_FLTP);
        if (avcodec_send_frame(c.encoder, frame) < 0) status = kAudioConverterErr_UnspecifiedError;
    }
    av_frame_free(&frame);
    return status;
}

OSStatus openEncoder(OpaqueAudioConverter& c)
{
    if (!c.stale && c.encoder) return 0;
    closeEncoder(c);
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (!codec) return kAudioConverterErr_FormatNotSupported;
    c.encoder = avcodec_alloc_context3(codec);
    if (!c.encoder) return kAudioConverterErr_UnspecifiedError;
    c.encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    c.encoder->sample_rate = int(c.output.mSampleRate);
    c.encoder->time_base = {1, c.encoder->sample_rate};
    av_channel_layout_default(&c.encoder->ch_layout, int(channelsOf(c)));
    c.encoder->bit_rate = c.bitRate ? c.bitRate : 64000 * channelsOf(c);
    // The configuration goes into the cookie, not into the packets.
    c.encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (QXAvcodecOpen(c.encoder, codec, nullptr) < 0) {
        avcodec_free_context(&c.encoder);
        return kAudioConverterErr_FormatNotSupported;
    }
    c.cookie = esdsCookie(*c.encoder);
    c.stale = false;
    c.nextPts = 0;
    // FFmpeg's encoder answers a frame only once it has the next one. A
    // frame of silence ahead of the input makes it answer each frame at
    // once, as AudioToolbox's encoder does; with the encoder's own delay
    // that is 2048 samples of priming (AudioToolbox has 2112).
    return sendSilence(c);
}

template <class T>
OSStatus putValue(const T& value, uint32_t* ioSize, void* outData)
{
    if (!ioSize || !outData || *ioSize < sizeof(T)) return kAudioConverterErr_BadPropertySizeError;
    std::memcpy(outData, &value, sizeof(T));
    *ioSize = sizeof(T);
    return 0;
}

OSStatus putBytes(const void* data, size_t size, uint32_t* ioSize, void* outData)
{
    if (!ioSize || !outData || *ioSize < size) return kAudioConverterErr_BadPropertySizeError;
    if (size) std::memcpy(outData, data, size);
    *ioSize = uint32_t(size);
    return 0;
}

// Sends one frame pulled from the callback, or the end of the stream when
// it has no more. A non-zero status of the callback is returned.
OSStatus sendInput(AudioConverterRef converter, AudioConverterComplexInputDataProc inputProc, void* userData)
{
    OpaqueAudioConverter& c = *converter;
    const int frameSize = c.encoder->frame_size > 0 ? c.encoder->frame_size : 1024;
    const int channels = c.encoder->ch_layout.nb_channels;
    uint32_t frames = uint32_t(frameSize);
    AudioBufferList list;
    list.mNumberBuffers = uint32_t(std::min<int>(channels, int(list.mBuffers.size())));
    for (uint32_t i = 0; i < list.mNumberBuffers; ++i) list.mBuffers[i].mNumberChannels = 1;
    if (OSStatus status = inputProc(converter, &frames, &list, nullptr, userData); status != 0) return status;
    if (frames == 0) {
        avcodec_send_frame(c.encoder, nullptr);
        c.flushed = true;
        return 0;
    }
    AVFrame* frame = av_frame_alloc();
    if (!frame) return kAudioConverterErr_UnspecifiedError;
    frame->nb_samples = std::min(int(frames), frameSize);
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = c.encoder->sample_rate;
    frame->pts = c.nextPts;
    c.nextPts += frame->nb_samples;
    OSStatus status = 0;
    if (av_channel_layout_copy(&frame->ch_layout, &c.encoder->ch_layout) < 0 || av_frame_get_buffer(frame, 0) < 0) {
        status = kAudioConverterErr_UnspecifiedError;
    }
    for (int channel = 0; status == 0 && channel < channels; ++channel) {
        const AudioBuffer& buffer = list.mBuffers[size_t(std::min(channel, int(list.mNumberBuffers) - 1))];
        const size_t bytes = size_t(frame->nb_samples) * sizeof(float);
        if (!buffer.mData || buffer.mDataByteSize < bytes) {
            status = kAudio_ParamError;
            break;
        }
        std::memcpy(frame->extended_data[channel], buffer.mData, bytes);
    }
    if (status == 0 && avcodec_send_frame(c.encoder, frame) < 0) status = kAudioConverterErr_UnspecifiedError;
    av_frame_free(&frame);
    return status;
}

} // namespace

OSStatus AudioConverterNew(const AudioStreamBasicDescription* inSourceFormat,
                           const AudioStreamBasicDescription* inDestinationFormat, AudioConverterRef* outAudioConverter)
{
    if (!inSourceFormat || !inDestinationFormat || !outAudioConverter) return kAudio_ParamError;
    const uint32_t planarFloat = kAudioFormatFlagIsFloat | kAudioFormatFlagIsNonInterleaved;
    if (inSourceFormat->mFormatID != kAudioFormatLinearPCM || (inSourceFormat->mFormatFlags & planarFloat) != planarFloat ||
        inSourceFormat->mBitsPerChannel != 32 || inDestinationFormat->mFormatID != kAudioFormatMPEG4AAC ||
        inSourceFormat->mSampleRate != inDestinationFormat->mSampleRate || inDestinationFormat->mSampleRate <= 0 ||
        inSourceFormat->mChannelsPerFrame != inDestinationFormat->mChannelsPerFrame ||
        inDestinationFormat->mChannelsPerFrame == 0 || inDestinationFormat->mChannelsPerFrame > 8) {
        return kAudioConverterErr_FormatNotSupported;
    }
    auto* converter = new OpaqueAudioConverter;
    converter->input = *inSourceFormat;
    converter->output = *inDestinationFormat;
    converter->output.mFramesPerPacket = 1024;
    converter->output.mBytesPerPacket = 0; // variable
    converter->packet = av_packet_alloc();
    *outAudioConverter = converter;
    return 0;
}

OSStatus AudioConverterDispose(AudioConverterRef converter)
{
    if (!converter) return kAudio_ParamError;
    closeEncoder(*converter);
    av_packet_free(&converter->packet);
    delete converter;
    return 0;
}

OSStatus AudioConverterGetPropertyInfo(AudioConverterRef converter, AudioConverterPropertyID property,
                                       uint32_t* outSize, bool* outWritable)
{
    if (!converter) return kAudio_ParamError;
    uint32_t size = sizeof(uint32_t);
    bool writable = false;
    switch (property) {
    case kAudioConverterCodecQuality:
    case kAudioCodecPropertyBitRateControlMode:
    case kAudioConverterEncodeBitRate:
        writable = true;
        break;
    case kAudioConverterPropertyMaximumOutputPacketSize:
        break;
    case kAudioConverterApplicableEncodeBitRates:
        size = uint32_t(applicableRates(*converter).size() * sizeof(AudioValueRange));
        break;
    case kAudioConverterCurrentInputStreamDescription:
    case kAudioConverterCurrentOutputStreamDescription:
        size = sizeof(AudioStreamBasicDescription);
        break;
    case kAudioConverterCompressionMagicCookie:
        if (OSStatus status = openEncoder(*converter); status != 0) return status;
        size = uint32_t(converter->cookie.size());
        break;
    default:
        return kAudioConverterErr_PropertyNotSupported;
    }
    if (outSize) *outSize = size;
    if (outWritable) *outWritable = writable;
    return 0;
}

OSStatus AudioConverterGetProperty(AudioConverterRef converter, AudioConverterPropertyID property, uint32_t* ioSize,
                                   void* outData)
{
    if (!converter) return kAudio_ParamError;
    OpaqueAudioConverter& c = *converter;
    switch (property) {
    case kAudioConverterCodecQuality:
        return putValue(c.quality, ioSize, outData);
    case kAudioCodecPropertyBitRateControlMode:
        return putValue(c.controlMode, ioSize, outData);
    case kAudioConverterEncodeBitRate:
        return putValue(c.bitRate ? c.bitRate : 64000 * channelsOf(c), ioSize, outData);
    case kAudioConverterPropertyMaximumOutputPacketSize:
        return putValue(uint32_t(768 * channelsOf(c)), ioSize, outData);
    case kAudioConverterApplicableEncodeBitRates: {
        const std::vector<AudioValueRange> ranges = applicableRates(c);
        return putBytes(ranges.data(), ranges.size() * sizeof(AudioValueRange), ioSize, outData);
    }
    case kAudioConverterCurrentInputStreamDescription:
        return putValue(c.input, ioSize, outData);
    case kAudioConverterCurrentOutputStreamDescription:
        return putValue(c.output, ioSize, outData);
    case kAudioConverterCompressionMagicCookie:
        if (OSStatus status = openEncoder(c); status != 0) return status;
        return putBytes(c.cookie.data(), c.cookie.size(), ioSize, outData);
    default:
        return kAudioConverterErr_PropertyNotSupported;
    }
}

OSStatus AudioConverterSetProperty(AudioConverterRef converter, AudioConverterPropertyID property, uint32_t size,
                                   const void* data)
{
    if (!converter || !data) return kAudio_ParamError;
    if (size != sizeof(uint32_t)) return kAudioConverterErr_BadPropertySizeError;
    uint32_t value;
    std::memcpy(&value, data, sizeof value);
    switch (property) {
    case kAudioConverterCodecQuality:
        // FFmpeg's encoder has one quality.
        converter->quality = std::min<uint32_t>(value, 127);
        return 0;
    case kAudioCodecPropertyBitRateControlMode:
        // FFmpeg's encoder keeps the average rate, which the constrained
        // variable mode asks for too.
        converter->controlMode = value;
        return 0;
    case kAudioConverterEncodeBitRate:
        if (value != converter->bitRate) converter->stale = true;
        converter->bitRate = value;
        return 0;
    default:
        return kAudioConverterErr_PropertyNotSupported;
    }
}

OSStatus AudioConverterFillComplexBuffer(AudioConverterRef converter, AudioConverterComplexInputDataProc inputProc,
                                         void* inInputDataProcUserData, uint32_t* ioOutputDataPacketSize,
                                         AudioBufferList* outOutputData,
                                         AudioStreamPacketDescription* outPacketDescription)
{
    if (!converter || !inputProc || !ioOutputDataPacketSize || !outOutputData || outOutputData->mNumberBuffers < 1) {
        return kAudio_ParamError;
    }
    OpaqueAudioConverter& c = *converter;
    const uint32_t wanted = *ioOutputDataPacketSize;
    *ioOutputDataPacketSize = 0;
    if (wanted == 0) return 0;
    if (OSStatus status = openEncoder(c); status != 0) return status;
    for (;;) {
        const int result = avcodec_receive_packet(c.encoder, c.packet);
        if (result >= 0) {
            AudioBuffer& buffer = outOutputData->mBuffers[0];
            const uint32_t size = uint32_t(c.packet->size);
            OSStatus status = 0;
            if (!buffer.mData || buffer.mDataByteSize < size) {
                status = kAudioConverterErr_BadPropertySizeError;
            } else {
                std::memcpy(buffer.mData, c.packet->data, size);
                buffer.mDataByteSize = size;
                *ioOutputDataPacketSize = 1;
                if (outPacketDescription) *outPacketDescription = {0, 0, size};
            }
            av_packet_unref(c.packet);
            return status;
        }
        if (result != AVERROR(EAGAIN) || c.flushed) return 0; // the end: no packet
        if (OSStatus status = sendInput(converter, inputProc, inInputDataProcUserData); status != 0) return status;
    }
}

} // namespace qx
