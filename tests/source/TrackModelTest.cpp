// Tracks imported by hand from generated files, with metadata and side data
// added where a stock demuxer gives none, and hand-made extra data.

#include <gtest/gtest.h>

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "SourceMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Track.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using sourcemedia::importTrack;
using sourcemedia::OpenedInput;

namespace {

// Streams of sourcemedia::matroska().
constexpr int kVideoStream = 0, kSRTStream = 3, kASSStream = 4;

void setMetadata(AVStream* stream, const char* key, const char* value)
{
    av_dict_set(&stream->metadata, key, value, 0);
}

// Adds stream side data the way a demuxer would.
void addSideData(AVStream* stream, AVPacketSideDataType type, const void* data, size_t size)
{
    uint8_t* place = av_stream_new_side_data(stream, type, size);
    ASSERT_TRUE(place);
    std::memcpy(place, data, size);
}

} // namespace

TEST(TrackModel, ImportReadsHeaderKeysAndTheDefaultDisposition)
{
    OpenedInput input(sourcemedia::matroska());
    ASSERT_TRUE(input.context);
    // The SRT stream is marked default; the container also says flags 2
    // (in the movie, not enabled): the disposition wins for `enabled`.
    setMetadata(input.stream(kSRTStream), "flags", "2");
    setMetadata(input.stream(kSRTStream), "layer", "-1");
    setMetadata(input.stream(kSRTStream), "alternate_group", "7");
    auto srt = importTrack<QXSubtitleTrack>(input.context, kSRTStream);
    ASSERT_TRUE(srt);
    EXPECT_TRUE(srt->enabled);
    EXPECT_TRUE(srt->in_movie);
    EXPECT_EQ(srt->layer, -1);
    EXPECT_EQ(srt->alternate_group, 7u);

    // Not default: flags 2 leaves it disabled; a zero value changes nothing.
    setMetadata(input.stream(kASSStream), "flags", "2");
    setMetadata(input.stream(kASSStream), "alternate_group", "0");
    auto ass = importTrack<QXSubtitleTrack>(input.context, kASSStream);
    ASSERT_TRUE(ass);
    EXPECT_FALSE(ass->enabled);
    EXPECT_TRUE(ass->in_movie);
    EXPECT_EQ(ass->alternate_group, 2u) << "subtitles start in group 2";
}

TEST(VideoTrack, H264ExtradataInBothForms)
{
    auto video = QXVideoTrack::init();
    const uint8_t sps[] = {0x67, 0x64, 0x00, 0x28, 0xac, 0xd9};
    const uint8_t pps[] = {0x68, 0xee, 0x3c, 0x80};

    // Annex B with four-byte start codes: units end where the next code begins.
    QXData annexB = {0, 0, 0, 1};
    annexB.insert(annexB.end(), std::begin(sps), std::end(sps));
    annexB.insert(annexB.end(), {0, 0, 0, 1});
    annexB.insert(annexB.end(), std::begin(pps), std::end(pps));
    video->parseH264Extradata(annexB.data(), uint32_t(annexB.size()));
    EXPECT_EQ(video->sps, std::vector<QXData> {QXData(std::begin(sps), std::end(sps))});
    EXPECT_EQ(video->pps, std::vector<QXData> {QXData(std::begin(pps), std::end(pps))});
    EXPECT_EQ(video->level, 40);

    // Three-byte start codes, and an empty unit between two codes.
    const QXData short3 = {0, 0, 1, 0, 0, 1, 0x67, 0x4d, 0x40, 0x1f, 0x11, 0, 0, 1, 0x68, 0xce};
    video->parseH264Extradata(short3.data(), uint32_t(short3.size()));
    EXPECT_EQ(video->sps, std::vector<QXData> {QXData({0x67, 0x4d, 0x40, 0x1f, 0x11})});
    EXPECT_EQ(video->pps.size(), 1u);
    EXPECT_EQ(video->profile_compat, 0x40);
    const QXData doubled = {0, 0, 0, 1, 0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1e, 0x22};
    video->parseH264Extradata(doubled.data(), uint32_t(doubled.size()));
    ASSERT_EQ(video->sps.size(), 1u);
    EXPECT_EQ(video->profile, 66);

    // avcC: an SPS list that runs past the end stops the walk.
    const QXData truncated = {1, 0x64, 0, 0x29, 0xff, 0xe2, 0, 3, 0x67, 0x64, 0, 0, 9, 0x67};
    video->parseH264Extradata(truncated.data(), uint32_t(truncated.size()));
    EXPECT_EQ(video->level, 41);
    EXPECT_EQ(video->sps, std::vector<QXData> {QXData({0x67, 0x64, 0})});
    EXPECT_TRUE(video->pps.empty());

    // Exactly six bytes is an avcC header without parameter sets; fewer is refused.
    const QXData header = {1, 0x58, 0xa0, 0x1e, 0xff, 0xe0};
    qxtest::LogCapture log;
    video->parseH264Extradata(header.data(), uint32_t(header.size()));
    EXPECT_EQ(video->profile, 0x58);
    EXPECT_TRUE(video->sps.empty());
    EXPECT_FALSE(log.contains("Extradata too short"));
    video->parseH264Extradata(header.data(), 5);
    EXPECT_TRUE(log.contains("Extradata too short: 5", 2));
    EXPECT_TRUE(log.contains("<0158a01e ff>", 4));
    EXPECT_EQ(video->profile, 0x58) << "a short record changes nothing";
    log.clear();
    video->parseH264Extradata(nullptr, 0);
    EXPECT_TRUE(log.contains("Extradata too short: 0", 2));
    EXPECT_EQ(log.lines().size(), 1u) << "no bytes to show";
}

