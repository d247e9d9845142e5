#include "qxmedia/muxer/QXMuxerInput.h"

#include <cmath>
#include <cstdio>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/muxer/QXMuxer.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

CMTime decodeTimeOrPresentationTime(const CMSampleBufferRef& sample)
{
    CMTime time = CMSampleBufferGetDecodeTimeStamp(sample);
    return CMTIME_IS_VALID(time) ? time : CMSampleBufferGetPresentationTimeStamp(sample);
}

} // namespace

QXMuxerInput::QXMuxerInput(std::shared_ptr<QXTrackReaderOutput> sourceOutput, std::shared_ptr<QXTrack> destinationTrack)
    : source(std::move(sourceOutput)),
      destination(std::move(destinationTrack)),
      inputGroup(dispatch_group_create()),
      // Woken for a few samples at a time when full.
      inputSemaphore(dispatch_semaphore_create_batched(kSamplesInFlight, kSamplesInFlight / 3)),
      outputSemaphore(dispatch_semaphore_create_batched(kSamplesInFlight, kSamplesInFlight / 3))
{
}

QXMuxerInput::~QXMuxerInput() = default;

void QXMuxerInput::finishInit()
{
    processQueue = dispatch_queue_create(description() + " process queue", DISPATCH_QUEUE_SERIAL);
}

std::string QXMuxerInput::description() const
{
    char text[64];
    std::snprintf(text, sizeof text, "<QXMuxerInput: %p>", static_cast<const void*>(this));
    return destination ? std::string(text) + " " + destination->description() : std::string(text);
}

bool QXMuxerInput::initWritingToFileHandle(const std::shared_ptr<mp4::MP4File>& handle, const dispatch_queue_t& queue,
                                           QXErrorRef* error)
{
    file = handle;
    muxerQueue = queue;
    return initWritingToFileHandle(error);
}

// ---------------------------------------------------------------------------
// The pull block and the start

void QXMuxerInput::requestMediaDataWhenReadyOnQueue(dispatch_queue_t queue, std::function<void()> block)
{
    std::lock_guard guard(sourceLock_);
    inputQueue = std::move(queue);
    samplesSource_ = std::move(block);
}

// A run that is queued and has not begun serves every request made before
// it begins, so no second one is queued: the pump keeps running while
// samples are written, and a run per written sample would pile up behind it
// for the length of the file.
void QXMuxerInput::requestMediaData()
{
    dispatch_queue_t queue;
    std::function<void()> block;
    {
        std::lock_guard guard(sourceLock_);
        queue = inputQueue;
        block = samplesSource_;
    }
    if (!queue || !block || pullPending_.exchange(true)) return;
    auto self = shared_from_this();
    dispatch_group_async(inputGroup, queue, [self, block = std::move(block)] {
        self->pullPending_ = false;
        block();
    });
}

void QXMuxerInput::startProcessingOnGroup(const dispatch_group_t& group, const std::shared_ptr<QXMuxer>& owner)
{
    muxer = owner;
    // Left by markAsFinished.
    dispatch_group_enter(inputGroup);
    status = QXMuxerInputStatusProcessing;
    requestMediaData();
    dispatch_group_enter(group);
    auto self = shared_from_this();
    dispatch_group_notify(inputGroup, processQueue, [self, group] {
        self->status = QXMuxerInputStatusFinished;
        // Nothing is pulled any more; the pull block may hold the channel.
        {
            std::lock_guard guard(self->sourceLock_);
            self->samplesSource_ = nullptr;
        }
        dispatch_group_leave(group);
    });
}

void QXMuxerInput::markAsFinished()
{
    if (status == QXMuxerInputStatusIdle || finishMarked_.exchange(true)) return;
    // Queued into the group before the start's entry is left, so the input
    // finishes only after this flush.
    if (muxerQueue) {
        auto self = shared_from_this();
        dispatch_group_async(inputGroup, processQueue, [self] { self->processSample(nullptr); });
    }
    if (status == QXMuxerInputStatusProcessing) dispatch_group_leave(inputGroup);
}

// ---------------------------------------------------------------------------
// The flow of a sample

bool QXMuxerInput::appendSampleBuffer(const CMSampleBufferRef& sample)
{
    if (sample && processesOnChannelQueue()) {
        processSample(sample);
    } else if (sample) {
        dispatch_semaphore_wait(inputSemaphore, DISPATCH_TIME_FOREVER);
        auto self = shared_from_this();
        dispatch_group_async(inputGroup, processQueue, [self, sample] {
            self->processSample(sample);
            dispatch_semaphore_signal(self->inputSemaphore);
        });
    }
    std::shared_ptr<QXMuxer> owner = muxer.lock();
    return !owner || owner->status < QXMuxerStatusFailed;
}

