// Pixel buffers over caller planes and AVFrames: layout, lifetimes, encoder frames, attachments.

#include <gtest/gtest.h>

#include <cstring>

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
}

#include "qxmedia/platform/coremedia/CMFormatDescription.h"
#include "qxmedia/platform/coremedia/CMSampleBuffer.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"

using namespace qx;

namespace {

struct ReleaseLog {
    int calls = 0;
    const void* dataPtr = nullptr;
    size_t dataSize = 0;
    size_t planes = 0;
    const void* firstPlane = nullptr;
};

// Planes as the decoded-video stage makes them: one av_image_alloc block,
// given back through av_freep by the release callback.
CVReturn wrapImage(int width, int height, OSType format, ReleaseLog& log, CVPixelBufferRef* out)
{
    uint8_t* data[4];
    int linesize[4];
    const int size = av_image_alloc(data, linesize, width, height, AV_PIX_FMT_YUV420P, 16);
    EXPECT_GT(size, 0);
    void* planes[3] = {data[0], data[1], data[2]};
    size_t widths[3] = {size_t(width), size_t(width + 1) / 2, size_t(width + 1) / 2};
    size_t heights[3] = {size_t(height), size_t(height + 1) / 2, size_t(height + 1) / 2};
    size_t strides[3] = {size_t(linesize[0]), size_t(linesize[1]), size_t(linesize[2])};
    const CVReturn result = CVPixelBufferCreateWithPlanarBytes(
        nullptr, size_t(width), size_t(height), format, data[0], size_t(size), 3, planes, widths, heights, strides,
        [](void* refCon, const void* dataPtr, size_t dataSize, size_t numberOfPlanes, const void* addresses[]) {
            auto* log = static_cast<ReleaseLog*>(refCon);
            ++log->calls;
            log->dataPtr = dataPtr;
            log->dataSize = dataSize;
            log->planes = numberOfPlanes;
            log->firstPlane = addresses[0];
            void* block = const_cast<void*>(dataPtr);
            av_freep(&block);
        },
        &log, nullptr, out);
    if (result != kCVReturnSuccess) av_freep(&data[0]);
    return result;
}

} // namespace

TEST(CVPixelBuffer, PlanarBytesAreDescribedAndReleasedOnceAtTheLastReference)
{
    ReleaseLog log;
    CVPixelBufferRef buffer;
    ASSERT_EQ(wrapImage(33, 17, kCVPixelFormatType_420YpCbCr8PlanarFullRange, log, &buffer), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetPlaneCount(buffer), 3u);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(buffer, 1), 17u) << "odd sizes round up";
    EXPECT_EQ(CVPixelBufferGetHeightOfPlane(buffer, 2), 9u);
    EXPECT_GE(CVPixelBufferGetBytesPerRowOfPlane(buffer, 0), 33u);
    EXPECT_EQ(CVPixelBufferLockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly), kCVReturnSuccess);
    std::memset(CVPixelBufferGetBaseAddressOfPlane(buffer, 2), 128, CVPixelBufferGetBytesPerRowOfPlane(buffer, 2) * 9);
    EXPECT_EQ(CVPixelBufferUnlockBaseAddress(buffer, kCVPixelBufferLock_ReadOnly), kCVReturnSuccess);

    // The sample and its description keep the picture alive.
    CMVideoFormatDescriptionRef description;
    ASSERT_EQ(CMVideoFormatDescriptionCreateForImageBuffer(nullptr, buffer, &description), 0);
    const CMSampleTimingInfo timing {kCMTimeInvalid, CMTimeMake(1, 25), kCMTimeInvalid};
    CMSampleBufferRef sample;
    ASSERT_EQ(CMSampleBufferCreateForImageBuffer(nullptr, buffer, true, nullptr, nullptr, description, &timing, &sample),
              0);
    const void* firstPlane = CVPixelBufferGetBaseAddressOfPlane(buffer, 0);
    CVPixelBufferRelease(buffer);
    EXPECT_EQ(log.calls, 0);
    CMSampleBufferRef copy;
    ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy), 0);
    sample.reset();
    EXPECT_EQ(log.calls, 0);
    copy.reset();
    EXPECT_EQ(log.calls, 1);
    EXPECT_EQ(log.planes, 3u);
    EXPECT_EQ(log.dataPtr, firstPlane);
}

TEST(CVPixelBuffer, RefusedCreationLeavesTheMemoryWithTheCaller)
{
    ReleaseLog log;
    CVPixelBufferRef buffer;
    EXPECT_EQ(wrapImage(16, 16, QXFourCC("BGRA"), log, &buffer), kCVReturnInvalidPixelFormat);
    EXPECT_FALSE(buffer);
    EXPECT_EQ(log.calls, 0);

    uint8_t plane[64] = {};
    void* planes[3] = {plane, plane, nullptr};
    size_t widths[3] = {8, 4, 4}, heights[3] = {8, 4, 4}, strides[3] = {8, 4, 4};
    EXPECT_EQ(CVPixelBufferCreateWithPlanarBytes(nullptr, 8, 8, kCVPixelFormatType_420YpCbCr8Planar, nullptr, 0, 3,
                                                 planes, widths, heights, strides, nullptr, nullptr, nullptr, &buffer),
              kCVReturnInvalidArgument)
        << "a missing plane";
    planes[2] = plane;
    strides[0] = 4;
    EXPECT_EQ(CVPixelBufferCreateWithPlanarBytes(nullptr, 8, 8, kCVPixelFormatType_420YpCbCr8Planar, nullptr, 0, 3,
                                                 planes, widths, heights, strides, nullptr, nullptr, nullptr, &buffer),
              kCVReturnInvalidArgument)
        << "rows shorter than the plane";
    EXPECT_EQ(CVPixelBufferCreate(nullptr, 0, 8, kCVPixelFormatType_420YpCbCr8Planar, nullptr, &buffer),
              kCVReturnInvalidSize);
}

