// The track classes on their own: streams imported by hand from generated
// files (with metadata and side data added where a stock demuxer gives
// none), hand-made extra data, copies and archives.

#include <gtest/gtest.h>

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/stereo3d.h>
}

#include "SourceMedia.h"
#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Track.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"
#include "qxmedia/source/QXAC3AudioTrack.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"
#include "support/TestMedia.h"

using namespace qx;
using sourcemedia::importTrack;
using sourcemedia::OpenedInput;

namespace {

// Streams of sourcemedia::matroska().
constexpr int kVideoStream = 0, kAC3Stream = 1, kAACStream = 2, kSRTStream = 3, kASSStream = 4;

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

// MARK: Base import and flags

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

TEST(TrackModel, ImportNamesLanguagesAndUnknownKeys)
{
    OpenedInput input(sourcemedia::matroska());
    ASSERT_TRUE(input.context);
    AVStream* stream = input.stream(kAACStream);
    setMetadata(stream, "title", "Stereo mix");
    setMetadata(stream, "BPS-eng", "96000");
    setMetadata(stream, "surprise", "yes");
    qxtest::LogCapture log;
    auto aac = importTrack<QXAudioTrack>(input.context, kAACStream);
    ASSERT_TRUE(aac);
    EXPECT_EQ(aac->name, "Stereo mix");
    EXPECT_EQ(aac->language, "fr") << "fra in the file";
    EXPECT_TRUE(log.contains("unknown metadata item surprise: yes", 4));
    EXPECT_FALSE(log.contains("unknown metadata item BPS-eng"));
    EXPECT_FALSE(log.contains("unknown metadata item DURATION")) << "Matroska's own statistics keys are known";

    // A title that is not UTF-8 is ignored; an unknown or empty language keeps "und".
    setMetadata(stream, "title", "caf\xe9");
    setMetadata(stream, "language", "");
    auto untitled = importTrack<QXAudioTrack>(input.context, kAACStream);
    EXPECT_EQ(untitled->name, "Audio Track");
    EXPECT_EQ(untitled->language, "und");
    setMetadata(stream, "language", "qqq");
    EXPECT_EQ(importTrack<QXAudioTrack>(input.context, kAACStream)->language, "und");
    EXPECT_EQ(QXTrack::init()->displayLanguage(), "Unknown") << "und has no ISO 639-1 code";
}

TEST(TrackModel, StreamWithoutDecoderIsStillATrack)
{
    OpenedInput input(sourcemedia::m4v());
    ASSERT_TRUE(input.context);
    ASSERT_EQ(input.stream(3)->codecpar->codec_id, AV_CODEC_ID_BIN_DATA) << "the chapter text stream";
    qxtest::LogCapture log;
    auto track = importTrack<QXTrack>(input.context, 3);
    ASSERT_TRUE(track);
    EXPECT_TRUE(log.contains("Could not find necessary decoder for codec id " + std::to_string(AV_CODEC_ID_BIN_DATA) +
                             " (bin_data, type: 2)!",
                             2));
    EXPECT_EQ(track->codecParameters()->codec_id, AV_CODEC_ID_NONE) << "parameters stay empty";
    EXPECT_EQ(track->format(), "bin_data");
    EXPECT_FALSE(track->isMuxable());
}

TEST(TrackModel, DescriptionsLeaveOutWhatIsUnknownOrTooSmall)
{
    struct Case {
        AVCodecID codec;
        uint32_t bitrate;
        uint64_t layout;
        const char* expected;
    };
    // Bit rates under 1 kbit/s are left out; Dolby shows no layout.
    const Case audioCases[] = {
        {AV_CODEC_ID_AAC, 500, 0, "AAC, 6 ch, 48000Hz"},
        {AV_CODEC_ID_AAC, 1999, 3, "AAC, stereo, 1kbps, 48000Hz"},
        {AV_CODEC_ID_AC3, 128000, 3, "Dolby Digital (AC-3), 128kbps, 48000Hz"},
    };
    for (const Case& c : audioCases) {
        auto audio = QXAudioTrack::init();
        audio->codec_id = c.codec;
        audio->bitrate = c.bitrate;
        audio->channel_layout = c.layout;
        audio->channels = 6;
        audio->naturalTimeScale = audio->sample_rate = 48000;
        EXPECT_EQ(audio->displayDescription(), c.expected);
    }
    EXPECT_EQ(QXTrack::init()->format(), "Unknown");

    // Levels are tenths; a frame rate needs a duration to be shown.
    struct VideoCase {
        AVCodecID codec;
        int profile, level;
        bool timed;
        const char* expected;
    };
    const VideoCase videoCases[] = {
        {AV_CODEC_ID_H264, 100, 0, false, "H.264, 1920x1080"},
        {AV_CODEC_ID_H264, 100, 41, false, "H.264 (High@4.1), 1920x1080"},
        {AV_CODEC_ID_H264, 100, 63, false, "H.264 (High@unknown level 3f), 1920x1080"},
        {AV_CODEC_ID_H264, 100, 40, true, "H.264 (High@4), 00:00:06.000, 2500kbps, 1920x1080@29.970fps"},
        {AV_CODEC_ID_HEVC, 2, 0, false, "HEVC (Main 10), 1920x1080"},
    };
    for (const VideoCase& c : videoCases) {
        auto video = QXVideoTrack::init();
        video->codec_id = c.codec;
        video->profile = c.profile;
        video->level = c.level;
        video->width = 1920;
        video->height = 1080;
        video->frameRate = {30000, 1001};
        if (c.timed) {
            video->duration = CMTimeMake(6000, 1000);
            video->bitrate = 2500000;
        }
        EXPECT_EQ(video->displayDescription(), c.expected);
    }
}

// MARK: Video

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

TEST(VideoTrack, H264FromAnMP4HasItsParameterSets)
{
    OpenedInput input(sourcemedia::multiTrackMP4());
    ASSERT_TRUE(input.context);
    auto video = importTrack<QXVideoTrack>(input.context, 0);
    ASSERT_TRUE(video);
    ASSERT_EQ(video->sps.size(), 1u);
    ASSERT_EQ(video->pps.size(), 1u);
    EXPECT_EQ(video->sps[0][0] & 31, 7);
    EXPECT_EQ(video->pps[0][0] & 31, 8);
    EXPECT_EQ(video->profile, input.stream(0)->codecpar->profile & 0xff) << "without the constraint flags";
    EXPECT_EQ(video->nominalFrameRate(), 25.f);
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

TEST(TrackRules, WhatIsCopiedAndWhatCanBeEncoded)
{
    auto video = [](AVCodecID codec, int profile, int formatFlags = 0) {
        auto track = QXVideoTrack::init();
        track->codec_id = codec;
        track->profile = profile;
        track->formatFlags = formatFlags;
        return QXTrackRef(track);
    };
    auto audio = [](AVCodecID codec, int channels, int rate, QXData extradata = {0x11, 0x90}, bool eac3 = false) {
        auto track = eac3 ? QXEAC3AudioTrack::init() : QXAudioTrack::init();
        track->codec_id = codec;
        track->channels = channels;
        track->sample_rate = rate;
        track->extradata = std::move(extradata);
        return QXTrackRef(track);
    };
    auto subtitle = [](AVCodecID codec, bool bitmap = false) {
        QXTrackRef track = bitmap ? QXTrackRef(QXBitmapSubtitleTrack::init()) : QXTrackRef(QXSubtitleTrack::init());
        if (codec != AV_CODEC_ID_NONE) track->codec_id = codec;
        return track;
    };
    const struct {
        const char* what;
        QXTrackRef track;
        bool muxable, encodable;
    } rules[] = {
        {"H.264 High", video(AV_CODEC_ID_H264, 100), true, true},
        {"H.264 High 10", video(AV_CODEC_ID_H264, 110), false, true},
        {"H.264 whose timestamps may jump", video(AV_CODEC_ID_H264, 77, AVFMT_TS_DISCONT), false, true},
        {"MPEG-2 video", video(AV_CODEC_ID_MPEG2VIDEO, 0), false, true},
        {"AAC stereo", audio(AV_CODEC_ID_AAC, 2, 48000), true, true},
        {"AAC 5.1 (encoded)", audio(AV_CODEC_ID_AAC, 6, 48000), false, true},
        {"AAC at 96 kHz", audio(AV_CODEC_ID_AAC, 1, 96000), false, true},
        {"AAC without its configuration", audio(AV_CODEC_ID_AAC, 1, 44100, {}), false, true},
        {"MP3", audio(AV_CODEC_ID_MP3, 2, 44100), false, true},
        {"audio without a sample rate", audio(AV_CODEC_ID_MP3, 2, 0), false, false},
        {"E-AC-3", audio(AV_CODEC_ID_EAC3, 6, 48000, {}, true), true, true},
        {"a new text track is tx3g", subtitle(AV_CODEC_ID_NONE), true, true},
        {"ASS text", subtitle(AV_CODEC_ID_ASS), false, true},
        {"PGS bitmaps as text", subtitle(AV_CODEC_ID_HDMV_PGS_SUBTITLE), false, false},
        {"a codec without a descriptor", subtitle(AVCodecID(0x7fffffff)), false, false},
        {"DVD bitmaps (through text recognition)", subtitle(AV_CODEC_ID_DVD_SUBTITLE, true), false, true},
    };
    for (const auto& rule : rules) {
        EXPECT_EQ(rule.track->isMuxable(), rule.muxable) << rule.what;
        EXPECT_EQ(rule.track->isEncodable(), rule.encodable) << rule.what;
    }

    // A disabled MJPEG track in another layer holds chapter pictures.
    auto pictures = QXVideoTrack::init();
    pictures->codec_id = AV_CODEC_ID_MJPEG;
    pictures->enabled = false;
    pictures->layer = 1;
    EXPECT_TRUE(pictures->isChapterImageTrack());
    pictures->layer = 0;
    EXPECT_FALSE(pictures->isChapterImageTrack());
}

TEST(VideoTrack, UnsupportedColourIndexesAreWarnedAboutAndLeftOut)
{
    auto video = QXVideoTrack::init();
    qxtest::LogCapture log;
    EXPECT_EQ(video->YCbCrMatrix(), nullptr);
    EXPECT_TRUE(log.lines().empty()) << "2 is unspecified and needs no warning";
    video->matrixIndex = 0;
    video->transferFunctionIndex = 10;
    video->primariesIndex = 10;
    EXPECT_EQ(video->YCbCrMatrix(), nullptr);
    EXPECT_EQ(video->transferFunction(), nullptr);
    EXPECT_EQ(video->colorPrimaries(), nullptr);
    for (const char* line : {"Color space gbr is not supported.", "Transfer function log316 is not supported.",
                             "Color primaries smpte428 is not supported."}) {
        EXPECT_TRUE(log.contains(line, 2)) << line;
    }
}

TEST(VideoTrack, FramePackedStereoHalvesOneAxis)
{
    for (const auto& [mode, h, v] : {std::tuple {"left_right", 1u, 2u}, std::tuple {"top_bottom", 2u, 1u}}) {
        OpenedInput input(sourcemedia::stereoMatroska(mode));
        ASSERT_TRUE(input.context) << mode;
        auto video = importTrack<QXVideoTrack>(input.context, 0);
        ASSERT_TRUE(video);
        EXPECT_EQ(video->hSpacing, h) << mode;
        EXPECT_EQ(video->vSpacing, v) << mode;
        EXPECT_FLOAT_EQ(video->display_width, 320.f * float(h) / float(v)) << mode;
        EXPECT_FLOAT_EQ(video->display_height, 180.f) << mode;
    }

    // Column and line interleaving, by hand; a stream of unknown aspect
    // stays 1:1 whatever the packing.
    OpenedInput input(sourcemedia::multiTrackMP4());
    ASSERT_TRUE(input.context);
    AVStream* stream = input.stream(0);
    AVStereo3D packing {};
    packing.type = AV_STEREO3D_COLUMNS;
    addSideData(stream, AV_PKT_DATA_STEREO3D, &packing, sizeof packing);
    stream->sample_aspect_ratio = {4, 3};
    auto columns = importTrack<QXVideoTrack>(input.context, 0);
    EXPECT_EQ(columns->hSpacing, 2u);
    EXPECT_EQ(columns->vSpacing, 3u);
    stream->sample_aspect_ratio = {0, 1};
    stream->codecpar->sample_aspect_ratio = {0, 1};
    auto unknown = importTrack<QXVideoTrack>(input.context, 0);
    EXPECT_EQ(unknown->hSpacing, 1u);
    EXPECT_EQ(unknown->vSpacing, 1u);
    EXPECT_FLOAT_EQ(unknown->display_width, 320.f);
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

// MARK: Audio

TEST(AudioTrack, VolumeAndServiceTypeFromTheStream)
{
    OpenedInput input(sourcemedia::matroska());
    ASSERT_TRUE(input.context);
    AVStream* stream = input.stream(kAACStream);
    setMetadata(stream, "volume", "128");
    setMetadata(stream, "title", "Director's COMMENTARY with karaoke");
    auto aac = importTrack<QXAudioTrack>(input.context, kAACStream);
    ASSERT_TRUE(aac);
    EXPECT_FLOAT_EQ(aac->volume, 0.5f);
    EXPECT_EQ(aac->audio_service_type, AV_AUDIO_SERVICE_TYPE_COMMENTARY) << "commentary is looked for first";
    EXPECT_EQ(aac->channel_layout, uint64_t(AV_CH_LAYOUT_STEREO));
    EXPECT_EQ(aac->alternate_group, 1u);

    setMetadata(stream, "volume", "0");
    setMetadata(stream, "title", "Karaoke");
    auto karaoke = importTrack<QXAudioTrack>(input.context, kAACStream);
    EXPECT_FLOAT_EQ(karaoke->volume, 1.0f);
    EXPECT_EQ(karaoke->audio_service_type, AV_AUDIO_SERVICE_TYPE_KARAOKE);

    // Side data of type 7 overrides the name; a short one is refused.
    setMetadata(stream, "title", "Commentary");
    const int32_t mainService = AV_AUDIO_SERVICE_TYPE_MAIN;
    addSideData(stream, AV_PKT_DATA_AUDIO_SERVICE_TYPE, &mainService, sizeof mainService);
    EXPECT_EQ(importTrack<QXAudioTrack>(input.context, kAACStream)->audio_service_type, 0);

    OpenedInput other(sourcemedia::matroska());
    ASSERT_TRUE(other.context);
    setMetadata(other.stream(kAACStream), "title", "Commentary");
    const uint8_t two[2] = {0, 0};
    addSideData(other.stream(kAACStream), AV_PKT_DATA_AUDIO_SERVICE_TYPE, two, sizeof two);
    qxtest::LogCapture log;
    EXPECT_EQ(importTrack<QXAudioTrack>(other.context, kAACStream)->audio_service_type, 5);
    EXPECT_TRUE(log.contains("Invalid data!", 2));
}

// MARK: Dolby analysis

TEST(AC3Track, HeaderFieldsForEachChannelMode)
{
    struct Case {
        const char* layout;
        const char* options;
        uint8_t acmod, lfeon;
    };
    // Each layout puts lfeon at another bit of byte 6; the neighbouring
    // fields (dsurmod, cmixlev, surmixlev) hold ones that a wrong position would read.
    const Case cases[] = {
        {"mono", "", 1, 0}, {"FC+LFE", "", 1, 1}, {"stereo", "-dsur_mode on", 2, 0}, {"2.1", "", 2, 1},
        {"5.1", "", 7, 1}, {"5.0", "", 7, 0}};
    for (const Case& c : cases) {
        OpenedInput input(sourcemedia::ac3(c.layout, c.options));
        ASSERT_TRUE(input.context) << c.layout;
        auto ac3 = importTrack<QXAC3AudioTrack>(input.context, 0);
        ASSERT_TRUE(ac3) << c.layout;
        EXPECT_EQ(ac3->acmod, c.acmod) << c.layout;
        EXPECT_EQ(ac3->lfeon, c.lfeon) << c.layout;
        EXPECT_EQ(ac3->bsmod, 0) << c.layout;
        // The bit rate code is the rate's index in A/52's table, whatever ffmpeg chose.
        static const int rates[] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                    192, 224, 256, 320, 384, 448, 512, 576, 640};
        ASSERT_LT(ac3->bit_rate_code, 19) << c.layout;
        EXPECT_EQ(rates[ac3->bit_rate_code] * 1000, input.stream(0)->codecpar->bit_rate) << c.layout;
    }
}

TEST(AC3Track, ServiceTypeFromTheBitStreamMode)
{
    // bsmod 7 is voice-over in mono and karaoke otherwise.
    for (const auto& [layout, service, expected] :
         {std::tuple {"mono", "vo", AV_AUDIO_SERVICE_TYPE_VOICE_OVER},
          std::tuple {"stereo", "ka", AV_AUDIO_SERVICE_TYPE_KARAOKE}}) {
        OpenedInput input(sourcemedia::ac3(layout, std::string("-audio_service_type ") + service));
        ASSERT_TRUE(input.context);
        auto ac3 = importTrack<QXAC3AudioTrack>(input.context, 0);
        ASSERT_TRUE(ac3);
        EXPECT_EQ(ac3->bsmod, 7) << layout;
        EXPECT_EQ(ac3->audio_service_type, expected) << layout;
    }
    OpenedInput input(sourcemedia::ac3("stereo", "-audio_service_type hi"));
    ASSERT_TRUE(input.context);
    setMetadata(input.stream(0), "title", "Commentary");
    auto ac3 = importTrack<QXAC3AudioTrack>(input.context, 0);
    EXPECT_EQ(ac3->bsmod, 3);
    EXPECT_EQ(ac3->audio_service_type, AV_AUDIO_SERVICE_TYPE_HEARING_IMPAIRED) << "bsmod before the name";
}

TEST(EAC3Track, Dec3IsTheRecordFFmpegsMuxerWrote)
{
    // 5.1 at 48 kHz (256 kbit/s) and stereo at 44.1 kHz: rate, fscod, acmod and lfeon all differ.
    for (const auto& [path, stream] : {std::pair {sourcemedia::hevcEac3(), 1}, std::pair {sourcemedia::stereoEac3(), 0}}) {
        SCOPED_TRACE(path.filename().string());
        OpenedInput input(path);
        ASSERT_TRUE(input.context);
        auto eac3 = importTrack<QXEAC3AudioTrack>(input.context, stream);
        ASSERT_TRUE(eac3);
        ASSERT_EQ(eac3->dec3Atom.size(), 5u) << "a reserved bit instead of chan_loc";
        EXPECT_EQ(eac3->dec3Atom, qxtest::boxPayload(path, "dec3"));
    }
}

// MARK: Subtitles

TEST(SubtitleTrack, Tx3gDescriptionNeedsThirtyBytes)
{
    const QXData description = {0x20, 0x00, 0x00, 0x01, // display flags
                                0x01, 0xff,             // justification
                                1,    2,    3,    4,    // background
                                0x00, 0x10, 0x00, 0x20, 0x01, 0x00, 0x02, 0x80, // text box
                                0,    0,    0,    0,    // style characters
                                0x00, 0x03, 0x01, 0x12, // font id, face, size
                                9,    8,    7,    6};   // font colour
    auto subtitle = QXSubtitleTrack::init();
    qxtest::LogCapture log;
    subtitle->parseExtradata(description.data(), 29);
    EXPECT_TRUE(log.contains("Extradata too short. Expecting >= 30, but got 29", 2));
    EXPECT_EQ(subtitle->displayFlags, 0u);
    EXPECT_EQ(subtitle->font_size, 24);
    EXPECT_EQ(subtitle->vertical_justification, 255);

    subtitle->parseExtradata(description.data(), 30);
    EXPECT_EQ(subtitle->displayFlags, 0x20000001u);
    EXPECT_TRUE(subtitle->obeySubtitleFormatting());
    EXPECT_EQ(subtitle->horizontal_justification, 1);
    EXPECT_EQ(subtitle->vertical_justification, 255);
    EXPECT_EQ(subtitle->bg_color_alpha, 4);
    EXPECT_EQ(subtitle->font_id, 3);
    EXPECT_EQ(subtitle->font_size, 0x12);
    EXPECT_EQ(subtitle->font_color_red, 9);
    EXPECT_EQ(subtitle->font_color_alpha, 6);
    EXPECT_TRUE(log.contains("Defaut Text Box: 16 32 256 640", 16)) << "top, left, bottom, right";
}

TEST(SubtitleTrack, ForcedFlagSetsTheTopBitsOfTheDisplayFlags)
{
    // Bit 29 (obey formatting) stays; "all" sets bits 30 and 31, "some" bit 30.
    const std::pair<uint32_t, uint32_t> cases[] = {{QXSubtitleAllSamplesForced, 0xE0000000u},
                                                   {QXSubtitleSomeSamplesForced, 0x60000000u},
                                                   {0x12345, 0x20000000u}};
    for (const auto& [flag, expected] : cases) {
        auto subtitle = QXSubtitleTrack::init();
        subtitle->setObeySubtitleFormatting(true);
        subtitle->setForcedFlag(QXSubtitleAllSamplesForced);
        subtitle->setForcedFlag(flag);
        EXPECT_EQ(subtitle->displayFlags, expected) << flag;
        if (expected != 0x20000000u) {
            EXPECT_EQ(subtitle->forcedFlag(), flag);
        }
    }
}

TEST(SubtitleTrack, ImportMarksForcedStreamsAndRenamesThem)
{
    OpenedInput input(sourcemedia::matroska());
    ASSERT_TRUE(input.context);
    setMetadata(input.stream(kSRTStream), "title", "English FORCED");
    input.stream(kASSStream)->disposition |= AV_DISPOSITION_FORCED;
    auto srt = importTrack<QXSubtitleTrack>(input.context, kSRTStream);
    auto ass = importTrack<QXBitmapSubtitleTrack>(input.context, kASSStream);
    ASSERT_TRUE(srt && ass);
    EXPECT_EQ(srt->forcedFlag(), QXSubtitleAllSamplesForced);
    EXPECT_EQ(srt->name, "Subtitle Track");
    EXPECT_EQ(srt->offset, 0);
    EXPECT_EQ(ass->forcedFlag, QXSubtitleAllSamplesForced);
}

TEST(SubtitleTrack, FittedToA1080LinePicture)
{
    auto video = QXVideoTrack::init();
    video->width = 1920;
    video->height = 1080;
    video->transform = {0, 1, 65535, 0, 1080, 0};
    auto subtitle = QXSubtitleTrack::init();
    subtitle->defTextBoxTop = 5;
    subtitle->adjustForVideoTrack(*video);
    EXPECT_EQ(subtitle->width, 1920u);
    EXPECT_EQ(subtitle->height, 162u);
    EXPECT_EQ(subtitle->transform, (QXAffineTransform {0, 1, 65535, 0, 0, 918})) << "the video's, moved down";
    EXPECT_EQ(subtitle->defTextBoxTop, 0);

    subtitle->setObeySubtitleFormatting(true);
    subtitle->adjustForVideoTrack(*video);
    EXPECT_EQ(subtitle->height, 1080u);
    EXPECT_EQ(subtitle->defTextBoxTop, 918);
    EXPECT_EQ(subtitle->defTextBoxBottom, 1080);
    EXPECT_EQ(subtitle->defTextBoxRight, 1920);
    EXPECT_EQ(subtitle->transform, QXAffineTransform {});
}

// MARK: Copies and archives

TEST(TrackCopies, CopyingKeepsWhatTheTargetClassHas)
{
    auto ac3 = QXAC3AudioTrack::init();
    ac3->codec_id = AV_CODEC_ID_AC3;
    ac3->trackID = 4;
    ac3->streamIndex = 3;
    ac3->channels = 6;
    ac3->channel_layout = AV_CH_LAYOUT_5POINT1;
    ac3->acmod = 7;
    ac3->extradata = {1, 2, 3};

    auto audio = QXAudioTrack::initWithTrack(*ac3);
    EXPECT_EQ(audio->className(), "QXAudioTrack");
    EXPECT_EQ(audio->channel_layout, uint64_t(AV_CH_LAYOUT_5POINT1));
    EXPECT_EQ(audio->extradata, ac3->extradata);
    EXPECT_EQ(audio->trackID, 0) << "identity is not copied";
    EXPECT_EQ(audio->streamIndex, INT32_MIN);

    auto back = std::dynamic_pointer_cast<QXAC3AudioTrack>(ac3->copy());
    ASSERT_TRUE(back);
    EXPECT_EQ(back->acmod, 7);
    auto fromPlainAudio = QXAC3AudioTrack::initWithTrack(*audio);
    EXPECT_EQ(fromPlainAudio->acmod, 0);
    EXPECT_EQ(fromPlainAudio->channels, 6);

    auto video = QXVideoTrack::init();
    video->codec_id = AV_CODEC_ID_H264;
    video->hSpacing = 4;
    video->sps = {{0x67, 1}};
    video->brokenByMS = true;
    video->formatFlags = AVFMT_TS_DISCONT;
    video->encoderCRF = 20;
    auto videoCopy = QXVideoTrack::initWithTrack(*video);
    EXPECT_EQ(videoCopy->hSpacing, 4u);
    EXPECT_EQ(videoCopy->sps, video->sps);
    EXPECT_FALSE(videoCopy->brokenByMS);
    EXPECT_EQ(videoCopy->formatFlags, 0) << "a copy is not bound to the source's demuxer";
    EXPECT_EQ(videoCopy->encoderCRF, 0);

    auto subtitle = QXSubtitleTrack::init();
    subtitle->font_size = 40;
    subtitle->setForcedFlag(QXSubtitleSomeSamplesForced);
    subtitle->forced_track = QXSubtitleTrack::init();
    auto subtitleCopy = QXSubtitleTrack::initWithTrack(*subtitle);
    EXPECT_EQ(subtitleCopy->font_size, 40);
    EXPECT_EQ(subtitleCopy->forcedFlag(), QXSubtitleSomeSamplesForced);
    EXPECT_EQ(subtitleCopy->forced_track, subtitle->forced_track);
    auto fromBitmap = QXSubtitleTrack::initWithTrack(*QXBitmapSubtitleTrack::init());
    EXPECT_EQ(fromBitmap->font_size, 24);
}

TEST(TrackCopies, ArchivesKeepTheBaseFieldsOfEveryClass)
{
    std::vector<QXTrackRef> tracks = {QXTrack::init(),          QXVideoTrack::init(),        QXAudioTrack::init(),
                                      QXAC3AudioTrack::init(),  QXEAC3AudioTrack::init(),    QXSubtitleTrack::init(),
                                      QXBitmapSubtitleTrack::init()};
    for (const QXTrackRef& track : tracks) {
        const std::string name = track->className();
        track->streamIndex = 2;
        track->trackID = 3;
        track->sourceURL = "/movies/film.mkv";
        track->codec_id = AV_CODEC_ID_AAC;
        track->name = "Piste";
        track->language = "fr";
        track->setFlags(6);
        track->layer = -1;
        track->alternate_group = 5;
        track->offset = -1024;
        track->duration = CMTimeMake(48000, 1000);
        track->naturalTimeScale = 48000;
        track->bitrate = 3000000000u;
        track->extradata = {0x11, 0x90};
        if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(track)) audio->channels = 2;
        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(track)) video->hSpacing = 4;
        if (auto subtitle = std::dynamic_pointer_cast<QXSubtitleTrack>(track)) subtitle->font_size = 40;
        if (auto ac3 = std::dynamic_pointer_cast<QXAC3AudioTrack>(track)) ac3->acmod = 7;

        const auto data = QXKeyedArchiver::archivedDataWithRootObject(*track);
        ASSERT_TRUE(data) << name;
        auto decoded = QXKeyedUnarchiver::unarchivedObjectOfClass<QXTrack>(*data);
        ASSERT_TRUE(decoded) << name;
        EXPECT_EQ(decoded->className(), name);
        SCOPED_TRACE(name);
        EXPECT_EQ(decoded->streamIndex, 2);
        EXPECT_EQ(decoded->trackID, 3);
        EXPECT_EQ(decoded->sourceURL, QXURL("/movies/film.mkv"));
        EXPECT_EQ(decoded->codec_id, AV_CODEC_ID_AAC);
        EXPECT_EQ(decoded->name, "Piste");
        EXPECT_EQ(decoded->language, "fr");
        EXPECT_EQ(decoded->flags(), 6u);
        EXPECT_EQ(decoded->layer, -1);
        EXPECT_EQ(decoded->alternate_group, 5u);
        EXPECT_EQ(decoded->offset, -1024);
        EXPECT_EQ(CMTimeCompare(decoded->duration, track->duration), 0);
        EXPECT_EQ(decoded->naturalTimeScale, 48000);
        EXPECT_EQ(decoded->bitrate, 3000000000u);
        EXPECT_EQ(decoded->extradata, track->extradata);
        // Only the base keys travel.
        if (auto audio = std::dynamic_pointer_cast<QXAudioTrack>(decoded)) {
            EXPECT_EQ(audio->channels, 0);
        }
        if (auto video = std::dynamic_pointer_cast<QXVideoTrack>(decoded)) {
            EXPECT_EQ(video->hSpacing, 1u);
        }
        if (auto subtitle = std::dynamic_pointer_cast<QXSubtitleTrack>(decoded)) {
            EXPECT_EQ(subtitle->font_size, 24);
        }
    }
}
