#include "qxmedia/platform/dispatch/DispatchSemaphore.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "DispatchThreads.h"

namespace qx {

// The count lives in an atomic so that a wait that finds a count and a
// signal that finds no waiter never take the lock. A negative count is the
// number of waiters; `wakeups_` are the signals handed to them.
class DispatchSemaphore : public std::enable_shared_from_this<DispatchSemaphore> {
public:
    explicit DispatchSemaphore(long value) : value_(value) {}

    long wait(dispatch_time_t timeout)
    {
        // A pipeline stage usually gets its count back within microseconds:
        // look for it briefly before going to sleep on the condition.
        if (timeout == DISPATCH_TIME_FOREVER) {
            detail::spinBriefly([this] { return value_.load(std::memory_order_acquire) > 0; });
        }
        if (value_.fetch_sub(1, std::memory_order_acq_rel) > 0) return 0;
        const auto deadline = detail::deadlineOf(timeout);
        detail::BlockingScope blocking;
        std::unique_lock lock(lock_);
        auto signalled = [this] { return wakeups_ > 0; };
        if (!deadline) {
            wakeup_.wait(lock, signalled);
        } else if (!wakeup_.wait_until(lock, *deadline, signalled)) {
            // Give our place back, unless a signal already counted on us:
            // then its wakeup is on its way and is ours to take.
            long value = value_.load(std::memory_order_acquire);
            while (value < 0) {
                if (value_.compare_exchange_weak(value, value + 1, std::memory_order_acq_rel)) return 1;
            }
            wakeup_.wait(lock, signalled);
        }
        --wakeups_;
        return 0;
    }

    // A batch of counts wakes its waiters together: given one by one, each
    // count would wake the consumer, which takes that one sample and parks
    // again while the producer is switched out.
    long signal(long count = 1)
    {
        const long before = value_.fetch_add(count, std::memory_order_acq_rel);
        const long woken = std::min(count, std::max(-before, 0L));
        if (woken == 0) return 0;
        // The woken waiter may drop the last owner of the semaphore at once.
        auto keep = shared_from_this();
        {
            std::lock_guard guard(lock_);
            wakeups_ += woken;
        }
        // Outside the lock, so the waiter does not wake into it.
        if (woken == 1) {
            wakeup_.notify_one();
        } else {
            wakeup_.notify_all();
        }
        return woken;
    }

private:
    std::atomic<long> value_;
    std::mutex lock_;
    std::condition_variable wakeup_;
    long wakeups_ = 0;
};

dispatch_semaphore_t dispatch_semaphore_create(long value)
{
    if (value < 0) return nullptr;
    return std::make_shared<DispatchSemaphore>(value);
}

long dispatch_semaphore_wait(const dispatch_semaphore_t& semaphore, dispatch_time_t timeout)
{
    if (!semaphore) detail::dispatchFatal("dispatch_semaphore_wait with a null semaphore");
    return semaphore->wait(timeout);
}

long dispatch_semaphore_signal(const dispatch_semaphore_t& semaphore)
{
    if (!semaphore) detail::dispatchFatal("dispatch_semaphore_signal with a null semaphore");
    return semaphore->signal();
}

long dispatch_semaphore_signal_count(const dispatch_semaphore_t& semaphore, long count)
{
    if (!semaphore) detail::dispatchFatal("dispatch_semaphore_signal_count with a null semaphore");
    return count > 0 ? semaphore->signal(count) : 0;
}

} // namespace qx
