// The decoded video output: picture size and format, range kept through the
// scaler, and the durations from the next picture with the average for the
// last one.

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/reader/QXTrackReaderVideoOutput.h"
#include "qxmedia/source/QXVideoTrack.h"

using namespace qx;

namespace {

std::shared_ptr<QXTrackReaderVideoOutput> makeOutput(int width, int height, int32_t timescale = 1000)
{
    auto destination = QXVideoTrack::init();
    destination->width = uint64_t(width);
    destination->height = uint64_t(height);
    destination->naturalTimeScale = timescale;
    return QXTrackReaderVideoOutput::initWithSource(nullptr, destination);
}

// A frame of one flat colour; luma `y` everywhere.
AVFrame* flatFrame(int width, int height, AVPixelFormat format, AVColorRange range, uint8_t y, int64_t pts = 0)
{
    AVFrame* frame = av_frame_alloc();
    frame->width = width;
    frame->height = height;
    frame->format = format;
    frame->color_range = range;
    frame->best_effort_timestamp = pts;
    av_frame_get_buffer(frame, 0);
    const int bytesPerSample = format == AV_PIX_FMT_YUV420P10LE ? 2 : 1;
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane ? (height + 1) / 2 : height;
        for (int row = 0; row < rows; ++row) {
            uint8_t* line = frame->data[plane] + row * frame->linesize[plane];
            for (int x = 0; x < frame->linesize[plane] / bytesPerSample; ++x) {
                const int value = plane ? 128 : y;
                if (bytesPerSample == 2) {
                    reinterpret_cast<uint16_t*>(line)[x] = uint16_t(value << 2);
                } else {
                    line[x] = uint8_t(value);
                }
            }
        }
    }
    return frame;
}

std::vector<CMSampleBufferRef> drain(QXTrackReaderVideoOutput& output)
{
    output.processSample(nullptr);
    std::vector<CMSampleBufferRef> samples;
    while (CMSampleBufferRef sample = output.copyNextSample()) samples.push_back(sample);
    return samples;
}

struct PictureCase {
    const char* name;
    int sourceWidth, sourceHeight;
    AVPixelFormat sourceFormat;
    AVColorRange range;
    int width, height; // of the output
    OSType expectedFormat;
    uint8_t expectedLuma;
};

const PictureCase kPictureCases[] = {
    {"OddWidthScaled", 640, 480, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 721, 481, kCVPixelFormatType_420YpCbCr8Planar, 100},
    {"SameSizeCopied", 320, 240, AV_PIX_FMT_YUV420P, AVCOL_RANGE_UNSPECIFIED, 320, 240,
     kCVPixelFormatType_420YpCbCr8Planar, 100},
    {"FullRangeByFlag", 320, 240, AV_PIX_FMT_YUV420P, AVCOL_RANGE_JPEG, 160, 120,
     kCVPixelFormatType_420YpCbCr8PlanarFullRange, 250},
    {"FullRangeFormatKeepsItsValues", 320, 240, AV_PIX_FMT_YUVJ420P, AVCOL_RANGE_JPEG, 320, 240,
     kCVPixelFormatType_420YpCbCr8PlanarFullRange, 250},
    {"FullRangeFormatScaledKeepsItsValues", 320, 240, AV_PIX_FMT_YUVJ420P, AVCOL_RANGE_JPEG, 161, 121,
     kCVPixelFormatType_420YpCbCr8PlanarFullRange, 250},
    {"TenBitBroughtToEight", 320, 240, AV_PIX_FMT_YUV420P10LE, AVCOL_RANGE_MPEG, 320, 240,
     kCVPixelFormatType_420YpCbCr8Planar, 100},
};

class PictureFormat : public ::testing::TestWithParam<PictureCase> {};

TEST_P(PictureFormat, IsPlanar420OfTheDestinationSizeWithTheSourcesRange)
{
    const PictureCase& c = GetParam();
    auto output = makeOutput(c.width, c.height);
    AVFrame* frame = flatFrame(c.sourceWidth, c.sourceHeight, c.sourceFormat, c.range, c.expectedLuma);
    output->processFrame(frame);
    av_frame_free(&frame);
    const auto samples = drain(*output);
    ASSERT_EQ(samples.size(), 1u);
    CVPixelBufferRef picture = CMSampleBufferGetImageBuffer(samples[0]);
    ASSERT_TRUE(picture);
    EXPECT_EQ(CVPixelBufferGetPixelFormatType(picture), c.expectedFormat);
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(picture, 0), size_t(c.width));
    EXPECT_EQ(CVPixelBufferGetHeightOfPlane(picture, 0), size_t(c.height));
    EXPECT_EQ(CVPixelBufferGetWidthOfPlane(picture, 1), size_t(c.width + 1) / 2);
    EXPECT_EQ(CVPixelBufferGetHeightOfPlane(picture, 2), size_t(c.height + 1) / 2);
    // A flat picture stays flat, at its own level: no range squeeze.
    const auto* luma = static_cast<const uint8_t*>(CVPixelBufferGetBaseAddressOfPlane(picture, 0));
    const size_t stride = CVPixelBufferGetBytesPerRowOfPlane(picture, 0);
    EXPECT_NEAR(luma[0], c.expectedLuma, 1);
    EXPECT_NEAR(luma[(c.height - 1) * stride + c.width - 1], c.expectedLuma, 1);
}