TEST(VideoTrack, VideoForWindowsFormInMatroska)
{
    // Its timestamps are those of AVI, without the reordering of B-frames.
    const auto path = sourcemedia::vfwMatroska();
    if (path.empty()) GTEST_SKIP() << "mkvmerge is needed for this source";
    OpenedInput input(path);
    ASSERT_TRUE(input.context);
    auto video = importTrack<QXVideoTrack>(input.context, 0);
    ASSERT_TRUE(video);
    EXPECT_EQ(video->codec_id, AV_CODEC_ID_H264);
    EXPECT_TRUE(video->brokenByMS);

    OpenedInput native(sourcemedia::matroska());
    ASSERT_TRUE(native.context);
    EXPECT_FALSE(importTrack<QXVideoTrack>(native.context, kVideoStream)->brokenByMS);
}

TEST(VideoTrack, DisplayMatrixBecomesTheTransform)
{
    // A 90-degree rotation moved right by 180, [0 1; -1 0] + (180, 0), put
    // into the tkhd of a copy; FFmpeg's demuxer hands it over as side data.
    const auto path = qxtest::makeTempDir("display-matrix") / "rotated.mp4";
    std::filesystem::copy_file(sourcemedia::multiTrackMP4(), path);
    {
        auto file = mp4::MP4File::modify(path);
        ASSERT_TRUE(file);
        file->track(1)->setMatrix({0, 1 << 16, 0, -(1 << 16), 0, 0, 180 << 16, 0, 1 << 30});
        ASSERT_TRUE(file->close());
    }
    OpenedInput input(path);
    ASSERT_TRUE(input.context);
    auto video = importTrack<QXVideoTrack>(input.context, 0);
    ASSERT_TRUE(video);
    EXPECT_EQ(video->transform, (QXAffineTransform {0, 1, 65535, 0, 180, 0})) << "-1 comes out as its 16-bit pattern";

    qxtest::LogCapture log;
    const uint8_t odd[8] = {};
    addSideData(input.stream(0), AV_PKT_DATA_DISPLAYMATRIX, odd, sizeof odd);
    auto skipped = importTrack<QXVideoTrack>(input.context, 0);
    EXPECT_TRUE(log.contains("Invalid display matrix size: 8", 2));
    EXPECT_EQ(skipped->transform, QXAffineTransform {});
}
