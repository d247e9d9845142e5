#pragma once
// QXMuxerRawTX3GInput: copies a tx3g subtitle track. Its samples already are
// tx3g text samples in the destination's timescale; the first one sets the
// track's time origin.

#include "qxmedia/muxer/QXMuxerInput.h"

class QXMuxerRawTX3GInput : public QXMuxerInput {
public:
    using QXMuxerInput::QXMuxerInput;

    using QXMuxerInput::initWritingToFileHandle;
    bool initWritingToFileHandle(QXErrorRef* error) override;
    void processSample(const qx::CMSampleBufferRef& sample) override;
};