TEST(CVPixelBuffer, FrameBackedBufferKeepsTheFrameAlive)
{
    AVFrame* frame = av_frame_alloc();
    frame->width = 64;
    frame->height = 36;
    frame->format = AV_PIX_FMT_YUV420P;
    frame->color_range = AVCOL_RANGE_MPEG;
    ASSERT_EQ(av_frame_get_buffer(frame, 0), 0);
    std::memset(frame->data[0], 77, size_t(frame->linesize[0]) * 36);
    AVBufferRef* watch = av_buffer_ref(frame->buf[0]);

    CVPixelBufferRef buffer;
    ASSERT_EQ(CVPixelBufferCreateWithAVFrame(nullptr, frame, nullptr, &buffer), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetPixelFormatType(buffer), kCVPixelFormatType_420YpCbCr8Planar);
    EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(buffer, 0), frame->data[0]) << "no copy";
    EXPECT_EQ(av_buffer_get_ref_count(watch), 3) << "frame, buffer and watch";
    av_frame_free(&frame);
    EXPECT_EQ(av_buffer_get_ref_count(watch), 2);
    EXPECT_EQ(static_cast<uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(buffer, 0))[63], 77) << "still readable";

    // A frame for an encoder shares the planes and outlives the buffer.
    CVBufferSetAttachment(buffer, kCVImageBufferColorPrimariesKey, kCVImageBufferColorPrimaries_ITU_R_2020,
                          kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, kCVImageBufferTransferFunctionKey, kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ,
                          kCVAttachmentMode_ShouldPropagate);
    AVFrame* forEncoder = CVPixelBufferCopyAVFrame(buffer);
    ASSERT_TRUE(forEncoder);
    EXPECT_EQ(forEncoder->color_primaries, AVCOL_PRI_BT2020);
    EXPECT_EQ(forEncoder->color_trc, AVCOL_TRC_SMPTE2084);
    buffer.reset();
    EXPECT_EQ(av_buffer_get_ref_count(watch), 2) << "the encoder's frame holds it";
    av_frame_free(&forEncoder);
    EXPECT_EQ(av_buffer_get_ref_count(watch), 1);
    av_buffer_unref(&watch);

    // Full range frames are 'f420'; other formats are refused.
    AVFrame* full = av_frame_alloc();
    full->width = 16;
    full->height = 16;
    full->format = AV_PIX_FMT_YUVJ420P;
    ASSERT_EQ(av_frame_get_buffer(full, 0), 0);
    ASSERT_EQ(CVPixelBufferCreateWithAVFrame(nullptr, full, nullptr, &buffer), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetPixelFormatType(buffer), kCVPixelFormatType_420YpCbCr8PlanarFullRange);
    full->format = AV_PIX_FMT_NV12;
    EXPECT_EQ(CVPixelBufferCreateWithAVFrame(nullptr, full, nullptr, &buffer), kCVReturnInvalidPixelFormat);
    av_frame_free(&full);
}

TEST(CVPixelBuffer, PlanarBytesOutliveTheBufferInAnEncoderFrame)
{
    ReleaseLog log;
    CVPixelBufferRef buffer;
    ASSERT_EQ(wrapImage(32, 32, kCVPixelFormatType_420YpCbCr8Planar, log, &buffer), kCVReturnSuccess);
    AVFrame* frame = CVPixelBufferCopyAVFrame(buffer);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->data[1], CVPixelBufferGetBaseAddressOfPlane(buffer, 1));
    EXPECT_EQ(frame->color_range, AVCOL_RANGE_MPEG);
    buffer.reset();
    EXPECT_EQ(log.calls, 0);
    av_frame_free(&frame);
    EXPECT_EQ(log.calls, 1);
}

TEST(CVPixelBuffer, AttachmentsHaveModes)
{
    CVPixelBufferRef buffer;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 16, 16, kCVPixelFormatType_420YpCbCr8Planar, nullptr, &buffer), 0);
    CVBufferSetAttachments(buffer,
                           {{kCVImageBufferColorPrimariesKey, kCVImageBufferColorPrimaries_ITU_R_709_2},
                            {kCVImageBufferYCbCrMatrixKey, kCVImageBufferYCbCrMatrix_ITU_R_709_2}},
                           kCVAttachmentMode_ShouldPropagate);
    CVBufferSetAttachment(buffer, "scratch", 5, kCVAttachmentMode_ShouldNotPropagate);

    CVAttachmentMode mode = 99;
    auto primaries = CVBufferGetAttachment(buffer, kCVImageBufferColorPrimariesKey, &mode);
    ASSERT_TRUE(primaries);
    EXPECT_EQ(*primaries, QXValue("ITU_R_709_2"));
    EXPECT_EQ(mode, kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(CVBufferCopyAttachments(buffer, kCVAttachmentMode_ShouldPropagate).size(), 2u);

    CVPixelBufferRef other;
    ASSERT_EQ(CVPixelBufferCreate(nullptr, 16, 16, kCVPixelFormatType_420YpCbCr8Planar, nullptr, &other), 0);
    CVBufferPropagateAttachments(buffer, other);
    EXPECT_TRUE(CVBufferGetAttachment(other, kCVImageBufferYCbCrMatrixKey));
    EXPECT_FALSE(CVBufferGetAttachment(other, "scratch"));

    CVBufferRemoveAllAttachments(buffer);
    EXPECT_TRUE(CVBufferCopyAttachments(buffer, kCVAttachmentMode_ShouldPropagate).empty());
}
