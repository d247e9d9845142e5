// The output picture of a preset for a source track: pass-through test,
// pixel size, sample aspect and display size.

#include <algorithm>
#include <cmath>
#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/rational.h>
}

#include "qxmedia/job/QXPreset.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

// A size computed in floating point, cut to an integer; sizes that come out
// of zero or missing source dimensions (NaN, infinite, negative) are 0.
uint64_t sizeFromDouble(double value)
{
    if (!std::isfinite(value) || value < 0 || value >= 18446744073709551616.0) return 0;
    return uint64_t(value);
}

// How much wider the source's display shape is than the box's, in single
// precision. Not above 0 when the source has no display width.
float displayRatio(const QXPreset& preset, const QXVideoTrack& track)
{
    return (track.display_width / float(preset.videoWidth)) / (track.display_height / float(preset.videoHeight));
}

} // namespace

uint64_t QXPreset::roundToModulus(uint64_t value) const
{
    if (pictureModulus <= 1) return value;
    const uint64_t m = uint64_t(pictureModulus);
    return (value + m / 2 - 1) / m * m;
}

bool QXPreset::allowPassthroughForVideoTrack(const QXVideoTrack& track) const
{
    if (requireEncode || !track.isMuxable()) return false;
    if (track.width > videoWidth || track.height > videoHeight) return false;
    return track.codec_id == AV_CODEC_ID_HEVC || track.codec_id == AV_CODEC_ID_H264;
}

uint64_t QXPreset::videoWidthForTrack(const QXVideoTrack& track) const
{
    uint64_t width;
    if (picturePAR == QXPresetPictureKeepAspect) {
        width = std::min(videoWidth, track.width);
    } else if (displayRatio(*this, track) > 0.0f) {
        width = videoWidth;
    } else {
        width = sizeFromDouble(double(videoHeight) / double(track.display_height) * double(track.display_width));
    }
    return roundToModulus(width);
}

uint64_t QXPreset::videoHeightForTrack(const QXVideoTrack& track) const
{
    uint64_t height;
    if (picturePAR == QXPresetPictureKeepAspect) {
        // The storage aspect stays; only the box's width limits the picture.
        const double aspect = double(track.width) / double(track.height);
        height = sizeFromDouble(double(videoWidthForTrack(track)) / aspect);
    } else if (displayRatio(*this, track) > 0.0f) {
        height = sizeFromDouble(double(videoWidth) / double(track.display_width) * double(track.display_height));
    } else {
        height = videoHeight;
    }
    return roundToModulus(height);
}

void QXPreset::sarWidth(uint32_t* sarWidth, uint32_t* sarHeight, const QXVideoTrack& track) const
{
    int num = 1;
    int den = 1;
    if (picturePAR == QXPresetPictureKeepAspect) {
        // The source's pixel aspect times the change of storage aspect.
        const uint64_t outWidth = videoWidthForTrack(track);
        const uint64_t outHeight = videoHeightForTrack(track);
        uint64_t wide = 0;
        uint64_t high = 0;
        const bool overflow = __builtin_mul_overflow(uint64_t(track.hSpacing), track.width, &wide) ||
                              __builtin_mul_overflow(wide, outHeight, &wide) ||
                              __builtin_mul_overflow(uint64_t(track.vSpacing), track.height, &high) ||
                              __builtin_mul_overflow(high, outWidth, &high) || wide > uint64_t(INT64_MAX) ||
                              high > uint64_t(INT64_MAX);
        if (!overflow) av_reduce(&num, &den, int64_t(wide), int64_t(high), 0x10000);
    }
    if (sarWidth) *sarWidth = uint32_t(num);
    if (sarHeight) *sarHeight = uint32_t(den);
}

uint32_t QXPreset::sarWidthForTrack(const QXVideoTrack& track) const
{
    uint32_t value = 0;
    sarWidth(&value, nullptr, track);
    return value;
}

uint32_t QXPreset::sarHeightForTrack(const QXVideoTrack& track) const
{
    uint32_t value = 0;
    sarWidth(nullptr, &value, track);
    return value;
}

float QXPreset::videoDisplayWidthForTrack(const QXVideoTrack& track) const
{
    uint32_t s = 0;
    uint32_t t = 0;
    sarWidth(&s, &t, track);
    const uint64_t width = videoWidthForTrack(track);
    return s < t ? float(double(width) * s / t) : float(width);
}

float QXPreset::videoDisplayHeightForTrack(const QXVideoTrack& track) const
{
    uint32_t s = 0;
    uint32_t t = 0;
    sarWidth(&s, &t, track);
    const uint64_t height = videoHeightForTrack(track);
    return s > t ? float(double(height) * t / s) : float(height);
}
