#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/muxer/QXMuxerInput.h"
#include "qxmedia/reader/QXTrackReaderOutput.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

namespace {

// A job whose plan the test builds by hand, line by line.
struct HandPlan {
    std::shared_ptr<QXMovie> movie = std::make_shared<QXMovie>(std::vector<QXURL> {});
    std::shared_ptr<QXJob> job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(QXPresetApple1080p));

    template <class T>
    std::shared_ptr<T> add(int32_t codecId, bool enabled = false)
    {
        auto source = T::init();
        source->codec_id = codecId;
        auto destination = T::init();
        destination->codec_id = codecId;
        destination->enabled = enabled;
        std::vector<QXTrackJobRef> plan = job->tracks;
        plan.push_back(QXTrackJob::initWithSource(source, destination, QXTrackJobTypeKeep));
        job->tracks = plan;
        return destination;
    }
    QXTrackJobRef lineOf(const QXTrackRef& destination) const
    {
        for (const auto& line : job->tracks) {
            if (line->destination == destination) return line;
        }
        return nullptr;
    }
};

std::shared_ptr<QXVideoTrack> video640x360(HandPlan& plan)
{
    auto video = plan.add<QXVideoTrack>(AV_CODEC_ID_H264, true);
    video->width = 640;
    video->height = 360;
    return video;
}

} // namespace

TEST(PlanEditing, RemovingAnAudioLineKeepsOneAudioEnabledAndDropsFallbacksToIt)
{
    HandPlan plan;
    video640x360(plan);
    auto stereo = plan.add<QXAudioTrack>(AV_CODEC_ID_AAC, true);
    auto surround = plan.add<QXAudioTrack>(AV_CODEC_ID_AC3);
    surround->fallback_track = stereo;
    auto other = plan.add<QXAudioTrack>(AV_CODEC_ID_AAC);
    auto otherSurround = plan.add<QXAudioTrack>(AV_CODEC_ID_AC3);
    otherSurround->fallback_track = other;

    const QXTrackJobRef removed = plan.lineOf(stereo);
    plan.job->removeTrackJob(removed);
    ASSERT_EQ(plan.job->tracks.size(), 4u);
    EXPECT_FALSE(plan.lineOf(stereo));
    // The first remaining audio line takes over, surround or not.
    EXPECT_TRUE(surround->enabled);
    EXPECT_FALSE(other->enabled);
    EXPECT_FALSE(surround->fallback_track);
    EXPECT_EQ(otherSurround->fallback_track, other);
    ASSERT_EQ(plan.job->removedTracks.size(), 1u);
    EXPECT_EQ(plan.job->removedTracks[0], removed->source);

    // Taking out a line that was not enabled enables nothing.
    plan.job->removeTrackJob(plan.lineOf(other));
    EXPECT_FALSE(otherSurround->enabled);
    EXPECT_FALSE(otherSurround->fallback_track);
    EXPECT_EQ(plan.job->removedTracks.size(), 2u);
}

TEST(PlanEditing, RemovingASubtitleLineClearsTheReferencesToIt)
{
    HandPlan plan;
    video640x360(plan);
    auto audio = plan.add<QXAudioTrack>(AV_CODEC_ID_AAC, true);
    auto forced = plan.add<QXSubtitleTrack>(AV_CODEC_ID_MOV_TEXT);
    auto full = plan.add<QXSubtitleTrack>(AV_CODEC_ID_MOV_TEXT, true);
    auto kept = plan.add<QXSubtitleTrack>(AV_CODEC_ID_MOV_TEXT);
    auto bitmap = plan.add<QXBitmapSubtitleTrack>(AV_CODEC_ID_DVD_SUBTITLE);
    audio->subtitle_track = forced;
    full->forced_track = forced;
    kept->forced_track = full;
    bitmap->forced_track = forced;

    plan.job->removeTrackJob(plan.lineOf(forced));
    EXPECT_FALSE(audio->subtitle_track);
    EXPECT_FALSE(full->forced_track);
    EXPECT_FALSE(bitmap->forced_track);
    EXPECT_EQ(kept->forced_track, full);
    EXPECT_TRUE(audio->enabled);
    EXPECT_EQ(plan.job->tracks.size(), 5u);
}

TEST(PlanEditing, TracksOfTypeGoesBySourceMediaType)
{
    HandPlan plan;
    video640x360(plan);
    plan.add<QXAudioTrack>(AV_CODEC_ID_AAC);
    plan.add<QXSubtitleTrack>(AV_CODEC_ID_MOV_TEXT);
    plan.add<QXAudioTrack>(AV_CODEC_ID_AC3);
    const std::string audioType = AVMediaTypeAudio; // equal text, another pointer
    const auto audio = plan.job->tracksOfType(audioType.c_str());
    ASSERT_EQ(audio.size(), 2u);
    EXPECT_EQ(audio[0]->source->codec_id, AV_CODEC_ID_AAC);
    EXPECT_EQ(audio[1]->source->codec_id, AV_CODEC_ID_AC3);
    EXPECT_EQ(plan.job->tracksOfType(AVMediaTypeVideo).size(), 1u);
}

