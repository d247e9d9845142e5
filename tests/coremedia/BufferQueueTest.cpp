// Buffer queues: arrival and sorted orders, end of data, capacity, threads.

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

CMBufferQueueRef makeQueue(const CMBufferCallbacks* callbacks, CMItemCount capacity = 0)
{
    CMBufferQueueRef queue;
    EXPECT_EQ(CMBufferQueueCreate(nullptr, capacity, callbacks, &queue), 0);
    return queue;
}

} // namespace

TEST(CMBufferQueue, UnsortedKeepsArrivalOrder)
{
    CMBufferQueueRef queue = makeQueue(CMBufferQueueGetCallbacksForUnsortedSampleBuffers());
    EXPECT_FALSE(CMBufferQueueDequeueAndRetain(queue));
    EXPECT_TRUE(CMTIME_IS_INVALID(CMBufferQueueGetFirstPresentationTimeStamp(queue)));

    for (uint8_t tag : {3, 1, 2}) ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(tag, tag * 10)), 0);
    EXPECT_EQ(tagOf(CMBufferQueueGetHead(queue)), 3);
    EXPECT_EQ(CMBufferQueueGetBufferCount(queue), 3) << "peeking takes nothing";
    EXPECT_EQ(CMBufferQueueGetFirstPresentationTimeStamp(queue), CMTimeMake(30, 10)) << "the head's, not the lowest";
    EXPECT_EQ(CMBufferQueueGetMinPresentationTimeStamp(queue), CMTimeMake(10, 10));
    EXPECT_EQ(CMBufferQueueGetDuration(queue), CMTimeMake(3, 10));
    EXPECT_EQ(drain(queue), (std::vector<int> {3, 1, 2}));
}

TEST(CMBufferQueue, SortedByOutputTimeKeepsArrivalOrderOfEqualTimes)
{
    CMBufferQueueRef queue = makeQueue(CMBufferQueueGetCallbacksForSampleBuffersSortedByOutputPTS());
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(1, 30)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(2, 10)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(3, 30)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(4, 20)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(5, 10)), 0);
    // The output time decides, not the presentation time.
    CMSampleBufferRef late = tagged(6, 0);
    CMSampleBufferSetOutputPresentationTimeStamp(late, CMTimeMake(25, 10));
    ASSERT_EQ(CMBufferQueueEnqueue(queue, late), 0);
    // An invalid time sorts behind all others.
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(7, -1)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(8, 40)), 0);

    EXPECT_EQ(CMBufferQueueGetFirstPresentationTimeStamp(queue), CMTimeMake(10, 10));
    EXPECT_EQ(drain(queue), (std::vector<int> {2, 5, 4, 6, 1, 3, 8, 7}));
}

TEST(CMBufferQueue, CustomCompareSortsByDecodeTimeWithFallback)
{
    // The muxer's window: decode time, or presentation time where there is
    // no decode time.
    auto timeOf = [](const CMBufferRef& buf) {
        const CMTime dts = CMSampleBufferGetDecodeTimeStamp(buf);
        return CMTIME_IS_VALID(dts) ? dts : CMSampleBufferGetPresentationTimeStamp(buf);
    };
    CMBufferCallbacks callbacks;
    callbacks.getDecodeTimeStamp = [](const CMBufferRef& buf) { return CMSampleBufferGetDecodeTimeStamp(buf); };
    callbacks.getPresentationTimeStamp = [](const CMBufferRef& buf) {
        return CMSampleBufferGetPresentationTimeStamp(buf);
    };
    callbacks.compare = [timeOf](const CMBufferRef& a, const CMBufferRef& b) {
        return CMTimeCompare(timeOf(a), timeOf(b));
    };
    CMBufferQueueRef queue = makeQueue(&callbacks);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(1, 30, 10)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(2, 5)), 0); // subtitle: no dts
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(3, 10, 20)), 0);
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(4, 15)), 0);
    EXPECT_EQ(CMBufferQueueGetFirstPresentationTimeStamp(queue), CMTimeMake(5, 10));
    EXPECT_EQ(CMBufferQueueGetFirstDecodeTimeStamp(queue), kCMTimeInvalid);
    EXPECT_EQ(drain(queue), (std::vector<int> {2, 1, 4, 3}));
}

TEST(CMBufferQueue, EndOfDataRefusesEnqueueButDrains)
{
    CMBufferQueueRef queue = makeQueue(CMBufferQueueGetCallbacksForUnsortedSampleBuffers());
    ASSERT_EQ(CMBufferQueueEnqueue(queue, tagged(1, 0)), 0);
    EXPECT_FALSE(CMBufferQueueContainsEndOfData(queue));
    ASSERT_EQ(CMBufferQueueMarkEndOfData(queue), 0);
    EXPECT_TRUE(CMBufferQueueContainsEndOfData(queue));
    EXPECT_FALSE(CMBufferQueueIsAtEndOfData(queue)) << "a buffer is still there";
    EXPECT_EQ(CMBufferQueueEnqueue(queue, tagged(2, 1)), -12763) << "enqueue after end of data";
    EXPECT_EQ(drain(queue), (std::vector<int> {1}));
    EXPECT_TRUE(CMBufferQueueIsAtEndOfData(queue));

    ASSERT_EQ(CMBufferQueueReset(queue), 0);
    EXPECT_EQ(CMBufferQueueEnqueue(queue, tagged(3, 2)), 0);
}

TEST(CMBufferQueue, CapacityAndBadArguments)
{
    CMBufferQueueRef queue = makeQueue(CMBufferQueueGetCallbacksForUnsortedSampleBuffers(), 2);
    EXPECT_EQ(CMBufferQueueEnqueue(queue, tagged(1, 0)), 0);
    EXPECT_EQ(CMBufferQueueEnqueue(queue, tagged(2, 0)), 0);
    EXPECT_EQ(CMBufferQueueEnqueue(queue, tagged(3, 0)), kCMBufferQueueError_QueueIsFull);
    EXPECT_EQ(CMBufferQueueEnqueue(queue, nullptr), kCMBufferQueueError_InvalidBuffer);
    CMBufferQueueRef none;
    EXPECT_EQ(CMBufferQueueCreate(nullptr, 0, nullptr, &none), kCMBufferQueueError_RequiredParameterMissing);
    EXPECT_NE(CMBufferQueueEnqueue(none, tagged(1, 0)), 0);
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
