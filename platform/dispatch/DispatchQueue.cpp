#include "qxmedia/platform/dispatch/DispatchQueue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DispatchThreads.h"

namespace qx {

using detail::BlockingScope;
using detail::dispatchFatal;

class DispatchQueue : public std::enable_shared_from_this<DispatchQueue> {
public:
    explicit DispatchQueue(std::string label) : label_(std::move(label)) {}
    virtual ~DispatchQueue() = default;

    virtual void async(dispatch_block_t block) = 0;
    virtual void sync(const dispatch_block_t& block) = 0;
    virtual void barrierAsync(dispatch_block_t block) { async(std::move(block)); }
    virtual void barrierSync(const dispatch_block_t& block) { sync(block); }
    virtual bool isConcurrent() const = 0;

    const std::string& label() const { return label_; }

protected:
    const std::string label_;
};

namespace {

// The queues whose blocks the calling thread is inside of, innermost last.
// `exclusive` is set for serial queues and barriers.
struct Frame {
    const DispatchQueue* queue;
    bool exclusive;
};
thread_local std::vector<Frame> frames;

const Frame* findFrame(const DispatchQueue* queue)
{
    for (auto it = frames.rbegin(); it != frames.rend(); ++it) {
        if (it->queue == queue) return &*it;
    }
    return nullptr;
}

class FrameScope {
public:
    FrameScope(const DispatchQueue* queue, bool exclusive) { frames.push_back({queue, exclusive}); }
    ~FrameScope() { frames.pop_back(); }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;
};

// Runs `done` when it goes out of scope, also when a block throws.
template <typename F> class Finally {
public:
    explicit Finally(F done) : done_(std::move(done)) {}
    ~Finally() { done_(); }
    Finally(const Finally&) = delete;
    Finally& operator=(const Finally&) = delete;

private:
    F done_;
};

// A thread waiting in dispatch_sync until the queue lets it run.
struct Turn {
    std::mutex lock;
    std::condition_variable wake;
    bool granted = false;

    void grant()
    {
        std::lock_guard guard(lock);
        granted = true;
        wake.notify_one();
    }
    void wait()
    {
        BlockingScope blocking;
        std::unique_lock guard(lock);
        wake.wait(guard, [this] { return granted; });
    }
};

// One block at a time, in order. While it has work the queue holds a thread
// of the cache; dispatch_sync takes the queue over on the caller's thread.
class SerialQueue final : public DispatchQueue {
public:
    using DispatchQueue::DispatchQueue;

    bool isConcurrent() const override { return false; }

    void async(dispatch_block_t block) override
    {
        std::unique_lock guard(lock_);
        items_.push_back({std::move(block), nullptr});
        queued_.store(items_.size(), std::memory_order_release);
        if (active_) {
            if (!lingering_) return;
            // Notify after the unlock, so the woken thread does not run into
            // the held lock; the queue must outlive the call even if the
            // block lets go of its last owner.
            auto keep = shared_from_this();
            guard.unlock();
            wake_.notify_one();
            return;
        }
        active_ = true;
        guard.unlock();
        startDrain();
    }

    void sync(const dispatch_block_t& block) override
    {
        if (findFrame(this)) {
            dispatchFatal("dispatch_sync onto the serial queue \"%s\" from a block running on it would deadlock",
                          label_.c_str());
        }
        Turn turn;
        bool mustWait = false;
        {
            std::lock_guard guard(lock_);
            if (!active_) {
                active_ = true; // items_ is empty whenever the queue is inactive
            } else if (lingering_ && items_.empty()) {
                lingering_ = false; // take the queue over from its idle thread
                wake_.notify_one();
            } else {
                mustWait = true;
                items_.push_back({nullptr, &turn});
                queued_.store(items_.size(), std::memory_order_release);
            }
        }
        if (mustWait) turn.wait();
        Finally release([this] { releaseAfterSync(); });
        FrameScope frame(this, true);
        block();
    }

private:
    struct Item {
        dispatch_block_t block;
        Turn* turn; // set for a waiting dispatch_sync
    };

