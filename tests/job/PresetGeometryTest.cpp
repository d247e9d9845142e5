#include <gtest/gtest.h>

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavformat/avformat.h>
}

#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

std::shared_ptr<QXVideoTrack> videoTrack(uint64_t width, uint64_t height, uint32_t hSpacing = 1,
                                         uint32_t vSpacing = 1)
{
    auto track = QXVideoTrack::init();
    track->codec_id = AV_CODEC_ID_H264;
    track->profile = 100;
    track->width = width;
    track->height = height;
    track->hSpacing = hSpacing;
    track->vSpacing = vSpacing;
    track->display_width = float(double(width) * hSpacing / vSpacing);
    track->display_height = float(height);
    return track;
}

struct Picture {
    uint64_t width, height;
    uint32_t sarWidth, sarHeight;
    float displayWidth, displayHeight;
};

Picture pictureFor(const QXPreset& preset, const QXVideoTrack& track)
{
    return {preset.videoWidthForTrack(track),     preset.videoHeightForTrack(track),
            preset.sarWidthForTrack(track),       preset.sarHeightForTrack(track),
            preset.videoDisplayWidthForTrack(track), preset.videoDisplayHeightForTrack(track)};
}

void expectPicture(const char* what, const Picture& got, const Picture& want)
{
    SCOPED_TRACE(what);
    EXPECT_EQ(got.width, want.width);
    EXPECT_EQ(got.height, want.height);
    EXPECT_EQ(got.sarWidth, want.sarWidth);
    EXPECT_EQ(got.sarHeight, want.sarHeight);
    EXPECT_FLOAT_EQ(got.displayWidth, want.displayWidth);
    EXPECT_FLOAT_EQ(got.displayHeight, want.displayHeight);
}

} // namespace

// What each kind of preset makes of a source picture: presets that keep
// the sample aspect are limited by the box's width only, keep the shape on
// display and give even sizes; the iPod preset scales with square pixels
// from the display size.
TEST(PresetPicture, SizesAndAspectsForEachKindOfSource)
{
    struct Row {
        const char* what;
        const char* preset;
        uint64_t width, height;
        uint32_t hSpacing, vSpacing;
        Picture want;
    };
    const Row rows[] = {
        {"downscaled HD", QXPresetApple720p, 1920, 1080, 1, 1, {1280, 720, 1, 1, 1280, 720}},
        {"smaller than the box: not enlarged", QXPresetApple1080p, 640, 360, 1, 1, {640, 360, 1, 1, 640, 360}},
        // Rounding both axes changes the shape a little; the sample aspect
        // (321 * 240) / (241 * 320) = 963:964 puts it back on display.
        {"odd and smaller", QXPresetApple1080p, 321, 241, 1, 1, {320, 240, 963, 964, 320 * 963 / 964.0f, 240}},
        {"portrait, limited by width only", QXPresetApple720p, 1080, 1920, 1, 1, {1080, 1920, 1, 1, 1080, 1920}},
        // 640 / 0.5625 is 1137.8, cut and made even.
        {"portrait scaled", QXPresetApple480p, 1080, 1920, 1, 1, {640, 1136, 639, 640, 640 * 639 / 640.0f, 1136}},
        {"box without a height", QXPresetHLS2, 3840, 2160, 1, 1, {1920, 1080, 1, 1, 1920, 1080}},
        {"PAL 16:9: the height shrinks on display", QXPresetApple1080p, 720, 576, 64, 45, {720, 576, 64, 45, 720, 405}},
        {"PAL 16:9 into a smaller box", QXPresetApple480p, 720, 576, 64, 45, {640, 512, 64, 45, 640, 360}},
        {"NTSC 4:3: the width shrinks on display", QXPresetApple1080p, 720, 480, 8, 9, {720, 480, 8, 9, 640, 480}},
        {"HDV 4:3 pixels into a 1280 box", QXPresetApple720p, 1440, 1080, 4, 3, {1280, 960, 4, 3, 1280, 720}},
        {"iPod 16:9", QXPresetiPod, 1920, 1080, 1, 1, {320, 180, 1, 1, 320, 180}},
        {"iPod anamorphic PAL: 1024x576 on display", QXPresetiPod, 720, 576, 64, 45, {320, 180, 1, 1, 320, 180}},
        {"iPod 4:3", QXPresetiPod, 640, 480, 1, 1, {320, 240, 1, 1, 320, 240}},
        {"iPod odd height: 179.84 cut and made even", QXPresetiPod, 1000, 562, 1, 1, {320, 178, 1, 1, 320, 178}},
        {"iPod portrait exceeds the box's height", QXPresetiPod, 1080, 1920, 1, 1, {320, 568, 1, 1, 320, 568}},
    };
    for (const Row& row : rows) {
        expectPicture(row.what,
                      pictureFor(*QXPreset::initWithIdentifier(row.preset),
                                 *videoTrack(row.width, row.height, row.hSpacing, row.vSpacing)),
                      row.want);
    }

    // 998 / 1.998 is 499.49, cut to 499, made even. The exact aspect
    // 248751:249500 needs more than 16 bits and comes back approximated.
    const Picture odd = pictureFor(*QXPreset::initWithIdentifier(QXPresetApple720p), *videoTrack(999, 500));
    EXPECT_EQ(odd.width, 998u);
    EXPECT_EQ(odd.height, 498u);
    EXPECT_LE(odd.sarHeight, 0x10000u);
    EXPECT_NEAR(double(odd.sarWidth) / odd.sarHeight, 248751.0 / 249500.0, 1e-7);
    EXPECT_NEAR(odd.displayWidth, 998 * 248751.0 / 249500.0, 1e-3);

    uint32_t t = 0;
    QXPreset::initWithIdentifier(QXPresetApple1080p)->sarWidth(nullptr, &t, *videoTrack(720, 576, 16, 15));
    EXPECT_EQ(t, 15u) << "either target may be left out";
}

