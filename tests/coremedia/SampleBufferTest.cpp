// Sample buffers: timing, sizes, shared data, attachments, images and descriptions, threads.

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

struct Input {
    int id;
};

} // namespace

TEST(CMSampleBuffer, CarriesTimingDataAndSizes)
{
    const CMSampleTimingInfo timing {CMTimeMake(1, 25), CMTimeMake(3, 25), CMTimeMake(2, 25)};
    CMSampleBufferRef sample = sampleWith({1, 2, 3, 4, 5}, timing);
    ASSERT_TRUE(sample);
    EXPECT_EQ(CMSampleBufferGetDuration(sample), CMTimeMake(1, 25));
    EXPECT_EQ(CMSampleBufferGetPresentationTimeStamp(sample), CMTimeMake(3, 25));
    EXPECT_EQ(CMSampleBufferGetDecodeTimeStamp(sample), CMTimeMake(2, 25));
    EXPECT_EQ(CMSampleBufferGetTotalSampleSize(sample), 5u);

    // Without sizes the total is 0; invalid times stay invalid.
    const CMSampleTimingInfo partial {kCMTimeInvalid, CMTimeMake(7, 1), kCMTimeInvalid};
    CMSampleBufferRef noSizes;
    ASSERT_EQ(CMSampleBufferCreate(nullptr, blockWith({1}), true, nullptr, nullptr, nullptr, 1, 1, &partial, 0,
                                   nullptr, &noSizes),
              0);
    EXPECT_EQ(CMSampleBufferGetTotalSampleSize(noSizes), 0u);
    EXPECT_TRUE(CMTIME_IS_INVALID(CMSampleBufferGetDecodeTimeStamp(noSizes)));

    CMSampleBufferRef refused;
    const CMSampleTimingInfo two[2] = {timing, timing};
    EXPECT_EQ(CMSampleBufferCreate(nullptr, blockWith({1}), true, nullptr, nullptr, nullptr, 1, 2, two, 0, nullptr,
                                   &refused),
              kCMSampleBufferError_InvalidEntryCount);
    EXPECT_FALSE(refused);
}

TEST(CMSampleBuffer, TimingCopySharesDataAndAttachments)
{
    CMSampleBufferRef original =
        sampleWith({10, 20, 30}, {CMTimeMake(1, 10), CMTimeMake(5, 10), CMTimeMake(4, 10)});
    CMSampleBufferGetFirstSampleAttachments(original, true)->setValue(kCMSampleAttachmentKey_NotSync, true);

    const CMSampleTimingInfo newTiming {kCMTimeInvalid, CMTimeMake(50, 100), kCMTimeInvalid};
    CMSampleBufferRef copy;
    ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, original, 1, &newTiming, &copy), 0);
    EXPECT_EQ(CMSampleBufferGetDataBuffer(copy), CMSampleBufferGetDataBuffer(original)) << "the same block";
    EXPECT_TRUE(CMTIME_IS_INVALID(CMSampleBufferGetDuration(copy)));
    EXPECT_EQ(CMSampleBufferGetDecodeTimeStamp(original), CMTimeMake(4, 10)) << "the original keeps its timing";

    // Attachments set before and after the copy are seen through both.
    EXPECT_TRUE(CMSampleBufferGetFirstSampleAttachments(copy, false)->isTrue(kCMSampleAttachmentKey_NotSync));
    CMSampleBufferGetFirstSampleAttachments(copy, true)->setValue(kCMSampleAttachmentKey_TrackId, 3);
    EXPECT_EQ(CMSampleBufferGetFirstSampleAttachments(original, false)->value(kCMSampleAttachmentKey_TrackId),
              QXValue(3));

    // A write into the shared block shows in both.
    const uint8_t patch = 99;
    ASSERT_EQ(CMBlockBufferReplaceDataBytes(&patch, CMSampleBufferGetDataBuffer(copy), 1, 1), 0);
    uint8_t bytes[3];
    ASSERT_EQ(CMBlockBufferCopyDataBytes(CMSampleBufferGetDataBuffer(original), 0, 3, bytes), 0);
    EXPECT_EQ(bytes[1], 99);

    // The data outlive the original.
    original.reset();
    ASSERT_EQ(CMBlockBufferCopyDataBytes(CMSampleBufferGetDataBuffer(copy), 0, 3, bytes), 0);
    EXPECT_EQ(bytes[2], 30);
}

TEST(CMSampleBuffer, AttachmentsAreCreatedOnDemand)
{
    CMSampleBufferRef sample = sampleWith({1}, {kCMTimeInvalid, CMTimeMake(1, 1), CMTimeMake(1, 1)});
    EXPECT_FALSE(CMSampleBufferGetSampleAttachmentsArray(sample, false)) << "none until asked for";
    CMSampleBufferRef copy;
    ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 0, nullptr, &copy), 0);

    CMSampleAttachmentsArrayRef array = CMSampleBufferGetSampleAttachmentsArray(sample, true);
    ASSERT_TRUE(array);
    ASSERT_EQ(array->size(), 1u);
    EXPECT_EQ(CMSampleBufferGetSampleAttachmentsArray(sample, true), array) << "made once";
    EXPECT_EQ(CMSampleBufferGetSampleAttachmentsArray(copy, false), array) << "a copy made earlier sees it too";

    // Absent, false and true read differently.
    auto dict = array->at(0);
    EXPECT_FALSE(dict->value(kCMSampleAttachmentKey_NotSync));
    dict->setValue(kCMSampleAttachmentKey_NotSync, false);
    EXPECT_TRUE(dict->contains(kCMSampleAttachmentKey_NotSync));
    EXPECT_FALSE(dict->isTrue(kCMSampleAttachmentKey_NotSync));
}

