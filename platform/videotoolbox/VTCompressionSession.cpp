#include "qxmedia/platform/videotoolbox/VTCompressionSession.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/platform/codecs/HEVCConfiguration.h"
#include "qxmedia/platform/codecs/NALUnits.h"
#include "qxmedia/platform/coremedia/CMBlockBuffer.h"
#include "qxmedia/platform/coremedia/CMFormatDescription.h"

namespace qx {

const char kVTVideoEncoderSpecification_EnableHardwareAcceleratedVideoEncoder[] =
    "EnableHardwareAcceleratedVideoEncoder";
const char kVTVideoEncoderSpecification_EncoderID[] = "EncoderID";
const char kQXVideoEncoderSpecification_Device[] = "Device";

const char kVTCompressionPropertyKey_RealTime[] = "RealTime";
const char kVTCompressionPropertyKey_MaxKeyFrameInterval[] = "MaxKeyFrameInterval";
const char kVTCompressionPropertyKey_AllowFrameReordering[] = "AllowFrameReordering";
const char kVTCompressionPropertyKey_AllowTemporalCompression[] = "AllowTemporalCompression";
const char kVTCompressionPropertyKey_AllowOpenGOP[] = "AllowOpenGOP";
const char kVTCompressionPropertyKey_MaximizePowerEfficiency[] = "MaximizePowerEfficiency";
const char kVTCompressionPropertyKey_AverageBitRate[] = "AverageBitRate";
const char kVTCompressionPropertyKey_ProfileLevel[] = "ProfileLevel";
const char kVTCompressionPropertyKey_PixelAspectRatio[] = "PixelAspectRatio";
const char kVTCompressionPropertyKey_ExpectedFrameRate[] = "ExpectedFrameRate";
const char kVTCompressionPropertyKey_YCbCrMatrix[] = "YCbCrMatrix";
const char kVTCompressionPropertyKey_TransferFunction[] = "TransferFunction";
const char kVTCompressionPropertyKey_ColorPrimaries[] = "ColorPrimaries";
const char kVTCompressionPropertyKey_EncoderID[] = "EncoderID";
const char kVTCompressionPropertyKey_UsingHardwareAcceleratedVideoEncoder[] = "UsingHardwareAcceleratedVideoEncoder";
const char kQXCompressionPropertyKey_EncoderSpeedPreset[] = "QXEncoderSpeedPreset";
const char kQXCompressionPropertyKey_EncoderOptions[] = "QXEncoderOptions";

// encoderPreset 0 to 9 is an index into the speed presets that x264 and
// x265 share; the catalogue uses 4 (fast), 5 (medium, the default) and 6
// (slow).
const char* const kQXEncoderSpeedPresets[10] = {"ultrafast", "superfast", "veryfast", "faster", "fast",
                                                "medium",    "slow",      "slower",   "veryslow", "placebo"};

std::string VTProfileLevelName(bool hevc, const std::string& profile, const std::string& level)
{
    return std::string(hevc ? "HEVC_" : "H264_") + profile + "_" + level;
}

namespace {

// Everything the session can set; the encoder's own defaults stand for the
// rest. Open GOPs are left out: an MP4 sync sample must decode on its own.
const char* const kSupportedProperties[] = {
    kVTCompressionPropertyKey_RealTime,           kVTCompressionPropertyKey_MaxKeyFrameInterval,
    kVTCompressionPropertyKey_AllowFrameReordering, kVTCompressionPropertyKey_AllowTemporalCompression,
    kVTCompressionPropertyKey_MaximizePowerEfficiency, kVTCompressionPropertyKey_AverageBitRate,
    kVTCompressionPropertyKey_ProfileLevel,       kVTCompressionPropertyKey_PixelAspectRatio,
    kVTCompressionPropertyKey_ExpectedFrameRate,  kVTCompressionPropertyKey_YCbCrMatrix,
    kVTCompressionPropertyKey_TransferFunction,   kVTCompressionPropertyKey_ColorPrimaries,
    kQXCompressionPropertyKey_EncoderSpeedPreset, kQXCompressionPropertyKey_EncoderOptions,
};

// Pictures go to the encoder in this time base; samples come back in the
// time scale of the first picture's presentation time.
constexpr AVRational kEncoderTimeBase {1, 90000};

// x264's and x265's usual look-ahead, and the memory it may take.
constexpr int64_t kDefaultLookahead = 40;
constexpr int64_t kMinimumLookahead = 10;
constexpr int64_t kLookaheadBytes = int64_t(192) << 20;

struct HardwareCandidate {
    std::string encoder;
    std::string device; // empty: the API's default device
};

std::vector<HardwareCandidate> defaultHardwareCandidates(bool hevc)
{
    const std::string prefix = hevc ? "hevc" : "h264";
    std::vector<HardwareCandidate> candidates;
    std::error_code ignored;
    std::vector<std::string> nodes;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/dri", ignored)) {
        if (entry.path().filename().string().starts_with("renderD")) nodes.push_back(entry.path().string());
    }
    std::sort(nodes.begin(), nodes.end());
    for (const std::string& node : nodes) candidates.push_back({prefix + "_vaapi", node});
    candidates.push_back({prefix + "_nvenc", ""});
    candidates.push_back({prefix + "_qsv", ""});
    return candidates;
}

AVHWDeviceType deviceTypeOf(const std::string& encoder)
{
    if (encoder.ends_with("_vaapi")) return AV_HWDEVICE_TYPE_VAAPI;
    if (encoder.ends_with("_qsv")) return AV_HWDEVICE_TYPE_QSV;
    if (encoder.ends_with("_nvenc")) return AV_HWDEVICE_TYPE_CUDA;
    return AV_HWDEVICE_TYPE_NONE;
}

std::string errorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

bool takesFormat(const AVCodec* codec, AVPixelFormat format)
{
    if (!codec->pix_fmts) return true;
    for (const AVPixelFormat* f = codec->pix_fmts; *f != AV_PIX_FMT_NONE; ++f) {
        if (*f == format) return true;
    }
    return false;
}

std::string valueText(const QXValue& value)
{
    if (const std::string* text = value.string()) return *text;
    if (const bool* flag = value.boolValue()) return *flag ? "1" : "0";
    if (auto number = value.int64()) return std::to_string(*number);
    if (auto number = value.doubleValue()) return std::to_string(*number);
    return value.description();
}

// "H264_High_4_1" -> profile "high", level "4.1"; AutoLevel gives no level.
void parseProfileLevel(const std::string& name, std::string& profile, std::string& level)
{
    const size_t first = name.find('_');
    const size_t second = name.find('_', first + 1);
    if (first == std::string::npos || second == std::string::npos) return;
    profile = name.substr(first + 1, second - first - 1);
    std::transform(profile.begin(), profile.end(), profile.begin(), [](unsigned char c) { return std::tolower(c); });
    // x264 has no Extended profile; Main is its subset that it can make.
    if (profile == "extended") profile = "main";
    const std::string rest = name.substr(second + 1);
    if (rest != "AutoLevel") {
        level = rest;
        std::replace(level.begin(), level.end(), '_', '.');
    }
}

} // namespace

