#include "qxmedia/reader/QXTrackReaderOutput.h"

#include <algorithm>
#include <cmath>

extern "C" {
#include <libavcodec/codec_par.h>
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

QXTrackReaderOutput::QXTrackReaderOutput(std::shared_ptr<QXTrack> source, long length)
    : track(std::move(source)),
      // A full stage wakes its producer for a quarter of its length at a
      // time, not for every sample taken.
      processSemaphore(dispatch_semaphore_create_batched(length, length / 4)),
      samplesSemaphore(dispatch_semaphore_create(0)),
      samplesCountSemaphore(dispatch_semaphore_create_batched(length, length / 4)),
      queueLength(length)
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

namespace {

thread_local QXTrackReaderOutput::Run* currentRun = nullptr;

} // namespace

QXTrackReaderOutput::Run::Run() : outer_(currentRun)
{
    currentRun = this;
}

QXTrackReaderOutput::Run::~Run()
{
    handOn();
    currentRun = outer_;
}

void QXTrackReaderOutput::Run::handOn()
{
    for (const auto& output : holding_) output->handOnHeld();
    holding_.clear();
}

void QXTrackReaderOutput::Run::handOnCurrent()
{
    if (currentRun) currentRun->handOn();
}

void QXTrackReaderOutput::outputSample(const CMSampleBufferRef& sample)
{
    Run* run = currentRun;
    // The end goes at once, behind everything held.
    if (!sample && run) run->handOn();
    if (dispatch_semaphore_wait(processSemaphore, DISPATCH_TIME_NOW) != 0) {
        Run::handOnCurrent();
        dispatch_semaphore_wait(processSemaphore, DISPATCH_TIME_FOREVER);
    }
    const size_t bytes = sampleBytes(sample);
    const bool picture = CMSampleBufferGetImageBuffer(sample) != nullptr;
    if (!tryReserveBytes(processingBytes_, bytes, picture)) {
        Run::handOnCurrent();
        reserveBytes(processingBytes_, bytes, picture);
    }
    if (run && sample) {
        if (held_.empty()) run->holding_.push_back(shared_from_this());
        held_.push_back({sample, bytes});
        return;
    }
    auto self = shared_from_this();
    dispatch_async(processQueue, [self, sample, bytes] {
        self->processSample(sample);
        self->releaseBytes(self->processingBytes_, bytes);
        dispatch_semaphore_signal(self->processSemaphore);
    });
}

void QXTrackReaderOutput::handOnHeld()
{
    if (held_.empty()) return;
    auto self = shared_from_this();
    dispatch_async(processQueue, [self, held = std::move(held_)] {
        // The channel learns of the run's finished samples at its end, and
        // wakes once for them.
        self->deferSignals_ = true;
        for (const HeldSample& each : held) {
            self->processSample(each.sample);
            self->releaseBytes(self->processingBytes_, each.bytes);
            dispatch_semaphore_signal(self->processSemaphore);
        }
        self->deferSignals_ = false;
        self->signalDeferred();
    });
    held_.clear();
}

void QXTrackReaderOutput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        signalDeferred();
        finished_.store(true, std::memory_order_release);
        dispatch_semaphore_signal(samplesSemaphore);
        return;
    }
    // Before waiting for the channel, tell it what is already there.
    if (dispatch_semaphore_wait(samplesCountSemaphore, DISPATCH_TIME_NOW) != 0) {
        signalDeferred();
        dispatch_semaphore_wait(samplesCountSemaphore, DISPATCH_TIME_FOREVER);
    }
    const size_t bytes = sampleBytes(sample);
    const bool picture = CMSampleBufferGetImageBuffer(sample) != nullptr;
    if (!tryReserveBytes(queuedBytes_, bytes, picture)) {
        signalDeferred();
        reserveBytes(queuedBytes_, bytes, picture);
    }
    if (OSStatus status = CMBufferQueueEnqueue(samples, sample); status != 0) {
        QXLogWarning("Failed to enqueue sample in %d: %s!", int(status), description().c_str());
        releaseBytes(queuedBytes_, bytes);
        dispatch_semaphore_signal(samplesCountSemaphore);
    }
    if (deferSignals_) {
        ++deferredSignals_;
    } else {
        dispatch_semaphore_signal(samplesSemaphore);
    }
}

void QXTrackReaderOutput::signalDeferred()
{
    dispatch_semaphore_signal_count(samplesSemaphore, deferredSignals_);
    deferredSignals_ = 0;
}

CMSampleBufferRef QXTrackReaderOutput::copyNextSample()
{
    if (finished() && CMBufferQueueIsEmpty(samples)) return nullptr;
    dispatch_semaphore_wait(samplesSemaphore, DISPATCH_TIME_FOREVER);
    CMSampleBufferRef sample = CMBufferQueueDequeueAndRetain(samples);
    if (!sample) return nullptr;
    releaseBytes(queuedBytes_, sampleBytes(sample));
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

long QXTrackReaderOutput::queueLengthForSeconds(const QXTrack& track, double seconds)
{
    const AVCodecParameters* parameters = track.codecParameters();
    if (track.mediaType() != AVMediaTypeAudio || !parameters || parameters->sample_rate <= 0) return kQueuedSamples;
    // A codec without a fixed frame length is counted as AAC's 1024.
    const int frameLength = parameters->frame_size > 0 ? parameters->frame_size : 1024;
    const auto frames = long(std::ceil(seconds * parameters->sample_rate / frameLength));
    return std::clamp(frames, 16L, kQueuedSamples);
}

size_t QXTrackReaderOutput::queuedBytes() const
{
    std::lock_guard hold(bytesLock_);
    return queuedBytes_.used;
}

size_t QXTrackReaderOutput::processingBytes() const
{
    std::lock_guard hold(bytesLock_);
    return processingBytes_.used;
}

void QXTrackReaderOutput::reserveBytes(ByteBound& bound, size_t bytes, bool picture)
{
    const size_t limit = picture ? bound.pictureLimit : bound.codedLimit;
    std::unique_lock hold(bytesLock_);
    bytesReleased_.wait(hold, [&] { return bound.used == 0 || bound.used + bytes <= limit; });
    bound.used += bytes;
}

bool QXTrackReaderOutput::tryReserveBytes(ByteBound& bound, size_t bytes, bool picture)
{
    const size_t limit = picture ? bound.pictureLimit : bound.codedLimit;
    std::lock_guard hold(bytesLock_);
    if (bound.used != 0 && bound.used + bytes > limit) return false;
    bound.used += bytes;
    return true;
}

void QXTrackReaderOutput::releaseBytes(ByteBound& bound, size_t bytes)
{
    {
        std::lock_guard hold(bytesLock_);
        bound.used -= std::min(bytes, bound.used);
    }
    bytesReleased_.notify_all();
}
