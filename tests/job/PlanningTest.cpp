// Planning a job from a preset: which tracks are kept, copied, encoded or
// doubled, their order, which is enabled and what the output picture is.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "qxmedia/core/QXLocale.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

namespace {

const std::string kVideo = "-f lavfi -i testsrc2=size=640x360:rate=25:duration=2 ";
const std::string kH264 = " -c:v libx264 -preset ultrafast -pix_fmt yuv420p ";

// H.264, AC-3 5.1 and AAC stereo in one language (AC-3 first in the file),
// and an SRT subtitle.
std::filesystem::path mixedSource()
{
    const auto srt = qxtest::mediaDir() / "plan-subs.srt";
    qxtest::writeFile(srt, "1\n00:00:00,500 --> 00:00:01,500\nOne\n\n");
    return qxtest::generate(
        "plan-mixed.mkv",
        kVideo + "-f lavfi -i sine=sample_rate=48000:duration=2 -i '" + srt.string() +
            "' -filter_complex \"[1:a]asplit[x][y];[x]aformat=channel_layouts=5.1[a51];"
            "[y]aformat=channel_layouts=stereo[a20]\" -map 0:v -map \"[a51]\" -map \"[a20]\" -map 2" + kH264 +
            "-c:a:0 ac3 -b:a:0 384k -c:a:1 aac -b:a:1 128k -c:s srt -metadata:s:a language=eng");
}

std::filesystem::path hevcSource()
{
    return qxtest::generate("plan-hevc.mp4", kVideo +
                                                 "-f lavfi -i sine=sample_rate=48000:duration=2 "
                                                 "-af aformat=channel_layouts=5.1 -c:v libx265 -preset ultrafast "
                                                 "-tag:v hvc1 -x265-params log-level=error -pix_fmt yuv420p "
                                                 "-c:a eac3 -b:a 256k");
}

std::shared_ptr<QXMovie> open(const std::filesystem::path& path)
{
    auto movie = QXMovie::initWithURL(path);
    EXPECT_TRUE(movie) << path;
    return movie;
}

std::shared_ptr<QXJob> plan(const std::shared_ptr<QXMovie>& movie, const char* preset)
{
    return QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(preset));
}

// One letter per line: v, a, s for the destination's kind, then the type
// digit and a '+' when enabled. "v0+ a1+ a0" reads: copied video, enabled;
// encoded audio, enabled; copied audio.
std::string shape(const QXJob& job)
{
    std::string text;
    for (const QXTrackJobRef& line : job.tracks) {
        if (!text.empty()) text += ' ';
        const QXMediaType type = line->destination->mediaType();
        text += type == AVMediaTypeVideo ? 'v' : type == AVMediaTypeAudio ? 'a' : type == AVMediaTypeSubtitle ? 's' : '?';
        text += char('0' + line->type);
        if (line->destination->enabled) text += '+';
    }
    return text;
}

template <class T>
std::shared_ptr<T> destination(const QXJob& job, size_t index)
{
    return index < job.tracks.size() ? std::dynamic_pointer_cast<T>(job.tracks[index]->destination) : nullptr;
}

// A movie whose tracks a test sets by hand: for the decisions no real file
// of this machine can provoke (DTS, high sample rates, service types).
struct HandMovie {
    std::shared_ptr<QXMovie> movie = std::make_shared<QXMovie>(std::vector<QXURL> {});

    template <class T>
    std::shared_ptr<T> add(int32_t codecId, const std::string& language = "und")
    {
        auto track = T::init();
        track->codec_id = codecId;
        track->language = language;
        movie->tracks.push_back(track);
        return track;
    }
    std::shared_ptr<QXVideoTrack> video()
    {
        auto track = add<QXVideoTrack>(AV_CODEC_ID_MPEG2VIDEO);
        track->width = 720;
        track->height = 576;
        track->naturalTimeScale = 180000;
        return track;
    }
    std::shared_ptr<QXAudioTrack> audio(int32_t codecId, int32_t channels, uint32_t sampleRate = 48000,
                                        const std::string& language = "und")
    {
        auto track = add<QXAudioTrack>(codecId, language);
        track->channels = channels;
        track->sample_rate = sampleRate;
        return track;
    }
};

} // namespace

