#pragma once
// QXCodedFrameLength: how many PCM frames a coded audio packet plays, read
// from its headers and the stream's setup instead of decoding it. For
// AAC-LC (1024, or 960, per raw data block), AC-3 (1536 per sync frame) and
// E-AC-3 (256 per audio block; a packet may hold several frames, and only
// the independent frames of the first substream add time). Anything else
// is decoded: HE-AAC, whose decoder doubles the rate; MP3, Opus, ...

#include <cstddef>
#include <cstdint>
#include <optional>

class QXTrack;

class QXCodedFrameLength {
public:
    struct Length {
        int32_t frames;
        int32_t rate;
        // AC-3 and E-AC-3 only: the frame's channels, LFE included, and
        // FFmpeg's mask for them; 0 where the headers do not tell (E-AC-3
        // with dependent substreams, which add channels).
        int32_t channels = 0;
        uint64_t layout = 0;
        int64_t bitRate = 0;
    };

    // Empty when the track's packets must be decoded to be measured.
    static std::optional<QXCodedFrameLength> forTrack(const QXTrack& track);

    // `header` holds the first bytes of a packet of `packetSize` bytes (at
    // most kHeaderBytes are looked at, except for E-AC-3, which needs the
    // whole packet to find every frame in it). Empty when the packet does
    // not start with a frame a decoder would take (no sync word, cut short,
    // empty).
    std::optional<Length> lengthOf(const uint8_t* header, size_t headerSize, size_t packetSize) const;

    static constexpr size_t kHeaderBytes = 32;
    bool needsWholePacket() const { return kind_ == Kind::EAC3; }

private:
    enum class Kind { AAC, AC3, EAC3 };
    std::optional<Length> eac3LengthOf(const uint8_t* packet, size_t size) const;
    QXCodedFrameLength(Kind kind, int32_t frameSize, int32_t rate) : kind_(kind), frameSize_(frameSize), rate_(rate) {}

    Kind kind_;
    int32_t frameSize_; // AAC: PCM frames per raw data block
    int32_t rate_;      // AAC: the stream's rate
};
