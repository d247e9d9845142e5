// The preset record and its catalogue.

#include "qxmedia/job/QXPreset.h"

#include <algorithm>
#include <cstdio>
#include <random>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

#define QX_DEFINE_PRESET_IDENTIFIER(name) const char name[] = #name

QX_DEFINE_PRESET_IDENTIFIER(QXPresetUpdate);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetUpdateRename);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetPassthrough);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple2160p);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple1080p);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple720p);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple480p);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple2160pHQ);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple1080pHQ);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple720pHQ);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple2160pHEVC);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple1080pHEVC);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple720pHEVC);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple2160pHQHEVC);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple1080pHQHEVC);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple720pHQHEVC);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetApple2160pHQHEVC10);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS1);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS2);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS3);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS4);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS5);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS6);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS7);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS8);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS9);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS10);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS11);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetHLS12);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetUniversal);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetiPod);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetiPhone);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetiPad);
QX_DEFINE_PRESET_IDENTIFIER(QXPresetAppleTV);

namespace {

// One preset of the catalogue. The defaults are the base values that every
// preset gets before its own row applies.
struct CatalogueRow {
    const char* identifier = nullptr;
    const char* name = nullptr;
    const char* toolTip = nullptr;
    uint32_t videoCodec = QXPresetVideoCodecAVC1;
    uint64_t videoWidth = 1920;
    uint64_t videoHeight = 0;
    uint8_t level = 42;
    uint8_t profile = 100;
    uint8_t encoderPreset = 5;
    double encoderCRF = 20.0;
    bool requireEncode = true;
    bool largeFile = true;
    bool allowSurroundAudio = true;
    uint32_t audioBitrate = 160000;
    int64_t picturePAR = QXPresetPictureKeepAspect;
    int32_t pictureModulus = 2;
    const char* iconName = "applelogo";
};

constexpr uint32_t HEVCAlias = QXPresetVideoCodecHEVCAlias;
constexpr uint32_t HVC1 = QXPresetVideoCodecHVC1;
constexpr const char* TV4K = "4k.tv.fill";
constexpr const char* TV = "tv.fill";

const CatalogueRow catalogue[] = {
    {.identifier = QXPresetUpdate, .name = "Update Metadata", .toolTip = "Update Metadata only",
     .videoCodec = HEVCAlias, .videoWidth = 3840, .videoHeight = 2160, .requireEncode = false},
    {.identifier = QXPresetUpdateRename, .name = "Update Metadata and Rename",
     .toolTip = "Update Metadata and Rename the Video File", .videoCodec = HEVCAlias, .videoWidth = 3840,
     .videoHeight = 2160, .requireEncode = false},
    // The codec becomes the alias on a machine with a hardware HEVC encoder.
    {.identifier = QXPresetPassthrough, .name = "Apple compatible", .toolTip = "Save video as m4v Movie (Fast)",
     .videoWidth = 3840, .videoHeight = 2160, .level = 42, .profile = 100, .encoderPreset = 4,
     .requireEncode = false},
    {.identifier = QXPresetApple2160p, .name = "2160p",
     .toolTip = "Create 2160p (4k) Video compatible with the latest generation of Apple devices", .videoWidth = 3840,
     .videoHeight = 2160, .level = 51, .encoderCRF = 24.0, .iconName = TV4K},
    {.identifier = QXPresetApple2160pHQ, .name = "2160p HQ",
     .toolTip = "Create High Quality 2160p (4k) Video compatible with the latest generation of Apple devices",
     .videoWidth = 3840, .videoHeight = 2160, .level = 51, .encoderCRF = 19.0, .iconName = TV4K},
    {.identifier = QXPresetApple1080p, .name = "1080p",
     .toolTip = "Create 1080p Video compatible with the latest generation of Apple devices", .videoWidth = 1920,
     .videoHeight = 1080, .encoderCRF = 22.0, .iconName = TV},
    {.identifier = QXPresetApple1080pHQ, .name = "1080p HQ",
     .toolTip = "Create High Quality 1080p Video compatible with the latest generation of Apple devices",
     .videoWidth = 1920, .videoHeight = 1080, .encoderCRF = 18.0, .iconName = TV},
    {.identifier = QXPresetApple720p, .name = "720p", .toolTip = "Create 720p Video", .videoWidth = 1280,
     .videoHeight = 720, .encoderCRF = 21.0, .iconName = TV},
    {.identifier = QXPresetApple720pHQ, .name = "720p HQ", .toolTip = "Create High Quality 720p Video",
     .videoWidth = 1280, .videoHeight = 720, .encoderCRF = 17.0, .iconName = TV},
    {.identifier = QXPresetApple480p, .name = "480p", .toolTip = "Convert Video to be playable on all Apple Devices",
     .videoWidth = 640, .videoHeight = 480, .level = 30, .profile = 66, .encoderPreset = 4, .encoderCRF = 20.0,
     .largeFile = false, .allowSurroundAudio = false, .audioBitrate = 128000, .iconName = TV},
    {.identifier = QXPresetApple2160pHEVC, .name = "2160p (HEVC)",
     .toolTip = "Create 2160p (4k) HEVC Video compatible with the latest generation of Apple devices",
     .videoCodec = HVC1, .videoWidth = 3840, .videoHeight = 2160, .encoderPreset = 6, .encoderCRF = 24.0,
     .iconName = TV4K},
    {.identifier = QXPresetApple2160pHQHEVC, .name = "2160p HQ (HEVC)",
     .toolTip = "Create High Quality 2160p (4k) HEVC Video compatible with the latest generation of Apple devices",
     .videoCodec = HVC1, .videoWidth = 3840, .videoHeight = 2160, .encoderPreset = 6, .encoderCRF = 19.0,
     .iconName = TV4K},
    {.identifier = QXPresetApple1080pHEVC, .name = "1080p (HEVC)",
     .toolTip = "Create 1080p HEVC Video compatible with the latest generation of Apple devices", .videoCodec = HVC1,
     .videoWidth = 1920, .videoHeight = 1080, .encoderPreset = 6, .encoderCRF = 22.0, .iconName = TV},
    // The double space of this tool tip is part of its localisation key.
    {.identifier = QXPresetApple1080pHQHEVC, .name = "1080p HQ (HEVC)",
     .toolTip = "Create High Quality 1080p  HEVC Video compatible with the latest generation of Apple devices",
     .videoCodec = HVC1, .videoWidth = 1920, .videoHeight = 1080, .encoderPreset = 6, .encoderCRF = 18.0,
     .iconName = TV},
    {.identifier = QXPresetApple720pHEVC, .name = "720p (HEVC)", .toolTip = "Create 720p HEVC Video",
     .videoCodec = HVC1, .videoWidth = 1280, .videoHeight = 720, .encoderPreset = 6, .encoderCRF = 21.0,
     .iconName = TV},
    {.identifier = QXPresetApple720pHQHEVC, .name = "720p HQ (HEVC)", .toolTip = "Create High Quality 720p HEVC Video",
     .videoCodec = HVC1, .videoWidth = 1280, .videoHeight = 720, .encoderPreset = 6, .encoderCRF = 17.0,
     .iconName = TV},
    {.identifier = QXPresetHLS1, .name = "HLS Profile Level 1", .toolTip = "Create HLS Profile Level 1 Video",
     .videoCodec = HVC1, .videoWidth = 640, .videoHeight = 360, .encoderPreset = 6, .encoderCRF = 21.0},
    {.identifier = QXPresetUniversal, .name = "Universal (Legacy)",
     .toolTip = "Convert Video to be playable on all Apple Devices", .videoWidth = 720, .videoHeight = 576,
     .level = 30, .profile = 77, .encoderPreset = 4, .largeFile = false, .audioBitrate = 128000},
    {.identifier = QXPresetiPod, .name = "iPod (Legacy)", .toolTip = "Optimize Video for iPod", .videoWidth = 320,
     .videoHeight = 240, .level = 13, .profile = 77, .encoderCRF = 22.0, .largeFile = false,
     .allowSurroundAudio = false, .audioBitrate = 128000, .picturePAR = QXPresetPictureSquarePixels,
     .iconName = "ipod"},
    {.identifier = QXPresetiPhone, .name = "iPhone (Legacy)",
     .toolTip = "Optimize Video for iPhone and iPod Touch (up to 3GS)", .videoWidth = 480, .videoHeight = 320,
     .level = 31, .profile = 77, .encoderCRF = 22.0, .allowSurroundAudio = false, .audioBitrate = 128000,
     .iconName = "iphone.homebutton"},
    {.identifier = QXPresetiPad, .name = "iPad (Legacy)", .toolTip = "Optimize Video for iPad & iPad 2",
     .videoWidth = 1280, .videoHeight = 720, .level = 31, .profile = 77, .allowSurroundAudio = false,
     .audioBitrate = 128000, .iconName = "ipad.homebutton"},
    {.identifier = QXPresetAppleTV, .name = "Apple TV (Legacy)", .toolTip = "Optimize Video for original Apple TV",
     .videoWidth = 960, .videoHeight = 720, .level = 31, .profile = 77, .iconName = "appletv"},
};

// The first-generation Apple TV decodes only a constrained H.264.
QXDictionary appleTVEncoderOptions()
{
    return {{"qpmin", 4},   {"cabac", 0},   {"ref", 2},           {"b-pyramid", "none"},
            {"weightb", 0}, {"weightp", 0}, {"vbv-maxrate", 9500}, {"vbv-bufsize", 9500}};
}

// A random (version 4) UUID in upper case, as identifiers of derived presets.
std::string makeUUIDString()
{
    thread_local std::mt19937_64 generator{[] {
        std::random_device device;
        return (uint64_t(device()) << 32) ^ device();
    }()};
    uint64_t high = generator();
    uint64_t low = generator();
    high = (high & ~uint64_t(0xF000)) | 0x4000;                  // version 4
    low = (low & ~(uint64_t(0xC) << 60)) | (uint64_t(0x8) << 60); // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX", unsigned(high >> 32),
                  unsigned((high >> 16) & 0xFFFF), unsigned(high & 0xFFFF), unsigned(low >> 48),
                  static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFull));
    return text;
}

} // namespace

