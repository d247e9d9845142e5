// The track readers: the spacing statistics that close a jump of the
// timeline, and the Dolby reader that drops durations.

#include <gtest/gtest.h>

#include "ReaderSupport.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXAudioTrack.h"

using namespace qx;
using namespace readertest;

namespace {

double seconds(CMTime time)
{
    return CMTimeGetSeconds(time);
}

} // namespace

TEST(TrackReader, SpacingSettlesQuicklyAndIgnoresOutliers)
{
    QXTrackReader reader(nullptr);
    // The start values make the first sample at zero one spacing after the
    // assumed last one, so it changes nothing.
    reader.update_ipt(makeSample(0, 0));
    EXPECT_NEAR(seconds(reader.average), 1.0 / 30, 1e-9);
    EXPECT_TRUE(reader.valid);

    // 40 ms spacing in 90 kHz ticks: the first ten steps weigh a quarter,
    // later ones 1/32. The averages are times in the samples' timescale, so
    // each step may round by half a tick.
    double average = 1.0 / 30;
    double filtered = 1.0 / 30;
    int64_t t = 0;
    for (int k = 0; k < 40; ++k) {
        t += 3600;
        const double before = seconds(reader.filtered_average);
        reader.update_ipt(makeSample(t, t, true, 90000));
        average += (0.040 - average) * (k < 9 ? 0.25 : 0.03125);
        if (0.040 < 1.5 * average) filtered += (0.040 - filtered) * 0.03125;
        ASSERT_NEAR(seconds(reader.average), average, 1e-4) << k;
        ASSERT_NEAR(seconds(reader.filtered_average), filtered, 2e-4) << k;
        ASSERT_GT(seconds(reader.filtered_average), before) << k;
    }
    EXPECT_NEAR(seconds(reader.average), 0.040, 1e-3) << "settled after the fast start";
    EXPECT_EQ(reader.startup, 0);
    EXPECT_NEAR(seconds(reader.last), 1.6, 1e-9);
    t /= 90; // on in milliseconds

    // A gap of 1.5 spacings or more moves the average but not the filtered one.
    const double filteredBefore = seconds(reader.filtered_average);
    const double averageBefore = seconds(reader.average);
    t += 200;
    reader.update_ipt(makeSample(t, t));
    EXPECT_GT(seconds(reader.average), averageBefore);
    EXPECT_NEAR(seconds(reader.filtered_average), filteredBefore, 1e-9);

    // Jumps of 5 s and more, and steps back, change no average; `last` follows.
    for (int64_t next : {t + 5000, t + 5000 - 10, t + 4000}) {
        const double a = seconds(reader.average), f = seconds(reader.filtered_average);
        reader.update_ipt(makeSample(next, next));
        EXPECT_NEAR(seconds(reader.average), a, 1e-9) << next;
        EXPECT_NEAR(seconds(reader.filtered_average), f, 1e-9) << next;
        EXPECT_NEAR(seconds(reader.last), next / 1000.0, 1e-9);
    }
}

TEST(TrackReader, TimeCopiedByTheReadLoopCountsByItsValue)
{
    QXTrackReader reader(nullptr);
    auto sample = makeSample(std::nullopt, 40);
    // The read loop marks a decode time copied from the presentation time.
    CMTime marked = CMTimeMake(40, 1000);
    marked.flags |= kCMTimeFlags_Indefinite;
    CMSampleTimingInfo timing {kCMTimeInvalid, marked, marked};
    CMSampleBufferRef copy;
    ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &copy), 0);
    reader.update_ipt(copy);
    EXPECT_TRUE(CMTIME_IS_NUMERIC(reader.last));
    EXPECT_NEAR(seconds(reader.last), 0.040, 1e-9);
    EXPECT_GT(seconds(reader.average), 1.0 / 30);
}

TEST(TrackReader, DolbyReaderDropsTheDurationOnly)
{
    auto track = QXAC3AudioTrack::init();
    track->reader = QXTrackReaderAC3::initWithTrack(track);
    auto out = RecordingOutput::attach(track);

    auto sample = makeSample(1000, 990);
    CMSampleTimingInfo timing {CMTimeMake(32, 1000), CMTimeMake(1000, 1000), CMTimeMake(990, 1000)};
    CMSampleBufferRef timed;
    ASSERT_EQ(CMSampleBufferCreateCopyWithNewTiming(nullptr, sample, 1, &timing, &timed), 0);
    track->processSample(timed);
    track->markAsFinished();
    ASSERT_TRUE(out->waitForEnd());
    const auto samples = out->received();
    ASSERT_EQ(samples.size(), 1u);
    EXPECT_FALSE(CMTIME_IS_VALID(CMSampleBufferGetDuration(samples[0])));
    EXPECT_TRUE(same(pts(samples[0]), CMTimeMake(1000, 1000)));
    EXPECT_TRUE(same(dts(samples[0]), CMTimeMake(990, 1000)));
    EXPECT_EQ(CMSampleBufferGetDataBuffer(samples[0]), CMSampleBufferGetDataBuffer(timed)) << "data is shared";
    // The sample the caller holds keeps its duration.
    EXPECT_TRUE(same(CMSampleBufferGetDuration(timed), CMTimeMake(32, 1000)));

    dispatch_sync(track->outQueue, [] {});
    track->outputs.clear();
    track->reader->releaseTrack();
}
