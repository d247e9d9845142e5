// The read loop on real files: the packet size limit, read errors, shared
// packet buffers, and jumps of a transport stream's timeline.

#include <gtest/gtest.h>

#include <numeric>

extern "C" {
#include <libavutil/error.h>
}

#include "ReaderMedia.h"
#include "ReaderSupport.h"
#include "qxmedia/reader/QXMovieReader.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXReadErrorBudget.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace readertest;

namespace {

// A movie with a recording output on every track; the video output may
// start closed.
struct Reading {
    explicit Reading(const std::filesystem::path& path, bool videoOpen = true)
    {
        EXPECT_FALSE(path.empty()) << "fixture was not generated";
        movie = QXMovie::initWithURL(path);
        if (!movie) return;
        for (const QXTrackRef& track : movie->tracks) {
            const bool isVideo = std::dynamic_pointer_cast<QXVideoTrack>(track) != nullptr;
            outputs.push_back(RecordingOutput::attach(track, videoOpen || !isVideo));
        }
    }
    ~Reading()
    {
        if (!movie) return;
        for (const auto& output : outputs) output->open();
        for (const auto& output : outputs) output->waitForEnd();
        for (const QXTrackRef& track : movie->tracks) {
            dispatch_sync(track->outQueue, [] {});
            track->outputs.clear();
        }
        movie->releaseReaders();
    }
    bool waitForEnd()
    {
        bool all = true;
        for (const auto& output : outputs) all = output->waitForEnd() && all;
        return all;
    }
    size_t total() const
    {
        size_t sum = 0;
        for (const auto& output : outputs) sum += output->count();
        return sum;
    }
    std::shared_ptr<QXMovie> movie;
    std::vector<std::shared_ptr<RecordingOutput>> outputs;
};

size_t countLines(const qxtest::LogCapture& log, const std::string& fragment)
{
    size_t n = 0;
    for (const auto& line : log.lines()) n += line.text.find(fragment) != std::string::npos;
    return n;
}

} // namespace

TEST(ReadLoop, PacketsOf32MiBAndMoreAreDropped)
{
    for (long bytes : {33554432L, 33554431L}) {
        SCOPED_TRACE(bytes);
        qxtest::LogCapture log;
        Reading reading(readermedia::rawFrame(bytes));
        ASSERT_TRUE(reading.movie);
        ASSERT_EQ(reading.outputs.size(), 1u);
        ASSERT_TRUE(reading.movie->startReading());
        ASSERT_TRUE(reading.waitForEnd());
        EXPECT_EQ(reading.movie->status, QXMovieStatusFinished);
        const auto samples = reading.outputs[0]->received();
        if (bytes == 33554432L) {
            EXPECT_TRUE(samples.empty());
            EXPECT_TRUE(log.contains("packet too big: 33554432 bytes", 2));
        } else {
            ASSERT_EQ(samples.size(), 1u);
            EXPECT_EQ(CMSampleBufferGetTotalSampleSize(samples[0]), size_t(bytes));
            EXPECT_FALSE(log.contains("packet too big"));
        }
    }
}

TEST(ReadLoop, TransportStreamJumpIsRebasedAndStragglersAreIgnored)
{
    const auto path = readermedia::jumpingTransportStream();
    const auto expected = ffprobePacketCounts(path);
    const auto straggler = ffprobePacketCounts(readermedia::jumpingTransportStreamStraggler());
    qxtest::LogCapture log;
    Reading reading(path);
    ASSERT_TRUE(reading.movie);
    ASSERT_EQ(reading.outputs.size(), 2u);
    ASSERT_EQ(expected.size(), 2u);
    ASSERT_EQ(straggler.size(), 2u);
    ASSERT_TRUE(reading.movie->startReading());
    ASSERT_TRUE(reading.waitForEnd());

    // One real jump (1.4 s + 3 s to 101.4 s); the 0.5 s near the old timeline
    // are ignored packet by packet; the last part continues the second.
    EXPECT_EQ(reading.movie->reader->demux_scr_changes, 1);
    EXPECT_EQ(countLines(log, "demux: discontinuty id 0x"), 1u);
    EXPECT_EQ(countLines(log, "demux: discontinuty sample ignored id 0x"), straggler[0] + straggler[1]);
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(reading.outputs[i]->count(), expected[i] - straggler[i]) << "stream " << i;
    }

    // The timeline runs on without the jump: 8 s of media, no gap in audio.
    auto audio = reading.outputs[1]->received();
    ASSERT_TRUE(std::dynamic_pointer_cast<QXAudioTrack>(reading.movie->tracks[1]));
    double previous = -1;
    for (const auto& sample : audio) {
        const CMTime t = pts(sample);
        if (!CMTIME_IS_VALID(t)) continue;
        const double now = CMTimeGetSeconds(t);
        // Parts of an encoded file overlap by a few milliseconds of priming.
        if (previous >= 0) {
            EXPECT_LT(std::abs(now - previous), 0.05) << previous << " -> " << now;
        }
        previous = now;
    }
    EXPECT_NEAR(previous, 8.0, 0.2);
    for (const auto& sample : reading.outputs[0]->received()) {
        if (CMTIME_IS_VALID(pts(sample))) {
            EXPECT_LT(CMTimeGetSeconds(pts(sample)), 8.5);
        }
    }
}

