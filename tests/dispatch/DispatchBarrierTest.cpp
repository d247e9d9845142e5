// Barriers on a concurrent queue: overlapping reads, lone writers, order, nested reads, misuse.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "DispatchTestSupport.h"
#include "qxmedia/platform/dispatch/dispatch.h"

using namespace qx;
using qxtest::inSeconds;

TEST(DispatchBarrier, ReadsOverlapAndWritersRunAlone)
{
    auto queue = dispatch_queue_create("barrier queue", DISPATCH_QUEUE_CONCURRENT);
    // Two reads that need each other: they can only finish side by side.
    auto first = dispatch_semaphore_create(0);
    auto second = dispatch_semaphore_create(0);
    auto group = dispatch_group_create();
    dispatch_group_async(group, queue, [=] {
        dispatch_semaphore_signal(first);
        EXPECT_EQ(dispatch_semaphore_wait(second, inSeconds(10)), 0);
    });
    std::thread reader([&] {
        dispatch_sync(queue, [&] {
            dispatch_semaphore_signal(second);
            EXPECT_EQ(dispatch_semaphore_wait(first, inSeconds(10)), 0);
        });
    });
    reader.join();
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(10)), 0);

    // Readers and writers hammer one map; TSan and the counters catch overlap.
    std::map<int, int> table;
    std::atomic<int> readersInside {0};
    std::atomic<int> writersInside {0};
    std::atomic<int> overlaps {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                if ((i + t) % 5 == 0) {
                    auto write = [&, i] {
                        if (++writersInside != 1 || readersInside != 0) ++overlaps;
                        table[i] = t;
                        --writersInside;
                    };
                    if (i % 2) {
                        dispatch_barrier_sync(queue, write);
                    } else {
                        dispatch_barrier_async(queue, write);
                    }
                } else {
                    auto read = [&, i] {
                        ++readersInside;
                        if (writersInside != 0) ++overlaps;
                        volatile size_t found = table.count(i);
                        (void)found;
                        --readersInside;
                    };
                    if (i % 2) {
                        dispatch_sync(queue, read);
                    } else {
                        dispatch_group_async(group, queue, read);
                    }
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    dispatch_barrier_sync(queue, [] {});
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(10)), 0);
    EXPECT_EQ(overlaps.load(), 0);
}

TEST(DispatchBarrier, KeepsSubmissionOrderAroundABarrier)
{
    auto queue = dispatch_queue_create("qx.test.order", DISPATCH_QUEUE_CONCURRENT);
    std::atomic<int> before {0};
    std::atomic<int> after {0};
    std::atomic<int> beforeAtBarrier {-1};
    std::atomic<int> afterAtBarrier {-1};
    auto group = dispatch_group_create();
    for (int i = 0; i < 50; ++i) {
        dispatch_group_async(group, queue, [&] {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            ++before;
        });
    }
    dispatch_barrier_async(queue, [&] {
        beforeAtBarrier = before.load();
        afterAtBarrier = after.load();
    });
    for (int i = 0; i < 50; ++i) dispatch_group_async(group, queue, [&] { ++after; });
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(10)), 0);
    EXPECT_EQ(beforeAtBarrier.load(), 50);
    EXPECT_EQ(afterAtBarrier.load(), 0);
}

TEST(DispatchBarrier, NestedReadProceedsWhileAWriterWaits)
{
    auto queue = dispatch_queue_create("barrier queue", DISPATCH_QUEUE_CONCURRENT);
    std::map<std::string, int> tags {{"title", 1}};
    auto inOuterRead = dispatch_semaphore_create(0);
    auto writerQueued = dispatch_semaphore_create(0);
    std::atomic<bool> written {false};

    std::thread writer([&] {
        dispatch_semaphore_wait(inOuterRead, DISPATCH_TIME_FOREVER);
        dispatch_semaphore_signal(writerQueued);
        dispatch_barrier_sync(queue, [&] {
            tags["title"] = 2;
            written = true;
        });
    });
    std::thread readerThread([&] {
        dispatch_sync(queue, [&] {
            dispatch_semaphore_signal(inOuterRead);
            dispatch_semaphore_wait(writerQueued, DISPATCH_TIME_FOREVER);
            // Give the writer time to reach its wait in the queue.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            int nested = 0;
            dispatch_sync(queue, [&] { dispatch_sync(queue, [&] { nested = tags.at("title"); }); });
            EXPECT_EQ(nested, 1);
            EXPECT_FALSE(written) << "the writer ran inside a read";
        });
    });
    auto finished = std::async(std::launch::async, [&] {
        readerThread.join();
        writer.join();
    });
    ASSERT_EQ(finished.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "nested read deadlocked";
    EXPECT_TRUE(written);
    int title = 0;
    dispatch_sync(queue, [&] { title = tags.at("title"); });
    EXPECT_EQ(title, 2);
}

TEST(DispatchBarrier, NewReadsQueueBehindAWaitingWriter)
{
    // Writers are not starved: a read that comes after a waiting barrier
    // runs after it.
    auto queue = dispatch_queue_create("qx.test.fair", DISPATCH_QUEUE_CONCURRENT);
    auto release = dispatch_semaphore_create(0);
    auto started = dispatch_semaphore_create(0);
    std::vector<std::string> log;
    std::mutex logLock;
    auto note = [&](const char* what) {
        std::lock_guard guard(logLock);
        log.push_back(what);
    };
    dispatch_async(queue, [&, release, started] {
        dispatch_semaphore_signal(started);
        dispatch_semaphore_wait(release, DISPATCH_TIME_FOREVER);
        note("long read");
    });
    dispatch_semaphore_wait(started, DISPATCH_TIME_FOREVER);
    dispatch_barrier_async(queue, [&] { note("write"); });
    std::thread lateReader([&] { dispatch_sync(queue, [&] { note("late read"); }); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    dispatch_semaphore_signal(release);
    lateReader.join();
    dispatch_barrier_sync(queue, [] {});
    EXPECT_EQ(log, (std::vector<std::string> {"long read", "write", "late read"}));
}

TEST(DispatchBarrierDeathTest, BarrierInsideAReadAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto queue = dispatch_queue_create("qx.test.upgrade", DISPATCH_QUEUE_CONCURRENT);
    EXPECT_DEATH(dispatch_sync(queue, [&] { dispatch_barrier_sync(queue, [] {}); }),
                 "dispatch_barrier_sync onto the queue \"qx.test.upgrade\" from inside one of its reads");
    // Inside a barrier it simply runs.
    bool ran = false;
    dispatch_barrier_sync(queue, [&] { dispatch_barrier_sync(queue, [&] { dispatch_sync(queue, [&] { ran = true; }); }); });
    EXPECT_TRUE(ran);
}
