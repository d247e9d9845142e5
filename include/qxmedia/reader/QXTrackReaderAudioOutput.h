#pragma once
// QXTrackReaderAudioOutput: the output of an audio track that is encoded
// anew. It decodes the track and converts every frame to what the encoder
// inputs take: planar float at the destination's rate, in mono, stereo
// (mixed down with a Dolby Pro Logic II matrix) or 5.1. A sample is one
// block of PCM: the channel planes one behind the other, each of frames x 4
// bytes, in FFmpeg's channel order, without a format description.
//
// The converter follows the input: it is made, or made anew, at the first
// frame whose rate, layout or format differs from the last set-up, and is
// not there at all while the decoder already delivers the wanted format.

#include <cstdint>
#include <memory>

#include "qxmedia/reader/QXReaderCodec.h"
#include "qxmedia/reader/QXTrackReaderAudioOutputProtocol.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"

struct AVCodec;
struct SwrContext;

class QXTrackReaderAudioOutput : public QXTrackReaderOutput, public QXTrackReaderAudioOutputProtocol {
public:
    // Never null: without a decoder the output stands all the same, and
    // delivers only the end of the stream.
    static std::shared_ptr<QXTrackReaderAudioOutput> initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                    const std::shared_ptr<QXTrack>& destination);

    QXTrackReaderAudioOutput(std::shared_ptr<QXTrack> source, const std::shared_ptr<QXTrack>& destination);
    ~QXTrackReaderAudioOutput() override;

    void processSample(const qx::CMSampleBufferRef& sample) override;
    // 1024 frames of silence in the delivered rate and layout.
    qx::CMSampleBufferRef silentSample() override;
    std::string description() const override;

    // Timescale of the presentation times: the destination's.
    int32_t naturalTimeScale = 0;
    // The rate this output delivers.
    int32_t sampleRate = 0;
    // The input of the current converter set-up; they start as the output's
    // own format, so input that has it needs no converter.
    int32_t lastSampleRate = 0;
    int32_t lastSampleFormat = 8; // AV_SAMPLE_FMT_FLTP
    // The layout this output delivers: mono, stereo or 5.1 (side).
    uint64_t channelLayout = 0;
    uint64_t lastChannelLayout = 0;

    bool hasDecoder() const { return avctx_ != nullptr; }
    bool hasConverter() const { return swr_ != nullptr; }

private:
    void openDecoder(const char* function);
    void deliver(AVFrame* frame);
    bool setUpConverter(uint64_t layout, int rate, int format);

    qx::AVCodecContextPtr avctx_;
    SwrContext* swr_ = nullptr;
};

// Tells the decoder which sample format it should prefer: `wanted` if the
// codec has it, else its packed or planar twin, else the codec's first.
void qx_ff_set_sample_fmt(AVCodecContext* context, const AVCodec* codec, int wanted);