void QXMuxerInput::processSample(const CMSampleBufferRef& sample)
{
    if (!sample) {
        // The end of the track: the held video sample keeps the duration
        // it came with.
        if (delayedSample) {
            finishedProcessingSample(delayedSample);
            delayedSample.reset();
        }
        return;
    }
    if (destination->mediaType() != AVMediaTypeVideo) {
        finishedProcessingSample(sample);
        return;
    }
    if (!delayedSample) {
        delayedSample = sample;
        return;
    }
    // A video sample lasts until the decode time of the next one.
    const CMTime next = CMSampleBufferGetDecodeTimeStamp(sample);
    const CMTime held = CMSampleBufferGetDecodeTimeStamp(delayedSample);
    if (!CMTIME_IS_VALID(next) || !CMTIME_IS_VALID(held)) {
        finishedProcessingSample(delayedSample);
    } else {
        const CMTime duration = CMTimeSubtract(next, held);
        if (CMTimeCompare(duration, kCMTimeZero) < 0) {
            QXLogWarning("Invalid new duration: %s, ignoring sample!", CMTimeCopyDescription(duration).c_str());
            return;
        }
        const CMSampleTimingInfo timing {duration, CMSampleBufferGetPresentationTimeStamp(delayedSample), held};
        CMSampleBufferRef timed;
        if (CMSampleBufferCreateCopyWithNewTiming(nullptr, delayedSample, 1, &timing, &timed) == 0) {
            finishedProcessingSample(timed);
        } else {
            finishedProcessingSample(delayedSample);
        }
    }
    delayedSample = sample;
}

void QXMuxerInput::finishedProcessingSample(const CMSampleBufferRef& sample)
{
    dispatch_semaphore_wait(outputSemaphore, DISPATCH_TIME_FOREVER);
    auto self = shared_from_this();
    dispatch_group_async(inputGroup, muxerQueue, [self, sample] {
        if (auto owner = self->muxer.lock()) owner->writeSample(sample, self->destination->trackID);
        self->lastTimestamp = decodeTimeOrPresentationTime(sample);
        if (self->status < QXMuxerInputStatusFinished) self->requestMediaData();
        dispatch_semaphore_signal(self->outputSemaphore);
    });
}

void QXMuxerInput::performOutputBlock(std::function<void()> block)
{
    dispatch_semaphore_wait(outputSemaphore, DISPATCH_TIME_FOREVER);
    auto self = shared_from_this();
    dispatch_group_async(inputGroup, muxerQueue, [self, block = std::move(block)] {
        block();
        dispatch_semaphore_signal(self->outputSemaphore);
    });
}

// ---------------------------------------------------------------------------
// The file

bool QXMuxerInput::tuneTrackDurationPerChunk()
{
    if (!file) return false;
    const uint32_t trackId = uint32_t(destination->trackID);
    const mp4::MP4Track* track = file->track(trackId);
    const uint32_t timescale = track ? track->timeScale() : 0;
    std::optional<uint64_t> chunk;
    if (trackId == 1) {
        // 4.5 frames of the first video track. A track without a frame rate
        // gets no chunk length.
        auto video = std::dynamic_pointer_cast<QXVideoTrack>(destination);
        if (video && video->frameRate.num > 0 && video->frameRate.den > 0) {
            const double frameDuration = double(video->frameRate.den) / double(video->frameRate.num);
            chunk = uint64_t(std::ceil(double(timescale) * frameDuration * 4.5));
        }
    } else {
        // The same length in time as track 1's chunks.
        const mp4::MP4Track* first = file->track(1);
        const uint32_t firstTimescale = first ? first->timeScale() : 0;
        const uint64_t firstChunk = file->trackDurationPerChunk(1);
        if (firstTimescale != 0 && firstChunk != UINT64_MAX) {
            chunk = uint64_t(std::ceil(double(firstChunk) * double(timescale) / double(firstTimescale)));
        }
    }
    if (timescale != 0 && chunk) return file->setTrackDurationPerChunk(trackId, *chunk);
    return false;
}

void QXMuxerInput::writeInitDelay()
{
    if (!CMTIME_IS_VALID(offset) || !file) return;
    const uint32_t trackId = uint32_t(destination->trackID);
    mp4::MP4Track* track = file->track(trackId);
    if (!track) return;
    const int32_t movieTimescale = int32_t(file->timeScale());
    const int64_t trackDuration = int64_t(file->convertFromTrackDuration(trackId, track->duration()));
    const int64_t delay = CMTimeConvertScale(offset, movieTimescale, kCMTimeRoundingMethod_RoundHalfAwayFromZero).value;
    const int sign = CMTimeCompare(offset, kCMTimeZero);
    if (sign > 0) {
        // The track starts late: an empty edit first.
        track->addEdit(-1, uint64_t(delay));
        track->addEdit(0, uint64_t(trackDuration));
    } else if (sign < 0) {
        // The track starts early: its first part is cut.
        const int64_t mediaStart =
            CMTimeConvertScale(offset, int32_t(track->timeScale()), kCMTimeRoundingMethod_RoundHalfAwayFromZero).value;
        track->addEdit(-mediaStart, uint64_t(trackDuration - delay));
    }
}
