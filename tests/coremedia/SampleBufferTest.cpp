// Sample buffers: timing copies, shared data, attachments, threads.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "qxmedia/platform/coremedia/CMSampleBuffer.h"

using namespace qx;

namespace {

CMBlockBufferRef blockWith(std::vector<uint8_t> bytes)
{
    CMBlockBufferRef block;
    EXPECT_EQ(CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, bytes.size(), nullptr, nullptr, 0, bytes.size(),
                                                 kCMBlockBufferAssureMemoryNowFlag, &block),
              0);
    EXPECT_EQ(CMBlockBufferReplaceDataBytes(bytes.data(), block, 0, bytes.size()), 0);
    return block;
}

// A sample as the read loop makes one: one timing entry and one size entry.
CMSampleBufferRef sampleWith(std::vector<uint8_t> bytes, CMSampleTimingInfo timing)
{
    const CMBlockBufferRef block = blockWith(bytes);
    const size_t size = CMBlockBufferGetDataLength(block);
    CMSampleBufferRef sample;
    EXPECT_EQ(CMSampleBufferCreate(nullptr, block, true, nullptr, nullptr, nullptr, 1, 1, &timing, 1, &size, &sample),
              0);
    return sample;
}

} // namespace

TEST(CMSampleBuffer, TimingCopySharesDataAndAttachments)
{
    CMSampleBufferRef original =
        sampleWith({10, 20, 30}, {CMTimeMake(1, 10), CMTimeMake(5, 10), CMTimeMake(4, 10)});

    const CMSampleTimingInfo newTiming {kCMTimeInvalid, CMTimeMake(50, 100), kCMTimeInvalid};
    CMSampleBufferRef copy;
    ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, original, 1, &newTiming, &copy), 0);
    EXPECT_EQ(CMSampleBufferGetDataBuffer(copy), CMSampleBufferGetDataBuffer(original)) << "the same block";
    EXPECT_EQ(CMSampleBufferGetDecodeTimeStamp(original), CMTimeMake(4, 10)) << "the original keeps its timing";

    // Attachments set on the copy are seen through the original.
    CMSampleBufferGetFirstSampleAttachments(copy, true)->setValue(kCMSampleAttachmentKey_TrackId, 3);
    EXPECT_EQ(CMSampleBufferGetFirstSampleAttachments(original, false)->value(kCMSampleAttachmentKey_TrackId),
              QXValue(3));

    // The data outlive the original.
    original.reset();
    uint8_t bytes[3];
    ASSERT_EQ(CMBlockBufferCopyDataBytes(CMSampleBufferGetDataBuffer(copy), 0, 3, bytes), 0);
    EXPECT_EQ(bytes[2], 30);
}

TEST(CMSampleBuffer, AttachmentsCanBeWrittenAndReadFromTwoThreads)
{
    CMSampleBufferRef sample = sampleWith({1}, {kCMTimeInvalid, CMTimeMake(1, 1), kCMTimeInvalid});
    std::atomic<bool> stop = false;
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i) {
            auto dict = CMSampleBufferGetFirstSampleAttachments(sample, true);
            dict->setValue(kCMSampleAttachmentKey_TrackId, i);
            dict->setValue(kCMSampleAttachmentKey_NotSync, i % 2 == 0);
            if (i % 10 == 0) dict->removeValue(kCMSampleAttachmentKey_NotSync);
        }
        stop = true;
    });
    int reads = 0;
    while (!stop || reads == 0) {
        if (auto dict = CMSampleBufferGetFirstSampleAttachments(sample, false)) {
            if (auto id = dict->value(kCMSampleAttachmentKey_TrackId)) { EXPECT_TRUE(id->int64().has_value()); }
            (void)dict->isTrue(kCMSampleAttachmentKey_NotSync);
        }
        ++reads;
    }
    writer.join();
    EXPECT_EQ(CMSampleBufferGetFirstSampleAttachments(sample, false)->value(kCMSampleAttachmentKey_TrackId),
              QXValue(1999));
}
