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

// I P B B repeated: presentation order 0 2 3 1 ..., 40 ms a frame, decode
// times trailing by one frame.
std::vector<CMSampleBufferRef> bFrameStream(int count)
{
    static const int order[] = {0, 3, 1, 2};
    std::vector<CMSampleBufferRef> samples;
    for (int i = 0; i < count; ++i) {
        const int frame = (i / 4) * 4 + order[i % 4];
        samples.push_back(sample(i, int64_t(frame + 1) * 40, int64_t(i) * 40));
    }
    return samples;
}

} // namespace

TEST(H264Output, NothingLeavesBeforeTheWindowIsFull)
{
    auto track = videoTrack();
    auto output = outputFor(track);
    std::vector<CMSampleBufferRef> samples;
    for (int i = 0; i < 40; ++i) samples.push_back(sample(i, i * 40, i * 40));

    feed(*output, {samples.begin(), samples.begin() + 31}, false);
    EXPECT_TRUE(takeReady(*output).empty()) << "31 samples stay behind";
    feed(*output, {samples[31]}, false);
    auto left = takeReady(*output);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(idOf(left[0]), 0);

    feed(*output, {samples.begin() + 32, samples.end()}, false);
    EXPECT_EQ(takeReady(*output).size(), 8u) << "one out for each one in";
    EXPECT_FALSE(output->finished());
    feed(*output, {}, true);
    left = takeReady(*output);
    ASSERT_EQ(left.size(), 31u);
    for (size_t i = 0; i < left.size(); ++i) EXPECT_EQ(idOf(left[i]), int64_t(i) + 9);
    EXPECT_TRUE(output->finished());
    EXPECT_EQ(output->copyNextSample(), nullptr);
}

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

TEST(H264Output, OutputTimesRiseThoughPresentationTimesDoNot)
{
    auto track = videoTrack();
    auto output = outputFor(track);
    const auto samples = bFrameStream(48);
    feed(*output, samples, true);
    const auto left = takeReady(*output);
    ASSERT_EQ(left.size(), samples.size());
    for (size_t i = 0; i < left.size(); ++i) {
        EXPECT_EQ(idOf(left[i]), int64_t(i)) << "decode order stays";
        // Output times are the presentation times in ascending order.
        EXPECT_EQ(ms(CMSampleBufferGetOutputPresentationTimeStamp(left[i])), int64_t(i + 1) * 40) << "sample " << i;
        EXPECT_EQ(ms(CMSampleBufferGetDuration(left[i])), 40) << "sample " << i;
        // The last picture shows after the last decode time and keeps its own.
        EXPECT_EQ(ms(CMSampleBufferGetPresentationTimeStamp(left[i])), ms(CMSampleBufferGetPresentationTimeStamp(samples[i])));
    }
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
