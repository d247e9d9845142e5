#pragma once
// QXTrackReaderSubtitleOutput: a subtitle track that is not tx3g yet becomes
// tx3g samples. Text subtitles go through FFmpeg's decoder to ASS dialogue
// and QXTX3GSampleFromDialogue; bitmap subtitles (DVD, PGS, DVB) are read by
// OCR on a pool of recognition engines, pictures in parallel, samples in
// order. The timeline is made seamless: each sample is held until the next
// one settles its end, an overlap is cut at the next start and a gap gets an
// empty sample, and a last empty sample of one tick closes the track.
//
// QXTrackReaderRawSubtitleOutput: a tx3g track that is copied. The bytes stay
// as they are; the timeline is repaired the other way round (a sample that
// starts inside the previous one loses its beginning, or is dropped).

#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "qxmedia/platform/codecs/ASSSplit.h"
#include "qxmedia/platform/vision/QXTextRecognition.h"
#include "qxmedia/reader/QXReaderCodec.h"
#include "qxmedia/reader/QXTX3GTextWriter.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXSubtitleTrack.h"

struct AVSubtitleRect;

class QXTrackReaderSubtitleOutput : public QXTrackReaderOutput {
public:
    static std::shared_ptr<QXTrackReaderSubtitleOutput> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                       const std::shared_ptr<QXTrack>& destination);
    QXTrackReaderSubtitleOutput(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>& destination);
    ~QXTrackReaderSubtitleOutput() override;

    void processSample(const qx::CMSampleBufferRef& sample) override;
    std::string description() const override;

    // The picture of a bitmap rectangle in the form recognition reads.
    static qx::QXTextImage imageOfRect(const AVSubtitleRect& rect);
    static std::vector<uint8_t> subtitleFromString(const std::string& text, bool forced);
    void addEmptySampleAtTimestamp(qx::CMTime timestamp, qx::CMTime duration);

    int8_t obeySubtitleFormatting = 0;
    uint64_t sourceWidth = 0, sourceHeight = 0;
    uint64_t destinationWidth = 0, destinationHeight = 0;
    std::shared_ptr<QXSubtitleTrack> destination;
    qx::AVCodecContextPtr avctx;
    qx::CMSampleBufferRef bufferedSubtitle;
    std::shared_ptr<qx::ASSSplitContext> ass_ctx;

    // Pictures handed to recognition before their sample is made; at most
    // this many per engine wait, so the pool stays busy and memory bounded.
    static constexpr size_t kPicturesPerEngine = 3;

private:
    // One decoded source sample on its way to a tx3g sample: pieces of
    // bytes in order, some still being recognised.
    struct Piece {
        std::vector<uint8_t> bytes;
        std::future<std::string> text;
        bool forced = false;
    };
    struct Pending {
        qx::CMTime presentation;
        qx::CMTime duration;
        std::vector<Piece> pieces;
    };

    bool decode(const qx::CMSampleBufferRef& sample, Pending& pending);
    qx::QXTextRecognitionPool& recognitionPool();
    // Finishes the waiting samples in order: those whose pictures are read,
    // or all of them when `all`; the oldest is waited for when too many wait.
    void finishPending(bool all);
    void joinTimeline(const qx::CMSampleBufferRef& sample);

    std::unique_ptr<qx::QXTextRecognitionPool> pool_;
    std::deque<Pending> pending_;
};

class QXTrackReaderRawSubtitleOutput : public QXTrackReaderOutput {
public:
    static std::shared_ptr<QXTrackReaderRawSubtitleOutput> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                          const std::shared_ptr<QXTrack>& destination);
    QXTrackReaderRawSubtitleOutput(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>& destination);

    void processSample(const qx::CMSampleBufferRef& sample) override;
    void addEmptySampleAtTimestamp(qx::CMTime timestamp, qx::CMTime duration);
    std::string description() const override;

    int32_t timescale = 0;
    qx::CMTime previousEnd = qx::kCMTimeZero;
};

// A sample of tx3g bytes with one timing entry (decode time invalid).
qx::CMSampleBufferRef QXTX3GSampleBuffer(const std::vector<uint8_t>& bytes, qx::CMTime presentation,
                                         qx::CMTime duration);