INSTANTIATE_TEST_SUITE_P(Frames, PictureFormat, ::testing::ValuesIn(kPictureCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VideoOutputColour, SourceColourBecomesAttachmentsAndNoneLeavesThemEmpty)
{
    auto output = makeOutput(64, 48);
    output->colorPrimaries = kCVImageBufferColorPrimaries_ITU_R_2020;
    output->ycbcrMatrix = kCVImageBufferYCbCrMatrix_ITU_R_2020;
    AVFrame* frame = flatFrame(64, 48, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 50);
    output->processFrame(frame);
    output->colorPrimaries = output->ycbcrMatrix = nullptr;
    output->processFrame(frame);
    av_frame_free(&frame);
    const auto samples = drain(*output);
    ASSERT_EQ(samples.size(), 2u);
    const QXDictionary first =
        CVBufferCopyAttachments(CMSampleBufferGetImageBuffer(samples[0]), kCVAttachmentMode_ShouldPropagate);
    EXPECT_EQ(first.size(), 2u);
    EXPECT_EQ(*first.at(kCVImageBufferColorPrimariesKey).string(), kCVImageBufferColorPrimaries_ITU_R_2020);
    EXPECT_TRUE(CVBufferCopyAttachments(CMSampleBufferGetImageBuffer(samples[1]), kCVAttachmentMode_ShouldPropagate)
                    .empty());
}

constexpr int64_t kNoTime = INT64_MIN; // AV_NOPTS_VALUE

struct TimingCase {
    const char* name;
    std::vector<int64_t> pts; // in 1/1000 s
    // Expected durations in 1/1000 s; kNoTime for an invalid one.
    std::vector<int64_t> durations;
};

const TimingCase kTimingCases[] = {
    {"OnePictureKeepsAnInvalidDuration", {0}, {kNoTime}},
    {"LastPictureGetsTheAverageOverAllPictures", {0, 40, 80}, {40, 40, 27}},
    {"AGapShowsAsALongerDuration", {0, 40, 120, 160}, {40, 80, 40, 40}},
    {"AFrameWithoutATimeLeavesBothNeighbouringDurationsInvalid", {0, kNoTime, 80}, {kNoTime, kNoTime, kNoTime}},
};

class PictureTiming : public ::testing::TestWithParam<TimingCase> {};

TEST_P(PictureTiming, DurationsComeFromTheNextPicture)
{
    const TimingCase& c = GetParam();
    auto output = makeOutput(32, 32);
    for (int64_t pts : c.pts) {
        AVFrame* frame = flatFrame(32, 32, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 60, pts);
        output->processFrame(frame);
        av_frame_free(&frame);
    }
    const auto samples = drain(*output);
    ASSERT_EQ(samples.size(), c.durations.size());
    for (size_t i = 0; i < samples.size(); ++i) {
        const CMTime duration = CMSampleBufferGetDuration(samples[i]);
        const CMTime pts = CMSampleBufferGetPresentationTimeStamp(samples[i]);
        EXPECT_FALSE(CMTIME_IS_VALID(CMSampleBufferGetDecodeTimeStamp(samples[i])));
        EXPECT_EQ(CMTIME_IS_VALID(pts), c.pts[i] != kNoTime) << i;
        if (c.durations[i] == kNoTime) {
            EXPECT_FALSE(CMTIME_IS_VALID(duration)) << i;
        } else {
            ASSERT_TRUE(CMTIME_IS_VALID(duration)) << i;
            EXPECT_EQ(duration.value * 1000 / duration.timescale, c.durations[i]) << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, PictureTiming, ::testing::ValuesIn(kTimingCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VideoOutputQueue, PicturesAreBoundedByTheirBytesNotOnlyTheirCount)
{
    // 1920x1088 4:2:0 is about 3 MB; the byte bound holds a few dozen of
    // them at most, far below the count bound.
    auto output = makeOutput(1920, 1088);
    const size_t picture = 1920 * 1088 * 3 / 2;
    const size_t fits = QXTrackReaderOutput::kQueuedBytes / picture;
    ASSERT_LT(fits, size_t(QXTrackReaderOutput::kQueuedSamples));
    AVFrame* frame = flatFrame(1920, 1088, AV_PIX_FMT_YUV420P, AVCOL_RANGE_MPEG, 60);
    std::atomic<int> made {0};
    std::thread producer([&] {
        for (size_t i = 0; i < fits + 4; ++i) {
            frame->best_effort_timestamp = int64_t(i) * 40;
            output->processFrame(frame);
            ++made;
        }
    });
    // The producer stops at the bound until pictures are taken.
    for (int wait = 0; wait < 200 && size_t(made.load()) < fits; ++wait) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LE(size_t(made.load()), fits + 2);
    EXPECT_LE(output->queuedBytes(), QXTrackReaderOutput::kQueuedBytes);
    for (size_t i = 0; i < 4; ++i) ASSERT_TRUE(output->copyNextSample());
    producer.join();
    EXPECT_EQ(size_t(made.load()), fits + 4);
    av_frame_free(&frame);
}

} // namespace