// One opened libavcodec encoder and the state between pictures and packets.
class VTCompressionSession::Encoder {
public:
    ~Encoder()
    {
        sws_freeContext(converter);
        avcodec_free_context(&context);
        av_buffer_unref(&frames);
        av_buffer_unref(&device);
    }

    AVCodecContext* context = nullptr;
    AVBufferRef* device = nullptr;
    AVBufferRef* frames = nullptr;
    SwsContext* converter = nullptr;
    bool hardware = false;
    bool drained = false;
    CMFormatDescriptionRef format;
    int32_t timescale = 0; // of the samples handed out; 0 until the first picture
    int64_t lastPts = AV_NOPTS_VALUE;
    int64_t lastDuration = 0;
    int64_t lastDts = AV_NOPTS_VALUE;
    struct Pending {
        CMTime presentationTime;
        CMTime duration;
        VTCompressionOutputHandler handler;
    };
    std::map<int64_t, Pending> pending; // by encoder pts

    // The picture in the format and memory the encoder takes.
    AVFrame* prepare(AVFrame* picture);
    OSStatus receive();
    void emit(AVPacket* packet);
};

struct VTCompressionSessionAccess {
    static VTCompressionSessionRef make() { return VTCompressionSessionRef(new VTCompressionSession()); }
    static VTCompressionSession& of(const VTCompressionSessionRef& session) { return *session; }
};

