#pragma once
// What a sample channel needs of the stage behind it: the muxer input. The
// channel hands its pump block over once; the input runs it on the channel's
// queue whenever it wants more samples.

#include <functional>

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/dispatch/dispatch.h"

class QXMuxerInputProtocol {
public:
    virtual ~QXMuxerInputProtocol() = default;

    virtual bool isReadyForMoreMediaData() const = 0;
    // Stores the queue and the pull block; the input calls the block (on
    // that queue) each time it can take more.
    virtual void requestMediaDataWhenReadyOnQueue(qx::dispatch_queue_t queue, std::function<void()> block) = 0;
    // Takes a sample through the input's flow control. False once the muxer
    // behind has failed or was cancelled.
    virtual bool appendSampleBuffer(const qx::CMSampleBufferRef& sample) = 0;
    // Takes a sample (null: end of track) directly, bypassing the flow
    // control of appendSampleBuffer.
    virtual void processSample(const qx::CMSampleBufferRef& sample) = 0;
    virtual void markAsFinished() = 0;
};
