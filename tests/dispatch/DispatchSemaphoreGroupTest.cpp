// Times, semaphores and groups: counts, timeouts, wake-ups, races, notification, misuse.

#include <gtest/gtest.h>

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
    EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -5), DISPATCH_TIME_FOREVER);
    const dispatch_time_t now = dispatch_time(DISPATCH_TIME_NOW, 0);
    EXPECT_NE(now, DISPATCH_TIME_NOW);
    EXPECT_EQ(dispatch_time(now, 1500), now + 1500);
    EXPECT_EQ(dispatch_time(now, -1500), now - 1500);
    EXPECT_LT(dispatch_time(now, INT64_MAX), DISPATCH_TIME_FOREVER) << "a long delay is not 'forever'";
    EXPECT_GT(dispatch_time(now, INT64_MAX), now);
    EXPECT_GT(dispatch_time(1000, INT64_MIN), DISPATCH_TIME_NOW) << "an early time is not 'now'";
}

TEST(DispatchSemaphore, CountsTimeoutsAndGivesPlacesBack)
{
    EXPECT_EQ(dispatch_semaphore_create(-1), nullptr);
    auto semaphore = dispatch_semaphore_create(2);
    EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW), 0);
    EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_FOREVER), 0);
    EXPECT_NE(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW), 0);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_NE(dispatch_semaphore_wait(semaphore, dispatch_time(DISPATCH_TIME_NOW, 30 * NSEC_PER_MSEC)), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));

    // The timed-out waits above must not have eaten counts: one signal is
    // worth exactly one wait.
    EXPECT_EQ(dispatch_semaphore_signal(semaphore), 0) << "no waiter to wake";
    EXPECT_EQ(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW), 0);
    EXPECT_NE(dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW), 0);
}

TEST(DispatchSemaphore, NoCountIsLostAmongRacingTimeouts)
{
    // Waiters with tiny deadlines race the signals; at the end every signal
    // is either taken by a successful wait or still in the count.
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

TEST(DispatchGroup, NotifyRunsOnceAfterAllWorkAndWaitTimesOut)
{
    auto group = dispatch_group_create();
    auto queue = dispatch_queue_create("qx.test.group");
    auto gate = dispatch_semaphore_create(0);
    std::atomic<int> finished {0};
    for (int i = 0; i < 20; ++i) {
        dispatch_group_async(group, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [&, gate] {
            dispatch_semaphore_wait(gate, DISPATCH_TIME_FOREVER);
            ++finished;
        });
    }
    dispatch_group_enter(group); // manual work as well
    auto notified = dispatch_semaphore_create(0);
    std::atomic<int> notifications {0};
    std::atomic<int> finishedAtNotify {-1};
    dispatch_group_notify(group, queue, [&, notified] {
        EXPECT_TRUE(dispatch_queue_is_current(queue));
        finishedAtNotify = finished.load();
        ++notifications;
        dispatch_semaphore_signal(notified);
    });
    EXPECT_NE(dispatch_group_wait(group, dispatch_time(DISPATCH_TIME_NOW, 20 * NSEC_PER_MSEC)), 0);
    for (int i = 0; i < 20; ++i) dispatch_semaphore_signal(gate);
    EXPECT_NE(dispatch_semaphore_wait(notified, dispatch_time(DISPATCH_TIME_NOW, 50 * NSEC_PER_MSEC)), 0)
        << "notified while the manual enter was still open";
    dispatch_group_leave(group);
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(10)), 0);
    ASSERT_EQ(dispatch_semaphore_wait(notified, inSeconds(10)), 0);
    EXPECT_EQ(finishedAtNotify.load(), 20);

    // Reused group: a later round must not fire the earlier notification.
    dispatch_group_async(group, queue, [] {});
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(10)), 0);
    dispatch_sync(queue, [] {});
    EXPECT_EQ(notifications.load(), 1);

    // On an empty group the notification runs at once.
    dispatch_group_notify(group, queue, [notified] { dispatch_semaphore_signal(notified); });
    EXPECT_EQ(dispatch_semaphore_wait(notified, inSeconds(10)), 0);
}

TEST(DispatchGroupDeathTest, LeaveWithoutEnterAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto group = dispatch_group_create();
    EXPECT_DEATH(dispatch_group_leave(group), "dispatch_group_leave without a matching dispatch_group_enter");
}
