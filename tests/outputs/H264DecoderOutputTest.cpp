// Timing of H.264 whose packet times are only indexes: the decoder tells
// the display order and the reorder delay.

#include <gtest/gtest.h>

#include <algorithm>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "OutputMedia.h"
#include "OutputSupport.h"
#include "ReaderSupport.h"
#include "qxmedia/reader/QXTrackReaderH264Output.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace outputtest;

TEST(H264DecoderOutput, AviWithBFramesGetsDisplayTimesAndDecodeTimesTwoFramesBehind)
{
    const auto path = outputmedia::avi();
    const auto hashes = packetHashes(path);
    PipelineRun run(path);
    ASSERT_TRUE(run.movie);
    ASSERT_EQ(run.movie->format, "avi");
    ASSERT_TRUE(std::dynamic_pointer_cast<QXTrackReaderH264DecoderOutput>(run.outputs[0]));
    ASSERT_TRUE(run.run());

    const auto& video = run.delivered[0];
    ASSERT_FALSE(hashes.empty());
    ASSERT_EQ(video.size(), hashes[0].size());
    const int32_t timescale = run.movie->tracks[0]->naturalTimeScale;
    std::vector<int64_t> shown;
    for (size_t i = 0; i < video.size(); ++i) {
        ASSERT_EQ(readertest::md5Of(video[i]), hashes[0][i]) << "sample " << i;
        const CMTime p = CMSampleBufferGetPresentationTimeStamp(video[i]);
        ASSERT_TRUE(CMTIME_IS_NUMERIC(p)) << "sample " << i;
        EXPECT_EQ(p.timescale, timescale);
        shown.push_back(p.value);
        EXPECT_EQ(CMTimeCompare(CMSampleBufferGetDuration(video[i]), CMTimeMake(1, 25)), 0) << "sample " << i;
    }
    // Each picture has its own display time, one frame apart.
    std::vector<int64_t> sorted = shown;
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 0; i < sorted.size(); ++i) ASSERT_EQ(sorted[i], int64_t(i)) << "display slot " << i;
    EXPECT_NE(shown, sorted) << "the B-frames are displayed out of decode order";

    // I P B B P B B ...: the decoder holds two pictures back.
    EXPECT_EQ(CMSampleBufferGetDecodeTimeStamp(video[0]).value, -2);
    EXPECT_EQ(CMSampleBufferGetDecodeTimeStamp(video[1]).value, -1);
    for (size_t i = 0; i < video.size(); ++i) {
        const CMTime d = CMSampleBufferGetDecodeTimeStamp(video[i]);
        if (i >= 2) {
            EXPECT_EQ(d.value, sorted[i - 2]) << "sample " << i;
        }
        EXPECT_LE(CMTimeCompare(d, CMSampleBufferGetPresentationTimeStamp(video[i])), 0) << "sample " << i;
        // The decode time doubles as the output time, which rises.
        EXPECT_EQ(CMTimeCompare(CMSampleBufferGetOutputPresentationTimeStamp(video[i]), d), 0);
    }
}

TEST(H264DecoderOutput, WithoutADecoderEverySampleStillPasses)
{
    auto track = QXVideoTrack::init();
    track->codec_id = AV_CODEC_ID_NONE;
    track->naturalTimeScale = 25;
    qxtest::LogCapture log;
    auto output = QXTrackReaderH264DecoderOutput::initWithSource(track, track->copy());
    EXPECT_FALSE(output->hasDecoder());
    EXPECT_TRUE(log.contains("Could not find necessary decoder!", 2));

    std::vector<CMSampleBufferRef> samples;
    for (int i = 0; i < 20; ++i) samples.push_back(readertest::makeSample(i, i, i == 0, 25, size_t(i + 1)));
    feed(*output, {samples.begin(), samples.begin() + 15}, false);
    EXPECT_TRUE(takeReady(*output).empty()) << "15 samples stay behind";
    feed(*output, {samples.begin() + 15, samples.end()}, true);
    const auto left = takeReady(*output);
    ASSERT_EQ(left.size(), samples.size());
    for (size_t i = 0; i < left.size(); ++i) EXPECT_EQ(CMSampleBufferGetTotalSampleSize(left[i]), i + 1);
    EXPECT_TRUE(output->finished());
}
