#include "qxmedia/core/QXEncoderList.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/hwcontext.h>
}

#include "qxmedia/core/QXMedia.h"

namespace {

std::mutex& codecOpenLock()
{
    static std::mutex lock;
    return lock;
}

bool isHardware(const AVCodec* codec)
{
    return (codec->capabilities & AV_CODEC_CAP_HARDWARE) || avcodec_get_hw_config(codec, 0) != nullptr;
}

// Opens a tiny session on the encoder's device; a missing device or driver
// fails here rather than at the first frame.
bool tryOpen(const AVCodec* codec)
{
    const AVCodecHWConfig* config = nullptr;
    for (int i = 0; (config = avcodec_get_hw_config(codec, i)); ++i) {
        if (config->methods & (AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX | AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX)) break;
    }
    AVBufferRef* device = nullptr;
    if (config && av_hwdevice_ctx_create(&device, config->device_type, nullptr, nullptr, 0) < 0) return false;

    AVCodecContext* context = avcodec_alloc_context3(codec);
    bool opened = false;
    if (context) {
        context->width = 1280;
        context->height = 720;
        context->time_base = AVRational {1, 25};
        context->framerate = AVRational {25, 1};
        context->pix_fmt = codec->pix_fmts ? codec->pix_fmts[0] : AV_PIX_FMT_YUV420P;
        AVBufferRef* frames = nullptr;
        if (device && config && (config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_FRAMES_CTX)) {
            frames = av_hwframe_ctx_alloc(device);
            if (frames) {
                auto* framesContext = reinterpret_cast<AVHWFramesContext*>(frames->data);
                framesContext->format = config->pix_fmt;
                framesContext->sw_format = AV_PIX_FMT_NV12;
                framesContext->width = context->width;
                framesContext->height = context->height;
                framesContext->initial_pool_size = 4;
                if (av_hwframe_ctx_init(frames) >= 0) {
                    context->hw_frames_ctx = av_buffer_ref(frames);
                    context->pix_fmt = config->pix_fmt;
                }
            }
        } else if (device) {
            context->hw_device_ctx = av_buffer_ref(device);
        }
        opened = QXAvcodecOpen(context, codec, nullptr) >= 0;
        av_buffer_unref(&frames);
        avcodec_free_context(&context);
    }
    av_buffer_unref(&device);
    return opened;
}

} // namespace

int QXAvcodecOpen(AVCodecContext* context, const AVCodec* codec, AVDictionary** options)
{
    // A hardware session can take seconds to open, or to fail on a missing
    // device; it must not hold every other open. FFmpeg itself serialises
    // the codecs whose set-up is not thread-safe.
    if (codec && av_codec_is_encoder(codec) && isHardware(codec)) return avcodec_open2(context, codec, options);
    std::lock_guard guard(codecOpenLock());
    return avcodec_open2(context, codec, options);
}

std::vector<QXEncoderInfo> QXEncoderList::copyVideoEncoderList()
{
    std::vector<QXEncoderInfo> list;
    void* iterator = nullptr;
    while (const AVCodec* codec = av_codec_iterate(&iterator)) {
        if (!av_codec_is_encoder(codec)) continue;
        if (codec->id != AV_CODEC_ID_H264 && codec->id != AV_CODEC_ID_HEVC) continue;
        QXEncoderInfo info;
        info.encoderID = codec->name;
        info.displayName = codec->long_name ? codec->long_name : codec->name;
        info.encoderName = codec->wrapper_name ? codec->wrapper_name : "libavcodec";
        info.isHEVC = codec->id == AV_CODEC_ID_HEVC;
        info.isHardware = isHardware(codec);
        list.push_back(std::move(info));
    }
    return list;
}

bool QXEncoderList::encoderOpens(const std::string& encoderID)
{
    const AVCodec* codec = avcodec_find_encoder_by_name(encoderID.c_str());
    return codec && tryOpen(codec);
}

bool QXEncoderList::logAndFindHardwareHEVCEncoder()
{
    QXLogInfo("Available encoders:");
    bool found = false;
    for (const QXEncoderInfo& info : copyVideoEncoderList()) {
        QXLogInfo("%s: %s (%s)", info.encoderID.c_str(), info.displayName.c_str(), info.encoderName.c_str());
        if (info.isHEVC && info.isHardware && encoderOpens(info.encoderID)) {
            QXLogInfo("Hardware HEVC encoder found!");
            found = true;
        }
    }
    return found;
}
