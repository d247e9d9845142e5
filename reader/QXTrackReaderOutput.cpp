#include "qxmedia/reader/QXTrackReaderOutput.h"

#include <algorithm>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/reader/QXTrackReaderAudioOutput.h"
#include "qxmedia/reader/QXTrackReaderH264Output.h"
#include "qxmedia/reader/QXTrackReaderRawAudioOutput.h"
#include "qxmedia/reader/QXTrackReaderSubtitleOutput.h"
#include "qxmedia/reader/QXTrackReaderVideoOutput.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
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
    // Every kind of track has an output of its own; the pass-through base is
    // what a track nothing else takes gets.
    const QXMediaType type = source ? source->mediaType() : nullptr;
    if (type == AVMediaTypeAudio && !encode) return QXTrackReaderRawAudioOutput::initWithSource(source, destination);
    if (type == AVMediaTypeAudio && encode) return QXTrackReaderAudioOutput::initWithSource(source, destination);
    if (type == AVMediaTypeVideo && !encode) {
        if (needsDecoderForTiming(*source)) return QXTrackReaderH264DecoderOutput::initWithSource(source, destination);
        return QXTrackReaderH264Output::initWithSource(source, destination);
    }
    if (type == AVMediaTypeSubtitle && !encode) return QXTrackReaderRawSubtitleOutput::initWithSource(source, destination);
    if (type == AVMediaTypeSubtitle && encode) return QXTrackReaderSubtitleOutput::initWithSource(source, destination);
    if (type == AVMediaTypeVideo && encode) return QXTrackReaderVideoOutput::initWithSource(source, destination);
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
    const size_t bytes = sampleBytes(sample);
    reserveBytes(bytes);
    if (OSStatus status = CMBufferQueueEnqueue(samples, sample); status != 0) {
        QXLogWarning("Failed to enqueue sample in %d: %s!", int(status), description().c_str());
        releaseBytes(bytes);
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
    releaseBytes(sampleBytes(sample));
    dispatch_semaphore_signal(samplesCountSemaphore);
    return sample;
}

size_t QXTrackReaderOutput::sampleBytes(const CMSampleBufferRef& sample)
{
    if (!sample) return 0;
    if (CVPixelBufferRef picture = CMSampleBufferGetImageBuffer(sample)) {
        size_t bytes = 0;
        for (size_t plane = 0; plane < CVPixelBufferGetPlaneCount(picture); ++plane) {
            bytes += CVPixelBufferGetBytesPerRowOfPlane(picture, plane) * CVPixelBufferGetHeightOfPlane(picture, plane);
        }
        return bytes;
    }
    const CMBlockBufferRef data = CMSampleBufferGetDataBuffer(sample);
    return data ? CMBlockBufferGetDataLength(data) : 0;
}

size_t QXTrackReaderOutput::queuedBytes() const
{
    std::lock_guard hold(bytesLock_);
    return queuedBytes_;
}

void QXTrackReaderOutput::reserveBytes(size_t bytes)
{
    std::unique_lock hold(bytesLock_);
    bytesReleased_.wait(hold, [&] { return queuedBytes_ == 0 || queuedBytes_ + bytes <= kQueuedBytes; });
    queuedBytes_ += bytes;
}

void QXTrackReaderOutput::releaseBytes(size_t bytes)
{
    {
        std::lock_guard hold(bytesLock_);
        queuedBytes_ -= std::min(bytes, queuedBytes_);
    }
    bytesReleased_.notify_all();
}
