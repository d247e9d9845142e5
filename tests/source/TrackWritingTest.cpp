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

// One line per stream: "index language default title".
std::string probeStreams(const std::filesystem::path& path)
{
    std::string output;
    qxtest::run("ffprobe -v error -show_entries stream=index:stream_tags=language,title:stream_disposition=default "
                "-of compact=p=0:nk=0 '" + path.string() + "'", &output);
    return output;
}

template <class T>
std::shared_ptr<T> trackWithID(int32_t id)
{
    auto track = T::init();
    track->trackID = id;
    return track;
}

} // namespace

TEST(TrackWriting, HeaderFieldsNameAndLanguage)
{
    const auto path = copyOfSource("track-header");
    auto video = trackWithID<QXVideoTrack>(1);
    video->name = "Caf\xc3\xa9 cam\xc3\xa9ra"; // é is in Mac OS Roman
    video->language = "fr";
    video->setFlags(3);
    video->layer = -1;
    video->alternate_group = 0;
    video->display_width = 427;
    video->display_height = 180;
    video->hSpacing = 4;
    video->vSpacing = 3;
    video->primariesIndex = 9;
    video->transferFunctionIndex = 16;
    video->matrixIndex = 9;
    video->colorRange = 2;
    video->codec_id = AV_CODEC_ID_H264;
    video->profile = 77;
    video->level = 31;
    video->transform = {0, 1, 65535, 0, 180, 0};
    auto ac3 = trackWithID<QXAC3AudioTrack>(2);
    ac3->name = "\xe6\x97\xa5\xe6\x9c\xac\xe8\xaa\x9e"; // not in Mac OS Roman
    ac3->language = "qq";
    ac3->volume = 0.5f;
    ac3->setFlags(2);
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        QXErrorRef error;
        EXPECT_TRUE(video->writeToFile(*file, &error));
        EXPECT_TRUE(ac3->writeToFile(*file, &error));
        EXPECT_FALSE(error) << "a name that does not convert is only left out";
        ASSERT_TRUE(file->close());
    }
    auto file = MP4File::read(path);
    ASSERT_TRUE(file);
    MP4Track* written = file->track(1);
    EXPECT_EQ(written->language(), "fra");
    EXPECT_EQ(written->alternateGroup(), 0);
    EXPECT_DOUBLE_EQ(written->width(), 427);
    // The 16-bit pattern of -1 turns back into -1; w is left alone.
    EXPECT_EQ(written->matrix(), (Matrix {0, 0x10000, 0, -0x10000, 0, 0, 180 << 16, 0, 0x40000000}));
    const size_t entryChildren = written->sampleEntry()->children().size();
    auto* pasp = written->sampleEntryChild<PaspBox>();
    ASSERT_TRUE(pasp);
    EXPECT_EQ(pasp->hSpacing, 4u);
    auto* colr = written->sampleEntryChild<ColrBox>();
    ASSERT_TRUE(colr);
    EXPECT_EQ(colr->transferFunctionIndex, 16);
    EXPECT_TRUE(colr->fullRangeFlag);
    auto* avcC = written->sampleEntryChild<AvcCBox>();
    ASSERT_TRUE(avcC);
    EXPECT_EQ(avcC->level, 31);

    MP4Track* audio = file->track(2);
    EXPECT_EQ(audio->name(), "") << "left out";
    EXPECT_DOUBLE_EQ(audio->volume(), 0.5);
    EXPECT_EQ(audio->alternateGroup(), 1) << "audio tracks start in group 1";
    file->close();

    // A second write changes the pasp that the first one added.
    video->hSpacing = 1;
    video->vSpacing = 2;
    {
        auto again = MP4File::modify(path);
        ASSERT_TRUE(again);
        EXPECT_TRUE(video->writeToFile(*again));
        ASSERT_TRUE(again->close());
        auto reread = MP4File::read(path);
        ASSERT_TRUE(reread);
        auto* changed = reread->track(1)->sampleEntryChild<PaspBox>();
        ASSERT_TRUE(changed);
        EXPECT_EQ(changed->vSpacing, 2u);
        EXPECT_EQ(reread->track(1)->sampleEntry()->children().size(), entryChildren) << "no second pasp or colr";
    }

    // Opened again as a movie, the tracks read back what was written.
    {
        auto movie = QXMovie::initWithURL(path);
        ASSERT_TRUE(movie);
        auto reopened = std::dynamic_pointer_cast<QXVideoTrack>(movie->trackWithID(1));
        auto surround = std::dynamic_pointer_cast<QXAC3AudioTrack>(movie->trackWithID(2));
        ASSERT_TRUE(reopened && surround);
        EXPECT_EQ(reopened->name, "Caf\xc3\xa9 cam\xc3\xa9ra");
        EXPECT_EQ(reopened->flags(), 3u);
        EXPECT_EQ(reopened->layer, -1);
        EXPECT_EQ(reopened->transform, video->transform);
        EXPECT_EQ(reopened->vSpacing, 2u);
        EXPECT_EQ(reopened->colorRange, 2);
        EXPECT_FLOAT_EQ(surround->volume, 0.5f);
    }

    // ffprobe reads the languages and the enabled flags the same way.
    const std::string probe = probeStreams(path);
    EXPECT_NE(probe.find("index=0|disposition:default=1|tag:language=fra"), std::string::npos) << probe;
    EXPECT_NE(probe.find("index=1|disposition:default=0|tag:language=und"), std::string::npos) << probe;
}

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

TEST(TrackWriting, SubtitleDescriptionRoundTrip)
{
    const auto path = copyOfSource("track-tx3g");
    // Start from what the file holds, change the layout, write it back.
    sourcemedia::OpenedInput input(path);
    ASSERT_TRUE(input.context);
    auto subtitle = importTrack<QXSubtitleTrack>(input.context, 3);
    ASSERT_TRUE(subtitle);
    ASSERT_EQ(subtitle->trackID, 4);
    auto video = importTrack<QXVideoTrack>(input.context, 0);
    subtitle->setObeySubtitleFormatting(true);
    subtitle->setForcedFlag(QXSubtitleSomeSamplesForced);
    subtitle->adjustForVideoTrack(*video);
    subtitle->font_size = 30;
    subtitle->bg_color_alpha = 128;
    subtitle->font_color_green = 7;
    subtitle->horizontal_justification = 0;
    {
        auto file = MP4File::modify(path);
        ASSERT_TRUE(file);
        EXPECT_TRUE(subtitle->writeToFile(*file));
        ASSERT_TRUE(file->close());
    }
    sourcemedia::OpenedInput reread(path);
    ASSERT_TRUE(reread.context);
    auto back = importTrack<QXSubtitleTrack>(reread.context, 3);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->displayFlags, 0x60000000u);
    EXPECT_EQ(back->defTextBoxTop, 153) << "0.85 of 180 lines";
    EXPECT_EQ(back->defTextBoxRight, 320);
    EXPECT_EQ(back->font_size, 30);
    EXPECT_EQ(back->bg_color_alpha, 128);
    EXPECT_EQ(back->font_color_green, 7);
    EXPECT_EQ(back->horizontal_justification, 0);
}
