#pragma once
// Threads behind qx::dispatch (private to the module): the cache of threads
// that serial queues borrow, the elastic worker pools of the global queues,
// and the bookkeeping of blocked workers.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "qxmedia/platform/dispatch/DispatchQueue.h"
#include "qxmedia/platform/dispatch/DispatchTime.h"

namespace qx::detail {

// Prints "qx::dispatch: <message>" to stderr and aborts.
// Spins on the processor until ready() or a microsecond or two have passed:
// within a burst of work a hand-over between pipeline stages arrives that
// fast, and catching it saves a futex wake-up and a context switch. Longer
// spins and yield loops were tried and dropped: they burn processor time
// that encoders and the read loop need, and on two cores the yields turn
// into a storm of context switches. True when ready() became true.
template <class Ready>
bool spinBriefly(Ready ready)
{
    for (int spin = 0; spin < 64; ++spin) {
        if (ready()) return true;
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    return ready();
}

[[noreturn]] void dispatchFatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The monotonic deadline of a dispatch time; nothing for FOREVER.
std::optional<std::chrono::steady_clock::time_point> deadlineOf(dispatch_time_t when);

// Names the calling thread (first 15 bytes), skipping the system call when
// the name is already the same.
void setThreadName(std::string_view name);

std::chrono::milliseconds idleTimeout();

// Threads lent to one job each (a serial queue's drain); a finished thread
// waits for the next job and exits after the idle timeout.
class ThreadCache {
public:
    static ThreadCache& shared();
    void run(std::function<void()> job);

private:
    struct Idler {
        std::condition_variable wake;
        std::function<void()> job;
    };
    void threadMain(std::function<void()> job);

    std::mutex lock_;
    std::vector<Idler*> idle_;
};

// The workers of one global queue. About one busy worker per core; a worker
// that blocks in a dispatch wait makes room for another; a watchdog adds one
// when pending work stalls while fewer workers than cores are runnable.
class WorkerPool {
public:
    static WorkerPool& forPriority(long priority);

    void submit(std::function<void()> block, const char* threadName);
    dispatch_pool_stats stats();

    void blockingBegin();
    void blockingEnd();
    // Called by the watchdog every tick; false when nothing is pending.
    bool watch();

private:
    WorkerPool(std::string name, int niceness);
    struct Item {
        std::function<void()> block;
        const char* threadName;
    };
    void spawnLocked();
    void workerMain();
    size_t busyLocked() const { return threads_ - idle_ - blocked_; }

    const std::string name_;
    const int niceness_;
    const size_t width_;
    std::mutex lock_;
    std::condition_variable work_;
    std::deque<Item> items_;
    std::vector<pid_t> workers_; // thread ids, for the watchdog's look at /proc
    size_t threads_ = 0;
    size_t idle_ = 0;
    size_t blocked_ = 0;
    uint64_t taken_ = 0;
    uint64_t takenAtLastWatch_ = 0;
};

// Marks the calling thread as blocked while it waits, when it is a worker of
// a global queue (no effect on other threads).
class BlockingScope {
public:
    BlockingScope();
    ~BlockingScope();
    BlockingScope(const BlockingScope&) = delete;
    BlockingScope& operator=(const BlockingScope&) = delete;

private:
    WorkerPool* pool_;
};

} // namespace qx::detail
