#include "qxmedia/core/QXVersion.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

#include "qxmedia/version.h"

const char* QXMediaVersionString()
{
    return QXMEDIA_VERSION_STRING;
}

std::string QXMediaFFmpegDescription()
{
    std::string text = "FFmpeg ";
    text += av_version_info();
    text += " (libavformat " AV_STRINGIFY(LIBAVFORMAT_VERSION) ", libavcodec " AV_STRINGIFY(LIBAVCODEC_VERSION) ", libavutil " AV_STRINGIFY(LIBAVUTIL_VERSION) ")\nconfiguration: ";
    text += avformat_configuration();
    return text;
}
