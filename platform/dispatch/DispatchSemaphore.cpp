#include "qxmedia/platform/dispatch/DispatchSemaphore.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "DispatchThreads.h"

namespace qx {

// The count lives in an atomic so that a wait that finds a count and a
// signal that finds no waiter never take the lock. A negative count is the
// number of waiters; `wakeups_` are the signals handed to them.
//
// With a wake batch, counts that fall to a sleeping waiter are "owed" to it
// and handed over once the free counts reach the batch; a waiter takes an
// owed count by itself after kOwedWait, so a consumer that stops early never
// strands it.
class DispatchSemaphore : public std::enable_shared_from_this<DispatchSemaphore> {
public:
    explicit DispatchSemaphore(long value, long wakeBatch = 1) : value_(value), batch_(wakeBatch) {}

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
        if (batch_ > 1) return waitBatched(lock, deadline.has_value(), deadline.value_or(kNever));
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
        if (batch_ > 1) return signalBatched(count);
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
    static constexpr auto kOwedWait = std::chrono::milliseconds(5);
    static constexpr auto kNever = std::chrono::steady_clock::time_point::max();

    // Wakes at least every kOwedWait to take a count owed to it, so that a
    // consumer that stops before the batch is free never strands it.
    long waitBatched(std::unique_lock<std::mutex>& lock, bool expires, std::chrono::steady_clock::time_point deadline)
    {
        for (;;) {
            if (wakeups_ > 0) {
                --wakeups_;
                return 0;
            }
            auto until = std::chrono::steady_clock::now() + kOwedWait;
            if (expires) until = std::min(until, deadline);
            if (wakeup_.wait_until(lock, until) != std::cv_status::timeout) continue;
            if (owed_ > 0) {
                takeOwed(1);
                return 0;
            }
            if (expires && std::chrono::steady_clock::now() >= deadline) {
                // Give our place back, unless a signal already counted on
                // us: then its count is on its way, and ours.
                long value = value_.load();
                while (value < 0) {
                    if (value_.compare_exchange_weak(value, value + 1)) return 1;
                }
                expires = false;
            }
        }
    }

    long signalBatched(long count)
    {
        const long before = value_.fetch_add(count);
        const long owed = std::min(count, std::max(-before, 0L));
        if (owed == 0 && owedHint_.load() == 0) return 0;
        auto keep = shared_from_this();
        std::unique_lock lock(lock_);
        owed_ += owed;
        // Published before the free counts are read: a signal that missed
        // it has raised them, and this check sees that.
        owedHint_.store(owed_);
        if (owed_ == 0 || value_.load() + owed_ < batch_) return 0;
        const long woken = owed_;
        wakeups_ += woken;
        takeOwed(owed_);
        lock.unlock();
        wakeup_.notify_all();
        return woken;
    }

    // With lock_ held.
    void takeOwed(long count)
    {
        owed_ -= count;
        owedHint_.store(owed_);
    }

    std::atomic<long> value_;
    const long batch_;
    std::mutex lock_;
    std::condition_variable wakeup_;
    long wakeups_ = 0;
    long owed_ = 0;                  // counts given to sleeping waiters, not yet handed over
    std::atomic<long> owedHint_ {0}; // owed_, readable without the lock
};

dispatch_semaphore_t dispatch_semaphore_create(long value)
{
    if (value < 0) return nullptr;
    return std::make_shared<DispatchSemaphore>(value);
}

dispatch_semaphore_t dispatch_semaphore_create_batched(long value, long wakeBatch)
{
    if (value < 0) return nullptr;
    return std::make_shared<DispatchSemaphore>(value, std::max(wakeBatch, 1L));
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
