#pragma once
// The outputs of a video track that is copied, not encoded. The coded data
// pass untouched; what they repair is the timing. Both hold a window of
// samples in decode order and give each sample a presentation time, a
// decode time, a duration and an output presentation time that rises
// steadily (the synchroniser tests that video advances by it).
//
// QXTrackReaderH264Output works from the timestamps alone; it serves every
// copied video track except the H.264 ones whose times cannot be trusted.
// QXTrackReaderH264DecoderOutput runs the decoder over the stream only to
// learn the display order and the reorder delay, for H.264 from AVI (each
// packet's time is its index) and from Video-for-Windows Matroska.

#include <array>
#include <cstdint>
#include <memory>

#include "qxmedia/reader/QXReaderCodec.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"

class QXTrackReaderH264Output : public QXTrackReaderOutput {
public:
    static std::shared_ptr<QXTrackReaderH264Output> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                   const std::shared_ptr<QXTrack>& destination);
    QXTrackReaderH264Output(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>& destination);

    void processSample(const qx::CMSampleBufferRef& sample) override;
    std::string description() const override;

    // Samples held back: a sample leaves when this many are queued.
    static constexpr int64_t kWindow = 32;
    // Decode times remembered, of the samples behind and ahead.
    static constexpr int64_t kTimestamps = 64;

    // Set while only samples without a decode time of their own have come.
    int8_t startup = 1;
    int32_t startupSamples = 0;
    int64_t readSampleId = 0;
    int64_t sampleId = 0;
    // Decode times of the samples taken in, by readSampleId modulo 64.
    std::array<qx::CMTime, kTimestamps> timestamps {};
    // The window in decode order, and the same samples by presentation time.
    qx::CMBufferQueueRef queue;
    qx::CMBufferQueueRef tsQueue;

private:
    void emitNext();
    // The n-th usable positive decode time of the table, or invalid.
    qx::CMTime positiveTimestamp(int32_t n) const;
    // True when `time` lies after every decode time of the table.
    bool beyondNewest(qx::CMTime time) const;
    // True when a presentation time this far from a decode time is jitter:
    // half a frame at most.
    bool isJitter(qx::CMTime difference) const;
    // The table slot closest to `time`, or -1.
    int closestSlot(qx::CMTime time, bool* exact) const;
    qx::CMTime averageDuration(qx::CMTime like) const;
};

class QXTrackReaderH264DecoderOutput : public QXTrackReaderOutput {
public:
    static std::shared_ptr<QXTrackReaderH264DecoderOutput> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                          const std::shared_ptr<QXTrack>& destination);
    QXTrackReaderH264DecoderOutput(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>& destination);
    ~QXTrackReaderH264DecoderOutput() override;

    void processSample(const qx::CMSampleBufferRef& sample) override;
    std::string description() const override;

    static constexpr int64_t kWindow = 16;
    static constexpr int64_t kPictures = 32;

    int32_t naturalTimeScale = 0;
    int64_t sampleId = 0;
    int64_t decodedSampleNumber = 0;
    // For a coded picture number modulo 32, its slot in pts.
    std::array<int32_t, kPictures> dts {};
    // Presentation times in display order, by decodedSampleNumber modulo 32.
    std::array<qx::CMTime, kPictures> pts {};
    qx::CMBufferQueueRef queue;
    // Sum of the durations given out.
    qx::CMTime duration = qx::kCMTimeZero;

    bool hasDecoder() const { return avctx_ != nullptr; }

private:
    void decode(const qx::CMSampleBufferRef& sample);
    void recordFrame(const AVFrame* frame);
    void emitNext();

    qx::AVCodecContextPtr avctx_;
    // Packets taken in, and their times in decode order.
    int64_t packetNumber_ = 0;
    std::array<int64_t, kPictures> packetTimes_ {};
};