VTCompressionSession::~VTCompressionSession() = default;

using Encoder = VTCompressionSession::Encoder;

OSStatus VTCompressionSessionCreate(CFAllocatorRef, int32_t width, int32_t height, CMVideoCodecType codecType,
                                    const QXDictionary* encoderSpecification,
                                    const QXDictionary* sourceImageBufferAttributes, CFAllocatorRef,
                                    VTCompressionSessionRef* sessionOut)
{
    if (!sessionOut || width <= 0 || height <= 0) return kVTParameterErr;
    if (codecType != kCMVideoCodecType_H264 && codecType != kCMVideoCodecType_HEVC) {
        return kVTCouldNotFindVideoEncoderErr;
    }
    VTCompressionSessionRef session = VTCompressionSessionAccess::make();
    VTCompressionSession& s = VTCompressionSessionAccess::of(session);
    s.width = width;
    s.height = height;
    s.hevc = codecType == kCMVideoCodecType_HEVC;
    if (encoderSpecification) s.specification = *encoderSpecification;
    if (sourceImageBufferAttributes) {
        const QXValue* format = nullptr;
        if (auto it = sourceImageBufferAttributes->find(kCVPixelBufferPixelFormatTypeKey);
            it != sourceImageBufferAttributes->end()) {
            format = &it->second;
        }
        s.fullRange = format && format->uint64() == kCVPixelFormatType_420YpCbCr8PlanarFullRange;
        for (const char* key : {kCVImageBufferColorPrimariesKey, kCVImageBufferTransferFunctionKey,
                                kCVImageBufferYCbCrMatrixKey}) {
            if (auto it = sourceImageBufferAttributes->find(key); it != sourceImageBufferAttributes->end()) {
                s.properties[key] = it->second;
            }
        }
    }
    *sessionOut = session;
    return 0;
}

OSStatus VTSessionSetProperty(const VTSessionRef& session, std::string_view key, const QXValue& value)
{
    if (!session) return kVTParameterErr;
    VTCompressionSession& s = VTCompressionSessionAccess::of(session);
    if (std::find_if(std::begin(kSupportedProperties), std::end(kSupportedProperties),
                     [&](const char* known) { return key == known; }) == std::end(kSupportedProperties)) {
        return kVTPropertyNotSupportedErr;
    }
    if (key == kVTCompressionPropertyKey_AverageBitRate && value.doubleValue().value_or(-1) < 0) {
        return kVTParameterErr;
    }
    s.properties[std::string(key)] = value;
    return 0;
}

OSStatus VTSessionCopySupportedPropertyDictionary(const VTSessionRef& session, QXDictionary* dictionaryOut)
{
    if (!session || !dictionaryOut) return kVTParameterErr;
    dictionaryOut->clear();
    for (const char* key : kSupportedProperties) (*dictionaryOut)[key] = QXDictionary {};
    return 0;
}

