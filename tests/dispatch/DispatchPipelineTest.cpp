// Chains of serial queues with semaphores as back-pressure, the way the conversion pipeline runs.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "DispatchTestSupport.h"
#include "qxmedia/platform/dispatch/dispatch.h"

using namespace qx;
using qxtest::inSeconds;

namespace {

using Sample = std::shared_ptr<const int>; // null: end of stream

// A chain of serial queues, each guarded by a counting semaphore, the way
// the conversion pipeline hands samples on: a stage takes a count before it
// queues a sample and gives it back once the next stage has it.
class Chain {
public:
    static constexpr long stageLimit = 4;

    Chain(int stages, std::function<void(const Sample&)> consumer) : consumer_(std::move(consumer))
    {
        for (int i = 0; i < stages; ++i) {
            queues_.push_back(dispatch_queue_create("qx.test.stage" + std::to_string(i)));
            semaphores_.push_back(dispatch_semaphore_create(stageLimit));
        }
    }

    void push(size_t stage, Sample sample)
    {
        dispatch_semaphore_wait(semaphores_[stage], DISPATCH_TIME_FOREVER);
        dispatch_async(queues_[stage], [this, stage, sample = std::move(sample)] {
            if (stage + 1 < queues_.size()) {
                push(stage + 1, sample);
            } else {
                consumer_(sample);
            }
            dispatch_semaphore_signal(semaphores_[stage]);
        });
    }

    // True if every stage has all its counts back.
    bool idle()
    {
        for (auto& semaphore : semaphores_) {
            for (long i = 0; i < stageLimit; ++i) {
                if (dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW) != 0) return false;
            }
            const bool extra = dispatch_semaphore_wait(semaphore, DISPATCH_TIME_NOW) == 0;
            for (long i = 0; i < stageLimit; ++i) dispatch_semaphore_signal(semaphore);
            if (extra) return false;
        }
        return true;
    }

private:
    std::function<void(const Sample&)> consumer_;
    std::vector<dispatch_queue_t> queues_;
    std::vector<dispatch_semaphore_t> semaphores_;
};

} // namespace

TEST(DispatchPipeline, SlowConsumerStopsTheProducerWithoutLossAndTheChainDrains)
{
    constexpr int stages = 5;
    constexpr int samples = 3000;
    auto gate = dispatch_semaphore_create(0); // the consumer takes one count per sample
    auto finished = dispatch_semaphore_create(0);
    std::mutex receivedLock;
    std::vector<int> received;
    int endMarkers = 0;
    Chain chain(stages, [&](const Sample& sample) {
        dispatch_semaphore_wait(gate, DISPATCH_TIME_FOREVER);
        std::lock_guard guard(receivedLock);
        if (!sample) {
            ++endMarkers;
            dispatch_semaphore_signal(finished);
        } else {
            EXPECT_EQ(endMarkers, 0) << "sample after the end of stream";
            received.push_back(*sample);
        }
    });

    std::atomic<int> produced {0};
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [&] {
        for (int i = 0; i < samples; ++i) {
            chain.push(0, std::make_shared<const int>(i));
            ++produced;
        }
        chain.push(0, nullptr);
    });

    // With the consumer stalled the producer must come to a stop once every
    // stage is full: at most the limit of each stage is in flight.
    int last = -1;
    ASSERT_TRUE(qxtest::eventually([&] {
        const int now = produced.load();
        if (now != last) {
            last = now;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            return false;
        }
        return true;
    }));
    EXPECT_LE(produced.load(), stages * Chain::stageLimit);
    EXPECT_GE(produced.load(), stages * (Chain::stageLimit - 1)) << "the stages did not fill up";

    // Let the consumer trickle a few through: the producer advances by as many.
    for (int i = 0; i < 10; ++i) dispatch_semaphore_signal(gate);
    const int before = last;
    EXPECT_TRUE(qxtest::eventually([&] { return produced.load() == before + 10; }));

    for (int i = 10; i <= samples; ++i) dispatch_semaphore_signal(gate); // the rest and the end marker
    ASSERT_EQ(dispatch_semaphore_wait(finished, inSeconds(60)), 0);
    {
        std::lock_guard guard(receivedLock);
        ASSERT_EQ(received.size(), static_cast<size_t>(samples));
        for (int i = 0; i < samples; ++i) ASSERT_EQ(received[i], i) << "lost or reordered";
        EXPECT_EQ(endMarkers, 1);
    }
    EXPECT_TRUE(qxtest::eventually([&] { return chain.idle(); })) << "a stage kept counts after the end";
}

TEST(DispatchPipeline, ManyChainsOnThePoolAtOnce)
{
    // Several producers on the global queue feed chains whose consumers are
    // slow; all of them block on semaphores at times and all must finish.
    constexpr int chains = 6;
    constexpr int samples = 400;
    auto group = dispatch_group_create();
    std::vector<std::unique_ptr<Chain>> keep;
    std::vector<std::atomic<int>> counts(chains);
    std::vector<std::atomic<bool>> ordered(chains);
    for (int c = 0; c < chains; ++c) {
        ordered[c] = true;
        dispatch_group_enter(group);
        keep.push_back(std::make_unique<Chain>(5, [&, c](const Sample& sample) {
            if (!sample) {
                dispatch_group_leave(group);
                return;
            }
            if (*sample != counts[c]) ordered[c] = false;
            ++counts[c];
            if (*sample % 64 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }));
        Chain* chain = keep.back().get();
        dispatch_group_async(group, dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), [chain] {
            for (int i = 0; i < samples; ++i) chain->push(0, std::make_shared<const int>(i));
            chain->push(0, nullptr);
        });
    }
    ASSERT_EQ(dispatch_group_wait(group, inSeconds(60)), 0);
    for (int c = 0; c < chains; ++c) {
        EXPECT_EQ(counts[c].load(), samples) << c;
        EXPECT_TRUE(ordered[c]) << c;
        // The last stage gives its count back after the consumer saw the end.
        EXPECT_TRUE(qxtest::eventually([&] { return keep[c]->idle(); })) << c;
    }
}
