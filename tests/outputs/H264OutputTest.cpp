// Timing repair of copied video from timestamps alone: the window, times
// snapped to the stream's decode times, decode times made up for samples
// that had none, durations, and output times that rise for B-frame streams.

#include <gtest/gtest.h>

#include <algorithm>

#include "OutputMedia.h"
#include "OutputSupport.h"
#include "ReaderSupport.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/reader/QXTrackReaderH264Output.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace outputtest;

namespace {

// A video track in milliseconds whose reader has seen frames `spacing` ms
// apart.
QXTrackRef videoTrack(int64_t spacing = 40)
{
    auto track = QXVideoTrack::init();
    track->codec_id = 27;
    track->naturalTimeScale = 1000;
    track->reader = QXTrackReader::initWithTrack(nullptr);
    track->reader->filtered_average = CMTimeMake(spacing, 1000);
    return track;
}

std::shared_ptr<QXTrackReaderH264Output> outputFor(const QXTrackRef& track)
{
    return QXTrackReaderH264Output::initWithSource(track, track->copy());
}

// A sample whose size tells which one it was.
CMSampleBufferRef sample(int64_t id, CMTime pts, CMTime dts)
{
    auto made = readertest::makeSample(0, 0, true, 1000, size_t(id + 1));
    const CMSampleTimingInfo timing {kCMTimeInvalid, pts, dts};
    CMSampleBufferRef copy;
    CMSampleBufferCreateCopyWithNewTiming(nullptr, made, 1, &timing, &copy);
    return copy;
}

CMSampleBufferRef sample(int64_t id, int64_t ptsMs, int64_t dtsMs)
{
    return sample(id, CMTimeMake(ptsMs, 1000), CMTimeMake(dtsMs, 1000));
}

int64_t idOf(const CMSampleBufferRef& sample) { return int64_t(CMSampleBufferGetTotalSampleSize(sample)) - 1; }

int64_t ms(CMTime time) { return CMTimeConvertScale(time, 1000, kCMTimeRoundingMethod_RoundHalfAwayFromZero).value; }

} // namespace

TEST(H264Output, AShortStreamLeavesAtTheEndAndItsLastSampleGetsTheAverage)
{
    auto track = videoTrack(50);
    auto output = outputFor(track);
    std::vector<CMSampleBufferRef> samples;
    for (int i = 0; i < 10; ++i) samples.push_back(sample(i, i * 40, i * 40));
    feed(*output, samples, false);
    EXPECT_TRUE(takeReady(*output).empty());

    qxtest::LogCapture log;
    feed(*output, {}, true);
    const auto left = takeReady(*output);
    ASSERT_EQ(left.size(), 10u);
    for (size_t i = 0; i < left.size(); ++i) {
        EXPECT_EQ(idOf(left[i]), int64_t(i));
        EXPECT_EQ(ms(CMSampleBufferGetPresentationTimeStamp(left[i])), int64_t(i) * 40);
        EXPECT_EQ(ms(CMSampleBufferGetDecodeTimeStamp(left[i])), int64_t(i) * 40);
        // The next time in the stream, and for the last one the reader's
        // spacing (50 ms here, to tell it apart).
        EXPECT_EQ(ms(CMSampleBufferGetDuration(left[i])), i + 1 < left.size() ? 40 : 50) << "sample " << i;
    }
    EXPECT_TRUE(log.contains("Using average duration {50/1000", 4));
}

TEST(H264Output, PresentationTimesSnapToTheClosestDecodeTime)
{
    auto track = videoTrack();
    auto output = outputFor(track);
    // Decode times every 40 ms; presentation times a little off, one exact,
    // one exactly between two entries (the earlier slot wins).
    const int64_t given[] = {3, 38, 80, 125, 140, 200};
    const int64_t snapped[] = {0, 40, 80, 120, 120, 200};
    std::vector<CMSampleBufferRef> samples;
    for (int i = 0; i < 6; ++i) samples.push_back(sample(i, given[i], i * 40));
    feed(*output, samples, true);
    const auto left = takeReady(*output);
    ASSERT_EQ(left.size(), 6u);
    for (size_t i = 0; i < left.size(); ++i) {
        EXPECT_EQ(ms(CMSampleBufferGetPresentationTimeStamp(left[i])), snapped[i]) << "sample " << i;
        EXPECT_EQ(ms(CMSampleBufferGetDecodeTimeStamp(left[i])), int64_t(i) * 40) << "decode times stay";
    }
    // Durations reach to the next decode time after the snapped time.
    EXPECT_EQ(ms(CMSampleBufferGetDuration(left[1])), 40);
    EXPECT_EQ(ms(CMSampleBufferGetDuration(left[4])), 40);
}

