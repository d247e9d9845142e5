#include "DispatchThreads.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

namespace qx::detail {

namespace {

std::atomic<unsigned> idleTimeoutMs {5000};

// The pool the calling thread works for, and whether it is counted blocked.
thread_local WorkerPool* currentPool = nullptr;
thread_local bool countedBlocked = false;

// Pending work that makes no progress for this long is looked at.
constexpr auto watchdogTick = std::chrono::milliseconds(20);

class Watchdog {
public:
    static Watchdog& shared()
    {
        static Watchdog* watchdog = new Watchdog; // never destroyed: detached threads use it
        return *watchdog;
    }

    void add(WorkerPool* pool)
    {
        std::lock_guard guard(lock_);
        pools_.push_back(pool);
    }

    void kick()
    {
        {
            std::lock_guard guard(lock_);
            if (kicked_) return;
            kicked_ = true;
            if (!started_) {
                started_ = true;
                std::thread([this] { run(); }).detach();
            }
        }
        wake_.notify_one();
    }

private:
    void run()
    {
        setThreadName("qx.watchdog");
        std::unique_lock lock(lock_);
        for (;;) {
            wake_.wait(lock, [this] { return kicked_; });
            kicked_ = false;
            bool pending = true;
            while (pending && !kicked_) {
                lock.unlock();
                std::this_thread::sleep_for(watchdogTick);
                pending = false;
                for (WorkerPool* pool : pools()) pending = pool->watch() || pending;
                lock.lock();
            }
        }
    }

    std::vector<WorkerPool*> pools()
    {
        std::lock_guard guard(lock_);
        return pools_;
    }

    std::mutex lock_;
    std::condition_variable wake_;
    std::vector<WorkerPool*> pools_;
    bool kicked_ = false;
    bool started_ = false;
};

// 'R' when the thread runs or waits for a core; a blocked thread sleeps.
bool isRunnable(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return false;
    const size_t paren = line.rfind(')');
    return paren != std::string::npos && paren + 2 < line.size() && line[paren + 2] == 'R';
}

} // namespace

void dispatchFatal(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::fputs("qx::dispatch: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
    va_end(arguments);
    std::abort();
}

std::optional<std::chrono::steady_clock::time_point> deadlineOf(dispatch_time_t when)
{
    if (when == DISPATCH_TIME_FOREVER) return std::nullopt;
    if (when == DISPATCH_TIME_NOW) return std::chrono::steady_clock::now();
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(static_cast<int64_t>(when)));
}

void setThreadName(std::string_view name)
{
    thread_local std::string current;
    if (current == name) return;
    current = name;
    const std::string truncated(name.substr(0, 15));
    pthread_setname_np(pthread_self(), truncated.c_str());
}

std::chrono::milliseconds idleTimeout()
{
    return std::chrono::milliseconds(idleTimeoutMs.load(std::memory_order_relaxed));
}

// ThreadCache

ThreadCache& ThreadCache::shared()
{
    static ThreadCache* cache = new ThreadCache; // never destroyed: detached threads use it
    return *cache;
}

void ThreadCache::run(std::function<void()> job)
{
    {
        std::lock_guard guard(lock_);
        if (!idle_.empty()) {
            Idler* idler = idle_.back(); // the most recently used thread is the warmest
            idle_.pop_back();
            idler->job = std::move(job);
            idler->wake.notify_one();
            return;
        }
    }
    std::thread([this, job = std::move(job)]() mutable { threadMain(std::move(job)); }).detach();
}

void ThreadCache::threadMain(std::function<void()> job)
{
    Idler self;
    for (;;) {
        job();
        job = nullptr;
        std::unique_lock lock(lock_);
        idle_.push_back(&self);
        if (!self.wake.wait_for(lock, idleTimeout(), [&] { return bool(self.job); })) {
            idle_.erase(std::find(idle_.begin(), idle_.end(), &self));
            return;
        }
        job = std::move(self.job);
        self.job = nullptr;
    }
}

// WorkerPool

WorkerPool& WorkerPool::forPriority(long priority)
{
    // Never destroyed: detached workers use them until the process ends.
    static WorkerPool* normal = [] {
        auto* pool = new WorkerPool("qx.default", 0);
        Watchdog::shared().add(pool);
        return pool;
    }();
    static WorkerPool* background = [] {
        auto* pool = new WorkerPool("qx.background", 10);
        Watchdog::shared().add(pool);
        return pool;
    }();
    return priority <= DISPATCH_QUEUE_PRIORITY_BACKGROUND ? *background : *normal;
}

WorkerPool::WorkerPool(std::string name, int niceness)
    : name_(std::move(name)), niceness_(niceness), width_(std::max(2u, std::thread::hardware_concurrency()))
{
}

void WorkerPool::submit(std::function<void()> block, const char* threadName)
{
    std::unique_lock guard(lock_);
    items_.push_back({std::move(block), threadName});
    const bool wake = idle_ > 0;
    if (items_.size() > idle_) {
        if (busyLocked() < width_) {
            spawnLocked();
        } else {
            Watchdog::shared().kick();
        }
    }
    guard.unlock();
    if (wake) work_.notify_one(); // pools live for ever: safe after the unlock
}

dispatch_pool_stats WorkerPool::stats()
{
    std::lock_guard guard(lock_);
    return {threads_, idle_, blocked_, items_.size()};
}

void WorkerPool::spawnLocked()
{
    ++threads_;
    std::thread([this] { workerMain(); }).detach();
}

void WorkerPool::workerMain()
{
    currentPool = this;
    if (niceness_ != 0) setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), niceness_);
    const pid_t tid = gettid();
    std::unique_lock lock(lock_);
    workers_.push_back(tid);
    for (;;) {
        if (!items_.empty()) {
            Item item = std::move(items_.front());
            items_.pop_front();
            ++taken_;
            lock.unlock();
            setThreadName(item.threadName ? item.threadName : name_.c_str());
            item.block();
            item.block = nullptr; // captures die outside the lock
            lock.lock();
            continue;
        }
        ++idle_;
        const bool woken = work_.wait_for(lock, idleTimeout(), [this] { return !items_.empty(); });
        --idle_;
        if (!woken) break;
    }
    --threads_;
    workers_.erase(std::find(workers_.begin(), workers_.end(), tid));
    currentPool = nullptr;
}