TEST(CMSampleBuffer, AttachmentsHoldObjectsByType)
{
    CMSampleBufferRef sample = sampleWith({1}, {kCMTimeInvalid, CMTimeMake(1, 1), kCMTimeInvalid});
    auto dict = CMSampleBufferGetFirstSampleAttachments(sample, true);
    auto input = std::make_shared<Input>(Input {7});
    std::weak_ptr<Input> watch = input;
    dict->setObject(kCMSampleAttachmentKey_Muxer, input);
    dict->setValue(kCMSampleAttachmentKey_StreamIndex, 2);
    input.reset();

    ASSERT_TRUE(dict->object<Input>(kCMSampleAttachmentKey_Muxer));
    EXPECT_FALSE(dict->object<int>(kCMSampleAttachmentKey_Muxer)) << "another type reads as absent";
    EXPECT_FALSE(dict->value(kCMSampleAttachmentKey_Muxer)) << "objects are not plain values";
    EXPECT_EQ(dict->copyValues().size(), 1u);

    // Copying all entries to another sample carries the object too.
    CMSampleBufferRef other = sampleWith({2}, {kCMTimeInvalid, CMTimeMake(1, 1), kCMTimeInvalid});
    auto otherDict = CMSampleBufferGetFirstSampleAttachments(other, true);
    otherDict->addEntriesFrom(*dict);
    EXPECT_EQ(otherDict->value(kCMSampleAttachmentKey_StreamIndex), QXValue(2));
    EXPECT_EQ(otherDict->object<Input>(kCMSampleAttachmentKey_Muxer)->id, 7);

    dict->removeValue(kCMSampleAttachmentKey_Muxer);
    otherDict->removeAllValues();
    EXPECT_TRUE(watch.expired()) << "removing the attachment lets go of the object";
}

TEST(CMSampleBuffer, OutputPresentationTimeIsSetPerBuffer)
{
    CMSampleBufferRef sample = sampleWith({1}, {CMTimeMake(1, 30), CMTimeMake(10, 30), CMTimeMake(8, 30)});
    EXPECT_EQ(CMSampleBufferGetOutputPresentationTimeStamp(sample), CMTimeMake(10, 30)) << "defaults to the pts";

    ASSERT_EQ(CMSampleBufferSetOutputPresentationTimeStamp(sample, CMTimeMake(12, 30)), 0);
    EXPECT_EQ(CMSampleBufferGetOutputPresentationTimeStamp(sample), CMTimeMake(12, 30));
    EXPECT_EQ(CMSampleBufferGetPresentationTimeStamp(sample), CMTimeMake(10, 30)) << "pts is untouched";
    EXPECT_EQ(CMSampleBufferGetOutputDecodeTimeStamp(sample), CMTimeMake(10, 30)) << "moves with the output pts";

    const CMSampleTimingInfo timing {CMTimeMake(1, 30), CMTimeMake(20, 30), kCMTimeInvalid};
    CMSampleBufferRef copy;
    ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy), 0);
    EXPECT_EQ(CMSampleBufferGetOutputPresentationTimeStamp(copy), CMTimeMake(20, 30)) << "a copy starts unset";
}

TEST(CMSampleBuffer, ImageSampleNeedsAMatchingDescription)
{
    CVPixelBufferRef picture;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 64, 48, kCVPixelFormatType_420YpCbCr8Planar, nullptr, &picture), 0);
    CVBufferSetAttachment(picture, kCVImageBufferYCbCrMatrixKey, kCVImageBufferYCbCrMatrix_ITU_R_709_2,
                          kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(picture, "private", 1, kCVAttachmentMode_ShouldNotPropagate);
    CMVideoFormatDescriptionRef description;
    ASSERT_EQ(CMVideoFormatDescriptionCreateForImageBuffer(nullptr, picture, &description), 0);
    EXPECT_EQ(CMFormatDescriptionGetMediaSubType(description), kCVPixelFormatType_420YpCbCr8Planar);
    const QXValue* matrix = CMFormatDescriptionGetExtension(description, kCMFormatDescriptionExtension_YCbCrMatrix);
    ASSERT_TRUE(matrix);
    EXPECT_EQ(*matrix, QXValue(kCVImageBufferYCbCrMatrix_ITU_R_709_2));
    EXPECT_FALSE(CMFormatDescriptionGetExtension(description, "private"));

    const CMSampleTimingInfo timing {kCMTimeInvalid, CMTimeMake(3, 25), kCMTimeInvalid};
    CMSampleBufferRef sample;
    ASSERT_EQ(CMSampleBufferCreateForImageBuffer(nullptr, picture, true, nullptr, nullptr, description, &timing,
                                                 &sample),
              0);
    EXPECT_EQ(CMSampleBufferGetImageBuffer(sample), picture);

    CVPixelBufferRef other;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 32, 48, kCVPixelFormatType_420YpCbCr8Planar, nullptr, &other), 0);
    CMSampleBufferRef mismatched;
    EXPECT_EQ(CMSampleBufferCreateForImageBuffer(nullptr, other, true, nullptr, nullptr, description, &timing,
                                                 &mismatched),
              kCMSampleBufferError_InvalidMediaFormat);
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
            auto id = dict->value(kCMSampleAttachmentKey_TrackId);
            if (id) {
                EXPECT_TRUE(id->int64().has_value());
            }
            (void)dict->isTrue(kCMSampleAttachmentKey_NotSync);
            (void)sample->description();
        }
        ++reads;
    }
    writer.join();
    EXPECT_EQ(CMSampleBufferGetFirstSampleAttachments(sample, false)->value(kCMSampleAttachmentKey_TrackId),
              QXValue(1999));
}
