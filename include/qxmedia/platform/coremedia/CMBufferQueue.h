#pragma once
// CMBufferQueue: a thread-safe queue of sample buffers, kept in arrival
// order or, when the callbacks have a compare function, sorted by it. Equal
// elements keep their arrival order. Once end of data is marked, enqueueing
// is refused with kCMBufferQueueError_EnqueueAfterEndOfData, while dequeueing
// goes on until the queue is empty.
//
// Callbacks run under the queue's lock: they must not call back into the
// queue.

#include <deque>
#include <functional>
#include <memory>
#include <mutex>

#include "qxmedia/platform/coremedia/CMBase.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/foundation/CMTime.h"

namespace qx {

using CMBufferRef = CMSampleBufferRef;

class CMBufferQueue;
using CMBufferQueueRef = std::shared_ptr<CMBufferQueue>;

enum : OSStatus {
    kCMBufferQueueError_AllocationFailed = -12760,
    kCMBufferQueueError_RequiredParameterMissing = -12761,
    kCMBufferQueueError_InvalidCMBufferCallbacksStruct = -12762,
    kCMBufferQueueError_EnqueueAfterEndOfData = -12763,
    kCMBufferQueueError_QueueIsFull = -12764,
    kCMBufferQueueError_BadTriggerDuration = -12765,
    kCMBufferQueueError_CannotModifyQueueFromTriggerCallback = -12766,
    kCMBufferQueueError_InvalidTriggerCondition = -12767,
    kCMBufferQueueError_InvalidTriggerToken = -12768,
    kCMBufferQueueError_InvalidBuffer = -12769,
};

// Callbacks that tell the queue about its buffers. Any may be empty: a time
// callback that is missing makes the matching queue time invalid, a missing
// compare keeps arrival order, a missing isDataReady counts every buffer as
// ready. compare answers below 0, 0 or above 0 like CMTimeCompare.
struct CMBufferCallbacks {
    uint32_t version = 0;
    std::function<CMTime(const CMBufferRef& buf)> getDecodeTimeStamp;
    std::function<CMTime(const CMBufferRef& buf)> getPresentationTimeStamp;
    std::function<CMTime(const CMBufferRef& buf)> getDuration;
    std::function<bool(const CMBufferRef& buf)> isDataReady;
    std::function<int32_t(const CMBufferRef& buf1, const CMBufferRef& buf2)> compare;
    std::function<size_t(const CMBufferRef& buf)> getSize;
};

// Arrival order; times are the sample's own.
const CMBufferCallbacks* CMBufferQueueGetCallbacksForUnsortedSampleBuffers();
// Sorted by output presentation time; the times reported are output times.
const CMBufferCallbacks* CMBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS();

// capacity 0 means no limit; otherwise an enqueue into a full queue answers
// kCMBufferQueueError_QueueIsFull.
OSStatus CMBufferQueueCreate(CFAllocatorRef allocator, CMItemCount capacity, const CMBufferCallbacks* callbacks,
                             CMBufferQueueRef* queueOut);

OSStatus CMBufferQueueEnqueue(const CMBufferQueueRef& queue, const CMBufferRef& buf);
// The head, taken out of the queue; null when the queue is empty.
CMBufferRef CMBufferQueueDequeueAndRetain(const CMBufferQueueRef& queue);
// The head if its data are ready, else null.
CMBufferRef CMBufferQueueDequeueIfDataReadyAndRetain(const CMBufferQueueRef& queue);
// The head, left in the queue; null when empty.
CMBufferRef CMBufferQueueGetHead(const CMBufferQueueRef& queue);

// Times of the head; invalid when the queue is empty.
CMTime CMBufferQueueGetFirstPresentationTimeStamp(const CMBufferQueueRef& queue);
CMTime CMBufferQueueGetFirstDecodeTimeStamp(const CMBufferQueueRef& queue);
// The lowest presentation time in the queue; invalid when empty.
CMTime CMBufferQueueGetMinPresentationTimeStamp(const CMBufferQueueRef& queue);
// The sum of the valid durations; zero when empty.
CMTime CMBufferQueueGetDuration(const CMBufferQueueRef& queue);
size_t CMBufferQueueGetTotalSize(const CMBufferQueueRef& queue);
CMItemCount CMBufferQueueGetBufferCount(const CMBufferQueueRef& queue);
bool CMBufferQueueIsEmpty(const CMBufferQueueRef& queue);

OSStatus CMBufferQueueMarkEndOfData(const CMBufferQueueRef& queue);
// End of data is marked (whether or not buffers remain).
bool CMBufferQueueContainsEndOfData(const CMBufferQueueRef& queue);
// End of data is marked and every buffer has been taken.
bool CMBufferQueueIsAtEndOfData(const CMBufferQueueRef& queue);
// Empties the queue and clears the end-of-data mark.
OSStatus CMBufferQueueReset(const CMBufferQueueRef& queue);

class CMBufferQueue {
public:
    CMBufferQueue(CMItemCount capacity, const CMBufferCallbacks& callbacks);

    OSStatus enqueue(const CMBufferRef& buf);
    CMBufferRef dequeue(bool onlyIfDataReady);
    CMBufferRef head() const;
    CMTime firstTime(bool presentation) const;
    CMTime minPresentationTimeStamp() const;
    CMTime duration() const;
    size_t totalSize() const;
    CMItemCount count() const;
    void markEndOfData();
    bool containsEndOfData() const;
    bool isAtEndOfData() const;
    void reset();

private:
    const CMItemCount capacity_;
    const CMBufferCallbacks callbacks_;
    mutable std::mutex lock_;
    std::deque<CMBufferRef> buffers_;
    bool endOfData_ = false;
};

} // namespace qx