OSStatus VTSessionCopyProperty(const VTSessionRef& session, std::string_view key, QXValue* valueOut)
{
    if (!session || !valueOut) return kVTParameterErr;
    const VTCompressionSession& s = VTCompressionSessionAccess::of(session);
    if (!s.encoder) return kVTInvalidSessionErr;
    if (key == kVTCompressionPropertyKey_EncoderID) {
        *valueOut = QXValue(std::string(s.encoder->context->codec->name));
    } else if (key == kVTCompressionPropertyKey_UsingHardwareAcceleratedVideoEncoder) {
        *valueOut = QXValue(s.encoder->hardware);
    } else if (auto it = s.properties.find(key); it != s.properties.end()) {
        *valueOut = it->second;
    } else {
        return kVTPropertyNotSupportedErr;
    }
    return 0;
}

namespace {

// Sets the session's properties on a context that is not open yet.
void configure(AVCodecContext* context, const QXDictionary& properties, bool hevc, bool fullRange)
{
    auto property = [&](const char* key) -> const QXValue* {
        auto it = properties.find(key);
        return it == properties.end() ? nullptr : &it->second;
    };
    context->time_base = kEncoderTimeBase;
    context->pix_fmt = AV_PIX_FMT_YUV420P;
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    context->color_range = fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    // The session's colour properties, else the source attributes'.
    auto colour = [&](const char* propertyKey, const char* attributeKey) {
        const QXValue* value = property(propertyKey);
        if (!value) value = property(attributeKey);
        return CVColorAttachmentToAVColor(attributeKey, value ? std::optional(*value) : std::nullopt);
    };
    context->color_primaries =
        AVColorPrimaries(colour(kVTCompressionPropertyKey_ColorPrimaries, kCVImageBufferColorPrimariesKey));
    context->color_trc = AVColorTransferCharacteristic(
        colour(kVTCompressionPropertyKey_TransferFunction, kCVImageBufferTransferFunctionKey));
    context->colorspace = AVColorSpace(colour(kVTCompressionPropertyKey_YCbCrMatrix, kCVImageBufferYCbCrMatrixKey));

    if (const QXValue* interval = property(kVTCompressionPropertyKey_MaxKeyFrameInterval)) {
        context->gop_size = int(interval->int64().value_or(context->gop_size));
    }
    if (const QXValue* temporal = property(kVTCompressionPropertyKey_AllowTemporalCompression);
        temporal && !temporal->truth().value_or(true)) {
        context->gop_size = 1;
    }
    if (const QXValue* reorder = property(kVTCompressionPropertyKey_AllowFrameReordering);
        reorder && !reorder->truth().value_or(true)) {
        context->max_b_frames = 0;
    }
    if (const QXValue* rate = property(kVTCompressionPropertyKey_AverageBitRate)) {
        context->bit_rate = int64_t(std::llround(rate->doubleValue().value_or(0)));
    }
    if (const QXValue* fps = property(kVTCompressionPropertyKey_ExpectedFrameRate)) {
        const double rate = fps->doubleValue().value_or(0);
        if (rate > 0) context->framerate = av_d2q(rate, 1 << 20);
    }
    if (const QXValue* aspect = property(kVTCompressionPropertyKey_PixelAspectRatio); aspect && aspect->dictionary()) {
        const QXValue* h = aspect->find(kCVImageBufferPixelAspectRatioHorizontalSpacingKey);
        const QXValue* v = aspect->find(kCVImageBufferPixelAspectRatioVerticalSpacingKey);
        if (h && v) context->sample_aspect_ratio = AVRational {int(h->int64().value_or(0)), int(v->int64().value_or(0))};
    }
    // libx264 / libx265: speed presets, their own parameters, a look-ahead.
    const bool software = std::string_view(context->codec->name).starts_with("libx26");
    if (const QXValue* name = property(kVTCompressionPropertyKey_ProfileLevel); name && name->string()) {
        std::string profile, level;
        parseProfileLevel(*name->string(), profile, level);
        // Main 10 takes 10-bit pictures, which the software encoder is given
        // (widened from the 8 bits they arrive in); hardware stays on Main.
        if (profile == "main10") {
            if (software && takesFormat(context->codec, AV_PIX_FMT_YUV420P10)) {
                context->pix_fmt = AV_PIX_FMT_YUV420P10;
            } else {
                profile = "main";
            }
        }
        if (!profile.empty()) av_opt_set(context->priv_data, "profile", profile.c_str(), 0);
        if (!level.empty()) av_opt_set(context->priv_data, "level", level.c_str(), 0);
    }
    if (const QXValue* speed = property(kQXCompressionPropertyKey_EncoderSpeedPreset); speed && software) {
        const int64_t index = speed->int64().value_or(-1);
        if (index >= 0 && index < 10) av_opt_set(context->priv_data, "preset", kQXEncoderSpeedPresets[index], 0);
    }
    // x265 reports each session on stderr unless told not to; the
    // framework's log has what matters.
    std::string params = hevc ? "log-level=error" : "";
    // The look-ahead holds copies of whole pictures: for pictures above
    // 1080p it is shortened so that it stays within kLookaheadBytes.
    const int64_t pictureBytes = int64_t(context->width) * context->height * 3 / 2;
    if (software && pictureBytes > 0 && pictureBytes * kDefaultLookahead > kLookaheadBytes) {
        const int64_t frames = std::max<int64_t>(kMinimumLookahead, kLookaheadBytes / pictureBytes);
        if (hevc) {
            params += ":rc-lookahead=" + std::to_string(frames);
        } else {
            av_opt_set_int(context->priv_data, "rc-lookahead", frames, 0);
        }
    }
    if (const QXValue* options = property(kQXCompressionPropertyKey_EncoderOptions); options && options->dictionary()) {
        for (const auto& [key, value] : *options->dictionary()) {
            const std::string text = valueText(value);
            if (av_opt_set(context, key.c_str(), text.c_str(), AV_OPT_SEARCH_CHILDREN) >= 0) continue;
            params += (params.empty() ? "" : ":") + key + "=" + text;
        }
    }
    if (software && !params.empty()) {
        av_opt_set(context->priv_data, hevc ? "x265-params" : "x264-params", params.c_str(), 0);
    }
}

std::unique_ptr<Encoder> openEncoder(const AVCodec* codec, const std::string& deviceName, int32_t width,
                                     int32_t height, const QXDictionary& properties, bool hevc, bool fullRange,
                                     int* result)
{
    auto encoder = std::make_unique<Encoder>();
    encoder->hardware = codec->capabilities & AV_CODEC_CAP_HARDWARE || deviceTypeOf(codec->name) != AV_HWDEVICE_TYPE_NONE;
    encoder->context = avcodec_alloc_context3(codec);
    if (!encoder->context) {
        *result = AVERROR(ENOMEM);
        return nullptr;
    }
    AVCodecContext* context = encoder->context;
    context->width = width;
    context->height = height;
    configure(context, properties, hevc, fullRange);
    if (!takesFormat(codec, context->pix_fmt)) context->pix_fmt = codec->pix_fmts[0];

    const AVHWDeviceType type = deviceTypeOf(codec->name);
    if (type == AV_HWDEVICE_TYPE_VAAPI || (type == AV_HWDEVICE_TYPE_QSV && !takesFormat(codec, AV_PIX_FMT_NV12))) {
        // Pictures are uploaded into frames of the device.
        *result = av_hwdevice_ctx_create(&encoder->device, type, deviceName.empty() ? nullptr : deviceName.c_str(),
                                         nullptr, 0);
        if (*result < 0) return nullptr;
        encoder->frames = av_hwframe_ctx_alloc(encoder->device);
        if (!encoder->frames) {
            *result = AVERROR(ENOMEM);
            return nullptr;
        }
        auto* frames = reinterpret_cast<AVHWFramesContext*>(encoder->frames->data);
        frames->format = type == AV_HWDEVICE_TYPE_VAAPI ? AV_PIX_FMT_VAAPI : AV_PIX_FMT_QSV;
        frames->sw_format = AV_PIX_FMT_NV12;
        frames->width = width;
        frames->height = height;
        frames->initial_pool_size = 20;
        if ((*result = av_hwframe_ctx_init(encoder->frames)) < 0) return nullptr;
        context->hw_frames_ctx = av_buffer_ref(encoder->frames);
        context->pix_fmt = frames->format;
    }
    if ((*result = QXAvcodecOpen(context, codec, nullptr)) < 0) return nullptr;

    // The decoder configuration record from the encoder's headers.
    QXData record;
    const uint8_t* extradata = context->extradata;
    const size_t size = size_t(std::max(context->extradata_size, 0));
    if (hevc) {
        record = createHvcCFromExtradata(extradata, size, true);
    } else {
        const ParameterSets sets = readParameterSets(NALCodec::H264, extradata, size);
        record = createAvcC(sets.sps, sets.pps);
    }
    QXDictionary atoms {{hevc ? "hvcC" : "avcC", QXValue(record)}};
    QXDictionary extensions {{kCMFormatDescriptionExtension_SampleDescriptionExtensionAtoms, QXValue(atoms)}};
    CMVideoFormatDescriptionCreate(nullptr, hevc ? kCMVideoCodecType_HEVC : kCMVideoCodecType_H264, width, height,
                                   &extensions, &encoder->format);
    return encoder;
}

} // namespace