void WorkerPool::blockingBegin()
{
    std::lock_guard guard(lock_);
    ++blocked_;
    if (items_.size() > idle_ && busyLocked() < width_) spawnLocked();
}

void WorkerPool::blockingEnd()
{
    std::lock_guard guard(lock_);
    --blocked_;
}

bool WorkerPool::watch()
{
    std::vector<pid_t> workers;
    {
        std::lock_guard guard(lock_);
        if (items_.empty()) return false;
        const bool progressed = taken_ != takenAtLastWatch_;
        takenAtLastWatch_ = taken_;
        if (progressed || idle_ > 0) return true;
        workers = workers_;
    }
    // Work waits although no worker took any for a whole tick: if fewer
    // workers than cores are runnable, the others are blocked outside
    // qx::dispatch (a mutex, I/O) and one more worker is due.
    const size_t runnable = std::count_if(workers.begin(), workers.end(), isRunnable);
    std::lock_guard guard(lock_);
    if (runnable < width_ && items_.size() > idle_) spawnLocked();
    return true;
}

// BlockingScope

BlockingScope::BlockingScope() : pool_(countedBlocked ? nullptr : currentPool)
{
    if (!pool_) return;
    countedBlocked = true;
    pool_->blockingBegin();
}

BlockingScope::~BlockingScope()
{
    if (!pool_) return;
    pool_->blockingEnd();
    countedBlocked = false;
}

} // namespace qx::detail

namespace qx {

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta)
{
    if (when == DISPATCH_TIME_FOREVER) return DISPATCH_TIME_FOREVER;
    if (when == DISPATCH_TIME_NOW) {
        const auto now = std::chrono::steady_clock::now().time_since_epoch();
        when = static_cast<dispatch_time_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
    }
    if (delta >= 0) {
        const uint64_t room = DISPATCH_TIME_FOREVER - 1 - when;
        return static_cast<uint64_t>(delta) >= room ? DISPATCH_TIME_FOREVER - 1 : when + static_cast<uint64_t>(delta);
    }
    const uint64_t back = static_cast<uint64_t>(-(delta + 1)) + 1;
    return back >= when ? 1 : when - back;
}

dispatch_pool_stats dispatch_get_pool_stats(long priority)
{
    return detail::WorkerPool::forPriority(priority).stats();
}

void dispatch_set_idle_timeout_ms(unsigned milliseconds)
{
    detail::idleTimeoutMs.store(milliseconds, std::memory_order_relaxed);
}

} // namespace qx
