// Costs of the threading layer against the plain standard-library tools that
// do the same job, measured in one binary so the ratios are comparable:
//   hop:    dispatch_async onto a serial queue whose block signals a
//           semaphore, and the wait for it; against a worker thread fed
//           through std::mutex + std::condition_variable.
//   stream: a stream of blocks through a serial queue with a semaphore of 4
//           as back-pressure; against a bounded queue of 4 with mutex + cv.
//   read:   dispatch_sync onto a concurrent queue; against std::shared_mutex.

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "qxmedia/platform/dispatch/dispatch.h"

using namespace qx;

namespace {

// A worker thread that runs posted jobs in order, with at most `limit` waiting.
class PlainWorker {
public:
    explicit PlainWorker(size_t limit) : limit_(limit), thread_([this] { run(); }) {}
    ~PlainWorker()
    {
        {
            std::lock_guard guard(lock_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

    void post(std::function<void()> job)
    {
        std::unique_lock guard(lock_);
        room_.wait(guard, [this] { return jobs_.size() < limit_; });
        jobs_.push_back(std::move(job));
        guard.unlock();
        wake_.notify_one();
    }

private:
    void run()
    {
        std::unique_lock guard(lock_);
        for (;;) {
            wake_.wait(guard, [this] { return stop_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            auto job = std::move(jobs_.front());
            jobs_.pop_front();
            guard.unlock();
            room_.notify_one();
            job();
            guard.lock();
        }
    }

    const size_t limit_;
    std::mutex lock_;
    std::condition_variable wake_;
    std::condition_variable room_;
    std::deque<std::function<void()>> jobs_;
    bool stop_ = false;
    std::thread thread_;
};

// A one-shot handshake with mutex + condition variable.
class PlainSignal {
public:
    void signal()
    {
        {
            std::lock_guard guard(lock_);
            ++count_;
        }
        wake_.notify_one();
    }
    void wait()
    {
        std::unique_lock guard(lock_);
        wake_.wait(guard, [this] { return count_ > 0; });
        --count_;
    }

private:
    std::mutex lock_;
    std::condition_variable wake_;
    long count_ = 0;
};

void BM_HopDispatch(benchmark::State& state)
{
    auto queue = dispatch_queue_create("bench.hop");
    auto done = dispatch_semaphore_create(0);
    for (auto _ : state) {
        dispatch_async(queue, [done] { dispatch_semaphore_signal(done); });
        dispatch_semaphore_wait(done, DISPATCH_TIME_FOREVER);
    }
}
BENCHMARK(BM_HopDispatch)->UseRealTime();

void BM_HopMutexCondvar(benchmark::State& state)
{
    PlainWorker worker(1u << 20);
    PlainSignal done;
    for (auto _ : state) {
        worker.post([&done] { done.signal(); });
        done.wait();
    }
}
BENCHMARK(BM_HopMutexCondvar)->UseRealTime();

void BM_StreamDispatch(benchmark::State& state)
{
    auto queue = dispatch_queue_create("bench.stream");
    auto room = dispatch_semaphore_create(4);
    long sum = 0;
    for (auto _ : state) {
        dispatch_semaphore_wait(room, DISPATCH_TIME_FOREVER);
        dispatch_async(queue, [room, &sum] {
            ++sum;
            dispatch_semaphore_signal(room);
        });
    }
    dispatch_sync(queue, [] {});
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_StreamDispatch)->UseRealTime();

void BM_StreamMutexCondvar(benchmark::State& state)
{
    long sum = 0;
    {
        PlainWorker worker(4);
        for (auto _ : state) worker.post([&sum] { ++sum; });
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_StreamMutexCondvar)->UseRealTime();

dispatch_queue_t readQueue = dispatch_queue_create("bench.read", DISPATCH_QUEUE_CONCURRENT);
std::shared_mutex readLock;
long readValue = 42;

void BM_ReadDispatchSync(benchmark::State& state)
{
    for (auto _ : state) {
        long value = 0;
        dispatch_sync(readQueue, [&] { value = readValue; });
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_ReadDispatchSync)->ThreadRange(1, 2)->UseRealTime();

void BM_ReadSharedMutex(benchmark::State& state)
{
    for (auto _ : state) {
        long value = 0;
        {
            std::shared_lock guard(readLock);
            value = readValue;
        }
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_ReadSharedMutex)->ThreadRange(1, 2)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
