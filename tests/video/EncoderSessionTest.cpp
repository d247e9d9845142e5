// The encoder input's rules (bit rate, profile level, pixel aspect), the
// choice of encoder with its fallback from hardware, and the session's
// samples: decode order, picture order and sync flags.

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <set>

#include "qxmedia/muxer/QXMuxerVideoToolboxInput.h"
#include "qxmedia/platform/coremedia/CMFormatDescription.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;

// libx265 3.5 keeps one block per encoder it opened (inside x265_malloc,
// after the encoder is closed); the leak checker of sanitizer builds is told
// to look past it.
extern "C" const char* __lsan_default_suppressions() { return "leak:libx265.so\n"; }

namespace {

struct BitRateCase {
    bool hevc;
    double crf;
    int64_t width, height;
    double bitsPerSecond;
};

// Worked out by hand: 130 (100 for HEVC) kbit/s at 51 for 1920x1080,
// doubled every 5 steps down, times (pixels / 2073600)^0.75.
const BitRateCase kBitRates[] = {
    {false, 51, 1920, 1080, 130000},       {false, 23, 1920, 1080, 6305381},    {false, 0, 1920, 1080, 152914725},
    {true, 51, 1920, 1080, 100000},        {true, 23, 1920, 1080, 4850293},     {true, 0, 1920, 1080, 117626712},
    {false, 23, 1280, 720, 3432215},       {true, 51, 1280, 720, 54433},
    // Outside 0 to 51 the value is a bit rate in kbit/s, unrounded.
    {false, 52, 1920, 1080, 52000},        {false, 2500, 1920, 1080, 2500000},  {true, 2500.5, 640, 360, 2500500},
    {false, -1, 1920, 1080, -1000},
};

TEST(EncoderBitRate, FollowsTheQualityScaleOrIsGivenInKilobits)
{
    for (const BitRateCase& c : kBitRates) {
        EXPECT_DOUBLE_EQ(QXMuxerVideoToolboxInput::averageBitRate(c.hevc, c.crf, c.width, c.height), c.bitsPerSecond)
            << c.crf << " " << c.width << "x" << c.height << (c.hevc ? " hevc" : " h264");
    }
}

struct ProfileLevelCase {
    bool hevc;
    int profile, level;
    const char* expected; // null: no profile level at all
};

const ProfileLevelCase kProfileLevels[] = {
    {false, 100, 41, "H264_High_4_1"},        {false, 100, 33, "H264_High_AutoLevel"},
    {false, 100, 13, "H264_High_AutoLevel"},  {false, 66, 13, "H264_Baseline_1_3"},
    {false, 66, 52, "H264_Baseline_5_2"},     {false, 77, 30, "H264_Main_3_0"},
    {false, 77, 13, "H264_Main_AutoLevel"},   {false, 88, 50, "H264_Extended_5_0"},
    {false, 88, 41, "H264_Extended_AutoLevel"}, {false, 110, 41, nullptr},
    {false, 0, 0, nullptr},                   {true, 2, 0, "HEVC_Main10_AutoLevel"},
    {true, 1, 93, "HEVC_Main_AutoLevel"},     {true, 100, 42, "HEVC_Main_AutoLevel"},
};

TEST(EncoderProfileLevel, ComesFromTheTableOrIsLeftOut)
{
    for (const ProfileLevelCase& c : kProfileLevels) {
        const auto level = QXMuxerVideoToolboxInput::profileLevel(c.hevc, c.profile, c.level);
        if (c.expected) {
            EXPECT_EQ(level.value_or("(none)"), c.expected) << c.profile << "/" << c.level;
        } else {
            EXPECT_FALSE(level) << c.profile << "/" << c.level << ": " << *level;
        }
    }
}

std::shared_ptr<QXVideoTrack> destination(bool hevc, uint32_t hSpacing = 1, uint32_t vSpacing = 1)
{
    auto video = QXVideoTrack::init();
    video->codec_id = hevc ? 173 : 27;
    video->width = 176;
    video->height = 144;
    video->naturalTimeScale = 1000;
    video->hSpacing = hSpacing;
    video->vSpacing = vSpacing;
    video->encoderPreset = 2; // veryfast: the fastest with B-frames and CABAC
    video->encoderCRF = 30;
    video->profile = 100;
    video->level = 30;
    return video;
}

std::shared_ptr<QXMuxerVideoToolboxInput> makeInput(const std::shared_ptr<QXVideoTrack>& video)
{
    return QXMuxerInput::initWithSource<QXMuxerVideoToolboxInput>(nullptr, video);
}

TEST(EncoderPixelAspect, IsSetOnlyWhenBothSpacingsAreGiven)
{
    const struct {
        uint32_t h, v;
        bool set;
    } cases[] = {{32, 27, true}, {0, 27, false}, {32, 0, false}};
    for (const auto& c : cases) {
        auto input = makeInput(destination(false, c.h, c.v));
        VTCompressionSessionRef session = input->createEncoder();
        ASSERT_TRUE(session);
        QXValue aspect;
        const OSStatus status = VTSessionCopyProperty(session, kVTCompressionPropertyKey_PixelAspectRatio, &aspect);
        EXPECT_EQ(status == 0, c.set) << c.h << ":" << c.v;
        if (c.set) {
            EXPECT_EQ(aspect.find(kCVImageBufferPixelAspectRatioHorizontalSpacingKey)->int64(), int64_t(c.h));
        }
        VTCompressionSessionInvalidate(session);
    }
}

TEST(EncoderChoice, AHardwareDeviceThatDoesNotOpenFallsBackToSoftwareAndSaysSo)
{
    const struct {
        bool hevc;
        const char* hardware;
        const char* software;
    } cases[] = {{false, "h264_vaapi", "libx264"}, {true, "hevc_vaapi", "libx265"}};
    for (const auto& c : cases) {
        qxtest::LogCapture log;
        auto input = makeInput(destination(c.hevc));
        input->encoderSpecification = {{kVTVideoEncoderSpecification_EncoderID, c.hardware},
                                       {kQXVideoEncoderSpecification_Device, "/nonexistent/renderD128"}};
        VTCompressionSessionRef session = input->createEncoder();
        ASSERT_TRUE(session) << c.hardware;
        QXValue id;
        ASSERT_EQ(VTSessionCopyProperty(session, kVTCompressionPropertyKey_EncoderID, &id), 0);
        EXPECT_EQ(*id.string(), c.software);
        EXPECT_TRUE(log.contains(std::string("Encoder ") + c.hardware + " did not open on /nonexistent/renderD128"));
        EXPECT_TRUE(log.contains(std::string("Using encoder: ") + c.software));
        EXPECT_TRUE(log.contains("Using Software encoder"));
        EXPECT_FALSE(log.contains("Using Hardware encoder"));
        VTCompressionSessionInvalidate(session);
    }
}

TEST(EncoderExtradata, TheDummyPictureGivesTheRecordAndTheParameterSets)
{
    // HEVC profile 2 asks for Main 10: the record says what was encoded.
    const struct {
        bool hevc;
        int profile, recordProfile, bitDepth;
    } cases[] = {{false, 100, 100, 8}, {true, 100, 1, 8}, {true, 2, 2, 10}};
    for (const auto& c : cases) {
        auto video = destination(c.hevc);
        video->profile = uint8_t(c.profile);
        auto input = makeInput(video);
        ASSERT_TRUE(input->generateExtradata());
        ASSERT_GT(video->extradata.size(), 22u);
        EXPECT_EQ(video->extradata[0], 1); // configurationVersion of either record
        if (c.hevc) {
            EXPECT_EQ(video->extradata[1] & 0x1f, c.recordProfile);
            EXPECT_EQ((video->extradata[17] & 7) + 8, c.bitDepth);
        } else {
            EXPECT_EQ(video->sps.size(), 1u);
            EXPECT_EQ(video->pps.size(), 1u);
            EXPECT_EQ(video->profile, c.recordProfile);
            EXPECT_EQ(video->level, 30);
        }
    }
}

AVFrame* picture(int width, int height, int shade)
{
    AVFrame* frame = av_frame_alloc();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    av_frame_get_buffer(frame, 0);
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane ? (height + 1) / 2 : height;
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < frame->linesize[plane]; ++x) {
                frame->data[plane][y * frame->linesize[plane] + x] = uint8_t(plane ? 128 : (x * 3 + y * 2 + shade * 7));
            }
        }
    }
    return frame;
}