std::shared_ptr<QXPreset> QXPreset::init()
{
    auto preset = std::make_shared<QXPreset>();
    preset->name = "Unknown";
    return preset;
}

std::shared_ptr<QXPreset> QXPreset::initWithIdentifier(std::string_view identifier)
{
    auto preset = init();
    preset->identifier = std::string(identifier);
    preset->applyBaseValues();
    preset->applyCatalogueRow(identifier);
    return preset;
}

const std::vector<std::string>& QXPreset::presetIdentifiers()
{
    static const std::vector<std::string> identifiers = {
        QXPresetUpdate,          QXPresetUpdateRename,     QXPresetPassthrough,     QXPresetApple2160p,
        QXPresetApple1080p,      QXPresetApple720p,        QXPresetApple480p,       QXPresetApple2160pHQ,
        QXPresetApple1080pHQ,    QXPresetApple720pHQ,      QXPresetApple2160pHEVC,  QXPresetApple1080pHEVC,
        QXPresetApple720pHEVC,   QXPresetApple2160pHQHEVC, QXPresetApple1080pHQHEVC, QXPresetApple720pHQHEVC,
        QXPresetUniversal,       QXPresetiPod,             QXPresetiPhone,          QXPresetiPad,
        QXPresetAppleTV,
    };
    return identifiers;
}