TEST(ReadLoop, SourceGoneBeforeReadingFailsAndStillEndsEveryTrack)
{
    const auto dir = qxtest::makeTempDir("reader-gone");
    const auto copy = dir / "gone.ts";
    std::filesystem::copy_file(readermedia::transportStream(), copy);
    Reading reading(copy);
    ASSERT_TRUE(reading.movie);
    std::filesystem::remove(copy);

    EXPECT_FALSE(reading.movie->startReading());
    ASSERT_TRUE(reading.waitForEnd());
    EXPECT_EQ(reading.movie->status, QXMovieStatusFailed);
    ASSERT_TRUE(reading.movie->error());
    // The first failure is kept: the file's size could not be read.
    EXPECT_EQ(std::string(reading.movie->error()->domain()), NSPOSIXErrorDomain);
    EXPECT_EQ(reading.movie->error()->code(), ENOENT);
    EXPECT_EQ(reading.total(), 0u);
}

TEST(ReadLoop, JumpOfMoreThanNineTenthsOfASecondIsADiscontinuity)
{
    for (int jump : {900, 1000}) {
        SCOPED_TRACE(jump);
        qxtest::LogCapture log;
        Reading reading(readermedia::videoJump(jump));
        ASSERT_TRUE(reading.movie);
        ASSERT_TRUE(reading.movie->startReading());
        ASSERT_TRUE(reading.waitForEnd());
        const auto samples = reading.outputs[0]->received();
        ASSERT_EQ(samples.size(), 50u);
        const double step = CMTimeGetSeconds(dts(samples[25])) - CMTimeGetSeconds(dts(samples[24]));
        if (jump == 900) {
            // Within the tolerance, limit included: the time runs on as it is.
            EXPECT_EQ(countLines(log, "discontinuty"), 0u);
            EXPECT_EQ(reading.movie->reader->demux_scr_changes, 0);
            EXPECT_NEAR(step, 0.9, 1e-9);
        } else {
            // Beyond it: without audio the video itself continues the
            // timeline one frame spacing on.
            EXPECT_EQ(countLines(log, "demux: discontinuty id 0x0 "), 1u);
            EXPECT_EQ(reading.movie->reader->demux_scr_changes, 1);
            EXPECT_GT(step, 0.03);
            EXPECT_LT(step, 0.05);
        }
    }
}

TEST(ReadLoop, SamplesCarryThePacketBytesAlsoWhenPacketsShareABuffer)
{
    // mkvmerge laces audio: several packets point into one block, each at
    // its own offset.
    const auto path = readermedia::lacedMatroska();
    const auto expected = ffprobePacketHashes(path);
    Reading reading(path);
    ASSERT_TRUE(reading.movie);
    ASSERT_EQ(expected.size(), reading.outputs.size());
    ASSERT_TRUE(reading.movie->startReading());
    ASSERT_TRUE(reading.waitForEnd());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(reading.movie->tracks[i]->description());
        std::vector<std::string> hashes;
        for (const auto& sample : reading.outputs[i]->received()) hashes.push_back(md5Of(sample));
        EXPECT_EQ(hashes, expected[i]);
    }
}

TEST(ReadLoop, ElevenFailedReadsAreReadPastAndAnInputErrorThenEndsKeepingWhatWasRead)
{
    // After the first part of the list, the concat demuxer fails to open the
    // second and then answers every read with an input/output error.
    const auto path = readermedia::concatWithMissingPart();
    const auto firstPart = ffprobePacketCounts(readermedia::matroska());
    qxtest::LogCapture log;
    Reading reading(path);
    ASSERT_TRUE(reading.movie);
    ASSERT_EQ(reading.outputs.size(), firstPart.size());
    ASSERT_TRUE(reading.movie->startReading());
    ASSERT_TRUE(reading.waitForEnd());

    EXPECT_EQ(countLines(log, "Error reading frame"), size_t(QXReadErrorBudget::kTolerated + 1));
    EXPECT_EQ(countLines(log, "Ignoring Input/output error!"), 1u);
    EXPECT_EQ(reading.movie->status, QXMovieStatusFinished) << "what was read is kept";
    ASSERT_TRUE(reading.movie->error());
    EXPECT_EQ(reading.movie->error()->code(), AVERROR(EIO));
    for (size_t i = 0; i < firstPart.size(); ++i) {
        EXPECT_EQ(reading.outputs[i]->count(), firstPart[i]) << "stream " << i;
        EXPECT_TRUE(reading.outputs[i]->ended());
    }
}
