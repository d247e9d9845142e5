#include "qxmedia/muxer/QXMuxerAACInput.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/muxer/QXMuxerAudioSamples.h"
#include "qxmedia/reader/QXReaderCodec.h"
#include "qxmedia/source/QXAudioTrack.h"

using namespace qx;

namespace {

// A bounded reader over the cookie: past the end it reads zeros and stops.
struct CookieReader {
    const uint8_t* data;
    size_t size;
    size_t at = 0;
    bool overrun = false;

    uint8_t byte()
    {
        if (at >= size) {
            overrun = true;
            return 0;
        }
        return data[at++];
    }
    void skip(size_t count)
    {
        if (size - std::min(at, size) < count) overrun = true;
        at = std::min(size, at + count);
    }
    // Up to four bytes, seven bits each, the top bit marking one more.
    uint32_t length()
    {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            const uint8_t b = byte();
            value = (value << 7) | (b & 0x7F);
            if (!(b & 0x80)) break;
        }
        return value;
    }
};

OSStatus failWith(OSStatus status, QXErrorRef* error)
{
    QXSetError(error, QXMedia::errorWithDomain(NSOSStatusErrorDomain, status));
    return status;
}

} // namespace

int ReadESDSDescExt(const uint8_t* desc_ext, uint8_t** buffer, int* size, int versionFlags, size_t cookieSize)
{
    *buffer = nullptr;
    *size = 0;
    if (!desc_ext) return 0;
    CookieReader in {desc_ext, cookieSize};
    if (versionFlags) in.skip(4);
    const uint8_t tag = in.byte();
    in.length();
    in.skip(tag == 0x03 ? 3 : 2); // ES_ID and flags
    if (in.byte() != 0x04) return 0;
    in.length();
    in.skip(13); // object type, stream type, buffer size, bit rates
    if (in.byte() != 0x05) return 0;
    const uint32_t length = in.length();
    if (in.overrun || length > in.size - in.at) return 0;
    auto* copy = static_cast<uint8_t*>(std::calloc(length + 8, 1));
    if (!copy) return 0;
    std::memcpy(copy, desc_ext + in.at, length);
    *buffer = copy;
    *size = int(length);
    return 0;
}

QXMuxerAACInput::QXMuxerAACInput(std::shared_ptr<QXTrackReaderOutput> sourceOutput,
                                 std::shared_ptr<QXTrack> destinationTrack)
    : QXMuxerInput(std::move(sourceOutput), std::move(destinationTrack))
{
    bitRate = destination ? destination->bitrate : 0;
    const auto* audio = dynamic_cast<const QXAudioTrack*>(destination.get());
    sampleRate = audio ? audio->sample_rate : 0;
    aeio = new AudioEncoderIO;
    fifo = av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, int(channels), 1024);
    aeio->fifo = fifo;
    aeio->frame = av_frame_alloc();
    if (aeio->frame) {
        aeio->frame->format = AV_SAMPLE_FMT_FLTP;
        aeio->frame->nb_samples = kStagingFrames;
        av_channel_layout_default(&aeio->frame->ch_layout, int(channels));
        if (av_frame_get_buffer(aeio->frame, 0) < 0) av_frame_free(&aeio->frame);
    }
}

QXMuxerAACInput::~QXMuxerAACInput()
{
    if (converter) AudioConverterDispose(converter);
    if (fifo) av_audio_fifo_free(fifo);
    if (aeio) av_frame_free(&aeio->frame);
    delete aeio;
}

std::string QXMuxerAACInput::description() const
{
    char text[64];
    std::snprintf(text, sizeof text, "<QXMuxerAACInput: %p>", static_cast<const void*>(this));
    return destination ? std::string(text) + " " + destination->description() : std::string(text);
}

