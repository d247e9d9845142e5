// Planning a job from a preset, on real files.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

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
    EXPECT_EQ(job->tracks[4]->destination->codec_id, AV_CODEC_ID_MOV_TEXT);
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

    // iPod: no surround; the 128 kbit/s AAC track is copied.
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