TEST(EncoderSamples, LeaveInDecodeOrderWithEveryPictureOnceAndSyncFlags)
{
    for (bool hevc : {false, true}) {
        auto input = makeInput(destination(hevc));
        VTCompressionSessionRef session = input->createEncoder();
        ASSERT_TRUE(session);
        std::vector<CMSampleBufferRef> encoded;
        auto handler = [&](OSStatus status, VTEncodeInfoFlags, const CMSampleBufferRef& sample) {
            EXPECT_EQ(status, 0);
            if (sample) encoded.push_back(sample);
        };
        std::set<int64_t> given;
        const int kPictures = 40;
        for (int i = 0; i < kPictures; ++i) {
            AVFrame* frame = picture(176, 144, i);
            CVPixelBufferRef buffer;
            ASSERT_EQ(CVPixelBufferCreateWithAVFrame(nullptr, frame, nullptr, &buffer), 0);
            av_frame_free(&frame);
            // Picture 7 has no time: it follows the one before it.
            const CMTime pts = i == 7 ? kCMTimeInvalid : CMTimeMake(i * 40, 1000);
            if (i != 7) given.insert(i * 40);
            ASSERT_EQ(VTCompressionSessionEncodeFrameWithOutputHandler(session, buffer, pts, CMTimeMake(40, 1000),
                                                                       nullptr, nullptr, handler),
                      0);
        }
        ASSERT_EQ(VTCompressionSessionCompleteFrames(session, kCMTimeIndefinite), 0);
        ASSERT_EQ(encoded.size(), size_t(kPictures));

        std::set<int64_t> presented;
        CMTime lastDts = kCMTimeNegativeInfinity;
        bool reordered = false;
        for (size_t i = 0; i < encoded.size(); ++i) {
            const CMTime pts = CMSampleBufferGetPresentationTimeStamp(encoded[i]);
            const CMTime dts = CMSampleBufferGetDecodeTimeStamp(encoded[i]);
            ASSERT_TRUE(CMTIME_IS_VALID(pts) && CMTIME_IS_VALID(dts)) << i;
            EXPECT_GT(CMTimeCompare(dts, lastDts), 0) << "decode times rise strictly at " << i;
            EXPECT_LE(CMTimeCompare(dts, pts), 0) << i;
            reordered = reordered || (i > 0 && CMTimeCompare(pts, CMSampleBufferGetPresentationTimeStamp(encoded[i - 1])) < 0);
            lastDts = dts;
            presented.insert(CMTimeConvertScale(pts, 1000, kCMTimeRoundingMethod_RoundHalfAwayFromZero).value);
            EXPECT_EQ(CMSampleBufferGetDuration(encoded[i]).value, 40);
        }
        EXPECT_TRUE(reordered) << "frame reordering is on";
        EXPECT_EQ(presented.size(), size_t(kPictures));
        for (int64_t time : given) EXPECT_TRUE(presented.count(time)) << time;

        auto attachments = CMSampleBufferGetFirstSampleAttachments(encoded[0], false);
        ASSERT_TRUE(attachments);
        EXPECT_EQ(attachments->value(kCMSampleAttachmentKey_NotSync)->truth(), false);
        const size_t syncSamples = size_t(std::count_if(encoded.begin(), encoded.end(), [](const CMSampleBufferRef& s) {
            return !CMSampleBufferGetFirstSampleAttachments(s, false)->value(kCMSampleAttachmentKey_NotSync)->truth().value_or(true);
        }));
        EXPECT_GE(syncSamples, 1u);
        EXPECT_LT(syncSamples, encoded.size());
        const QXValue* atoms = CMFormatDescriptionGetExtension(CMSampleBufferGetFormatDescription(encoded[0]),
                                                               kCMFormatDescriptionExtension_SampleDescriptionExtensionAtoms);
        ASSERT_TRUE(atoms && atoms->find(hevc ? "hvcC" : "avcC"));
        VTCompressionSessionInvalidate(session);
    }
}

} // namespace
