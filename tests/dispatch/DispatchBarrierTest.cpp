// Barriers on a concurrent queue: overlapping reads, lone writers, nested reads.

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
    auto group = dispatch_group_create();
    std::map<int, int> table;
    std::atomic<int> readers {0}, writers {0}, overlaps {0}, maxReaders {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                if ((i + t) % 5 == 0) {
                    auto write = [&, i] {
                        if (++writers != 1 || readers != 0) ++overlaps;
                        table[i] = t;
                        --writers;
                    };
                    i % 2 ? dispatch_barrier_sync(queue, write) : dispatch_barrier_async(queue, write);
                } else {
                    auto read = [&, i] {
                        int inside = ++readers;
                        if (inside > maxReaders) maxReaders = inside;
                        if (writers != 0) ++overlaps;
                        volatile size_t found = table.count(i);
                        (void)found;
                        std::this_thread::sleep_for(std::chrono::microseconds(50));
                        --readers;
                    };
                    i % 2 ? dispatch_sync(queue, read) : dispatch_group_async(group, queue, read);
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    dispatch_barrier_sync(queue, [] {});
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(10)), 0);
    EXPECT_EQ(overlaps.load(), 0);
    EXPECT_GT(maxReaders.load(), 1) << "reads never ran side by side";
}

TEST(DispatchBarrier, NestedReadProceedsWhileAWriterWaits)
{
    auto queue = dispatch_queue_create("barrier queue", DISPATCH_QUEUE_CONCURRENT);
    std::map<std::string, int> tags {{"title", 1}};
    auto inOuterRead = dispatch_semaphore_create(0);
    std::atomic<bool> written {false};
    std::thread writer([&] {
        dispatch_semaphore_wait(inOuterRead, DISPATCH_TIME_FOREVER);
        dispatch_barrier_sync(queue, [&] {
            tags["title"] = 2;
            written = true;
        });
    });
    std::thread reader([&] {
        dispatch_sync(queue, [&] {
            dispatch_semaphore_signal(inOuterRead);
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the writer is now queued
            int nested = 0;
            dispatch_sync(queue, [&] { dispatch_sync(queue, [&] { nested = tags.at("title"); }); });
            EXPECT_EQ(nested, 1);
            EXPECT_FALSE(written) << "the writer ran inside a read";
        });
    });
    auto finished = std::async(std::launch::async, [&] {
        reader.join();
        writer.join();
    });
    ASSERT_EQ(finished.wait_for(std::chrono::seconds(20)), std::future_status::ready) << "nested read deadlocked";
    EXPECT_TRUE(written);
}

