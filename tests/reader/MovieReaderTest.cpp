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

TEST(MovieReader, WhichKeyFrameMayStartTheTimeline)
{
    // Key frames from -10 s to -0.5 s, both included, belong to a cut-away
    // preroll; a key frame without both times cannot start either.
    struct Case {
        std::optional<int64_t> pts, dts;
        bool starts;
    };
    const Case cases[] = {
        {-500, -500, false}, {-10000, -10000, false}, {-2000, -2000, false}, {-400, -400, true},
        {-10001, -10001, true}, {0, 0, true},          {std::nullopt, 100, false}, {100, std::nullopt, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(text(c.pts ? ms(*c.pts) : kCMTimeInvalid) + " " + text(c.dts ? ms(*c.dts) : kCMTimeInvalid));
        SyntheticMovie m;
        auto video = m.add(QXVideoTrack::init());
        auto out = RecordingOutput::attach(video);
        m.feed(video, makeSample(c.pts, c.dts));
        EXPECT_EQ(bool(m.reader->saw_video), c.starts);
        // The next good key frame always starts it.
        m.feed(video, makeSample(1000, 1000));
        EXPECT_TRUE(m.reader->saw_video);
        m.finish();
        EXPECT_EQ(out->count(), c.starts ? 2u : 1u);
    }
}

TEST(MovieReader, FirstKeyFrameAtZeroLeavesSamplesUncopied)
{
    SyntheticMovie m;
    auto video = m.add(QXVideoTrack::init());
    auto audio = m.add(QXAudioTrack::init());
    auto videoOut = RecordingOutput::attach(video);
    auto audioOut = RecordingOutput::attach(audio);
    auto held = makeSample(0, 0);
    m.feed(audio, held);
    auto key = makeSample(40, 0);
    m.feed(video, key);
    m.finish();
    ASSERT_EQ(videoOut->count(), 1u);
    ASSERT_EQ(audioOut->count(), 1u);
    EXPECT_EQ(videoOut->received()[0], key);
    EXPECT_EQ(audioOut->received()[0], held);
}

TEST(MovieReader, StartupBufferKeepsAHundredSamplesPerTrackOfTheMovie)
{
    for (int audioTracks : {1, 2}) {
        SCOPED_TRACE(audioTracks);
        SyntheticMovie m;
        auto video = m.add(QXVideoTrack::init());
        RecordingOutput::attach(video);
        std::vector<std::shared_ptr<RecordingOutput>> outs;
        std::vector<std::shared_ptr<QXAudioTrack>> audios;
        for (int i = 0; i < audioTracks; ++i) {
            audios.push_back(m.add(QXAudioTrack::init()));
            outs.push_back(RecordingOutput::attach(audios.back()));
        }
        const int bound = 100 * (audioTracks + 1);
        // One more than the bound, on the first audio track.
        for (int k = 0; k <= bound; ++k) m.feed(audios[0], makeSample(k * 10, k * 10));
        m.feed(video, makeSample(10000, 10000));
        m.finish();
        const auto samples = outs[0]->received();
        ASSERT_EQ(samples.size(), size_t(bound));
        // The oldest was pushed out.
        EXPECT_TRUE(same(pts(samples.front()), ms(10 - 10000))) << text(pts(samples.front()));
        EXPECT_TRUE(same(pts(samples.back()), ms(bound * 10 - 10000)));
    }
}

TEST(MovieReader, OtherTracksWaitForeverWithoutAVideoKeyFrame)
{
    SyntheticMovie m;
    auto video = m.add(QXVideoTrack::init());
    auto subtitles = m.add(QXSubtitleTrack::init());
    RecordingOutput::attach(video);
    auto out = RecordingOutput::attach(subtitles);
    for (int k = 0; k < 50; ++k) m.feed(subtitles, makeSample(k * 100, k * 100));
    for (int k = 0; k < 5; ++k) m.feed(video, makeSample(k * 40, k * 40, false));
    m.finish();
    EXPECT_EQ(out->count(), 0u);
    EXPECT_TRUE(out->ended());
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

TEST(MovieReader, VideoWhoseAudioNeverComesBackContinuesItsOwnTimelineAtTheEnd)
{
    SyntheticMovie m;
    auto video = m.add(QXVideoTrack::init());
    auto audio = m.add(QXAudioTrack::init());
    auto videoOut = RecordingOutput::attach(video);
    RecordingOutput::attach(audio);
    m.feed(video, makeSample(0, 0));
    m.feed(audio, makeSample(0, 0));
    m.feed(video, makeSample(40, 40, false));
    m.reader->demux_scr_changes += 1;
    m.feed(video, makeSample(50080, 50000, false));
    m.feed(video, makeSample(50040, 50040, false));
    m.reader->finish();
    m.finish();
    const auto samples = videoOut->received();
    ASSERT_EQ(samples.size(), 4u);
    // One spacing after the last picture, the pictures in their own order.
    const double next = 0.040 + CMTimeGetSeconds(video->reader->filtered_average);
    EXPECT_NEAR(CMTimeGetSeconds(dts(samples[2])), next, 1e-3);
    EXPECT_NEAR(CMTimeGetSeconds(pts(samples[2])), next + 0.080, 1e-3);
    EXPECT_NEAR(CMTimeGetSeconds(pts(samples[3])), next + 0.040, 1e-3);
}

TEST(MovieReader, TracksWithoutOutputsDoNotStartTheTimeline)
{
    SyntheticMovie m;
    auto unused = m.add(QXVideoTrack::init());
    auto video = m.add(QXVideoTrack::init());
    auto out = RecordingOutput::attach(video);
    m.feed(unused, makeSample(0, 0));
    EXPECT_FALSE(m.reader->saw_video);
    m.feed(video, makeSample(500, 500));
    EXPECT_TRUE(m.reader->saw_video);
    m.finish();
    ASSERT_EQ(out->count(), 1u);
    EXPECT_TRUE(same(dts(out->received()[0]), ms(0)));
}