OSStatus VTCompressionSessionPrepareToEncodeFrames(const VTCompressionSessionRef& session)
{
    if (!session) return kVTParameterErr;
    VTCompressionSession& s = VTCompressionSessionAccess::of(session);
    if (s.encoder) return 0;
    auto encoderSetting = [&](const char* key) -> const QXValue* {
        auto it = s.specification.find(key);
        return it == s.specification.end() ? nullptr : &it->second;
    };
    const QXValue* hardwareWanted = encoderSetting(kVTVideoEncoderSpecification_EnableHardwareAcceleratedVideoEncoder);
    std::vector<HardwareCandidate> candidates;
    if (const QXValue* id = encoderSetting(kVTVideoEncoderSpecification_EncoderID); id && id->string()) {
        const QXValue* device = encoderSetting(kQXVideoEncoderSpecification_Device);
        candidates.push_back({*id->string(), device && device->string() ? *device->string() : ""});
    } else if (hardwareWanted && hardwareWanted->truth().value_or(false)) {
        candidates = defaultHardwareCandidates(s.hevc);
    }
    for (const HardwareCandidate& candidate : candidates) {
        const AVCodec* codec = avcodec_find_encoder_by_name(candidate.encoder.c_str());
        if (!codec) continue;
        int result = 0;
        s.encoder = openEncoder(codec, candidate.device, s.width, s.height, s.properties, s.hevc, s.fullRange,
                                 &result);
        if (s.encoder) return 0;
        // Probing NVENC or QSV without their hardware is the common case.
        if (!candidate.device.empty() || encoderSetting(kVTVideoEncoderSpecification_EncoderID)) {
            QXLogWarning("Encoder %s did not open on %s: %s", candidate.encoder.c_str(),
                         candidate.device.empty() ? "the default device" : candidate.device.c_str(),
                         errorText(result).c_str());
        }
    }
    const AVCodec* software = avcodec_find_encoder_by_name(s.hevc ? "libx265" : "libx264");
    if (!software) return kVTCouldNotFindVideoEncoderErr;
    int result = 0;
    s.encoder =
        openEncoder(software, "", s.width, s.height, s.properties, s.hevc, s.fullRange, &result);
    if (!s.encoder) {
        QXLogWarning("Encoder %s did not open: %s", software->name, errorText(result).c_str());
        return kVTVideoEncoderMalfunctionErr;
    }
    return 0;
}

