#pragma once
// QXMuxerRawH264Input: the input of a copied H.264 or HEVC track. It declares
// the MP4 track with the source's parameter sets (avcC with four-byte NAL
// lengths, or a complete hvcC) and makes every sample length-prefixed:
// samples that begin with an Annex B start code (transport streams, raw
// elementary streams) are rewritten, in place when the lengths match.

#include "qxmedia/muxer/QXMuxerChapterInput.h"

class QXMuxerRawH264Input : public QXMuxerChapterInput {
public:
    using QXMuxerChapterInput::QXMuxerChapterInput;

    using QXMuxerInput::initWritingToFileHandle;
    bool initWritingToFileHandle(QXErrorRef* error) override;
    void processSample(const qx::CMSampleBufferRef& sample) override;

    // The sample in length-prefixed form: itself when it is not Annex B or
    // when the rewrite keeps its length, else a new sample with the same
    // timing, format and attachments.
    static qx::CMSampleBufferRef copyLengthPrefixedSample(const qx::CMSampleBufferRef& sample);

private:
    uint32_t addH264Track();
    uint32_t addHEVCTrack();
};
