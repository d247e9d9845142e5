// Buffer queues: sorted orders, end of data, threads.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "qxmedia/platform/coremedia/CMBufferQueue.h"

using namespace qx;

namespace {

// A sample whose one data byte names it, with the given times (in 1/10 s;
// a negative number means invalid).
CMSampleBufferRef tagged(uint8_t tag, int pts, int dts = -1)
{
    CMBlockBufferRef block;
    EXPECT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, 1, nullptr, nullptr, 0, 1,
                                                 kCMBlockBufferAssureMemoryNowFlag, &block),
              0);
    CMBlockBufferReplaceDataBytes(&tag, block, 0, 1);
    const CMSampleTimingInfo timing {CMTimeMake(1, 10), pts < 0 ? kCMTimeInvalid : CMTimeMake(pts, 10),
                                     dts < 0 ? kCMTimeInvalid : CMTimeMake(dts, 10)};
    CMSampleBufferRef sample;
    EXPECT_EQ(CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 0, nullptr, &sample),
              0);
    return sample;
}

uint8_t tagOf(const CMSampleBufferRef& sample)
{
    uint8_t tag = 0;
    EXPECT_EQ(CMBlockBufferCopyDataBytes(CMSampleBufferGetDataBuffer(sample), 0, 1, &tag), 0);
    return tag;
}

std::vector<int> drain(const CMBufferQueueRef& queue)
{
    std::vector<int> tags;
    while (CMSampleBufferRef sample = CMBufferQueueDequeueAndRetain(queue)) tags.push_back(tagOf(sample));
    return tags;
}

CMBufferQueueRef makeQueue(const CMBufferCallbacks* callbacks)
{
    CMBufferQueueRef queue;
    EXPECT_EQ(CMBufferQueueCreate(nullptr, 0, callbacks, &queue), 0);
    return queue;
}

} // namespace

TEST(CMBufferQueue, SortedByOutputTimeKeepsArrivalOrderOfEqualTimes)
{
    CMBufferQueueRef queue = makeQueue(CMBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS());
    for (auto [tag, pts] : {std::pair {1, 30}, {2, 10}, {3, 30}, {4, 20}, {5, 10}})
        ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(uint8_t(tag), pts)), 0);
    // The output time decides, not the presentation time.
    CMSampleBufferRef late = tagged(6, 0);
    CMSampleBufferSetOutputPresentationTimeStamp(late, CMTimeMake(25, 10));
    ASSERT_EQ(CMBufferQueueEnqueue(queue, late), 0);
    // An invalid time sorts behind all others.
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(7, -1)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(8, 40)), 0);

    EXPECT_EQ(drain(queue), (std::vector<int> {2, 5, 4, 6, 1, 3, 8, 7}));
}

TEST(CMBufferQueue, ProducersAndConsumerOnOtherThreads)
{
    CMBufferQueueRef queue = makeQueue(CMBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS());
    constexpr int kPerThread = 500;
    std::vector<std::thread> producers;
    for (int t = 0; t < 2; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(uint8_t(t), i)), 0);
        });
    }
    int taken = 0;
    std::thread consumer([&] {
        while (taken < 2 * kPerThread) {
            if (CMBufferQueueDequeueAndRetain(queue)) ++taken;
            (void)CMBufferQueueGetFirstPresentationTimeStamp(queue);
        }
    });
    for (auto& producer : producers) producer.join();
    consumer.join();
    EXPECT_EQ(taken, 2 * kPerThread);
    EXPECT_TRUE(CMBufferQueueIsEmpty(queue));
}
