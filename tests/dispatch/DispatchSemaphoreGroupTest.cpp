// Times, semaphores and groups: saturation, racing timeouts, notification.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "DispatchTestSupport.h"
#include "qxmedia/platform/dispatch/dispatch.h"

using namespace qx;
using qxtest::inSeconds;

TEST(DispatchTime, SaturatesAndKeepsForever)
{
    const dispatch_time_t now = dispatch_time(DISPATCH_TIME_NOW, 0);
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -5), DISPATCH_TIME_FOREVER);
    EXPECT_LT(dispatch_time(now, INT64_MAX), DISPATCH_TIME_FOREVER) << "a long delay is not 'forever'";
    EXPECT_GT(dispatch_time(1000, INT64_MIN), DISPATCH_TIME_NOW) << "an early time is not 'now'";
}

// Wake batch, counts per signal.
class DispatchSemaphoreCounts : public ::testing::TestWithParam<std::pair<long, long>> {};

TEST_P(DispatchSemaphoreCounts, NoCountIsLostAmongRacingTimeouts)
{
    const auto [batch, perSignal] = GetParam();
    auto semaphore = dispatch_semaphore_create_batched(0, batch);
    std::atomic<long> taken {0};
    constexpr long signals = 20000;
    std::vector<std::thread> threads;
    std::atomic<bool> stop {false};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                if (dispatch_semaphore_wait(semaphore, dispatch_time(DISPATCH_TIME_NOW, 20000)) == 0) ++taken;
            }
        });
    }
    for (long i = 0; i < signals; i += perSignal) dispatch_semaphore_signal_count(semaphore, std::min(perSignal, signals - i));
    stop = true;
    for (auto& thread : threads) thread.join();
    long left = 0;
    while (dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW) == 0) ++left;
    EXPECT_EQ(taken + left, signals);
}

INSTANTIATE_TEST_SUITE_P(Batches, DispatchSemaphoreCounts,
                         ::testing::Values(std::pair(1L, 1L), std::pair(4L, 1L), std::pair(4L, 3L)));

TEST(DispatchSemaphore, ABatchedWaiterIsNotStrandedByAConsumerThatStopsEarly)
{
    auto semaphore = dispatch_semaphore_create_batched(0, 8);
    std::atomic<bool> woken {false};
    std::thread waiter([&] {
        dispatch_semaphore_wait(semaphore, DISPATCH_TIME_FOREVER);
        woken = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    dispatch_semaphore_signal(semaphore); // one count of the eight
    waiter.join();
    EXPECT_TRUE(woken);
}

TEST(DispatchGroup, NotifyRunsOnceAfterAllWork)
{
    auto group = dispatch_group_create();
    auto queue = dispatch_queue_create("qx.test.group");
    auto gate = dispatch_semaphore_create(0);
    auto notified = dispatch_semaphore_create(0);
    std::atomic<int> finished {0}, notifications {0}, finishedAtNotify {-1};
    for (int i = 0; i < 20; ++i) {
        dispatch_group_async(group, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [&, gate] {
            dispatch_semaphore_wait(gate, DISPATCH_TIME_FOREVER);
            ++finished;
        });
    }
    dispatch_group_enter(group);
    dispatch_group_notify(group, queue, [&, notified] {
        finishedAtNotify = finished.load();
        ++notifications;
        dispatch_semaphore_signal(notified);
    });
    for (int i = 0; i < 20; ++i) dispatch_semaphore_signal(gate);
    EXPECT_NE(dispatch_semaphore_wait(notified, dispatch_time(DISPATCH_TIME_NOW, 50 * NSEC_PER_MSEC)), 0)
        << "notified while the manual enter was still open";
    dispatch_group_leave(group);
    ASSERT_EQ(dispatch_semaphore_wait(notified, inSeconds(10)), 0);
    EXPECT_EQ(finishedAtNotify.load(), 20);
    dispatch_group_async(group, queue, [] {}); // a later round must not notify again
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(10)), 0);
    dispatch_sync(queue, [] {});
    EXPECT_EQ(notifications.load(), 1);
}
