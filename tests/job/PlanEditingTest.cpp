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

// A job whose plan the test builds by hand, starting with a 640x360 video line.
struct HandPlan {
    std::shared_ptr<QXJob> job = QXJob::initWithMovie(std::make_shared<QXMovie>(std::vector<QXURL> {}),
                                                      QXPreset::initWithIdentifier(QXPresetApple1080p));
    std::shared_ptr<QXVideoTrack> video = add<QXVideoTrack>(AV_CODEC_ID_H264, true);

    HandPlan()
    {
        video->width = 640;
        video->height = 360;
    }
    template <class T>
    std::shared_ptr<T> add(int32_t codecId, bool enabled = false)
    {
        auto source = T::init();
        source->codec_id = codecId;
        auto destination = std::static_pointer_cast<T>(source->copy());
        destination->enabled = enabled;
        std::vector<QXTrackJobRef> plan = job->tracks;
        plan.push_back(QXTrackJob::initWithSource(source, destination, QXTrackJobTypeKeep));
        job->tracks = plan;
        return destination;
    }
    void remove(const QXTrackRef& destination)
    {
        for (const auto& line : job->tracks) {
            if (line->destination == destination) return job->removeTrackJob(line);
        }
    }
};

} // namespace

TEST(PlanEditing, RemovingALineKeepsOneAudioEnabledAndDropsReferencesToIt)
{
    HandPlan plan;
    auto stereo = plan.add<QXAudioTrack>(AV_CODEC_ID_AAC, true);
    auto surround = plan.add<QXAudioTrack>(AV_CODEC_ID_AC3);
    surround->fallback_track = stereo;
    auto other = plan.add<QXAudioTrack>(AV_CODEC_ID_AAC);
    auto forced = plan.add<QXSubtitleTrack>(AV_CODEC_ID_MOV_TEXT);
    auto full = plan.add<QXSubtitleTrack>(AV_CODEC_ID_MOV_TEXT);
    auto bitmap = plan.add<QXBitmapSubtitleTrack>(AV_CODEC_ID_DVD_SUBTITLE);
    other->subtitle_track = forced;
    full->forced_track = forced;
    bitmap->forced_track = forced;

    plan.remove(stereo);
    EXPECT_TRUE(surround->enabled) << "the first remaining audio line takes over, surround or not";
    EXPECT_FALSE(other->enabled);
    EXPECT_FALSE(surround->fallback_track);
    plan.remove(other); // not enabled: enables nothing
    EXPECT_TRUE(surround->enabled);

    plan.remove(forced);
    EXPECT_FALSE(full->forced_track);
    EXPECT_FALSE(bitmap->forced_track);
    EXPECT_EQ(plan.job->tracks.size(), 4u);
    EXPECT_EQ(plan.job->removedTracks.size(), 3u);
    EXPECT_EQ(plan.job->tracksOfType(std::string(AVMediaTypeSubtitle).c_str()).size(), 2u);
}
