// Serial and global queues: order, exclusion, names, no starvation, the growing pool, apply, once.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include <pthread.h>

#include "DispatchTestSupport.h"
#include "qxmedia/platform/dispatch/dispatch.h"

using namespace qx;
using qxtest::inSeconds;

namespace {

std::string currentThreadName()
{
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

} // namespace

TEST(DispatchSerialQueue, BlocksFromManyThreadsRunOneAtATimeInTheirOrder)
{
    auto queue = dispatch_queue_create("qx.test.serial");
    constexpr int threads = 4, count = 2000;
    // Touched only on the queue and without a lock: TSan and the shared
    // counter catch blocks that overlap.
    std::vector<std::vector<int>> seen(threads);
    long total = 0;
    std::vector<std::thread> submitters;
    for (int t = 0; t < threads; ++t) {
        submitters.emplace_back([&, t] {
            for (int i = 0; i < count; ++i) {
                if (i % 500 == 499) { // a sync sees every earlier block of its thread
                    dispatch_sync(queue, [&, t, i] {
                        EXPECT_EQ(seen[t].size(), static_cast<size_t>(i));
                        seen[t].push_back(i);
                        ++total;
                    });
                } else {
                    dispatch_async(queue, [&, t, i] {
                        seen[t].push_back(i);
                        ++total;
                    });
                }
            }
        });
    }
    for (auto& submitter : submitters) submitter.join();
    std::vector<std::vector<int>> copy;
    dispatch_sync(queue, [&] { copy = seen; });
    EXPECT_EQ(total, threads * count);
    std::vector<int> expected(count);
    std::iota(expected.begin(), expected.end(), 0);
    for (const auto& order : copy) EXPECT_EQ(order, expected);
}

TEST(DispatchSerialQueue, ThreadCarriesTheQueueNameAndKnowsItsQueue)
{
    auto queue = dispatch_queue_create("qx.test.a-rather-long-queue-name");
    auto other = dispatch_queue_create("qx.test.other");
    EXPECT_STREQ(dispatch_queue_get_label(queue), "qx.test.a-rather-long-queue-name");
    std::promise<std::string> name;
    std::promise<std::pair<bool, bool>> current;
    dispatch_async(queue, [&] {
        name.set_value(currentThreadName());
        // Nested sync onto another queue: both count as current inside it.
        bool inner = false;
        dispatch_sync(other, [&] { inner = dispatch_queue_is_current(queue) && dispatch_queue_is_current(other); });
        current.set_value({dispatch_queue_is_current(queue), inner});
    });
    EXPECT_EQ(name.get_future().get(), "qx.test.a-rathe");
    EXPECT_EQ(current.get_future().get(), std::make_pair(true, true));
    EXPECT_FALSE(dispatch_queue_is_current(queue));
}

TEST(DispatchSerialQueue, BlockedQueuesDoNotStarveOthers)
{
    // Forty serial queues each block until the last one runs: only possible
    // if every queue with work has a thread of its own.
    constexpr int queues = 40;
    auto gate = dispatch_semaphore_create(0);
    auto done = dispatch_semaphore_create(0);
    std::vector<dispatch_queue_t> keep;
    for (int i = 0; i < queues; ++i) {
        auto queue = dispatch_queue_create("qx.test.blocked");
        keep.push_back(queue);
        dispatch_async(queue, [gate, done] {
            EXPECT_EQ(dispatch_semaphore_wait(gate, inSeconds(20)), 0);
            dispatch_semaphore_signal(done);
        });
    }
    auto opener = dispatch_queue_create("qx.test.opener");
    dispatch_async(opener, [gate] {
        for (int i = 0; i < queues; ++i) dispatch_semaphore_signal(gate);
    });
    for (int i = 0; i < queues; ++i) ASSERT_EQ(dispatch_semaphore_wait(done, inSeconds(20)), 0);
}

TEST(DispatchSerialQueue, QueueLivesWhileItHasWork)
{
    auto done = dispatch_semaphore_create(0);
    std::atomic<int> ran {0};
    {
        auto queue = dispatch_queue_create("qx.test.orphan");
        for (int i = 0; i < 100; ++i) dispatch_async(queue, [&ran] { ++ran; });
        dispatch_async(queue, [done] { dispatch_semaphore_signal(done); });
    }
    ASSERT_EQ(dispatch_semaphore_wait(done, inSeconds(10)), 0);
    EXPECT_EQ(ran.load(), 100);
}

TEST(DispatchSerialQueueDeathTest, SyncOntoTheRunningQueueAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto queue = dispatch_queue_create("qx.test.self");
    EXPECT_DEATH(dispatch_sync(queue, [&] { dispatch_sync(queue, [] {}); }),
                 "dispatch_sync onto the serial queue \"qx.test.self\" from a block running on it would deadlock");
    // Also through another queue in between.
    auto middle = dispatch_queue_create("qx.test.middle");
    EXPECT_DEATH(dispatch_sync(queue, [&] { dispatch_sync(middle, [&] { dispatch_sync(queue, [] {}); }); }),
                 "would deadlock");
    EXPECT_DEATH(dispatch_assert_queue(queue), "expected to run on the queue \"qx.test.self\"");
}

TEST(DispatchGlobalQueue, PoolGrowsWhileBlocksBlockAndShrinksWhenIdle)
{
    dispatch_set_idle_timeout_ms(200);
    // Every block waits until all of them have started: a pool of fixed size
    // would deadlock here.
    constexpr int blocks = 150;
    auto arrived = dispatch_semaphore_create(0);
    auto release = dispatch_semaphore_create(0);
    auto group = dispatch_group_create();
    auto global = dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
    for (int i = 0; i < blocks; ++i) {
        dispatch_group_async(group, global, [arrived, release] {
            dispatch_semaphore_signal(arrived);
            EXPECT_EQ(dispatch_semaphore_wait(release, inSeconds(30)), 0);
        });
    }
    for (int i = 0; i < blocks; ++i) ASSERT_EQ(dispatch_semaphore_wait(arrived, inSeconds(30)), 0) << i;
    EXPECT_TRUE(qxtest::eventually(
        [] { return dispatch_get_pool_stats(DISPATCH_QUEUE_PRIORITY_DEFAULT).blocked >= static_cast<size_t>(blocks); }));
    for (int i = 0; i < blocks; ++i) dispatch_semaphore_signal(release);
    ASSERT_EQ(dispatch_group_wait(group, inSeconds(30)), 0);
    EXPECT_TRUE(qxtest::eventually([] { return dispatch_get_pool_stats(DISPATCH_QUEUE_PRIORITY_DEFAULT).threads < 8; }))
        << dispatch_get_pool_stats(DISPATCH_QUEUE_PRIORITY_DEFAULT).threads << " threads stayed";
    dispatch_set_idle_timeout_ms(5000);
}

TEST(DispatchGlobalQueue, PoolGrowsWhenWorkersBlockOutsideDispatch)
{
    // Workers blocked on a std::future are invisible to the pool's own
    // bookkeeping; the stalled block behind them must still start.
    std::promise<void> open;
    std::shared_future<void> opened = open.get_future().share();
    auto group = dispatch_group_create();
    auto global = dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
    const int blockers = static_cast<int>(std::max(2u, std::thread::hardware_concurrency())) + 2;
    for (int i = 0; i < blockers; ++i) dispatch_group_async(group, global, [opened] { opened.wait(); });
    dispatch_group_async(group, global, [&open] { open.set_value(); });
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(30)), 0);
}

