// The movie reader's timeline rules, fed sample by sample as the read loop
// would, on a movie made of tracks without a file behind them.

#include <gtest/gtest.h>

#include "ReaderSupport.h"
#include "qxmedia/reader/QXMovieReader.h"
#include "qxmedia/reader/QXTrackReader.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using namespace readertest;

namespace {

class SyntheticMovie {
public:
    SyntheticMovie() : movie(std::make_shared<QXMovie>(std::vector<QXURL> {})), reader(QXMovieReader::init())
    {
        movie->reader = reader;
    }
    ~SyntheticMovie()
    {
        // Tracks, their readers and their outputs hold each other; the
        // fan-out must be idle before the list of outputs goes.
        for (const QXTrackRef& track : movie->tracks) {
            dispatch_sync(track->outQueue, [] {});
            track->outputs.clear();
        }
        movie->releaseReaders();
    }

    template <class Track>
    std::shared_ptr<Track> add(std::shared_ptr<Track> track)
    {
        track->streamIndex = int32_t(movie->tracks.size());
        track->source = movie;
        if (!track->reader) track->reader = QXTrackReader::initWithTrack(track);
        movie->tracks.push_back(track);
        return track;
    }

    void feed(const QXTrackRef& track, const CMSampleBufferRef& sample) { reader->processSample(sample, track); }

    // Ends every track and waits until each recorder has seen the end.
    void finish()
    {
        for (const QXTrackRef& track : movie->tracks) {
            track->markAsFinished();
            for (const auto& output : track->outputs) {
                if (auto recorder = std::dynamic_pointer_cast<RecordingOutput>(output)) {
                    EXPECT_TRUE(recorder->waitForEnd());
                }
            }
        }
    }

    std::shared_ptr<QXMovie> movie;
    std::shared_ptr<QXMovieReader> reader;
};

CMTime ms(int64_t value)
{
    return CMTimeMake(value, 1000);
}

} // namespace

TEST(MovieReader, FirstKeyFrameStartsTheTimelineAndReleasesEarlierAudio)
{
    qxtest::LogCapture log;
    SyntheticMovie m;
    auto video = m.add(QXVideoTrack::init());
    auto audio = m.add(QXAudioTrack::init());
    auto videoOut = RecordingOutput::attach(video);
    auto audioOut = RecordingOutput::attach(audio);

    // Audio in 1024-frame packets at 48 kHz, before any video.
    for (int k = 0; k < 10; ++k) m.feed(audio, makeSample(k * 1024, k * 1024, true, 48000));
    // Video that cannot start the timeline: no key frame.
    m.feed(video, makeSample(280, 200, false));
    EXPECT_EQ(audioOut->count(), 0u) << "audio must wait for the first video key frame";
    // The first key frame: decode time 400 ms, presentation 480 ms.
    m.feed(video, makeSample(480, 400));
    m.feed(audio, makeSample(10 * 1024, 10 * 1024, true, 48000));
    m.feed(video, makeSample(520, 440, false)); // after the start a non-key frame goes on
    m.finish();

    const auto videoSamples = videoOut->received();
    ASSERT_EQ(videoSamples.size(), 2u);
    EXPECT_TRUE(same(dts(videoSamples[0]), ms(0))) << text(dts(videoSamples[0]));
    EXPECT_TRUE(same(pts(videoSamples[0]), ms(80))) << text(pts(videoSamples[0]));
    EXPECT_TRUE(same(dts(videoSamples[1]), ms(40))) << text(dts(videoSamples[1]));

    // The held audio comes out in order, rebased by 400 ms, so before zero.
    const auto audioSamples = audioOut->received();
    ASSERT_EQ(audioSamples.size(), 11u);
    for (int k = 0; k < 11; ++k) {
        const CMTime expected = CMTimeMake(k * 1024 - 19200, 48000);
        EXPECT_TRUE(same(pts(audioSamples[size_t(k)]), expected)) << k << ": " << text(pts(audioSamples[size_t(k)]));
        EXPECT_TRUE(same(dts(audioSamples[size_t(k)]), expected)) << k;
    }
    EXPECT_TRUE(log.contains("drop none key video frame at id 0x0", 4));
    EXPECT_TRUE(log.contains("reader: first id 0x0", 4));
    EXPECT_TRUE(log.contains("reader startup samples: 10", 4));
}

TEST(MovieReader, DiscontinuityContinuesTheTimelineFromAudio)
{
    SyntheticMovie m;
    auto video = m.add(QXVideoTrack::init());
    auto audio = m.add(QXAudioTrack::init());
    auto videoOut = RecordingOutput::attach(video);
    auto audioOut = RecordingOutput::attach(audio);

    // One second from 1 s on: video every 40 ms, audio every 20 ms.
    for (int64_t t = 1000; t < 2000; t += 20) {
        if (t % 40 == 0) m.feed(video, makeSample(t, t, t == 1000));
        m.feed(audio, makeSample(t, t));
    }
    const double audioSpacing = CMTimeGetSeconds(audio->reader->filtered_average);

    // The read loop saw the timeline jump to 50 s.
    m.reader->demux_scr_changes += 1;
    m.feed(video, makeSample(50000, 50000, false)); // audio has been seen: waits for it
    m.feed(audio, makeSample(50000, 50000)); // takes the new offset
    m.feed(video, makeSample(50040, 50040, false));
    m.feed(audio, makeSample(50020, 50020));
    m.finish();
    EXPECT_EQ(m.reader->scr_changes, m.reader->demux_scr_changes);

    const auto videoSamples = videoOut->received();
    const auto audioSamples = audioOut->received();
    ASSERT_EQ(videoSamples.size(), 27u);
    ASSERT_EQ(audioSamples.size(), 52u);
    // Before the jump audio ran 0 .. 980 ms.
    EXPECT_TRUE(same(pts(audioSamples[49]), ms(980)));
    // Audio continues one spacing after its last time, and the video that
    // waited for it takes the same offset.
    const double resumed = CMTimeGetSeconds(pts(audioSamples[50]));
    EXPECT_NEAR(resumed, 0.980 + audioSpacing, 1e-3);
    EXPECT_NEAR(CMTimeGetSeconds(pts(audioSamples[51])), resumed + 0.020, 1e-3);
    EXPECT_NEAR(CMTimeGetSeconds(dts(videoSamples[25])), resumed, 1e-3);
    EXPECT_NEAR(CMTimeGetSeconds(dts(videoSamples[26])), resumed + 0.040, 1e-3);
}
