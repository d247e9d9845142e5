#pragma once
// The E-AC-3 configuration of an MP4 track: the `dec3` box payload of ETSI
// TS 102 366 F.6, gathered from the sync frames of a stream. This is the work
// FFmpeg's MP4 muxer does internally while it writes an ec-3 track.
//
// An E-AC-3 stream carries up to 8 independent substreams (programs), each
// followed by up to 8 dependent substreams that add channels to it. One
// access unit is an independent substream 0 frame and everything up to the
// next one; the builder is complete when the stream comes round to
// independent substream 0 for the second time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "qxmedia/platform/codecs/AC3Header.h"

namespace qx {

struct EAC3IndependentSubstream {
    uint8_t fscod = 0;
    uint8_t bsid = 0;
    uint8_t asvc = 0;
    uint8_t bsmod = 0;
    uint8_t acmod = 0;
    uint8_t lfeon = 0;
    uint8_t num_dep_sub = 0;
    uint16_t chan_loc = 0;
};

struct EAC3Configuration {
    uint16_t data_rate = 0;  // kbit/s, the highest seen
    uint8_t num_ind_sub = 0; // number of independent substreams minus one
    std::array<EAC3IndependentSubstream, 8> substreams {};
    bool flag_ec3_extension_type_a = false;
    uint8_t complexity_index_type_a = 0;
};

// The payload bytes of a `dec3` box.
std::vector<uint8_t> createDec3Payload(const EAC3Configuration& configuration);

class EAC3ConfigurationBuilder {
public:
    // Takes one packet: one or more whole sync frames in stream order. Frames
    // after the builder is complete are ignored. Returns the number of frames
    // read; a frame that does not parse ends the packet.
    int addPacket(const uint8_t* data, size_t size);

    bool isComplete() const { return complete_; }
    // True once any frame of independent substream 0 was seen.
    bool hasFrames() const { return seen_[0]; }
    const EAC3Configuration& configuration() const { return configuration_; }
    std::vector<uint8_t> createDec3Payload() const { return qx::createDec3Payload(configuration_); }

    // The first program (independent substream 0 and its dependents).
    uint64_t channelLayout() const { return layout_; }
    unsigned channels() const;
    uint32_t sampleRate() const { return sampleRate_; }

private:
    // False when the frame completes the configuration and is not used.
    bool addFrame(const AC3BitstreamInfo& info);

    EAC3Configuration configuration_;
    std::array<bool, 8> seen_ {};
    std::array<uint8_t, 8> dependentMask_ {}; // dependent substream ids per independent one
    int currentIndependent_ = -1;
    uint64_t accessUnitBitRate_ = 0;
    uint64_t layout_ = 0;
    uint32_t sampleRate_ = 0;
    bool complete_ = false;
};

} // namespace qx