// Timed text is copied; any other subtitle, text or bitmap, becomes timed
// text fitted to the video.
TEST(PlanEditing, SubtitleLinesAreTimedTextFittedToTheVideo)
{
    HandPlan plan;
    auto video = video640x360(plan);
    struct Case {
        QXTrackRef source;
        int64_t type;
    };
    auto movText = QXSubtitleTrack::init();
    movText->codec_id = AV_CODEC_ID_MOV_TEXT;
    auto srt = QXSubtitleTrack::init();
    srt->codec_id = AV_CODEC_ID_SUBRIP;
    srt->setObeySubtitleFormatting(true);
    auto bitmap = QXBitmapSubtitleTrack::init();
    bitmap->codec_id = AV_CODEC_ID_DVD_SUBTITLE;
    for (const Case& c : {Case {movText, QXTrackJobTypeRemux}, Case {srt, QXTrackJobTypeEncode},
                          Case {bitmap, QXTrackJobTypeEncode}}) {
        SCOPED_TRACE(c.source->description());
        const auto line = plan.job->subtitleTrackJob(c.source, video);
        ASSERT_TRUE(line);
        EXPECT_EQ(line->type, c.type);
        EXPECT_EQ(line->source, c.source);
        auto destination = std::dynamic_pointer_cast<QXSubtitleTrack>(line->destination);
        ASSERT_TRUE(destination);
        EXPECT_NE(destination, c.source);
        EXPECT_EQ(destination->codec_id, AV_CODEC_ID_MOV_TEXT);
        EXPECT_EQ(destination->width, 640u);
        EXPECT_TRUE(line->readerOutput);
    }
    // A line kept in the file has no pipeline objects.
    EXPECT_FALSE(plan.job->tracks[0]->readerOutput);
    EXPECT_FALSE(plan.job->tracks[0]->muxerInput);
}

TEST(PlanEditing, AttachingWithoutAVideoLineKeepsTheTrackButPlansNothing)
{
    HandPlan plan;
    plan.add<QXAudioTrack>(AV_CODEC_ID_AAC, true);
    auto other = std::make_shared<QXMovie>(std::vector<QXURL> {"other.srt"});
    auto subtitle = QXSubtitleTrack::init();
    subtitle->codec_id = AV_CODEC_ID_SUBRIP;
    subtitle->source = other;
    other->tracks.push_back(subtitle);

    qxtest::LogCapture log;
    plan.job->attachTrack(subtitle);
    plan.job->attachTrack(subtitle);
    EXPECT_TRUE(log.contains("Could not attach subtitle track!", 2));
    EXPECT_EQ(plan.job->tracks.size(), 1u);
    EXPECT_EQ(plan.job->attachedTracks.size(), 2u);
    ASSERT_EQ(plan.job->attachedMovies.size(), 1u) << "a movie is attached once";
    EXPECT_EQ(plan.job->attachedMovies[0], other);
}

TEST(PlanEditing, AttachedSubtitleFilesBecomeLinesAndOnlyTheFirstIsEnabled)
{
    const auto dir = qxtest::makeTempDir("job-attach");
    const auto english = dir / "movie.en.srt";
    const auto french = dir / "movie.fr.srt";
    qxtest::writeFile(english, "1\n00:00:01,000 --> 00:00:02,000\nHello\n\n2\n00:00:03,000 --> 00:00:04,000\nAgain\n\n");
    qxtest::writeFile(french, "1\n00:00:01,000 --> 00:00:02,000\nBonjour\n\n");

    HandPlan plan;
    video640x360(plan);
    plan.add<QXAudioTrack>(AV_CODEC_ID_AAC, true);
    plan.job->attachSubtitleTracksWithURLs({english, dir / "missing.srt", french});

    ASSERT_EQ(plan.job->tracks.size(), 4u);
    ASSERT_EQ(plan.job->attachedMovies.size(), 2u);
    ASSERT_EQ(plan.job->attachedTracks.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
        const QXTrackJobRef& line = plan.job->tracks[2 + i];
        SCOPED_TRACE(i);
        EXPECT_EQ(line->source, plan.job->attachedTracks[i]);
        EXPECT_EQ(line->movie.lock(), plan.job->attachedMovies[i]) << "the job keeps the subtitle file's movie";
        EXPECT_EQ(line->type, QXTrackJobTypeEncode);
        EXPECT_EQ(line->destination->enabled, i == 0);
        EXPECT_TRUE(std::static_pointer_cast<QXSubtitleTrack>(line->source)->obeySubtitleFormatting());
        auto destination = std::static_pointer_cast<QXSubtitleTrack>(line->destination);
        EXPECT_EQ(destination->codec_id, AV_CODEC_ID_MOV_TEXT);
        EXPECT_EQ(destination->defTextBoxRight, 640) << "formatted text may use the whole picture";
        EXPECT_EQ(destination->defTextBoxBottom, 360);
    }
    EXPECT_EQ(plan.job->attachedMovies[0]->fileURL, english);
}
