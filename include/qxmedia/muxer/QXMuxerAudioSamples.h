#pragma once
// What the audio inputs share: the MPEG-4 audio profile level of a track,
// samples carried over into a track's timescale, planar float PCM moved
// from a sample into an FFmpeg audio queue, and a sample made of one
// encoded packet.

#include <cstddef>
#include <cstdint>

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"

struct AVAudioFifo;

namespace qx {

// The iods audio profile level: 0x28/0x29 for up to two channels (up to and
// above 24 kHz), 0x2A/0x2B for more (up to and above 48 kHz).
uint8_t QXAudioProfileLevel(uint32_t channels, uint32_t sampleRate);

// The sample with its valid times counted in `timescale`, the way the muxer
// writes them; the sample itself when they already are (or on failure).
CMSampleBufferRef QXSampleInTimescale(const CMSampleBufferRef& sample, int32_t timescale);

// Appends the planar float PCM of `sample` (the planes of `channels`
// channels one behind the other) to `fifo`. Returns the number of PCM
// frames written, or a negative FFmpeg error.
int QXWritePlanarSamples(AVAudioFifo* fifo, const CMSampleBufferRef& sample, int channels);

// A sample holding a copy of `size` bytes, with one timing entry. Null when
// a buffer cannot be made.
CMSampleBufferRef QXSampleWithBytes(const uint8_t* data, size_t size, const CMSampleTimingInfo& timing);

} // namespace qx