TEST(Planning, PassthroughCopiesWhatFitsAndDoublesSurround)
{
    auto movie = open(mixedSource());
    ASSERT_TRUE(movie);
    ASSERT_EQ(movie->tracks.size(), 4u);
    auto job = plan(movie, QXPresetPassthrough);
    EXPECT_EQ(job->preset->identifier, QXPresetPassthrough);

    // AAC before AC-3 whatever the file's order; the stereo companion of the
    // AC-3 track stands before it; the SRT text becomes timed text.
    EXPECT_EQ(shape(*job), "v0+ a0+ a1 a0 s1");
    auto stereo = destination<QXAudioTrack>(*job, 2);
    auto surround = destination<QXAudioTrack>(*job, 3);
    ASSERT_TRUE(stereo && surround);
    EXPECT_EQ(job->tracks[2]->source, job->tracks[3]->source);
    EXPECT_EQ(stereo->codec_id, AV_CODEC_ID_AAC);
    EXPECT_EQ(surround->codec_id, AV_CODEC_ID_AC3);
    EXPECT_EQ(surround->fallback_track, stereo);
    // A copy: the source keeps its own name.
    EXPECT_EQ(surround->name, "Surround Audio");
    EXPECT_NE(job->tracks[3]->source->name, "Surround Audio");
    EXPECT_EQ(job->tracks[4]->destination->codec_id, AV_CODEC_ID_MOV_TEXT);

    // A second run plans the same and forgets removals.
    job->removeTrackJob(job->tracks[1]);
    EXPECT_EQ(job->removedTracks.size(), 1u);
    job->applyPreset(QXPreset::initWithIdentifier(QXPresetPassthrough));
    EXPECT_EQ(shape(*job), "v0+ a0+ a1 a0 s1");
    EXPECT_TRUE(job->removedTracks.empty());
}

