#include "qxmedia/reader/QXTrackReaderOutput.h"

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/reader/QXTrackReaderAudioOutput.h"
#include "qxmedia/reader/QXTrackReaderH264Output.h"
#include "qxmedia/reader/QXTrackReaderRawAudioOutput.h"
#include "qxmedia/reader/QXTrackReaderSubtitleOutput.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

// H.264 whose packet times are not presentation times: AVI stamps each
// packet with its index, and so does Video-for-Windows Matroska.
bool needsDecoderForTiming(const QXTrack& source)
{
    if (source.codec_id != AV_CODEC_ID_H264) return false;
    if (const auto* video = dynamic_cast<const QXVideoTrack*>(&source); video && video->brokenByMS) return true;
    const auto movie = source.source.lock();
    return movie && movie->format == "avi";
}

} // namespace

std::shared_ptr<QXTrackReaderOutput> QXTrackReaderOutput::initWithSource(const std::shared_ptr<QXTrack>& source,
                                                                         const std::shared_ptr<QXTrack>& destination,
                                                                         bool encode)
{
    // Decoding video has an output of its own still to come; it gets the
    // pass-through base meanwhile.
    const QXMediaType type = source ? source->mediaType() : nullptr;
    if (type == AVMediaTypeAudio && !encode) return QXTrackReaderRawAudioOutput::initWithSource(source, destination);
    if (type == AVMediaTypeAudio && encode) return QXTrackReaderAudioOutput::initWithSource(source, destination);
    if (type == AVMediaTypeVideo && !encode) {
        if (needsDecoderForTiming(*source)) return QXTrackReaderH264DecoderOutput::initWithSource(source, destination);
        return QXTrackReaderH264Output::initWithSource(source, destination);
    }
    if (type == AVMediaTypeSubtitle && !encode) return QXTrackReaderRawSubtitleOutput::initWithSource(source, destination);
    if (type == AVMediaTypeSubtitle && encode) return QXTrackReaderSubtitleOutput::initWithSource(source, destination);
    return initWithSource(source);
}

std::shared_ptr<QXTrackReaderOutput> QXTrackReaderOutput::initWithSource(const std::shared_ptr<QXTrack>& source)
{
    return makeFinished<QXTrackReaderOutput>(source);
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