    void startDrain()
    {
        auto self = std::static_pointer_cast<SerialQueue>(shared_from_this());
        detail::ThreadCache::shared().run([self = std::move(self)] { self->drain(); });
    }

    void drain()
    {
        detail::setThreadName(label_);
        std::unique_lock lock(lock_);
        for (;;) {
            if (items_.empty()) {
                // In a pipeline the next block is usually on its way within
                // microseconds: look for it briefly before parking, so that
                // the producer's async needs no wake-up.
                lock.unlock();
                detail::spinBriefly([this] { return queued_.load(std::memory_order_acquire) != 0; });
                lock.lock();
            }
            if (items_.empty()) {
                // Keep the thread a moment: a wake-up here is cheaper than
                // borrowing a thread again.
                lingering_ = true;
                wake_.wait_for(lock, lingerTime, [this] { return !items_.empty() || !lingering_; });
                if (!lingering_) return; // a dispatch_sync owns the queue now
                lingering_ = false;
                if (items_.empty()) {
                    active_ = false;
                    return;
                }
            }
            Item item = std::move(items_.front());
            items_.pop_front();
            queued_.store(items_.size(), std::memory_order_release);
            lock.unlock();
            if (item.turn) {
                item.turn->grant(); // the waiting caller owns the queue now
                return;
            }
            {
                FrameScope frame(this, true);
                item.block();
            }
            item.block = nullptr;
            lock.lock();
        }
    }

    void releaseAfterSync()
    {
        {
            std::lock_guard guard(lock_);
            if (items_.empty()) {
                active_ = false;
                return;
            }
        }
        startDrain();
    }

    static constexpr auto lingerTime = std::chrono::milliseconds(2);

    std::mutex lock_;
    std::condition_variable wake_; // the lingering drain thread waits here
    std::deque<Item> items_;
    std::atomic<size_t> queued_ {0}; // items_.size(), readable without the lock
    bool active_ = false;    // a thread (or a dispatch_sync caller) owns the queue
    bool lingering_ = false; // the owning thread waits for more work
};

// Reads run side by side on the default pool (async) or on the caller's
// thread (sync); a barrier waits for the reads before it and runs alone.
// Entries queue in order behind a waiting barrier, except reads nested in a
// block of this queue, which run at once.
//
// The count of running reads and a gate share one atomic word: while no
// barrier runs or waits the gate is open and a read enters and leaves with
// one atomic operation each. Everything else goes through the lock.
class ConcurrentQueue final : public DispatchQueue {
public:
    using DispatchQueue::DispatchQueue;

    bool isConcurrent() const override { return true; }

    void async(dispatch_block_t block) override
    {
        if (tryEnterRead()) {
            submit(std::move(block), false);
            return;
        }
        enqueue({std::move(block), false, nullptr});
    }

    void barrierAsync(dispatch_block_t block) override { enqueue({std::move(block), true, nullptr}); }

    void sync(const dispatch_block_t& block) override
    {
        if (findFrame(this)) { // nested in a read or a barrier of this queue
            block();
            return;
        }
        if (!tryEnterRead()) {
            Turn turn;
            enqueue({nullptr, false, &turn});
            turn.wait();
        }
        Finally release([this] { exitRead(); });
        FrameScope frame(this, false);
        block();
    }

    void barrierSync(const dispatch_block_t& block) override
    {
        if (const Frame* frame = findFrame(this)) {
            if (!frame->exclusive) {
                dispatchFatal("dispatch_barrier_sync onto the queue \"%s\" from inside one of its reads would deadlock",
                              label_.c_str());
            }
            block(); // already alone on the queue
            return;
        }
        Turn turn;
        enqueue({nullptr, true, &turn});
        turn.wait();
        Finally release([this] { exitBarrier(); });
        FrameScope frame(this, true);
        block();
    }

private:
    static constexpr uint64_t readerMask = 0xffffffffull;
    static constexpr uint64_t gateClosed = 1ull << 32; // a barrier runs or entries wait

    struct Entry {
        dispatch_block_t block;
        bool barrier;
        Turn* turn; // set for a waiting dispatch_sync / dispatch_barrier_sync
    };

