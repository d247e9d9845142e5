#pragma once
// QXTrackReaderVideoOutput: the output of a video track that is encoded
// anew. It decodes the track and brings every picture to the destination's
// size in 8-bit planar 4:2:0 (10-bit and other formats are converted on the
// way), wrapped in a pixel buffer that carries the source's colour
// description: 'f420' for full-range pictures, 'y420' otherwise. A picture
// waits until the next one is decoded, since its duration is the distance
// to the next presentation time; the last gets the average of all.

#include <cstdint>
#include <memory>

#include "qxmedia/reader/QXReaderCodec.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"

struct SwsContext;

class QXTrackReaderVideoOutput : public QXTrackReaderOutput {
public:
    // Never null: without a decoder the output stands all the same, and
    // delivers only the end of the stream.
    static std::shared_ptr<QXTrackReaderVideoOutput> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                    const std::shared_ptr<QXTrack>& destination);
    QXTrackReaderVideoOutput(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>& destination);
    ~QXTrackReaderVideoOutput() override;

    void processSample(const qx::CMSampleBufferRef& sample) override;
    // Makes one image sample of a decoded frame and lets the picture before
    // it go with its duration.
    void processFrame(const AVFrame* frame);
    std::string description() const override;

    bool hasDecoder() const { return codecContext_ != nullptr; }

    uint32_t sampleId = 0; // pictures made so far
    int32_t swsWidth = 0;
    int32_t swsHeight = 0;
    int32_t naturalTimeScale = 0;
    qx::CMSampleBufferRef previousSample; // waits for its duration
    const char* ycbcrMatrix = nullptr;
    const char* colorPrimaries = nullptr;
    const char* transferFunction = nullptr;
    qx::CMTime duration = qx::kCMTimeInvalid; // of the pictures given out so far

private:
    void receiveFrames(bool draining);
    void finish();
    void handOn(qx::CMSampleBufferRef sample);

    qx::AVCodecContextPtr codecContext_;
    SwsContext* scaleContext_ = nullptr;
};