TEST(H264Output, SamplesWithoutDecodeTimesAtTheStartDecodeBeforeZero)
{
    auto track = videoTrack();
    auto output = outputFor(track);
    // Three samples whose decode times were copied from their presentation
    // times, then real decode times 40, 80, 120, ...
    std::vector<CMSampleBufferRef> samples;
    samples.push_back(sample(0, CMTimeMake(80, 1000), copiedTime(80, 1000)));
    samples.push_back(sample(1, CMTimeMake(200, 1000), copiedTime(200, 1000)));
    samples.push_back(sample(2, CMTimeMake(120, 1000), copiedTime(120, 1000)));
    for (int i = 3; i < 12; ++i) samples.push_back(sample(i, (i + 3) * 40, (i - 2) * 40));

    qxtest::LogCapture log;
    feed(*output, samples, true);
    const auto left = takeReady(*output);
    ASSERT_EQ(left.size(), samples.size());
    EXPECT_EQ(ms(CMSampleBufferGetDecodeTimeStamp(left[0])), -120);
    EXPECT_EQ(ms(CMSampleBufferGetDecodeTimeStamp(left[1])), -80);
    EXPECT_EQ(ms(CMSampleBufferGetDecodeTimeStamp(left[2])), -40);
    EXPECT_EQ(ms(CMSampleBufferGetDecodeTimeStamp(left[3])), 40);
    EXPECT_TRUE(log.contains("Use first dts: {-120/1000", 4));
}

TEST(H264Output, RealStreamsPassUntouchedWithRisingOutputTimes)
{
    for (const auto& path : {outputmedia::mp4(), outputmedia::matroska()}) {
        SCOPED_TRACE(path.filename().string());
        const auto hashes = packetHashes(path);
        PipelineRun run(path);
        ASSERT_TRUE(run.movie);
        ASSERT_TRUE(run.run());
        ASSERT_TRUE(std::dynamic_pointer_cast<QXTrackReaderH264Output>(run.outputs[0]));
        const auto& video = run.delivered[0];
        ASSERT_FALSE(hashes.empty());
        ASSERT_EQ(video.size(), hashes[0].size());
        bool sawReorder = false;
        size_t averaged = 0;
        for (size_t i = 0; i < video.size(); ++i) {
            ASSERT_EQ(readertest::md5Of(video[i]), hashes[0][i]) << "sample " << i;
            // Only pictures at the very end lack a later time and take the
            // reader's average spacing.
            const int64_t duration = ms(CMSampleBufferGetDuration(video[i]));
            EXPECT_GT(duration, 30) << "sample " << i;
            if (duration != 40) {
                ++averaged;
                EXPECT_GE(i + 8, video.size()) << "sample " << i;
            }
            if (i == 0) continue;
            EXPECT_GT(CMTimeCompare(CMSampleBufferGetOutputPresentationTimeStamp(video[i]),
                                    CMSampleBufferGetOutputPresentationTimeStamp(video[i - 1])),
                      0)
                << "sample " << i;
            EXPECT_GT(CMTimeCompare(CMSampleBufferGetDecodeTimeStamp(video[i]),
                                    CMSampleBufferGetDecodeTimeStamp(video[i - 1])),
                      0)
                << "sample " << i;
            sawReorder |= CMTimeCompare(CMSampleBufferGetPresentationTimeStamp(video[i]),
                                        CMSampleBufferGetPresentationTimeStamp(video[i - 1])) < 0;
        }
        EXPECT_TRUE(sawReorder) << "the source has B-frames";
        EXPECT_LE(averaged, 4u);
    }
}
