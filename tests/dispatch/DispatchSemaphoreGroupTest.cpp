// Times, semaphores and groups: saturation, racing timeouts, notification.

#include <gtest/gtest.h>

#include <atomic>
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

TEST(DispatchSemaphore, NoCountIsLostAmongRacingTimeouts)
{
    auto semaphore = dispatch_semaphore_create(0);
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
    for (long i = 0; i < signals; ++i) dispatch_semaphore_signal(semaphore);
    stop = true;
    for (auto& thread : threads) thread.join();
    long left = 0;
    while (dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW) == 0) ++left;
    EXPECT_EQ(taken + left, signals);
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
