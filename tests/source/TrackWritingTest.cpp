// Track settings written into an ffmpeg-made MP4 through the MP4 layer, then
// read back with the layer and with ffprobe.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "SourceMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4SampleEntries.h"
#include "qxmedia/mp4/MP4Track.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using sourcemedia::importTrack;
using namespace qx::mp4;

namespace {

// sourcemedia::multiTrackMP4(): 1 H.264, 2 AC-3, 3 AAC, 4 and 5 tx3g.
std::filesystem::path copyOfSource(const std::string& test)
{
    const auto path = qxtest::makeTempDir(test) / "tracks.mp4";
    std::filesystem::copy_file(sourcemedia::multiTrackMP4(), path);
    return path;
}

template <class T>
std::shared_ptr<T> trackWithID(int32_t id)
{
    auto track = T::init();
    track->trackID = id;
    return track;
}

} // namespace

TEST(TrackWriting, TrackIDZeroIsRefused)
{
    const auto path = copyOfSource("track-id-zero");
    auto file = MP4File::modify(path);
    ASSERT_TRUE(file);
    auto track = QXAudioTrack::init();
    QXErrorRef error;
    EXPECT_FALSE(track->writeToFile(*file, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), -13011);

    auto audio = trackWithID<QXAudioTrack>(3);
    error.reset();
    EXPECT_FALSE(audio->writeTrackAssociation(AVTrackAssociationTypeAudioFallback, track.get(), *file, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), -13011);
    EXPECT_FALSE(file->track(3)->hasReference(fourcc("fall")));
    file->close();
}

TEST(TrackWriting, ReferencesAreAddedPointedAndRemoved)
{
    const auto path = copyOfSource("track-references");
    auto ac3 = trackWithID<QXAC3AudioTrack>(2);
    ac3->codec_id = AV_CODEC_ID_AC3;
    auto aac = trackWithID<QXAudioTrack>(3);
    aac->codec_id = AV_CODEC_ID_AAC;
    auto subtitle = trackWithID<QXSubtitleTrack>(4);
    auto forced = trackWithID<QXSubtitleTrack>(5);
    ac3->fallback_track = aac;
    ac3->subtitle_track = subtitle;
    aac->fallback_track = ac3; // only Dolby tracks name a fallback
    subtitle->forced_track = forced;

    auto write = [&] {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        for (QXTrack* track : std::initializer_list<QXTrack*> {ac3.get(), aac.get(), subtitle.get(), forced.get()}) {
            QXErrorRef error;
            EXPECT_TRUE(track->writeTrackAssociationsToFile(*file, &error)) << track->description();
            EXPECT_FALSE(error);
        }
        ASSERT_TRUE(file->close());
    };
    write();
    {
        auto file = MP4File::read(path);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->track(2)->references(fourcc("fall")), std::vector<uint32_t> {3});
        EXPECT_EQ(file->track(2)->references(fourcc("folw")), std::vector<uint32_t> {4});
        EXPECT_FALSE(file->track(3)->hasReference(fourcc("fall")));
        EXPECT_EQ(file->track(4)->references(fourcc("forc")), std::vector<uint32_t> {5});
        EXPECT_FALSE(file->track(5)->hasReference(fourcc("forc")));
    }

    // Pointing an existing reference elsewhere (its first entry only), and removing one.
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        file->track(4)->setReferences(fourcc("forc"), {5, 2});
        ASSERT_TRUE(file->close());
    }
    ac3->fallback_track = nullptr;
    subtitle->forced_track = trackWithID<QXSubtitleTrack>(1);
    write();
    auto file = MP4File::read(path);
    ASSERT_TRUE(file);
    EXPECT_FALSE(file->track(2)->hasReference(fourcc("fall"))) << "a removed fallback deletes fall";
    EXPECT_EQ(file->track(2)->references(fourcc("folw")), std::vector<uint32_t> {4});
    EXPECT_EQ(file->track(4)->references(fourcc("forc")), (std::vector<uint32_t> {1, 2}));
    file->close();
    EXPECT_EQ(qxtest::run("ffprobe -v error '" + path.string() + "' >/dev/null"), 0);
}