    bool tryEnterRead()
    {
        uint64_t state = state_.load(std::memory_order_acquire);
        while (!(state & gateClosed)) {
            if (state_.compare_exchange_weak(state, state + 1, std::memory_order_acq_rel)) return true;
        }
        return false;
    }

    void exitRead()
    {
        const uint64_t before = state_.fetch_sub(1, std::memory_order_acq_rel);
        if ((before & gateClosed) && (before & readerMask) == 1) { // the last read before a barrier
            std::lock_guard guard(lock_);
            drainLocked();
        }
    }

    void exitBarrier()
    {
        std::lock_guard guard(lock_);
        writer_ = false;
        drainLocked();
    }

    void enqueue(Entry entry)
    {
        std::lock_guard guard(lock_);
        pending_.push_back(std::move(entry));
        state_.fetch_or(gateClosed, std::memory_order_acq_rel);
        drainLocked();
    }

    void submit(dispatch_block_t block, bool barrier)
    {
        auto self = std::static_pointer_cast<ConcurrentQueue>(shared_from_this());
        auto run = [self = std::move(self), block = std::move(block), barrier]() mutable {
            {
                FrameScope frame(self.get(), barrier);
                block();
            }
            block = nullptr;
            if (barrier) {
                self->exitBarrier();
            } else {
                self->exitRead();
            }
        };
        detail::WorkerPool::forPriority(DISPATCH_QUEUE_PRIORITY_DEFAULT).submit(std::move(run), label_.c_str());
    }

    // Starts what may start now: reads up to the first barrier, or that
    // barrier once no read is running. Opens the gate when nothing waits.
    void drainLocked()
    {
        while (!pending_.empty() && !writer_) {
            Entry& entry = pending_.front();
            if (entry.barrier) {
                if (state_.load(std::memory_order_acquire) & readerMask) break;
                writer_ = true;
            } else {
                state_.fetch_add(1, std::memory_order_acq_rel);
            }
            Entry next = std::move(entry);
            pending_.pop_front();
            if (next.turn) {
                next.turn->grant();
            } else {
                submit(std::move(next.block), next.barrier);
            }
        }
        if (!writer_ && pending_.empty()) state_.fetch_and(~gateClosed, std::memory_order_acq_rel);
    }

    std::atomic<uint64_t> state_ {0}; // running reads, and gateClosed
    std::mutex lock_;
    std::deque<Entry> pending_;
    bool writer_ = false;
};

// A global queue hands its blocks to the pool of its priority; sync blocks
// run on the caller's thread.
class GlobalQueue final : public DispatchQueue {
public:
    GlobalQueue(std::string label, long priority) : DispatchQueue(std::move(label)), priority_(priority) {}

    bool isConcurrent() const override { return true; }

    void async(dispatch_block_t block) override
    {
        detail::WorkerPool::forPriority(priority_).submit(std::move(block), label_.c_str());
    }

    void sync(const dispatch_block_t& block) override
    {
        FrameScope frame(this, false);
        block();
    }

private:
    const long priority_;
};

// dispatch_apply on a concurrent queue: helpers and the caller take indexes
// from one counter. While indexes are left, one more helper waits in the
// queue, so iterations that block never hold up the rest: the pool starts the
// helper when a worker frees up or grows when they are all blocked. A helper
// that starts late finds no index left and touches only the shared state.
class ApplyState : public std::enable_shared_from_this<ApplyState> {
public:
    static void run(size_t iterations, const dispatch_queue_t& queue, const std::function<void(size_t)>& block)
    {
        auto state = std::make_shared<ApplyState>(iterations, queue, block);
        const size_t helpers = std::min<size_t>(iterations - 1, std::max(2u, std::thread::hardware_concurrency()) - 1);
        for (size_t i = 0; i < helpers; ++i) state->addHelper();
        queue->sync([&] { state->participate(); });
        BlockingScope blocking;
        std::unique_lock guard(state->lock_);
        state->allDone_.wait(guard, [&] { return state->done_ == state->iterations_; });
    }