AVFrame* Encoder::prepare(AVFrame* picture)
{
    const AVPixelFormat target = frames ? reinterpret_cast<AVHWFramesContext*>(frames->data)->sw_format
                                        : AVPixelFormat(context->pix_fmt);
    if (target == picture->format && picture->width == context->width && picture->height == context->height &&
        !frames) {
        return av_frame_clone(picture);
    }
    AVFrame* converted = av_frame_alloc();
    converted->format = target;
    converted->width = context->width;
    converted->height = context->height;
    if (av_frame_get_buffer(converted, 0) < 0) {
        av_frame_free(&converted);
        return nullptr;
    }
    converter = sws_getCachedContext(converter, picture->width, picture->height, AVPixelFormat(picture->format),
                                     context->width, context->height, target, SWS_BICUBIC, nullptr, nullptr, nullptr);
    if (!converter) {
        av_frame_free(&converted);
        return nullptr;
    }
    sws_scale(converter, picture->data, picture->linesize, 0, picture->height, converted->data, converted->linesize);
    av_frame_copy_props(converted, picture);
    if (!frames) return converted;

    AVFrame* uploaded = av_frame_alloc();
    if (av_hwframe_get_buffer(frames, uploaded, 0) < 0 || av_hwframe_transfer_data(uploaded, converted, 0) < 0) {
        av_frame_free(&uploaded);
    } else {
        av_frame_copy_props(uploaded, converted);
    }
    av_frame_free(&converted);
    return uploaded;
}

