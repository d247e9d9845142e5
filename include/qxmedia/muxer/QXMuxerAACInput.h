#pragma once
// The input that encodes decoded audio (QXTrackReaderAudioOutput, stereo
// planar float) to AAC through an AudioConverter. One packet is made at a
// time, from 1024 queued PCM frames; the converter pulls them through
// inInputDataProc, which pads the end of the stream with silence. The
// track has no edit for the encoder's start-up: its priming packets are
// ordinary packets, and the first one has the time of the first PCM frame.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qxmedia/muxer/QXMuxerInput.h"
#include "qxmedia/platform/audiotoolbox/AudioConverter.h"

struct AVAudioFifo;
struct AVFrame;

// What the converter's callback works with: the PCM queue and the frame
// whose planes it hands out.
struct AudioEncoderIO {
    AVAudioFifo* fifo = nullptr;
    AVFrame* frame = nullptr;
    // Set at the end of the track: an empty queue then ends the input, so
    // the converter gives what it still holds.
    bool endOfStream = false;
};

class QXMuxerAACInput : public QXMuxerInput {
public:
    QXMuxerAACInput(std::shared_ptr<QXTrackReaderOutput> source, std::shared_ptr<QXTrack> destination);
    ~QXMuxerAACInput() override;
    using QXMuxerInput::initWritingToFileHandle;

    // Sets up the converter (the bit rate held within the applicable ones)
    // and the mp4a track with the converter's decoder configuration.
    bool initWritingToFileHandle(QXErrorRef* error) override;
    // Queues the PCM and encodes while 1024 frames are there; null encodes
    // what is left and ends the track.
    void processSample(const qx::CMSampleBufferRef& sample) override;
    // One packet from the converter, handed on.
    void encode();
    std::string description() const override;

    uint32_t bitRate = 0;
    uint32_t sampleRate = 0;
    uint32_t channels = 2;
    qx::AudioConverterRef converter = nullptr;
    uint32_t max_output_size = 0;
    uint32_t framesPerPacket = 1024;
    AudioEncoderIO* aeio = nullptr;
    AVAudioFifo* fifo = nullptr;
    qx::CMTime pts = qx::kCMTimeInvalid;

    // The converter's pull callback: PCM from the queue, padded with silence
    // to the count asked for; 1 when the queue is empty (no frames and 0 at
    // the end of the track).
    static qx::OSStatus inInputDataProc(qx::AudioConverterRef converter, uint32_t* ioNumberDataPackets,
                                        qx::AudioBufferList* ioData,
                                        qx::AudioStreamPacketDescription** outDataPacketDescription, void* inUserData);

    static constexpr int kStagingFrames = 8192;

private:
    // One packet; false when none came. While draining at the end, an
    // empty answer is expected and not logged.
    bool encodePacket(bool draining);
};

// The decoder specific info inside an ESDS magic cookie (after four bytes
// of version and flags when `versionFlags` is set). *buffer gets a new
// zero-padded copy (free() it) and *size its length; both stay empty when
// the cookie has no such descriptor. Returns 0.
int ReadESDSDescExt(const uint8_t* desc_ext, uint8_t** buffer, int* size, int versionFlags, size_t cookieSize);
