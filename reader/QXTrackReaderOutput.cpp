#include "qxmedia/reader/QXTrackReaderOutput.h"

#include "qxmedia/core/QXMedia.h"

using namespace qx;

std::shared_ptr<QXTrackReaderOutput> QXTrackReaderOutput::initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                         const std::shared_ptr<QXTrack>&, bool)
{
    // The decoding, copying and converting outputs choose by media type and
    // encode flag; until they exist every use gets the pass-through base.
    return initWithSource(source);
}

std::shared_ptr<QXTrackReaderOutput> QXTrackReaderOutput::initWithSource(const std::shared_ptr<QXTrack>& source)
{
    auto output = std::make_shared<QXTrackReaderOutput>(source);
    output->finishInit();
    return output;
}

QXTrackReaderOutput::QXTrackReaderOutput(std::shared_ptr<QXTrack> source)
    : track(std::move(source)),
      processSemaphore(dispatch_semaphore_create(kQueuedSamples)),
      samplesSemaphore(dispatch_semaphore_create(0)),
      samplesCountSemaphore(dispatch_semaphore_create(kQueuedSamples))
{
    if (OSStatus status = CMBufferQueueCreate(nullptr, 0, CMBufferQueueGetCallbacksForUnsortedSampleBuffers(), &samples);
        status != 0) {
        QXLogWarning("Failed to create buffer queue: %d", int(status));
    }
}

void QXTrackReaderOutput::finishInit()
{
    processQueue = dispatch_queue_create((description() + " process queue").c_str(), DISPATCH_QUEUE_SERIAL);
}

std::string QXTrackReaderOutput::description() const
{
    return "<QXTrackReaderOutput " + (track ? track->description() : std::string("(no track)")) + ">";
}

void QXTrackReaderOutput::outputSample(const CMSampleBufferRef& sample)
{
    dispatch_semaphore_wait(processSemaphore, DISPATCH_TIME_FOREVER);
    auto self = shared_from_this();
    dispatch_async(processQueue, [self, sample] {
        self->processSample(sample);
        dispatch_semaphore_signal(self->processSemaphore);
    });
}

void QXTrackReaderOutput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        finished_.store(true, std::memory_order_release);
        dispatch_semaphore_signal(samplesSemaphore);
        return;
    }
    dispatch_semaphore_wait(samplesCountSemaphore, DISPATCH_TIME_FOREVER);
    if (OSStatus status = CMBufferQueueEnqueue(samples, sample); status != 0) {
        QXLogWarning("Failed to enqueue sample in %d: %s!", int(status), description().c_str());
        dispatch_semaphore_signal(samplesCountSemaphore);
    }
    dispatch_semaphore_signal(samplesSemaphore);
}

CMSampleBufferRef QXTrackReaderOutput::copyNextSample()
{
    if (finished() && CMBufferQueueIsEmpty(samples)) return nullptr;
    dispatch_semaphore_wait(samplesSemaphore, DISPATCH_TIME_FOREVER);
    CMSampleBufferRef sample = CMBufferQueueDequeueAndRetain(samples);
    if (!sample) return nullptr;
    dispatch_semaphore_signal(samplesCountSemaphore);
    return sample;
}
