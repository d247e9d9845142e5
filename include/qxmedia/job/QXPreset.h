#pragma once
/// @file
/// QXPreset, what a job produces; the identifiers of the built-in presets and
/// the values of its coded fields.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qxmedia/core/QXExport.h"
#include "qxmedia/platform/foundation/QXValue.h"
#include "qxmedia/platform/plist/QXKeyedArchiver.h"

class QXVideoTrack;

// Identifier constants; each holds the text of its own name. Identifiers are
// compared as texts.
#pragma GCC visibility push(default) // the names below are exported
/// "Update Metadata": tags, chapters and track settings of an MP4 file
/// rewritten in place; no sample is copied.
extern const char QXPresetUpdate[];
extern const char QXPresetUpdateRename[];  ///< The same, then the file is moved to the job's destination.
/// "Apple compatible": what fits a 3840x2160 box and plays on Apple devices
/// is copied, the rest is encoded.
extern const char QXPresetPassthrough[];
extern const char QXPresetApple2160p[];    ///< H.264 High 5.1 in a 3840x2160 box, CRF 24.
extern const char QXPresetApple1080p[];    ///< H.264 High 4.2 in a 1920x1080 box, CRF 22.
extern const char QXPresetApple720p[];     ///< H.264 High 4.2 in a 1280x720 box, CRF 21.
extern const char QXPresetApple480p[];     ///< H.264 Baseline 3.0 in a 640x480 box, stereo only.
extern const char QXPresetApple2160pHQ[];  ///< As 2160p at CRF 19.
extern const char QXPresetApple1080pHQ[];  ///< As 1080p at CRF 18.
extern const char QXPresetApple720pHQ[];   ///< As 720p at CRF 17.
extern const char QXPresetApple2160pHEVC[];    ///< HEVC in a 3840x2160 box, CRF 24.
extern const char QXPresetApple1080pHEVC[];    ///< HEVC in a 1920x1080 box, CRF 22.
extern const char QXPresetApple720pHEVC[];     ///< HEVC in a 1280x720 box, CRF 21.
extern const char QXPresetApple2160pHQHEVC[];  ///< HEVC in a 3840x2160 box, CRF 19.
extern const char QXPresetApple1080pHQHEVC[];  ///< HEVC in a 1920x1080 box, CRF 18.
extern const char QXPresetApple720pHQHEVC[];   ///< HEVC in a 1280x720 box, CRF 17.
/// Exported, not in the catalogue: initWithIdentifier() gives it the base values.
extern const char QXPresetApple2160pHQHEVC10[]; // exported, not in the catalogue
extern const char QXPresetHLS1[]; ///< HEVC in a 640x360 box, CRF 21; has a row but is not offered.
///@{
/// Exported, not in the catalogue: initWithIdentifier() gives them the base values.
extern const char QXPresetHLS2[]; // HLS2 to HLS12: exported, not in the catalogue
extern const char QXPresetHLS3[];
extern const char QXPresetHLS4[];
extern const char QXPresetHLS5[];
extern const char QXPresetHLS6[];
extern const char QXPresetHLS7[];
extern const char QXPresetHLS8[];
extern const char QXPresetHLS9[];
extern const char QXPresetHLS10[];
extern const char QXPresetHLS11[];
extern const char QXPresetHLS12[];
///@}
extern const char QXPresetUniversal[]; ///< "Universal (Legacy)": H.264 Main 3.0 in a 720x576 box.
extern const char QXPresetiPod[];      ///< "iPod (Legacy)": H.264 Main 1.3, 320x240 with square pixels.
extern const char QXPresetiPhone[];    ///< "iPhone (Legacy)": H.264 Main 3.1 in a 480x320 box.
extern const char QXPresetiPad[];      ///< "iPad (Legacy)": H.264 Main 3.1 in a 1280x720 box.
/// "Apple TV (Legacy)": H.264 Main 3.1 in a 960x720 box, with the encoder
/// options the first Apple TV needs.
extern const char QXPresetAppleTV[];
#pragma GCC visibility pop

// Values of `videoCodec`: four-character codes read big-endian.
constexpr uint32_t QXPresetVideoCodecAVC1 = 0x61766331; ///< H.264, 'avc1'.
constexpr uint32_t QXPresetVideoCodecHVC1 = 0x68766331; ///< HEVC, 'hvc1'.
/// Planned as HEVC like 'hvc1'; the update presets and, on a machine with a
/// hardware HEVC encoder, the pass-through preset carry it.
constexpr uint32_t QXPresetVideoCodecHEVCAlias = 0xC9ECC662;

// Values of `picturePAR`.
constexpr int64_t QXPresetPictureSquarePixels = 0;   ///< Scale to the box with square pixels.
constexpr int64_t QXPresetPictureKeepAspect = 2;     ///< Keep the source's sample aspect.

/// What a job produces. Video codec and picture box, audio bit rate, whether
/// surround audio stays, whether video must be encoded, and how the encoder
/// is set up. The framework knows a fixed catalogue of presets by their
/// identifier constants; a host derives its own by copying one and changing
/// fields, and such a preset is archived with all its values.
///
/// A preset is plain data without a lock. A job plans with the values it has
/// when the plan is made; later changes do not reach that plan.
class QX_EXPORT QXPreset : public QXCoding {
public:
    /// A preset whose only set field is `name`, "Unknown".
    static std::shared_ptr<QXPreset> init();
    /// The base values, then the catalogue row of `identifier` if it has one;
    /// an unknown text keeps the base values and its own identifier. Never
    /// null.
    static std::shared_ptr<QXPreset> initWithIdentifier(std::string_view identifier);

