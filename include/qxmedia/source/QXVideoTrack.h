#pragma once

#include <cstdint>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/source/QXVisualTrack.h"

/// A fraction, as FFmpeg's AVRational.
struct QXRational {
    int32_t num = 0; ///< Numerator.
    int32_t den = 1; ///< Denominator.
};

/// A video track: what decides whether a video stream can be copied into an
/// MP4 unchanged, and what an encoder must be told.
class QX_EXPORT QXVideoTrack : public QXVisualTrack {
public:
    /// A track named "Video Track" (localised) without its output queue;
    /// hosts call init().
    QXVideoTrack();
    /// A new video track with its output queue; never null.
    static std::shared_ptr<QXVideoTrack> init();
    /// Imports a video stream: size, pixel aspect, colour, frame rate, and
    /// profile and level of H.264 and HEVC. Never fails.
    static std::shared_ptr<QXVideoTrack> initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                               QXErrorRef* error = nullptr);
    /// A new video track with the fields of `track` that carry over; of a
    /// video track also its picture, colour, profile, level and parameter
    /// sets, but not its encoder settings, brokenByMS or formatFlags.
    static std::shared_ptr<QXVideoTrack> initWithTrack(const QXTrack& track);
    /// A new video track like this one, as initWithTrack() makes it.
    std::shared_ptr<QXTrack> copy() const override;
    /// The archive name; an archive keeps the base track's keys only.
    std::string className() const override { return "QXVideoTrack"; }
    /// A video track from an archive; the video fields keep their initial values.
    static std::shared_ptr<QXVideoTrack> initWithCoder(QXKeyedUnarchiver& coder) { return decodeNew<QXVideoTrack>(coder); }

    /// H.264 in a Video-for-Windows wrapping (Matroska's V_MS/VFW/FOURCC):
    /// its packet times are not presentation times, so a run decodes it to
    /// learn them.
    bool brokenByMS = false;
    /// H.264 profile_idc (66 Baseline, 77 Main, 100 High) or HEVC general
    /// profile (1 Main, 2 Main 10).
    uint8_t profile = 66;
    uint8_t profile_compat = 0; ///< H.264 constraint flags, the byte after profile_idc.
    /// H.264 level_idc, ten times the level (41 is 4.1); for HEVC the general
    /// level, thirty times it.
    uint8_t level = 20;
    uint8_t encoderPreset = 0; ///< Encoder speed from the preset: 0 ultrafast to 9 placebo, 5 medium.
    ///@{
    /// The pixel aspect ratio hSpacing:vSpacing, reduced; 1:1 is square.
    uint32_t hSpacing = 1;
    uint32_t vSpacing = 1;
    ///@}
    ///@{
    /// Display size in pixels: the width scaled by the pixel aspect, the
    /// height as stored. The MP4 track header carries it.
    float display_width = 0;
    float display_height = 0;
    ///@}
    ///@{
    /// Colour primaries, transfer function and YCbCr matrix as FFmpeg numbers
    /// them (the code points of H.273); 2 is unspecified.
    int32_t primariesIndex = 2;
    int32_t transferFunctionIndex = 2;
    int32_t matrixIndex = 2;
    ///@}
    int32_t colorRange = 0;  ///< FFmpeg's colour range: 0 unspecified, 1 limited (TV), 2 full (PC).
    /// The source container's FFmpeg format flags; a container with time
    /// stamp discontinuities (MPEG-TS, MPEG-PS) makes the track not muxable.
    int32_t formatFlags = 0;
    QXRational frameRate; ///< Frames per second as FFmpeg guesses it; 0/1 when unknown.
    ///@{
    /// H.264 sequence and picture parameter sets, each a NAL unit without
    /// start code or length; empty for other codecs.
    std::vector<QXData> sps;
    std::vector<QXData> pps;
    ///@}
    /// Encoder options by name from the preset: FFmpeg options of the
    /// encoder first, the rest as x264 / x265 parameters. Empty: none.
    QXDictionary encoderOptions;
    /// Quality from the preset as a constant rate factor, 0 (best) to 51; the
    /// average bit rate follows from it and the picture size. A value outside
    /// 0 to 51 is taken as kbit/s.
    double encoderCRF = 0;

    /// Frames per second; 0 when the rate is unknown.
    float nominalFrameRate() const { return frameRate.den ? float(frameRate.num) / float(frameRate.den) : 0.f; }
    /// True for a track of chapter stills: JPEG stills on layer 1, in the
    /// movie but not enabled.
    bool isChapterImageTrack() const;

    /// Reads profile, constraint flags, level and parameter sets from an avcC
    /// record or from Annex B units. Clears sps and pps first; data shorter
    /// than 6 bytes leaves them empty (with a warning).
    void parseH264Extradata(const uint8_t* data, uint32_t size);

    ///@{
    /// The platform's colour constants for the FFmpeg numbers, or null: for
    /// 2 (unspecified) and, with a warning, for a number it has no name for.
    const char* YCbCrMatrix() const;
    const char* transferFunction() const;
    const char* colorPrimaries() const;
    ///@}

    /// Adds profile and level, size and frame rate:
    /// "H.264 (High@4.1), 01:30:00.000, 8000kbps, 1920x1080@23.976fps".
    std::string displayDescription() const override;
    /// HEVC, or H.264 up to High profile, from a container without time stamp
    /// discontinuities.
    bool isMuxable() const override;
    /// Also the display size, pixel aspect (pasp), colour (colr, added when
    /// missing) and, for H.264, the avcC profile and level.
    bool writeToFile(qx::mp4::MP4File& file, QXErrorRef* error = nullptr) override;

protected:
    /// Adds the video fields of the stream.
    bool importStream(AVFormatContext* context, int streamIndex, QXErrorRef* error) override;
    /// Adds the video fields that carry over when `other` is video.
    void copyFrom(const QXTrack& other) override;
};