TEST(Planning, EncodingPresetsScaleThePictureAndDropSurroundWhereNotAllowed)
{
    auto movie = open(mixedSource());
    ASSERT_TRUE(movie);

    // The Apple presets require encoding: the video is new, the source video
    // is disabled, and AC-3 5.1 stays copied beside its stereo companion.
    auto apple = plan(movie, QXPresetApple1080p);
    EXPECT_EQ(shape(*apple), "v1+ a0+ a1 a0 s1");
    EXPECT_FALSE(apple->tracks[0]->source->enabled);
    auto video = destination<QXVideoTrack>(*apple, 0);
    ASSERT_TRUE(video);
    EXPECT_EQ(video->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(video->width, 640u);
    EXPECT_EQ(video->height, 360u);

    // iPod: a 320x240 box, square pixels, no surround, 128 kbit/s audio: the
    // AAC track at 128 kbit/s is copied, the AC-3 track only gives stereo.
    auto ipod = plan(movie, QXPresetiPod);
    EXPECT_EQ(shape(*ipod), "v1+ a0+ a1 s1");
    video = destination<QXVideoTrack>(*ipod, 0);
    ASSERT_TRUE(video);
    EXPECT_EQ(video->width, 320u);
    EXPECT_EQ(video->height, 180u);
    EXPECT_EQ(video->level, 13);
    // The subtitle is fitted to the new picture, not the source's.
    EXPECT_EQ(destination<QXSubtitleTrack>(*ipod, 3)->width, 320u);
}

TEST(Planning, HEVCVideo)
{
    // HEVC inside the box is copied; E-AC-3 5.1 is copied beside a stereo AAC.
    auto hevc = open(hevcSource());
    ASSERT_TRUE(hevc);
    auto job = plan(hevc, QXPresetPassthrough);
    EXPECT_EQ(shape(*job), "v0+ a1+ a0");
    EXPECT_EQ(job->tracks[0]->destination->codec_id, AV_CODEC_ID_HEVC);
    EXPECT_EQ(job->tracks[2]->destination->codec_id, AV_CODEC_ID_EAC3);

    // An HEVC preset encodes HEVC.
    job = plan(hevc, QXPresetApple1080pHEVC);
    EXPECT_EQ(job->tracks[0]->type, QXTrackJobTypeEncode);
    EXPECT_EQ(job->tracks[0]->destination->codec_id, AV_CODEC_ID_HEVC);
}

TEST(Planning, UpdatePresetsKeepTheFileOrFallBack)
{
    auto mp4 = open(hevcSource());
    ASSERT_TRUE(mp4);
    ASSERT_TRUE(mp4->isUpdateable);
    auto job = plan(mp4, QXPresetUpdate);
    EXPECT_EQ(job->preset->identifier, QXPresetUpdate);
    EXPECT_EQ(shape(*job), "v2+ a2+");
    for (const QXTrackJobRef& line : job->tracks) {
        EXPECT_NE(line->destination, line->source);
        EXPECT_EQ(line->destination->trackID, line->source->trackID);
    }

    {
        // A Matroska file cannot be rewritten in place.
        qxtest::LogCapture log;
        auto mkv = open(mixedSource());
        ASSERT_TRUE(mkv);
        job = plan(mkv, QXPresetUpdateRename);
        EXPECT_EQ(job->preset->identifier, QXPresetPassthrough);
        EXPECT_TRUE(log.contains("Can not apply update preset, using Apple compatible instead!", 2));
        EXPECT_EQ(job->tracks.size(), 5u);
    }
    {
        // Nothing to encode without video: the update road, no second test.
        qxtest::LogCapture log;
        job = plan(std::make_shared<QXMovie>(std::vector<QXURL> {}), QXPresetApple1080p);
        EXPECT_EQ(job->preset->identifier, QXPresetUpdate);
        EXPECT_TRUE(log.contains("Can not apply encode preset, using update metadata instead!", 2));
        EXPECT_TRUE(job->tracks.empty());
    }
}

TEST(Planning, SourceOrder)
{
    const std::vector<std::string>& preferred = QXLocale::preferredLanguageCodes();
    ASSERT_FALSE(preferred.empty());
    HandMovie hand;
    auto subtitle = hand.add<QXSubtitleTrack>(AV_CODEC_ID_SUBRIP); // before any video
    auto ac3 = hand.audio(AV_CODEC_ID_AC3, 2);
    auto flac = hand.audio(AV_CODEC_ID_FLAC, 2);
    auto mp3 = hand.audio(AV_CODEC_ID_MP3, 2);
    auto dts = hand.audio(AV_CODEC_ID_DTS, 2);
    auto commentary = hand.audio(AV_CODEC_ID_AAC, 2);
    commentary->audio_service_type = 2;
    auto preferredLanguage = hand.audio(AV_CODEC_ID_MP3, 2, 48000, preferred.front());
    auto video = hand.video();

    auto job = plan(hand.movie, QXPresetiPod);
    std::vector<QXTrackRef> order;
    for (const QXTrackJobRef& line : job->tracks) order.push_back(line->source);
    // By codec: counted ids, with DTS and AC-3 swapped, so MP3 comes first.
    const std::vector<QXTrackRef> expected {video, preferredLanguage, mp3, dts, ac3, flac, commentary, subtitle};
    EXPECT_EQ(order, expected);
}

TEST(Planning, AudioDecisions)
{
    HandMovie hand;
    hand.video();
    auto dts = hand.audio(AV_CODEC_ID_DTS, 6, 96000);
    auto hiRes = hand.audio(AV_CODEC_ID_FLAC, 2, 88200);
    auto veryHigh = hand.audio(AV_CODEC_ID_FLAC, 2, 192000);
    auto silent = hand.audio(AV_CODEC_ID_FLAC, 2, 0);
    for (const auto& track : {dts, hiRes, veryHigh}) track->enabled = false;

    qxtest::LogCapture log;
    auto job = plan(hand.movie, QXPresetApple1080p);
    // No audio enabled in the source: the first audio line is.
    EXPECT_EQ(shape(*job), "v1+ a1+ a1 a1 a1");
    EXPECT_EQ(destination<QXVideoTrack>(*job, 0)->naturalTimeScale, 90000);
    EXPECT_TRUE(log.contains("Can not encode track: ", 2));
    auto stereo = destination<QXAudioTrack>(*job, 1);
    auto surround = destination<QXAudioTrack>(*job, 2);
    ASSERT_TRUE(stereo && surround);
    EXPECT_EQ(stereo->sample_rate, 48000u);
    EXPECT_EQ(surround->bitrate, 640000u);
    EXPECT_EQ(surround->channels, 6);
    EXPECT_FALSE(surround->enabled);
    EXPECT_EQ(surround->fallback_track, stereo);
    EXPECT_EQ(destination<QXAudioTrack>(*job, 3)->sample_rate, 44100u);
    EXPECT_EQ(destination<QXAudioTrack>(*job, 4)->sample_rate, 48000u);

    // Without surround only the stereo track stays.
    EXPECT_EQ(shape(*plan(hand.movie, QXPresetiPod)), "v1+ a1+ a1 a1");

    // AAC stereo is copied within the preset's bit rate and encoded above it;
    // of two enabled tracks only the first in plan order stays enabled.
    HandMovie aac;
    aac.video();
    auto rich = aac.audio(AV_CODEC_ID_AAC, 2, 48000);
    rich->bitrate = 320000;
    auto plain = aac.audio(AV_CODEC_ID_AAC, 2, 48000);
    plain->bitrate = 128000;
    for (const auto& track : {rich, plain}) track->extradata = QXData {0x11, 0x90};
    job = plan(aac.movie, QXPresetApple1080p);
    EXPECT_EQ(shape(*job), "v1+ a1+ a0");
    EXPECT_EQ(job->tracks[1]->source, rich);
    EXPECT_EQ(destination<QXAudioTrack>(*job, 1)->bitrate, 160000u);
}

TEST(Planning, SubtitlesNeedVideoAndLinkToForcedOnes)
{
    // The only video is a chapter image track: it is left out, and so is
    // the subtitle that has no picture to fit.
    HandMovie noVideo;
    auto images = noVideo.add<QXVideoTrack>(AV_CODEC_ID_MJPEG);
    images->layer = 1;
    images->enabled = false;
    noVideo.audio(AV_CODEC_ID_AAC, 2);
    noVideo.add<QXSubtitleTrack>(AV_CODEC_ID_SUBRIP);
    noVideo.add<QXTrack>(0);
    qxtest::LogCapture log;
    auto job = plan(noVideo.movie, QXPresetPassthrough);
    EXPECT_EQ(shape(*job), "a1+");
    EXPECT_TRUE(log.contains("as video track is not available!", 2));
    EXPECT_TRUE(log.contains("Ignoring unknown track", 2));

    HandMovie hand;
    hand.video();
    auto audio = hand.audio(AV_CODEC_ID_MP3, 2, 48000, "de");
    auto full = hand.add<QXSubtitleTrack>(AV_CODEC_ID_SUBRIP, "de");
    auto forced = hand.add<QXSubtitleTrack>(AV_CODEC_ID_ASS, "de");
    forced->setForcedFlag(QXSubtitleAllSamplesForced);
    auto other = hand.add<QXSubtitleTrack>(AV_CODEC_ID_SUBRIP, "fr");
    // MPEG-2 video is encoded even by the pass-through preset.
    job = plan(hand.movie, QXPresetPassthrough);
    ASSERT_EQ(shape(*job), "v1+ a1+ s1 s1 s1");
    auto plannedAudio = destination<QXAudioTrack>(*job, 1);
    auto plannedFull = destination<QXSubtitleTrack>(*job, 2);
    auto plannedForced = destination<QXSubtitleTrack>(*job, 3);
    EXPECT_EQ(plannedAudio->subtitle_track, plannedForced);
    EXPECT_EQ(plannedFull->forced_track, plannedForced);
    EXPECT_FALSE(plannedForced->forced_track);
    EXPECT_FALSE(destination<QXSubtitleTrack>(*job, 4)->forced_track);
}
