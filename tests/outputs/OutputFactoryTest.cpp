// Which output a use of a track gets.

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/codec_id.h>
}

#include "OutputMedia.h"
#include "qxmedia/reader/QXTrackReaderH264Output.h"
#include "qxmedia/reader/QXTrackReaderRawAudioOutput.h"
#include "qxmedia/reader/QXTrackReaderSubtitleOutput.h"
#include "qxmedia/reader/QXTrackReaderVideoOutput.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

enum class Kind { Base, RawAudio, H264, H264Decoder, Video, Subtitle, RawSubtitle };

Kind kindOf(const std::shared_ptr<QXTrackReaderOutput>& output)
{
    if (std::dynamic_pointer_cast<QXTrackReaderRawAudioOutput>(output)) return Kind::RawAudio;
    if (std::dynamic_pointer_cast<QXTrackReaderVideoOutput>(output)) return Kind::Video;
    if (std::dynamic_pointer_cast<QXTrackReaderH264DecoderOutput>(output)) return Kind::H264Decoder;
    if (std::dynamic_pointer_cast<QXTrackReaderH264Output>(output)) return Kind::H264;
    if (std::dynamic_pointer_cast<QXTrackReaderSubtitleOutput>(output)) return Kind::Subtitle;
    if (std::dynamic_pointer_cast<QXTrackReaderRawSubtitleOutput>(output)) return Kind::RawSubtitle;
    return Kind::Base;
}

Kind chosen(const QXTrackRef& track, bool encode)
{
    auto output = QXTrackReaderOutput::initWithSource(track, track->copy(), encode);
    EXPECT_TRUE(output);
    EXPECT_EQ(output->track, track);
    return kindOf(output);
}

} // namespace

TEST(OutputFactory, CopiedTracksGetTheCopyingOutputs)
{
    auto movie = QXMovie::initWithURL(outputmedia::matroska());
    ASSERT_TRUE(movie);
    ASSERT_EQ(movie->tracks.size(), 3u);
    EXPECT_EQ(chosen(movie->tracks[0], false), Kind::H264);
    EXPECT_EQ(chosen(movie->tracks[1], false), Kind::RawAudio);
    EXPECT_EQ(chosen(movie->tracks[2], false), Kind::RawAudio);

    auto hevc = QXMovie::initWithURL(outputmedia::hevc());
    ASSERT_TRUE(hevc);
    EXPECT_EQ(chosen(hevc->tracks[0], false), Kind::H264) << "every copied video codec";
}

TEST(OutputFactory, H264WithUntrustworthyTimesGetsTheDecoder)
{
    auto avi = QXMovie::initWithURL(outputmedia::avi());
    ASSERT_TRUE(avi);
    EXPECT_EQ(chosen(avi->tracks[0], false), Kind::H264Decoder) << "AVI, though not flagged";

    auto flagged = QXVideoTrack::init();
    flagged->codec_id = AV_CODEC_ID_H264;
    flagged->brokenByMS = true;
    EXPECT_EQ(chosen(flagged, false), Kind::H264Decoder);
    flagged->codec_id = AV_CODEC_ID_HEVC;
    EXPECT_EQ(chosen(flagged, false), Kind::H264) << "the flag matters for H.264 only";
}

TEST(OutputFactory, EncodedVideoAndUnknownTracksKeepThePassThroughOutput)
{
    auto movie = QXMovie::initWithURL(outputmedia::matroska());
    ASSERT_TRUE(movie);
    EXPECT_EQ(chosen(movie->tracks[0], true), Kind::Video) << "encoded video is decoded";

    auto subtitled = QXMovie::initWithURL(outputmedia::subtitled());
    ASSERT_TRUE(subtitled);
    ASSERT_EQ(subtitled->tracks.size(), 2u);
    EXPECT_EQ(chosen(subtitled->tracks[1], false), Kind::RawSubtitle);
    EXPECT_EQ(chosen(subtitled->tracks[1], true), Kind::Subtitle);

    auto unknown = QXTrack::init();
    unknown->codec_id = AV_CODEC_ID_BIN_DATA;
    EXPECT_EQ(chosen(unknown, false), Kind::Base);
    EXPECT_EQ(chosen(unknown, true), Kind::Base);
}
