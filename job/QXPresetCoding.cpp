// Keyed archives of presets. A built-in preset is stored by its identifier
// alone, so that an archive always comes back with the present catalogue; a
// derived preset is stored with every value.

#include <algorithm>

#include "qxmedia/job/QXPreset.h"
#include "qxmedia/platform/image/QXImageArchiving.h"

QX_REGISTER_CODING_CLASS(QXPreset);

void QXPreset::encodeWithCoder(QXKeyedArchiver& coder) const
{
    coder.encodeObject(QXValue(identifier), "identifier");
    if (isBuiltin()) return;

    QXInstallImageArchiveCoding();
    coder.encodeObject(QXValue(name), "name");
    coder.encodeObject(QXValue(toolTip), "toolTip");
    if (icon) coder.encodeObject(QXValue(icon), "icon");
    if (!iconName.empty()) coder.encodeObject(QXValue(iconName), "iconName");
    if (!encoderOptions.empty()) coder.encodeObject(QXValue(encoderOptions), "encoderOptions");
    coder.encodeBool(requireEncode, "requireEncode");
    coder.encodeBool(largeFile, "largeFile");
    coder.encodeBool(allowSurroundAudio, "allowSurroundAudio");
    coder.encodeInteger(audioBitrate, "audioBitrate");
    coder.encodeInteger(videoCodec, "videoCodec");
    coder.encodeInteger(int64_t(videoWidth), "videoWidth");
    coder.encodeInteger(int64_t(videoHeight), "videoHeight");
    coder.encodeInteger(profile, "profile");
    coder.encodeInteger(level, "level");
    coder.encodeInteger(pictureModulus, "pictureModulus");
    coder.encodeInteger(picturePAR, "picturePAR");
    coder.encodeInteger(encoderPreset, "encoderPreset");
    coder.encodeDouble(encoderCRF, "encoderCRF");
}

std::shared_ptr<QXPreset> QXPreset::initWithCoder(QXKeyedUnarchiver& coder)
{
    const QXValue storedIdentifier = coder.decodeObject("identifier");
    const std::string identifier = storedIdentifier.string() ? *storedIdentifier.string() : std::string();
    const auto& builtin = presetIdentifiers();
    if (std::find(builtin.begin(), builtin.end(), identifier) != builtin.end()) return initWithIdentifier(identifier);

    QXInstallImageArchiveCoding();
    auto preset = init();
    preset->identifier = identifier;
    if (const QXValue text = coder.decodeObject("name"); text.string()) preset->name = *text.string();
    if (const QXValue text = coder.decodeObject("toolTip"); text.string()) preset->toolTip = *text.string();
    if (const QXValue image = coder.decodeObject("icon"); image.image()) preset->icon = *image.image();
    if (const QXValue text = coder.decodeObject("iconName"); text.string()) preset->iconName = *text.string();
    if (const QXValue options = coder.decodeObject("encoderOptions"); options.dictionary()) {
        preset->encoderOptions = *options.dictionary();
    }
    preset->requireEncode = coder.decodeBool("requireEncode");
    preset->largeFile = coder.decodeBool("largeFile");
    preset->allowSurroundAudio = coder.decodeBool("allowSurroundAudio");
    preset->audioBitrate = uint32_t(coder.decodeInteger("audioBitrate"));
    preset->videoCodec = uint32_t(coder.decodeInteger("videoCodec"));
    preset->videoWidth = uint64_t(coder.decodeInteger("videoWidth"));
    preset->videoHeight = uint64_t(coder.decodeInteger("videoHeight"));
    preset->profile = uint8_t(coder.decodeInteger("profile"));
    preset->level = uint8_t(coder.decodeInteger("level"));
    preset->pictureModulus = int32_t(coder.decodeInteger("pictureModulus"));
    preset->picturePAR = coder.decodeInteger("picturePAR");
    preset->encoderPreset = uint8_t(coder.decodeInteger("encoderPreset"));
    preset->encoderCRF = coder.decodeDouble("encoderCRF");
    return preset;
}
