#include "qxmedia/muxer/QXMuxerAudioSamples.h"

#include <vector>

extern "C" {
#include <libavutil/audio_fifo.h>
#include <libavutil/error.h>
}

namespace qx {

uint8_t QXAudioProfileLevel(uint32_t channels, uint32_t sampleRate)
{
    if (channels < 3) return sampleRate <= 24000 ? 0x28 : 0x29;
    return sampleRate <= 48000 ? 0x2A : 0x2B;
}

CMSampleBufferRef QXSampleInTimescale(const CMSampleBufferRef& sample, int32_t timescale)
{
    const CMSampleTimingInfo timing {CMSampleBufferGetDuration(sample), CMSampleBufferGetPresentationTimeStamp(sample),
                                     CMSampleBufferGetDecodeTimeStamp(sample)};
    auto foreign = [timescale](CMTime time) { return CMTIME_IS_NUMERIC(time) && time.timescale != timescale; };
    if (timescale <= 0 ||
        !(foreign(timing.duration) || foreign(timing.presentationTimeStamp) || foreign(timing.decodeTimeStamp))) {
        return sample;
    }
    auto convert = [&](CMTime time) {
        return foreign(time) ? CMTimeConvertScale(time, timescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero) : time;
    };
    const CMSampleTimingInfo converted {convert(timing.duration), convert(timing.presentationTimeStamp),
                                        convert(timing.decodeTimeStamp)};
    CMSampleBufferRef copy;
    if (CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &converted, &copy) != 0) return sample;
    return copy;
}

int QXWritePlanarSamples(AVAudioFifo* fifo, const CMSampleBufferRef& sample, int channels)
{
    const CMBlockBufferRef block = CMSampleBufferGetDataBuffer(sample);
    const size_t length = block ? CMBlockBufferGetDataLength(block) : 0;
    if (!fifo || channels <= 0) return AVERROR(EINVAL);
    const size_t frames = length / size_t(channels) / sizeof(float);
    if (frames == 0) return 0;
    if (frames > size_t(INT32_MAX)) return AVERROR(EINVAL);
    const size_t planeLength = length / size_t(channels);
    // Planes are copied out whole, so a plane starts at a float boundary
    // whatever the block's own layout is.
    std::vector<float> pcm(frames * size_t(channels));
    std::vector<void*> planes(static_cast<size_t>(channels), nullptr);
    for (int channel = 0; channel < channels; ++channel) {
        float* plane = pcm.data() + size_t(channel) * frames;
        if (CMBlockBufferCopyDataBytes(block, size_t(channel) * planeLength, frames * sizeof(float), plane) != 0) {
            return AVERROR(EIO);
        }
        planes[size_t(channel)] = plane;
    }
    return av_audio_fifo_write(fifo, planes.data(), int(frames));
}

CMSampleBufferRef QXSampleWithBytes(const uint8_t* data, size_t size, const CMSampleTimingInfo& timing)
{
    CMBlockBufferRef block;
    if (CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                           kCMBlockBufferAssureMemoryNowFlag, &block) != 0) {
        return nullptr;
    }
    if (size > 0 && CMBlockBufferReplaceDataBytes(data, block, 0, size) != 0) return nullptr;
    CMSampleBufferRef sample;
    if (CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 0, nullptr, &sample) != 0) {
        return nullptr;
    }
    return sample;
}

} // namespace qx