void QXPreset::applyBaseValues()
{
    const CatalogueRow base;
    largeFile = base.largeFile;
    allowSurroundAudio = base.allowSurroundAudio;
    audioBitrate = base.audioBitrate;
    videoCodec = base.videoCodec;
    videoWidth = base.videoWidth;
    videoHeight = base.videoHeight;
    level = base.level;
    profile = base.profile;
    pictureModulus = base.pictureModulus;
    picturePAR = base.picturePAR;
    requireEncode = base.requireEncode;
    encoderPreset = base.encoderPreset;
    encoderOptions.clear();
    encoderCRF = base.encoderCRF;
    icon = nullptr;
    iconName = base.iconName;
}

bool QXPreset::applyCatalogueRow(std::string_view wanted)
{
    const auto row = std::find_if(std::begin(catalogue), std::end(catalogue),
                                  [&](const CatalogueRow& entry) { return wanted == entry.identifier; });
    if (row == std::end(catalogue)) return false;

    identifier = row->identifier;
    name = QXLocalizedString(row->name);
    toolTip = QXLocalizedString(row->toolTip);
    videoCodec = row->videoCodec;
    videoWidth = row->videoWidth;
    videoHeight = row->videoHeight;
    level = row->level;
    profile = row->profile;
    encoderPreset = row->encoderPreset;
    encoderCRF = row->encoderCRF;
    requireEncode = row->requireEncode;
    largeFile = row->largeFile;
    allowSurroundAudio = row->allowSurroundAudio;
    audioBitrate = row->audioBitrate;
    picturePAR = row->picturePAR;
    pictureModulus = row->pictureModulus;
    iconName = row->iconName;

    if (identifier == QXPresetPassthrough && QXMedia::sharedMedia().hasHardwareHEVCEncoder()) {
        videoCodec = QXPresetVideoCodecHEVCAlias;
    }
    if (identifier == QXPresetAppleTV) encoderOptions = appleTVEncoderOptions();
    return true;
}

double QXPreset::encoderQuality() const
{
    return (51.0 - encoderCRF) * 1.9607843137254901;
}

void QXPreset::setEncoderQuality(double quality)
{
    encoderCRF = quality * 51.0 / -100.0 + 51.0;
}

bool QXPreset::encodesHEVC() const
{
    return videoCodec == QXPresetVideoCodecHVC1 || videoCodec == QXPresetVideoCodecHEVCAlias;
}

bool QXPreset::isBuiltin() const
{
    const auto& identifiers = presetIdentifiers();
    return std::find(identifiers.begin(), identifiers.end(), identifier) != identifiers.end();
}

bool QXPreset::isCopyable() const
{
    return identifier != QXPresetUpdate && identifier != QXPresetUpdateRename;
}

std::shared_ptr<QXPreset> QXPreset::copy() const
{
    auto preset = init();
    *preset = *this;
    preset->identifier = makeUUIDString();
    return preset;
}

std::string QXPreset::description() const
{
    return "<QXPreset: " + name + " (" + identifier + ")>";
}