TEST(PresetPicture, ModulusRounding)
{
    auto preset = QXPreset::initWithIdentifier(QXPresetApple1080p)->copy();
    EXPECT_EQ(preset->roundToModulus(999), 998u);
    EXPECT_EQ(preset->roundToModulus(1), 0u);
    preset->pictureModulus = 16;
    EXPECT_EQ(preset->roundToModulus(1000), 992u); // 62.5 blocks: ties go down
    EXPECT_EQ(preset->roundToModulus(1001), 1008u);
    // 1000x562: width 992, height 992 / 1.779 = 557.5, cut to 557, then 560.
    EXPECT_EQ(preset->videoWidthForTrack(*videoTrack(1000, 562)), 992u);
    EXPECT_EQ(preset->videoHeightForTrack(*videoTrack(1000, 562)), 560u);

    // A modulus of 1 keeps odd sizes; one below 1 is treated alike instead
    // of dividing by zero.
    for (int32_t modulus : {1, 0, -4}) {
        preset->pictureModulus = modulus;
        EXPECT_EQ(preset->videoWidthForTrack(*videoTrack(999, 500)), 999u) << modulus;
        EXPECT_EQ(preset->videoHeightForTrack(*videoTrack(999, 500)), 500u) << modulus;
    }
}

// Missing dimensions give zero sizes, never a crash or an undefined cast.
TEST(PresetPicture, ZeroSizes)
{
    auto ipod = QXPreset::initWithIdentifier(QXPresetiPod);
    struct Display {
        float width, height;
        uint64_t outWidth, outHeight;
    };
    for (const Display& display : {Display{0, 480, 0, 240}, Display{0, 0, 0, 240}, Display{640, 0, 320, 0}}) {
        auto track = videoTrack(640, 480);
        track->display_width = display.width;
        track->display_height = display.height;
        EXPECT_EQ(ipod->videoWidthForTrack(*track), display.outWidth) << display.width << "x" << display.height;
        EXPECT_EQ(ipod->videoHeightForTrack(*track), display.outHeight) << display.width << "x" << display.height;
    }

    auto p1080 = QXPreset::initWithIdentifier(QXPresetApple1080p);
    for (auto [width, height] : {std::pair<uint64_t, uint64_t>{0, 0}, {1920, 0}, {0, 1080}}) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        const Picture picture = pictureFor(*p1080, *videoTrack(width, height));
        EXPECT_EQ(picture.width, width);
        EXPECT_EQ(picture.height, 0u);
        EXPECT_LE(picture.displayWidth, float(width));
        EXPECT_EQ(picture.displayHeight, 0.0f);
    }
}

// Video is copied only by the update and pass-through presets, and only
// muxable H.264 or HEVC that fits the 4K box and has steady time stamps.
TEST(PresetPassthrough, OnlyFittingMuxableH264OrHEVC)
{
    struct Row {
        const char* what;
        int32_t codec;
        uint64_t width, height;
        int profile, formatFlags;
        bool copied;
    };
    const Row rows[] = {
        {"HD H.264", AV_CODEC_ID_H264, 1920, 1080, 100, 0, true},
        {"HEVC exactly the box", AV_CODEC_ID_HEVC, 3840, 2160, 1, 0, true},
        {"HEVC wider than the box", AV_CODEC_ID_HEVC, 4096, 2160, 1, 0, false},
        {"portrait 4K is taller than the box", AV_CODEC_ID_HEVC, 2160, 3840, 1, 0, false},
        {"High 10 is not muxable", AV_CODEC_ID_H264, 1280, 720, 110, 0, false},
        {"transport stream times", AV_CODEC_ID_H264, 1280, 720, 100, AVFMT_TS_DISCONT, false},
    };
    auto passthrough = QXPreset::initWithIdentifier(QXPresetPassthrough);
    for (const Row& row : rows) {
        auto track = videoTrack(row.width, row.height);
        track->codec_id = row.codec;
        track->profile = row.profile;
        track->formatFlags = row.formatFlags;
        EXPECT_EQ(passthrough->allowPassthroughForVideoTrack(*track), row.copied) << row.what;
    }
    auto hd = videoTrack(1920, 1080);
    EXPECT_FALSE(QXPreset::initWithIdentifier(QXPresetApple1080p)->allowPassthroughForVideoTrack(*hd));
    EXPECT_TRUE(QXPreset::initWithIdentifier(QXPresetUpdate)->allowPassthroughForVideoTrack(*hd));
}
