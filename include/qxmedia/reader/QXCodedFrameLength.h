#pragma once
// QXCodedFrameLength: how many PCM frames a coded audio packet plays, read
// from its header and the stream's setup instead of decoding it. Only for
// codecs whose frames have a fixed length: AAC-LC (1024, or 960, per raw
// data block) and AC-3 (1536 per sync frame). Anything else is decoded:
// HE-AAC, whose decoder doubles the rate; E-AC-3, whose packets may hold
// several frames of 1 to 6 blocks; MP3, Opus, ...

#include <cstddef>
#include <cstdint>
#include <optional>

class QXTrack;

class QXCodedFrameLength {
public:
    struct Length {
        int32_t frames;
        int32_t rate;
        // AC-3 only: the frame's channels, LFE included, and FFmpeg's mask
        // for them; 0 where the header does not tell.
        int32_t channels = 0;
        uint64_t layout = 0;
        int64_t bitRate = 0;
    };

    // Empty when the track's packets must be decoded to be measured.
    static std::optional<QXCodedFrameLength> forTrack(const QXTrack& track);

    // `header` holds the first bytes of a packet of `packetSize` bytes (at
    // most kHeaderBytes are looked at). Empty when the packet is not a frame
    // a decoder would take (no sync word, cut short, empty).
    std::optional<Length> lengthOf(const uint8_t* header, size_t headerSize, size_t packetSize) const;

    static constexpr size_t kHeaderBytes = 32;

private:
    enum class Kind { AAC, AC3 };
    QXCodedFrameLength(Kind kind, int32_t frameSize, int32_t rate) : kind_(kind), frameSize_(frameSize), rate_(rate) {}

    Kind kind_;
    int32_t frameSize_; // AAC: PCM frames per raw data block
    int32_t rate_;      // AAC: the stream's rate
};