void Encoder::emit(AVPacket* packet)
{
    auto found = pending.find(packet->pts);
    if (found == pending.end()) return;
    Pending picture = std::move(found->second);
    pending.erase(found);

    // Decode times must rise strictly and never pass the presentation time.
    int64_t dts = packet->dts == AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (lastDts != AV_NOPTS_VALUE && dts <= lastDts) dts = lastDts + 1;
    lastDts = dts;

    const bool lengthPrefixed = !isAnnexB(packet->data, size_t(packet->size));
    QXData bytes = lengthPrefixed ? QXData(packet->data, packet->data + packet->size)
                                  : annexBToLengthPrefixed(packet->data, size_t(packet->size));
    const size_t size = bytes.size();
    CMBlockBufferRef block;
    CMSampleBufferRef sample;
    OSStatus status = CMBlockBufferCreateWithMemoryBlock(nullptr, nullptr, size, nullptr, nullptr, 0, size,
                                                         kCMBlockBufferAssureMemoryNowFlag, &block);
    if (status == 0) status = CMBlockBufferReplaceDataBytes(bytes.data(), block, 0, size);

    const CMTime pts = picture.presentationTime;
    CMTime decode = CMTimeConvertScale(CMTimeMake(dts, kEncoderTimeBase.den), timescale,
                                       kCMTimeRoundingMethod_RoundHalfAwayFromZero);
    if (CMTimeCompare(decode, pts) > 0) decode = pts;
    const CMSampleTimingInfo timing {picture.duration, pts, decode};
    if (status == 0) {
        status = CMSampleBufferCreate(nullptr, block, true, {}, nullptr, format, 1, 1, &timing, 1, &size, &sample);
    }
    if (status != 0) {
        picture.handler(status, 0, nullptr);
        return;
    }
    const bool key = packet->flags & AV_PKT_FLAG_KEY;
    CMSampleAttachmentDictionaryRef attachments = CMSampleBufferGetFirstSampleAttachments(sample, true);
    attachments->setValue(kCMSampleAttachmentKey_NotSync, QXValue(!key));
    attachments->setValue(kCMSampleAttachmentKey_DependsOnOthers, QXValue(!key));
    picture.handler(0, 0, sample);
}

