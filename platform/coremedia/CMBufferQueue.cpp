#include "qxmedia/platform/coremedia/CMBufferQueue.h"

#include <algorithm>

namespace qx {

const CMBufferCallbacks* CMBufferQueueGetCallbacksForUnsortedSampleBuffers()
{
    static const CMBufferCallbacks callbacks {
        0,
        [](const CMBufferRef& buf) { return CMSampleBufferGetDecodeTimeStamp(buf); },
        [](const CMBufferRef& buf) { return CMSampleBufferGetPresentationTimeStamp(buf); },
        [](const CMBufferRef& buf) { return CMSampleBufferGetDuration(buf); },
        [](const CMBufferRef& buf) { return CMSampleBufferDataIsReady(buf); },
        nullptr,
        [](const CMBufferRef& buf) { return CMSampleBufferGetTotalSampleSize(buf); },
    };
    return &callbacks;
}

const CMBufferCallbacks* CMBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS()
{
    static const CMBufferCallbacks callbacks {
        0,
        [](const CMBufferRef& buf) { return CMSampleBufferGetOutputDecodeTimeStamp(buf); },
        [](const CMBufferRef& buf) { return CMSampleBufferGetOutputPresentationTimeStamp(buf); },
        [](const CMBufferRef& buf) { return CMSampleBufferGetOutputDuration(buf); },
        [](const CMBufferRef& buf) { return CMSampleBufferDataIsReady(buf); },
        [](const CMBufferRef& a, const CMBufferRef& b) {
            return CMTimeCompare(CMSampleBufferGetOutputPresentationTimeStamp(a),
                                 CMSampleBufferGetOutputPresentationTimeStamp(b));
        },
        [](const CMBufferRef& buf) { return CMSampleBufferGetTotalSampleSize(buf); },
    };
    return &callbacks;
}

OSStatus CMBufferQueueCreate(CFAllocatorRef, CMItemCount capacity, const CMBufferCallbacks* callbacks,
                             CMBufferQueueRef* queueOut)
{
    if (!queueOut || !callbacks) return kCMBufferQueueError_RequiredParameterMissing;
    queueOut->reset();
    if (capacity < 0 || callbacks->version != 0) return kCMBufferQueueError_InvalidCMBufferCallbacksStruct;
    *queueOut = std::make_shared<CMBufferQueue>(capacity, *callbacks);
    return 0;
}

CMBufferQueue::CMBufferQueue(CMItemCount capacity, const CMBufferCallbacks& callbacks)
    : capacity_(capacity), callbacks_(callbacks)
{
}

OSStatus CMBufferQueue::enqueue(const CMBufferRef& buf)
{
    if (!buf) return kCMBufferQueueError_InvalidBuffer;
    std::lock_guard lock(lock_);
    if (endOfData_) return kCMBufferQueueError_EnqueueAfterEndOfData;
    if (capacity_ > 0 && CMItemCount(buffers_.size()) >= capacity_) return kCMBufferQueueError_QueueIsFull;
    if (!callbacks_.compare || buffers_.empty() || callbacks_.compare(buffers_.back(), buf) <= 0) {
        buffers_.push_back(buf); // the usual case: arrival in order
    } else {
        // After every element that is not greater, so equal ones keep their
        // arrival order.
        auto position = std::upper_bound(buffers_.begin(), buffers_.end(), buf,
                                         [this](const CMBufferRef& a, const CMBufferRef& b) {
                                             return callbacks_.compare(a, b) < 0;
                                         });
        buffers_.insert(position, buf);
    }
    return 0;
}

CMBufferRef CMBufferQueue::dequeue(bool onlyIfDataReady)
{
    std::lock_guard lock(lock_);
    if (buffers_.empty()) return nullptr;
    if (onlyIfDataReady && callbacks_.isDataReady && !callbacks_.isDataReady(buffers_.front())) return nullptr;
    CMBufferRef buf = std::move(buffers_.front());
    buffers_.pop_front();
    return buf;
}

CMBufferRef CMBufferQueue::head() const
{
    std::lock_guard lock(lock_);
    return buffers_.empty() ? nullptr : buffers_.front();
}

CMTime CMBufferQueue::firstTime(bool presentation) const
{
    std::lock_guard lock(lock_);
    const auto& get = presentation ? callbacks_.getPresentationTimeStamp : callbacks_.getDecodeTimeStamp;
    if (buffers_.empty() || !get) return kCMTimeInvalid;
    return get(buffers_.front());
}

CMTime CMBufferQueue::minPresentationTimeStamp() const
{
    std::lock_guard lock(lock_);
    if (!callbacks_.getPresentationTimeStamp) return kCMTimeInvalid;
    CMTime minimum = kCMTimeInvalid;
    for (const CMBufferRef& buf : buffers_) {
        const CMTime time = callbacks_.getPresentationTimeStamp(buf);
        if (CMTIME_IS_VALID(time) && (!CMTIME_IS_VALID(minimum) || CMTimeCompare(time, minimum) < 0)) minimum = time;
    }
    return minimum;
}

CMTime CMBufferQueue::duration() const
{
    std::lock_guard lock(lock_);
    CMTime total = kCMTimeZero;
    if (!callbacks_.getDuration) return total;
    for (const CMBufferRef& buf : buffers_) {
        const CMTime time = callbacks_.getDuration(buf);
        if (CMTIME_IS_NUMERIC(time)) total = CMTimeAdd(total, time);
    }
    return total;
}

size_t CMBufferQueue::totalSize() const
{
    std::lock_guard lock(lock_);
    size_t total = 0;
    if (callbacks_.getSize) {
        for (const CMBufferRef& buf : buffers_) total += callbacks_.getSize(buf);
    }
    return total;
}

CMItemCount CMBufferQueue::count() const
{
    std::lock_guard lock(lock_);
    return CMItemCount(buffers_.size());
}

void CMBufferQueue::markEndOfData()
{
    std::lock_guard lock(lock_);
    endOfData_ = true;
}

bool CMBufferQueue::containsEndOfData() const
{
    std::lock_guard lock(lock_);
    return endOfData_;
}

bool CMBufferQueue::isAtEndOfData() const
{
    std::lock_guard lock(lock_);
    return endOfData_ && buffers_.empty();
}

void CMBufferQueue::reset()
{
    std::deque<CMBufferRef> doomed; // released outside the lock
    std::lock_guard lock(lock_);
    doomed.swap(buffers_);
    endOfData_ = false;
}

OSStatus CMBufferQueueEnqueue(const CMBufferQueueRef& queue, const CMBufferRef& buf)
{
    return queue ? queue->enqueue(buf) : kCMBufferQueueError_RequiredParameterMissing;
}

CMBufferRef CMBufferQueueDequeueAndRetain(const CMBufferQueueRef& queue)
{
    return queue ? queue->dequeue(false) : nullptr;
}

CMBufferRef CMBufferQueueDequeueIfDataReadyAndRetain(const CMBufferQueueRef& queue)
{
    return queue ? queue->dequeue(true) : nullptr;
}

CMBufferRef CMBufferQueueGetHead(const CMBufferQueueRef& queue) { return queue ? queue->head() : nullptr; }

CMTime CMBufferQueueGetFirstPresentationTimeStamp(const CMBufferQueueRef& queue)
{
    return queue ? queue->firstTime(true) : kCMTimeInvalid;
}

CMTime CMBufferQueueGetFirstDecodeTimeStamp(const CMBufferQueueRef& queue)
{
    return queue ? queue->firstTime(false) : kCMTimeInvalid;
}

CMTime CMBufferQueueGetMinPresentationTimeStamp(const CMBufferQueueRef& queue)
{
    return queue ? queue->minPresentationTimeStamp() : kCMTimeInvalid;
}

CMTime CMBufferQueueGetDuration(const CMBufferQueueRef& queue) { return queue ? queue->duration() : kCMTimeInvalid; }

size_t CMBufferQueueGetTotalSize(const CMBufferQueueRef& queue) { return queue ? queue->totalSize() : 0; }

CMItemCount CMBufferQueueGetBufferCount(const CMBufferQueueRef& queue) { return queue ? queue->count() : 0; }

bool CMBufferQueueIsEmpty(const CMBufferQueueRef& queue) { return !queue || queue->count() == 0; }

OSStatus CMBufferQueueMarkEndOfData(const CMBufferQueueRef& queue)
{
    if (!queue) return kCMBufferQueueError_RequiredParameterMissing;
    queue->markEndOfData();
    return 0;
}

bool CMBufferQueueContainsEndOfData(const CMBufferQueueRef& queue) { return queue && queue->containsEndOfData(); }

bool CMBufferQueueIsAtEndOfData(const CMBufferQueueRef& queue) { return queue && queue->isAtEndOfData(); }

OSStatus CMBufferQueueReset(const CMBufferQueueRef& queue)
{
    if (!queue) return kCMBufferQueueError_RequiredParameterMissing;
    queue->reset();
    return 0;
}

} // namespace qx
