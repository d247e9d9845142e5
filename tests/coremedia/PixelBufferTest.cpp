// Pixel buffers over caller planes and AVFrames: layout, lifetimes, encoder frames.

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
        [](void* refCon, const void* dataPtr, size_t, size_t, const void*[]) {
            auto* log = static_cast<ReleaseLog*>(refCon);
            ++log->calls;
            log->dataPtr = dataPtr;
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
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(buffer, 1), 17u) << "odd sizes round up";
    EXPECT_EQ(CVPixelBufferGetHeightOfPlane(buffer, 2), 9u);

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
    sample.reset();
    EXPECT_EQ(log.calls, 1);
    EXPECT_EQ(log.dataPtr, firstPlane);
}

TEST(CVPixelBuffer, FrameBackedBufferKeepsTheFrameAlive)
{
    AVFrame* frame = av_frame_alloc();
    frame->width = 64;
    frame->height = 36;
    frame->format = AV_PIX_FMT_YUV420P;
    ASSERT_EQ(av_frame_get_buffer(frame, 0), 0);
    std::memset(frame->data[0], 77, size_t(frame->linesize[0]) * 36);
    AVBufferRef* watch = av_buffer_ref(frame->buf[0]);

    CVPixelBufferRef buffer;
    ASSERT_EQ(CVPixelBufferCreateWithAVFrame(nullptr, frame, nullptr, &buffer), kCVReturnSuccess);
    EXPECT_EQ(CVPixelBufferGetBaseAddressOfPlane(buffer, 0), frame->data[0]) << "no copy";
    av_frame_free(&frame);
    EXPECT_EQ(static_cast<uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(buffer, 0))[63], 77) << "still readable";

    // A frame for an encoder shares the planes and outlives the buffer.
    AVFrame* forEncoder = CVPixelBufferCopyAVFrame(buffer);
    ASSERT_TRUE(forEncoder);
    buffer.reset();
    EXPECT_EQ(av_buffer_get_ref_count(watch), 2) << "the encoder's frame holds it";
    av_frame_free(&forEncoder);
    EXPECT_EQ(av_buffer_get_ref_count(watch), 1);
    av_buffer_unref(&watch);

}