OSStatus Encoder::receive()
{
    AVPacket* packet = av_packet_alloc();
    int result = 0;
    while ((result = avcodec_receive_packet(context, packet)) >= 0) {
        emit(packet);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    return result == AVERROR(EAGAIN) || result == AVERROR_EOF ? 0 : kVTVideoEncoderMalfunctionErr;
}

OSStatus VTCompressionSessionEncodeFrameWithOutputHandler(const VTCompressionSessionRef& session,
                                                          const CVImageBufferRef& imageBuffer,
                                                          CMTime presentationTimeStamp, CMTime duration,
                                                          const QXDictionary*, VTEncodeInfoFlags* infoFlagsOut,
                                                          VTCompressionOutputHandler outputHandler)
{
    if (infoFlagsOut) *infoFlagsOut = 0;
    if (!session || !imageBuffer || !outputHandler) return kVTParameterErr;
    VTCompressionSession& s = VTCompressionSessionAccess::of(session);
    if (!s.encoder || s.encoder->drained) return kVTInvalidSessionErr;
    Encoder& e = *s.encoder;

    // A picture without a time follows the one before it.
    int64_t pts = AV_NOPTS_VALUE;
    if (CMTIME_IS_NUMERIC(presentationTimeStamp)) {
        if (e.timescale == 0) e.timescale = presentationTimeStamp.timescale;
        pts = CMTimeConvertScale(presentationTimeStamp, kEncoderTimeBase.den, kCMTimeRoundingMethod_RoundHalfAwayFromZero)
                  .value;
    }
    if (e.timescale == 0) e.timescale = kEncoderTimeBase.den;
    if (pts == AV_NOPTS_VALUE || (e.lastPts != AV_NOPTS_VALUE && pts <= e.lastPts)) {
        pts = e.lastPts == AV_NOPTS_VALUE ? 0 : e.lastPts + std::max<int64_t>(e.lastDuration, 1);
        presentationTimeStamp = CMTimeConvertScale(CMTimeMake(pts, kEncoderTimeBase.den), e.timescale,
                                                   kCMTimeRoundingMethod_RoundHalfAwayFromZero);
    }
    if (CMTIME_IS_NUMERIC(duration)) {
        e.lastDuration =
            CMTimeConvertScale(duration, kEncoderTimeBase.den, kCMTimeRoundingMethod_RoundHalfAwayFromZero).value;
    }
    e.lastPts = pts;

    AVFrame* picture = CVPixelBufferCopyAVFrame(imageBuffer);
    AVFrame* frame = picture ? e.prepare(picture) : nullptr;
    av_frame_free(&picture);
    if (!frame) return kVTAllocationFailedErr;
    frame->pts = pts;
    frame->pict_type = AV_PICTURE_TYPE_NONE;
    e.pending[pts] = {presentationTimeStamp, duration, std::move(outputHandler)};
    const int sent = avcodec_send_frame(e.context, frame);
    av_frame_free(&frame);
    if (sent < 0) {
        e.pending.erase(pts);
        return kVTVideoEncoderMalfunctionErr;
    }
    return e.receive();
}

OSStatus VTCompressionSessionCompleteFrames(const VTCompressionSessionRef& session, CMTime)
{
    if (!session) return kVTParameterErr;
    VTCompressionSession& s = VTCompressionSessionAccess::of(session);
    if (!s.encoder) return kVTInvalidSessionErr;
    Encoder& e = *s.encoder;
    if (e.drained) return 0;
    e.drained = true;
    avcodec_send_frame(e.context, nullptr);
    const OSStatus status = e.receive();
    // Pictures the encoder never gave back are reported as dropped.
    for (auto& [pts, picture] : e.pending) picture.handler(0, kVTEncodeInfo_FrameDropped, nullptr);
    e.pending.clear();
    return status;
}

void VTCompressionSessionInvalidate(const VTCompressionSessionRef& session)
{
    if (session) VTCompressionSessionAccess::of(session).encoder.reset();
}

} // namespace qx