bool QXMuxerAACInput::initWritingToFileHandle(QXErrorRef* error)
{
    AudioStreamBasicDescription input;
    input.mSampleRate = sampleRate;
    input.mFormatID = kAudioFormatLinearPCM;
    input.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsNonInterleaved;
    input.mBytesPerPacket = sizeof(float);
    input.mFramesPerPacket = 1;
    input.mBytesPerFrame = sizeof(float);
    input.mChannelsPerFrame = channels;
    input.mBitsPerChannel = 32;
    AudioStreamBasicDescription output;
    output.mSampleRate = sampleRate;
    output.mFormatID = kAudioFormatMPEG4AAC;
    output.mChannelsPerFrame = channels;
    if (OSStatus status = AudioConverterNew(&input, &output, &converter); status != 0) {
        converter = nullptr;
        failWith(status, error);
        return false;
    }
    const uint32_t quality = 127;
    const uint32_t mode = kAudioCodecBitRateControlMode_VariableConstrained;
    AudioConverterSetProperty(converter, kAudioConverterCodecQuality, sizeof quality, &quality);
    AudioConverterSetProperty(converter, kAudioCodecPropertyBitRateControlMode, sizeof mode, &mode);

    // Held between the first range's minimum and the last range's minimum.
    uint32_t size = 0;
    if (OSStatus status = AudioConverterGetPropertyInfo(converter, kAudioConverterApplicableEncodeBitRates, &size,
                                                        nullptr);
        status != 0) {
        failWith(status, error);
        return false;
    }
    std::vector<AudioValueRange> ranges(size / sizeof(AudioValueRange));
    if (OSStatus status =
            AudioConverterGetProperty(converter, kAudioConverterApplicableEncodeBitRates, &size, ranges.data());
        status != 0) {
        failWith(status, error);
        return false;
    }
    uint32_t rate = bitRate;
    if (!ranges.empty()) {
        if (ranges.front().mMinimum > rate) rate = uint32_t(ranges.front().mMinimum);
        if (ranges.back().mMinimum < rate) rate = uint32_t(ranges.back().mMinimum);
    }
    if (rate != bitRate) QXLogInfo("Sanitizing AAC audio bitrate %d to %d", int(bitRate), int(rate));
    AudioConverterSetProperty(converter, kAudioConverterEncodeBitRate, sizeof rate, &rate);

    AudioStreamBasicDescription current;
    size = sizeof current;
    AudioConverterGetProperty(converter, kAudioConverterCurrentInputStreamDescription, &size, &current);
    size = sizeof current;
    AudioConverterGetProperty(converter, kAudioConverterCurrentOutputStreamDescription, &size, &current);

    const uint32_t trackId = file->addAudioTrack(sampleRate, 1024, 0x40);
    destination->trackID = int32_t(trackId);
    if (trackId == 0) {
        QXSetError(error, QXMedia::errorWithDomain(QXMediaErrorDomain, -13011,
                                                   {{AVErrorPersistentTrackIDKey, int64_t(trackId)}}));
        return false;
    }
    tuneTrackDurationPerChunk();
    file->setAudioProfileLevel(QXAudioProfileLevel(current.mChannelsPerFrame, uint32_t(current.mSampleRate)));
    max_output_size = current.mBytesPerPacket;
    framesPerPacket = current.mFramesPerPacket ? current.mFramesPerPacket : 1024;
    size = sizeof max_output_size;
    if (OSStatus status =
            AudioConverterGetProperty(converter, kAudioConverterPropertyMaximumOutputPacketSize, &size, &max_output_size);
        status != 0) {
        failWith(status, error);
        return false;
    }

    // A converter without a cookie leaves the track without a configuration.
    size = 0;
    if (AudioConverterGetPropertyInfo(converter, kAudioConverterCompressionMagicCookie, &size, nullptr) == 0 && size) {
        std::vector<uint8_t> cookie(size);
        if (OSStatus status =
                AudioConverterGetProperty(converter, kAudioConverterCompressionMagicCookie, &size, cookie.data());
            status != 0) {
            failWith(status, error);
            return false;
        }
        uint8_t* config = nullptr;
        int configSize = 0;
        ReadESDSDescExt(cookie.data(), &config, &configSize, 1, size);
        if (config) file->setTrackESConfiguration(trackId, config, size_t(configSize));
        std::free(config);
    }
    return destination->writeToFile(*file, error);
}

