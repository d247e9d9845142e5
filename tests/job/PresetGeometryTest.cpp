#include <gtest/gtest.h>

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
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

// Presets that keep the sample aspect are limited by the box's width only;
// the iPod preset scales with square pixels from the display size.
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
}
