#pragma once
// The inputs that encode decoded audio (QXTrackReaderAudioOutput: planar
// float at the destination's rate and layout) to AC-3 or E-AC-3 with
// FFmpeg's encoders. Their time line starts at zero whatever the first
// sample's time was; each packet lasts one encoder frame. The last, short
// frame is padded with silence; the encoder is not drained, as these
// encoders hold nothing back.

#include <array>
#include <cstdint>
#include <memory>

#include "qxmedia/muxer/QXMuxerInput.h"

struct AVAudioFifo;
struct AVCodecContext;

// What both encoding inputs share; the codec, the layout and the track
// differ.
class QXMuxerDolbyEncoderInput : public QXMuxerInput {
public:
    QXMuxerDolbyEncoderInput(std::shared_ptr<QXTrackReaderOutput> source, std::shared_ptr<QXTrack> destination);
    ~QXMuxerDolbyEncoderInput() override;
    using QXMuxerInput::initWritingToFileHandle;

    // Opens the encoder and creates the track. Fails with -11834 when FFmpeg
    // has no such encoder, with FFmpeg's code when it does not open, with
    // -13011 when the track cannot be made.
    bool initWritingToFileHandle(QXErrorRef* error) override;
    // Queues the PCM and encodes every whole frame; null encodes what is
    // left (padded with silence) and ends the track.
    void processSample(const qx::CMSampleBufferRef& sample) override;
    // Encodes one frame from the queue and hands on what the encoder gives.
    void encode();

    uint32_t bitRate = 0;
    uint32_t sampleRate = 0;
    AVCodecContext* context = nullptr;
    AVAudioFifo* fifo = nullptr;
    // Presentation time of the next packet.
    qx::CMTime pts = qx::kCMTimeZero;

protected:
    virtual int32_t encoderCodecId() const = 0;
    virtual uint32_t mediaSubType() const = 0;
    virtual uint64_t encoderChannelLayout() const = 0;
    // Adds the track for the open encoder; the track id or 0.
    virtual uint32_t addTrack() = 0;
    // Whether the end of each packet loop is logged with its last code.
    virtual bool logsEndOfPackets() const = 0;
};

class QXMuxerAC3Input : public QXMuxerDolbyEncoderInput {
public:
    QXMuxerAC3Input(std::shared_ptr<QXTrackReaderOutput> source, std::shared_ptr<QXTrack> destination);
    std::string description() const override;

    // The dac3 fields of a stream at these rates: the rate found in the
    // table of 48, 44.1, 32 kHz or a half or quarter of it (bsid 8 + the
    // shift), the bit rate in the table scaled down alike. Logs and uses 0
    // for what is not found.
    struct TrackFields {
        uint8_t fscod = 0;
        uint8_t bsid = 8;
        uint8_t bitRateCode = 0;
    };
    static TrackFields trackFields(uint32_t sampleRate, uint32_t bitRate);

protected:
    int32_t encoderCodecId() const override;
    uint32_t mediaSubType() const override { return 0x61632D33; } // 'ac-3'
    uint64_t encoderChannelLayout() const override { return 0x60F; } // 5.1
    uint32_t addTrack() override;
    bool logsEndOfPackets() const override { return false; }
};

class QXMuxerEAC3Input : public QXMuxerDolbyEncoderInput {
public:
    QXMuxerEAC3Input(std::shared_ptr<QXTrackReaderOutput> source, std::shared_ptr<QXTrack> destination);
    std::string description() const override;

    // The dec3 payload written for every encoded track: the data rate from
    // the bit rate, one independent 5.1 substream at 48 kHz.
    static std::array<uint8_t, 6> dec3Payload(uint32_t bitRate);

    // The destination's channel mask.
    uint64_t channelLayout = 0;

protected:
    int32_t encoderCodecId() const override;
    uint32_t mediaSubType() const override { return 0x65632D33; } // 'ec-3'
    uint64_t encoderChannelLayout() const override { return channelLayout; }
    uint32_t addTrack() override;
    bool logsEndOfPackets() const override { return true; }
};