TEST(DispatchApply, RunsEveryIndexOnceAndNestsWithoutDeadlock)
{
    for (long priority : {DISPATCH_QUEUE_PRIORITY_DEFAULT, DISPATCH_QUEUE_PRIORITY_BACKGROUND}) {
        std::vector<std::atomic<int>> hits(1000);
        dispatch_apply(hits.size(), dispatch_get_global_queue(priority, 0), [&](size_t i) { ++hits[i]; });
        for (size_t i = 0; i < hits.size(); ++i) ASSERT_EQ(hits[i].load(), 1) << i;
    }
    // From a global block, an apply whose iterations block on each other.
    std::promise<bool> finished;
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [&] {
        auto all = dispatch_semaphore_create(0);
        constexpr size_t n = 12;
        std::atomic<size_t> arrivals {0};
        dispatch_apply(n, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_BACKGROUND, 0), [&](size_t) {
            if (++arrivals == n) {
                for (size_t i = 0; i < n; ++i) dispatch_semaphore_signal(all);
            }
            // Not all iterations are guaranteed to run at once; only the
            // last arrival opens the way, so the others must not hold it up.
            dispatch_semaphore_wait(all, DISPATCH_TIME_FOREVER);
        });
        finished.set_value(arrivals == n);
    });
    auto result = finished.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_TRUE(result.get());
}

TEST(DispatchApply, OnASerialQueueRunsInOrderOnThatQueue)
{
    auto queue = dispatch_queue_create("qx.test.apply");
    std::vector<size_t> order;
    dispatch_apply(50, queue, [&](size_t i) {
        EXPECT_TRUE(dispatch_queue_is_current(queue));
        order.push_back(i);
    });
    ASSERT_EQ(order.size(), 50u);
    for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(order[i], i);
}

TEST(DispatchOnce, RunsExactlyOnceUnderContention)
{
    dispatch_once_t once;
    int value = 0; // written once, read by all after dispatch_once returns
    std::atomic<int> runs {0};
    std::vector<std::thread> threads;
    std::atomic<bool> go {false};
    std::vector<int> seen(16);
    for (int t = 0; t < 16; ++t) {
        threads.emplace_back([&, t] {
            while (!go) std::this_thread::yield();
            dispatch_once(&once, [&] {
                ++runs;
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                value = 42;
            });
            seen[t] = value;
        });
    }
    go = true;
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(runs.load(), 1);
    for (int v : seen) EXPECT_EQ(v, 42);
}
