#pragma once
// QXTrackReaderRawAudioOutput: the output of an audio track that is copied
// as it is (AC-3, AAC, ... into MP4). The coded packets pass unchanged with
// exact durations in PCM frames. AAC-LC and AC-3 frames have a fixed length,
// read from the stream's setup or the frame's header; packets of other
// codecs are decoded all the same, only to learn how many PCM frames each
// holds and when it plays. The current format lets silentSample encode a
// packet of silence that matches the stream.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "qxmedia/reader/QXCodedFrameLength.h"
#include "qxmedia/reader/QXReaderCodec.h"
#include "qxmedia/reader/QXTrackReaderAudioOutputProtocol.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"

class QXTrackReaderRawAudioOutput : public QXTrackReaderOutput, public QXTrackReaderAudioOutputProtocol {
public:
    // Never null: without a decoder the output stands all the same, and
    // delivers only the end of the stream.
    static std::shared_ptr<QXTrackReaderRawAudioOutput> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                       const std::shared_ptr<QXTrack>& destination);

    QXTrackReaderRawAudioOutput(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>& destination);
    ~QXTrackReaderRawAudioOutput() override;

    void processSample(const qx::CMSampleBufferRef& sample) override;
    qx::CMSampleBufferRef silentSample() override;
    std::string description() const override;

    // The timescale of the decoder's times: the destination's.
    int32_t naturalTimeScale = 0;
    // The stream's format as the latest decoded frame had it. Written while
    // processing, read by silentSample on another queue.
    std::atomic<int32_t> currentSampleFormat {-1};
    std::atomic<int32_t> currentSampleRate {0};
    std::atomic<int64_t> currentBitRate {0};
    // Channel mask; 0 when the layout has no mask.
    std::atomic<uint64_t> currentChannelLayout {0};
    // The channel count that goes with it, for layouts without a mask.
    std::atomic<int32_t> currentChannels {0};

    bool hasDecoder() const { return avctx_ != nullptr; }

private:
    // Hands the sample on with the length its header tells; false when the
    // header is not one a decoder would take.
    bool handOnMeasured(const qx::CMSampleBufferRef& sample);
    void handOn(const qx::CMSampleBufferRef& sample, qx::CMTime duration, qx::CMTime presentationTime);
    void takeFormat(int64_t bitRate, uint64_t layout, int32_t channels, int32_t format, int32_t rate);

    // Guards the decoder: processing decodes, silentSample reads its setup.
    std::mutex decoderLock_;
    qx::AVCodecContextPtr avctx_;
    // Set for codecs whose packets are measured without decoding.
    std::optional<QXCodedFrameLength> frameLength_;
    // The latest coded sample while the decoder has given no frame for it:
    // a decoder that holds a frame back gives it at the end.
    qx::CMSampleBufferRef unanswered_;
    // The length of the latest decoded frame, for a last sample that never
    // gets one of its own.
    qx::CMTime lastFrameDuration_ = qx::kCMTimeInvalid;
};