    ApplyState(size_t iterations, dispatch_queue_t queue, const std::function<void(size_t)>& block)
        : iterations_(iterations), queue_(std::move(queue)), block_(&block)
    {
    }

private:
    void addHelper()
    {
        ++waitingHelpers_;
        queue_->async([self = shared_from_this()] {
            --self->waitingHelpers_;
            self->participate();
        });
    }

    void participate()
    {
        size_t count = 0;
        for (size_t i; (i = next_.fetch_add(1)) < iterations_; ++count) {
            if (i + 1 < iterations_ && waitingHelpers_ == 0) addHelper();
            (*block_)(i);
        }
        if (count == 0) return;
        std::lock_guard guard(lock_);
        done_ += count;
        if (done_ == iterations_) allDone_.notify_all();
    }

    const size_t iterations_;
    const dispatch_queue_t queue_;
    const std::function<void(size_t)>* block_; // valid until every index has run
    std::atomic<size_t> next_ {0};
    std::atomic<size_t> waitingHelpers_ {0};
    std::mutex lock_;
    std::condition_variable allDone_;
    size_t done_ = 0;
};

void checkQueue(const dispatch_queue_t& queue, const char* operation)
{
    if (!queue) dispatchFatal("%s with a null queue", operation);
}

} // namespace

dispatch_queue_t dispatch_queue_create(std::string_view label, dispatch_queue_attr_t attr)
{
    if (attr == DISPATCH_QUEUE_CONCURRENT) return std::make_shared<ConcurrentQueue>(std::string(label));
    return std::make_shared<SerialQueue>(std::string(label));
}

dispatch_queue_t dispatch_get_global_queue(long priority, unsigned long /*flags*/)
{
    static const dispatch_queue_t normal = std::make_shared<GlobalQueue>("qx.default", DISPATCH_QUEUE_PRIORITY_DEFAULT);
    static const dispatch_queue_t background =
        std::make_shared<GlobalQueue>("qx.background", DISPATCH_QUEUE_PRIORITY_BACKGROUND);
    return priority <= DISPATCH_QUEUE_PRIORITY_BACKGROUND ? background : normal;
}

const char* dispatch_queue_get_label(const dispatch_queue_t& queue)
{
    return queue ? queue->label().c_str() : "";
}

void dispatch_async(const dispatch_queue_t& queue, dispatch_block_t block)
{
    checkQueue(queue, "dispatch_async");
    queue->async(std::move(block));
}

void dispatch_sync(const dispatch_queue_t& queue, const dispatch_block_t& block)
{
    checkQueue(queue, "dispatch_sync");
    queue->sync(block);
}

void dispatch_barrier_async(const dispatch_queue_t& queue, dispatch_block_t block)
{
    checkQueue(queue, "dispatch_barrier_async");
    queue->barrierAsync(std::move(block));
}

void dispatch_barrier_sync(const dispatch_queue_t& queue, const dispatch_block_t& block)
{
    checkQueue(queue, "dispatch_barrier_sync");
    queue->barrierSync(block);
}

void dispatch_apply(size_t iterations, const dispatch_queue_t& queue, const std::function<void(size_t)>& block)
{
    checkQueue(queue, "dispatch_apply");
    if (iterations == 0) return;
    if (!queue->isConcurrent() || iterations == 1) {
        queue->sync([&] {
            for (size_t i = 0; i < iterations; ++i) block(i);
        });
        return;
    }
    ApplyState::run(iterations, queue, block);
}

bool dispatch_queue_is_current(const dispatch_queue_t& queue)
{
    return queue && findFrame(queue.get());
}

void dispatch_assert_queue(const dispatch_queue_t& queue)
{
    if (!dispatch_queue_is_current(queue)) {
        dispatchFatal("expected to run on the queue \"%s\"", dispatch_queue_get_label(queue));
    }
}

void dispatch_assert_queue_not(const dispatch_queue_t& queue)
{
    if (dispatch_queue_is_current(queue)) {
        dispatchFatal("expected not to run on the queue \"%s\"", dispatch_queue_get_label(queue));
    }
}

} // namespace qx
