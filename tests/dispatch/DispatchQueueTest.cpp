// Serial and global queues: order, exclusion, no starvation, the growing pool.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "DispatchTestSupport.h"
#include "qxmedia/platform/dispatch/dispatch.h"

using namespace qx;
using qxtest::inSeconds;

TEST(DispatchSerialQueue, BlocksFromManyThreadsRunOneAtATimeInTheirOrder)
{
    auto queue = dispatch_queue_create("qx.test.serial");
    constexpr int threads = 4, count = 2000;
    // Touched only on the queue and without a lock: TSan catches overlap.
    std::vector<std::vector<int>> seen(threads);
    std::vector<std::thread> submitters;
    for (int t = 0; t < threads; ++t) {
        submitters.emplace_back([&, t] {
            for (int i = 0; i < count; ++i) {
                auto block = [&, t, i] {
                    if (seen[t].size() != static_cast<size_t>(i)) ADD_FAILURE() << "block " << i << " out of order";
                    seen[t].push_back(i);
                };
                i % 500 == 499 ? dispatch_sync(queue, block) : dispatch_async(queue, block);
            }
        });
    }
    for (auto& submitter : submitters) submitter.join();
    size_t total = 0;
    dispatch_sync(queue, [&] { for (const auto& order : seen) total += order.size(); });
    EXPECT_EQ(total, static_cast<size_t>(threads * count));
}

TEST(DispatchQueue, BlockedWorkDoesNotStarveOtherWork)
{
    // Forty serial queues each block until a forty-first opens the gate.
    constexpr int queues = 40;
    auto gate = dispatch_semaphore_create(0);
    auto done = dispatch_semaphore_create(0);
    std::vector<dispatch_queue_t> keep;
    for (int i = 0; i < queues; ++i) {
        keep.push_back(dispatch_queue_create("qx.test.blocked"));
        dispatch_async(keep.back(), [gate, done] {
            EXPECT_EQ(dispatch_semaphore_wait(gate, inSeconds(20)), 0);
            dispatch_semaphore_signal(done);
        });
    }
    dispatch_async(dispatch_queue_create("qx.test.opener"), [gate] {
        for (int i = 0; i < queues; ++i) dispatch_semaphore_signal(gate);
    });
    for (int i = 0; i < queues; ++i) ASSERT_EQ(dispatch_semaphore_wait(done, inSeconds(20)), 0);

    // Global workers blocked on a std::future are invisible to the pool's
    // bookkeeping; the block that releases them must still start.
    std::promise<void> open;
    std::shared_future<void> opened = open.get_future().share();
    auto group = dispatch_group_create();
    auto global = dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
    const int blockers = static_cast<int>(std::max(2u, std::thread::hardware_concurrency())) + 2;
    for (int i = 0; i < blockers; ++i) dispatch_group_async(group, global, [opened] { opened.wait(); });
    dispatch_group_async(group, global, [&open] { open.set_value(); });
    EXPECT_EQ(dispatch_group_wait(group, inSeconds(30)), 0);
}