OSStatus QXMuxerAACInput::inInputDataProc(AudioConverterRef, uint32_t* ioNumberDataPackets, AudioBufferList* ioData,
                                          AudioStreamPacketDescription**, void* inUserData)
{
    auto* io = static_cast<AudioEncoderIO*>(inUserData);
    if (av_audio_fifo_size(io->fifo) == 0) {
        *ioNumberDataPackets = 0;
        if (io->endOfStream) return 0;
        QXLogInfo("No data to use!");
        return 1;
    }
    // The staging frame holds kStagingFrames; the converter never asks more.
    const int wanted = std::min<int>(int(*ioNumberDataPackets), kStagingFrames);
    const int read = av_audio_fifo_read(io->fifo, reinterpret_cast<void**>(io->frame->extended_data), wanted);
    if (read < 0) {
        QXLogWarning("%s Error audio fifo read: %s", __PRETTY_FUNCTION__, QXAvErrorText(read).c_str());
        return 0;
    }
    const int planes = io->frame->ch_layout.nb_channels;
    if (read < wanted) {
        av_samples_set_silence(io->frame->extended_data, read, wanted - read, planes, AV_SAMPLE_FMT_FLTP);
    }
    ioData->mNumberBuffers = uint32_t(std::min<int>(planes, int(ioData->mBuffers.size())));
    for (uint32_t i = 0; i < ioData->mNumberBuffers; ++i) {
        ioData->mBuffers[i].mNumberChannels = 1;
        ioData->mBuffers[i].mData = io->frame->extended_data[i];
        ioData->mBuffers[i].mDataByteSize = uint32_t(wanted) * sizeof(float);
    }
    *ioNumberDataPackets = uint32_t(wanted);
    return 0;
}

void QXMuxerAACInput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        // An empty track stays empty.
        if (converter && fifo && aeio->frame && CMTIME_IS_VALID(pts)) {
            while (av_audio_fifo_size(fifo) > 0) encode();
            // The encoder's delay still holds the end of the stream.
            aeio->endOfStream = true;
            while (encodePacket(true)) {
            }
        }
        QXMuxerInput::processSample(nullptr);
        return;
    }
    if (!converter || !fifo || !aeio->frame) return;
    if (!CMTIME_IS_VALID(pts)) {
        // Counted in the track's timescale, like the durations.
        const CMTime first = CMSampleBufferGetPresentationTimeStamp(sample);
        pts = CMTIME_IS_NUMERIC(first)
                  ? CMTimeConvertScale(first, int32_t(sampleRate), kCMTimeRoundingMethod_RoundHalfAwayFromZero)
                  : kCMTimeZero;
    }
    if (int result = QXWritePlanarSamples(fifo, sample, int(channels)); result < 0) {
        QXLogWarning("%s Error audio fifo write: %s", __PRETTY_FUNCTION__, QXAvErrorText(result).c_str());
    }
    while (av_audio_fifo_size(fifo) >= 1024) encode();
}

void QXMuxerAACInput::encode() { encodePacket(false); }

bool QXMuxerAACInput::encodePacket(bool draining)
{
    std::vector<uint8_t> packet(max_output_size ? max_output_size : 768 * channels);
    AudioBufferList list;
    list.mNumberBuffers = 1;
    list.mBuffers[0] = {channels, uint32_t(packet.size()), packet.data()};
    uint32_t packets = 1;
    AudioStreamPacketDescription described;
    if (AudioConverterFillComplexBuffer(converter, inInputDataProc, aeio, &packets, &list, &described) != 0) {
        return false;
    }
    if (packets == 0 || list.mBuffers[0].mDataByteSize == 0) {
        if (!draining) QXLogWarning("CoreAudio: 0 packets returned!");
        return false;
    }
    const CMTime duration = CMTimeMake(framesPerPacket, int32_t(sampleRate));
    const CMSampleTimingInfo timing {duration, pts, kCMTimeInvalid};
    pts = CMTimeAdd(pts, duration);
    CMSampleBufferRef sample = QXSampleWithBytes(packet.data(), list.mBuffers[0].mDataByteSize, timing);
    if (!sample) {
        QXLogWarning("CMSampleBufferCreate failed: %d", -1);
        return true;
    }
    QXMuxerInput::processSample(sample);
    return true;
}
