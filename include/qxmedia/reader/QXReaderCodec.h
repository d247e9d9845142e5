#pragma once
// What the copying reader outputs share: a decoder opened for a source track
// (they decode only to learn durations, times and formats), FFmpeg objects
// that free themselves, and the step from a sample to an FFmpeg packet.

#include <cstdint>
#include <memory>
#include <string>

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/foundation/CMTime.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;
class QXTrack;

namespace qx {

struct AVCodecContextDeleter {
    void operator()(AVCodecContext* context) const;
};
struct AVFrameDeleter {
    void operator()(AVFrame* frame) const;
};
struct AVPacketDeleter {
    void operator()(AVPacket* packet) const;
};
using AVCodecContextPtr = std::unique_ptr<AVCodecContext, AVCodecContextDeleter>;
using AVFramePtr = std::unique_ptr<AVFrame, AVFrameDeleter>;
using AVPacketPtr = std::unique_ptr<AVPacket, AVPacketDeleter>;

// The decoder for the track's codec, set up from its stream parameters and
// opened under the process-wide codec lock. Null when that fails; every
// failure is logged as a warning, `function` naming the caller. `flags` are
// added to the context's flags before it opens.
AVCodecContextPtr QXOpenTrackDecoder(const QXTrack& track, const char* function, int flags = 0);

// FFmpeg's text for an error code.
std::string QXAvErrorText(int code);

// A packet holding a copy of the sample's bytes, its times still unset.
// A failed copy is logged and the packet goes on with what it has.
AVPacketPtr QXPacketWithSampleData(const CMSampleBufferRef& sample);

// A sample time as a packet time counted in 1/timescale s, or
// AV_NOPTS_VALUE for a time without a usable value. Times the read loop
// copied from the other timestamp keep their value.
int64_t QXPacketTime(CMTime time, int32_t timescale);

} // namespace qx