    /// The built-in presets a host offers, in menu order (21 entries).
    /// QXPresetHLS1 has a row but is not offered.
    static const std::vector<std::string>& presetIdentifiers();

    // Fields, in declared order.
    bool requireEncode = false;       ///< Video is never passed through, even when it would fit.
    bool largeFile = false;           ///< Kept and archived; nothing reads it.
    /// Multichannel audio may stay beside stereo: copied when the MP4 takes
    /// it, else encoded as AC-3 5.1, with an AAC stereo track as fallback.
    bool allowSurroundAudio = false;
    /// H.264 profile_idc to encode with: 66, 77, 100. A copied H.264 track's
    /// profile is lowered to it.
    uint8_t profile = 0;
    uint8_t level = 0;                ///< H.264 level_idc, 42 is 4.2; as profile, a copied track's is capped.
    uint8_t encoderPreset = 0;        ///< Encoder speed, handed to the video track: 0 ultrafast to 9 placebo.
    /// Bits per second of the AAC stereo track; stereo AAC at or below it is
    /// copied.
    uint32_t audioBitrate = 0;
    uint32_t videoCodec = 0;          ///< Codec of encoded video: QXPresetVideoCodec*.
    int32_t pictureModulus = 0;       ///< Output sizes are multiples of it (see roundToModulus()).
    /// A QXPreset* text for a built-in preset, an upper-case UUID for a copy.
    std::string identifier;
    std::string name;                 ///< Name for a menu, localised for built-in presets.
    std::string toolTip;              ///< One sentence for a tool tip, localised for built-in presets.
    QXImageRef icon;                  ///< None in the catalogue; see iconName.
    uint64_t videoWidth = 0;          ///< Width of the picture box in pixels.
    uint64_t videoHeight = 0;         ///< Height of the picture box in pixels; 0: not set.
    int64_t picturePAR = 0;           ///< How the picture fits the box: QXPresetPicture*.
    /// Encoder options by name, handed to the video track: FFmpeg options of
    /// the encoder first, the rest as x264 / x265 parameters. Empty: none.
    QXDictionary encoderOptions;
    double encoderCRF = 0; ///< Constant rate factor, 0 (best) to 51; see encoderQuality().

    /// The symbol name of the preset's icon ("tv.fill", "ipod", ...); a host
    /// draws the picture itself, since the framework ships no images.
    std::string iconName;

    /// 0 to 100 for a CRF from 51 to 0.
    double encoderQuality() const;
    /// Sets encoderCRF from a quality of 0 to 100.
    void setEncoderQuality(double quality);

    /// True when video is encoded as HEVC under this preset.
    bool encodesHEVC() const;

    /// Whether the identifier is one of presetIdentifiers().
    bool isBuiltin() const;
    /// False for the two update presets.
    bool isCopyable() const;
    /// The same identifier; the values do not count.
    bool isEqualTo(const QXPreset& other) const { return identifier == other.identifier; }

    /// An independent preset with every value of this one and a new UUID as
    /// identifier; a copy is thus never built in.
    std::shared_ptr<QXPreset> copy() const;

    /// True when a video track can be copied unchanged: the preset does not
    /// require encoding, the track is muxable, fits the box and is H.264 or
    /// HEVC.
    bool allowPassthroughForVideoTrack(const QXVideoTrack& track) const;

    /// The output picture for a track: pixel size, sample aspect and display
    /// size. With picturePAR 2 only the width of the box limits the picture
    /// and the source's storage aspect is kept; otherwise the picture is
    /// scaled to the box with square pixels.
    /// This one: the width in pixels, rounded to pictureModulus.
    uint64_t videoWidthForTrack(const QXVideoTrack& track) const;
    /// The height in pixels, rounded to pictureModulus.
    uint64_t videoHeightForTrack(const QXVideoTrack& track) const;
    ///@{
    /// The output's pixel aspect, a reduced fraction of at most 65536 each;
    /// 1:1 unless picturePAR is 2.
    uint32_t sarWidthForTrack(const QXVideoTrack& track) const;
    uint32_t sarHeightForTrack(const QXVideoTrack& track) const;
    ///@}
    /// Both parts of that pixel aspect at once; either pointer may be null.
    void sarWidth(uint32_t* sarWidth, uint32_t* sarHeight, const QXVideoTrack& track) const;
    ///@{
    /// The display size: the pixel box made smaller on the axis the sample
    /// aspect shrinks.
    float videoDisplayWidthForTrack(const QXVideoTrack& track) const;
    float videoDisplayHeightForTrack(const QXVideoTrack& track) const;
    ///@}

    /// `value` rounded to a multiple of pictureModulus: down for 2, to the
    /// nearest with ties downward for larger ones. A modulus below 1 leaves
    /// the value as it is.
    uint64_t roundToModulus(uint64_t value) const;

    /// Keyed archive: a built-in preset stores only its identifier and comes
    /// back with the catalogue's present values. The name the class is
    /// archived under.
    std::string className() const override { return "QXPreset"; }
    /// Writes the identifier, and every value for a preset not built in.
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    /// A preset from those keys; a built-in identifier gives the catalogue's
    /// preset. Never null.
    static std::shared_ptr<QXPreset> initWithCoder(QXKeyedUnarchiver& coder);

    /// For logs: "<QXPreset: name (identifier)>".
    std::string description() const;

private:
    void applyBaseValues();
    // Applies the catalogue row of `identifier`; false when it has none.
    bool applyCatalogueRow(std::string_view identifier);
};

/// The usual way to hold a preset.
using QXPresetRef = std::shared_ptr<QXPreset>;
