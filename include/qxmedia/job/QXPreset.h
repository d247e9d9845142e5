#pragma once
// QXPreset: what a job produces. Video codec and picture box, audio bit rate,
// whether surround audio stays, whether video must be encoded, and how the
// encoder is set up. The framework knows a fixed catalogue of presets by
// their identifier constants; a host derives its own by copying one and
// changing fields, and such a preset is archived with all its values.

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
extern const char QXPresetUpdate[];
extern const char QXPresetUpdateRename[];
extern const char QXPresetPassthrough[];
extern const char QXPresetApple2160p[];
extern const char QXPresetApple1080p[];
extern const char QXPresetApple720p[];
extern const char QXPresetApple480p[];
extern const char QXPresetApple2160pHQ[];
extern const char QXPresetApple1080pHQ[];
extern const char QXPresetApple720pHQ[];
extern const char QXPresetApple2160pHEVC[];
extern const char QXPresetApple1080pHEVC[];
extern const char QXPresetApple720pHEVC[];
extern const char QXPresetApple2160pHQHEVC[];
extern const char QXPresetApple1080pHQHEVC[];
extern const char QXPresetApple720pHQHEVC[];
extern const char QXPresetApple2160pHQHEVC10[]; // exported, not in the catalogue
extern const char QXPresetHLS1[];
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
extern const char QXPresetUniversal[];
extern const char QXPresetiPod[];
extern const char QXPresetiPhone[];
extern const char QXPresetiPad[];
extern const char QXPresetAppleTV[];
#pragma GCC visibility pop

// Values of `videoCodec`: four-character codes read big-endian.
constexpr uint32_t QXPresetVideoCodecAVC1 = 0x61766331; // 'avc1'
constexpr uint32_t QXPresetVideoCodecHVC1 = 0x68766331; // 'hvc1'
// Planned as HEVC like 'hvc1'; the update presets and, on a machine with a
// hardware HEVC encoder, the pass-through preset carry it.
constexpr uint32_t QXPresetVideoCodecHEVCAlias = 0xC9ECC662;

// Values of `picturePAR`.
constexpr int64_t QXPresetPictureSquarePixels = 0;   // scale to the box with square pixels
constexpr int64_t QXPresetPictureKeepAspect = 2;     // keep the source's sample aspect

class QX_EXPORT QXPreset : public QXCoding {
public:
    // A preset whose only set field is `name`, "Unknown".
    static std::shared_ptr<QXPreset> init();
    // The base values, then the catalogue row of `identifier` if it has one;
    // an unknown text keeps the base values and its own identifier. Never
    // null.
    static std::shared_ptr<QXPreset> initWithIdentifier(std::string_view identifier);

    // The built-in presets a host offers, in menu order (21 entries).
    // QXPresetHLS1 has a row but is not offered.
    static const std::vector<std::string>& presetIdentifiers();

    // Fields, in declared order.
    bool requireEncode = false;       // video is never passed through
    bool largeFile = false;           // kept and archived; nothing reads it
    bool allowSurroundAudio = false;  // multichannel audio may stay beside stereo
    uint8_t profile = 0;              // H.264 profile_idc: 66, 77, 100
    uint8_t level = 0;                // H.264 level_idc: 42 is 4.2
    uint8_t encoderPreset = 0;        // handed to the video track and encoder
    uint32_t audioBitrate = 0;        // bits per second
    uint32_t videoCodec = 0;          // QXPresetVideoCodec*
    int32_t pictureModulus = 0;       // output sizes are multiples of it
    std::string identifier;
    std::string name;
    std::string toolTip;
    QXImageRef icon;                  // none in the catalogue; see iconName
    uint64_t videoWidth = 0;          // the picture box
    uint64_t videoHeight = 0;         // 0: not set
    int64_t picturePAR = 0;           // QXPresetPicture*
    QXDictionary encoderOptions;      // empty: none
    double encoderCRF = 0;

    // The symbol name of the preset's icon ("tv.fill", "ipod", ...); a host
    // draws the picture itself, since the framework ships no images.
    std::string iconName;

    // 0 to 100 for a CRF from 51 to 0.
    double encoderQuality() const;
    void setEncoderQuality(double quality);

    // True when video is encoded as HEVC under this preset.
    bool encodesHEVC() const;

    bool isBuiltin() const;
    // False for the two update presets.
    bool isCopyable() const;
    bool isEqualTo(const QXPreset& other) const { return identifier == other.identifier; }

    // An independent preset with every value of this one and a new UUID as
    // identifier; a copy is thus never built in.
    std::shared_ptr<QXPreset> copy() const;

    // True when a video track can be copied unchanged: the preset does not
    // require encoding, the track is muxable, fits the box and is H.264 or
    // HEVC.
    bool allowPassthroughForVideoTrack(const QXVideoTrack& track) const;

    // The output picture for a track: pixel size, sample aspect and display
    // size. With picturePAR 2 only the width of the box limits the picture
    // and the source's storage aspect is kept; otherwise the picture is
    // scaled to the box with square pixels.
    uint64_t videoWidthForTrack(const QXVideoTrack& track) const;
    uint64_t videoHeightForTrack(const QXVideoTrack& track) const;
    uint32_t sarWidthForTrack(const QXVideoTrack& track) const;
    uint32_t sarHeightForTrack(const QXVideoTrack& track) const;
    void sarWidth(uint32_t* sarWidth, uint32_t* sarHeight, const QXVideoTrack& track) const;
    // The pixel box made smaller on the axis the sample aspect shrinks.
    float videoDisplayWidthForTrack(const QXVideoTrack& track) const;
    float videoDisplayHeightForTrack(const QXVideoTrack& track) const;

    // `value` rounded to a multiple of pictureModulus: down for 2, to the
    // nearest with ties downward for larger ones. A modulus below 1 leaves
    // the value as it is.
    uint64_t roundToModulus(uint64_t value) const;

    // Keyed archive: a built-in preset stores only its identifier and comes
    // back with the catalogue's present values.
    std::string className() const override { return "QXPreset"; }
    void encodeWithCoder(QXKeyedArchiver& coder) const override;
    static std::shared_ptr<QXPreset> initWithCoder(QXKeyedUnarchiver& coder);

    std::string description() const;

private:
    void applyBaseValues();
    // Applies the catalogue row of `identifier`; false when it has none.
    bool applyCatalogueRow(std::string_view identifier);
};

using QXPresetRef = std::shared_ptr<QXPreset>;
