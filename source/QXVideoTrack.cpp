#include "qxmedia/source/QXVideoTrack.h"

#include <cstdio>
#include <string_view>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/pixdesc.h>
#include <libavutil/stereo3d.h>
}

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXTimeFormat.h"
#include "qxmedia/platform/codecs/NALUnits.h"
#include "qxmedia/platform/coremedia/CVPixelBuffer.h"
#include "qxmedia/platform/foundation/QXLocalization.h"

using namespace qx;

namespace {

std::string hexBytes(const uint8_t* data, uint32_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string text = "<";
    for (uint32_t i = 0; i < size; ++i) {
        if (i && i % 4 == 0) text += ' ';
        text += digits[data[i] >> 4];
        text += digits[data[i] & 15];
    }
    return text + ">";
}

// "4.1" for 41, "4" for 40; the level is ten times the version.
std::string levelText(unsigned level)
{
    char buffer[32];
    switch (level) {
    case 11: case 12: case 13: case 21: case 22: case 31: case 32: case 41: case 42: case 51: case 52: case 61: case 62:
        std::snprintf(buffer, sizeof buffer, "%u.%d", level / 10, int(level % 10));
        break;
    case 10: case 20: case 30: case 40: case 50: case 60:
        std::snprintf(buffer, sizeof buffer, "%u", level / 10);
        break;
    default: std::snprintf(buffer, sizeof buffer, "unknown level %x", level); break;
    }
    return buffer;
}

} // namespace

QXVideoTrack::QXVideoTrack()
{
    name = QXLocalizedString("Video Track");
}

std::shared_ptr<QXVideoTrack> QXVideoTrack::init()
{
    return makeNew<QXVideoTrack>();
}

std::shared_ptr<QXVideoTrack> QXVideoTrack::initWithFormatContext(AVFormatContext* context, int streamIndex,
                                                                  QXErrorRef* error)
{
    return importNew<QXVideoTrack>(context, streamIndex, error);
}

std::shared_ptr<QXVideoTrack> QXVideoTrack::initWithTrack(const QXTrack& track)
{
    return copyNew<QXVideoTrack>(track);
}

std::shared_ptr<QXTrack> QXVideoTrack::copy() const
{
    return copyNew<QXVideoTrack>(*this);
}

bool QXVideoTrack::importStream(AVFormatContext* context, int index, QXErrorRef* error)
{
    if (!QXVisualTrack::importStream(context, index, error)) return false;
    AVStream* stream = context->streams[index];
    AVCodecParameters* parameters = stream->codecpar;

    display_width = float(width);
    display_height = float(height);

    AVRational sar = av_guess_sample_aspect_ratio(context, stream, nullptr);
    if (sar.num == 0) {
        sar = AVRational {1, 1};
    } else {
        // A frame-packed stereo picture: one eye's pixels are half as wide
        // (side by side) or half as high (top and bottom).
        size_t size = 0;
        if (auto* stereo = reinterpret_cast<const AVStereo3D*>(
                av_stream_get_side_data(stream, AV_PKT_DATA_STEREO3D, &size))) {
            switch (stereo->type) {
            case 1: case 7: sar.den *= 2; break;
            case 2: case 6: sar.num *= 2; break;
            default: break;
            }
        }
        av_reduce(&sar.num, &sar.den, sar.num, sar.den, 65536);
    }
    hSpacing = uint32_t(sar.num);
    vSpacing = uint32_t(sar.den);
    display_width = (hSpacing == 1 && vSpacing == 1) ? float(width) : float(width) * float(hSpacing) / float(vSpacing);
    display_height = float(height);

    primariesIndex = parameters->color_primaries;
    transferFunctionIndex = parameters->color_trc;
    matrixIndex = parameters->color_space;
    colorRange = parameters->color_range;

    const AVRational rate = av_guess_frame_rate(context, stream, nullptr);
    frameRate = QXRational {rate.num, rate.den};

    if (auto codec = av_dict_get(stream->metadata, "codec_id", nullptr, 0); codec && std::string(codec->value) == "V_MS/VFW/FOURCC") {
        brokenByMS = true;
    }
    // FFmpeg's Matroska demuxer keeps the track's CodecID to itself. Of the
    // video forms only the Video-for-Windows one (and the rare QuickTime one)
    // carries a fourcc, which becomes the codec tag; native forms leave it 0.
    if (context->iformat && std::string_view(context->iformat->name).starts_with("matroska") &&
        parameters->codec_tag != 0) {
        brokenByMS = true;
    }
    formatFlags = context->iformat ? context->iformat->flags : 0;

    if (codec_id == AV_CODEC_ID_HEVC) {
        profile = uint8_t(parameters->profile);
        level = uint8_t(parameters->level);
    } else if (codec_id == AV_CODEC_ID_H264) {
        parseH264Extradata(parameters->extradata, uint32_t(parameters->extradata_size));
    }
    return true;
}

void QXVideoTrack::copyFrom(const QXTrack& other)
{
    QXVisualTrack::copyFrom(other);
    const auto* video = dynamic_cast<const QXVideoTrack*>(&other);
    if (!video) return;
    hSpacing = video->hSpacing;
    vSpacing = video->vSpacing;
    display_width = video->display_width;
    display_height = video->display_height;
    frameRate = video->frameRate;
    primariesIndex = video->primariesIndex;
    transferFunctionIndex = video->transferFunctionIndex;
    matrixIndex = video->matrixIndex;
    colorRange = video->colorRange;
    profile = video->profile;
    profile_compat = video->profile_compat;
    level = video->level;
    sps = video->sps;
    pps = video->pps;
}

void QXVideoTrack::parseH264Extradata(const uint8_t* data, uint32_t size)
{
    sps.clear();
    pps.clear();
    if (size < 6 || !data) {
        QXLogWarning("Extradata too short: %d", int(size));
        if (size != 0 && data) QXLogInfo("%s", hexBytes(data, size).c_str());
        return;
    }
    const bool annexB = size >= 7 && ((data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) ||
                                      (data[0] == 0 && data[1] == 0 && data[2] == 1));
    if (annexB) {
        const uint8_t* end = data + size;
        const uint8_t* start = avcFindStartCode(data, end);
        for (;;) {
            while (start < end && !*(start++)) {} // past the zeros and the one of the start code
            if (start >= end) break;
            const uint8_t* next = avcFindStartCode(start, end);
            if (next == start) continue; // a start code right after another: no unit between them
            QXData unit(start, next);
            const int type = unit[0] & 31;
            if (type == 7) {
                if (sps.empty() && unit.size() >= 4) {
                    profile = unit[1];
                    profile_compat = unit[2];
                    level = unit[3];
                }
                sps.push_back(std::move(unit));
            } else if (type == 8) {
                pps.push_back(std::move(unit));
            }
            start = next;
        }
        return;
    }

    profile = data[1];
    profile_compat = data[2];
    level = data[3];
    uint32_t position = 6;
    auto readSets = [&](unsigned count, std::vector<QXData>& into) {
        for (unsigned i = 0; i < count && position + 2 <= size; ++i) {
            const uint32_t length = uint32_t(data[position]) << 8 | data[position + 1];
            position += 2;
            if (position + length > size) {
                position = size;
                return;
            }
            into.emplace_back(data + position, data + position + length);
            position += length;
        }
    };
    readSets(data[5] & 31, sps);
    if (position < size) {
        const unsigned ppsCount = data[position++];
        readSets(ppsCount, pps);
    }
}

bool QXVideoTrack::isChapterImageTrack() const
{
    return layer == 1 && !enabled && in_movie && codec_id == AV_CODEC_ID_MJPEG;
}

bool QXVideoTrack::isMuxable() const
{
    if (formatFlags & AVFMT_TS_DISCONT) return false;
    return codec_id == AV_CODEC_ID_HEVC || (codec_id == AV_CODEC_ID_H264 && profile < 101);
}

const char* QXVideoTrack::YCbCrMatrix() const
{
    switch (matrixIndex) {
    case 1: return kCVImageBufferYCbCrMatrix_ITU_R_709_2;
    case 5: case 6: return kCVImageBufferYCbCrMatrix_ITU_R_601_4;
    case 7: return kCVImageBufferYCbCrMatrix_SMPTE_240M_1995;
    case 9: case 10: return kCVImageBufferYCbCrMatrix_ITU_R_2020;
    case 2: return nullptr;
    default:
        QXLogWarning("Color space %s is not supported.", av_color_space_name(AVColorSpace(matrixIndex)));
        return nullptr;
    }
}

const char* QXVideoTrack::transferFunction() const
{
    switch (transferFunctionIndex) {
    case 1: case 5: case 6: return kCVImageBufferTransferFunction_ITU_R_709_2;
    case 4: return kCVImageBufferTransferFunction_UseGamma;
    case 7: return kCVImageBufferTransferFunction_SMPTE_240M_1995;
    case 8: return kCVImageBufferTransferFunction_Linear;
    case 13: return kCVImageBufferTransferFunction_sRGB;
    case 14: case 15: return kCVImageBufferTransferFunction_ITU_R_2020;
    case 16: return kCVImageBufferTransferFunction_SMPTE_ST_2084_PQ;
    case 17: return kCVImageBufferTransferFunction_SMPTE_ST_428_1;
    case 18: return kCVImageBufferTransferFunction_ITU_R_2100_HLG;
    case 2: return nullptr;
    default:
        QXLogWarning("Transfer function %s is not supported.\n",
                     av_color_transfer_name(AVColorTransferCharacteristic(transferFunctionIndex)));
        return nullptr;
    }
}

const char* QXVideoTrack::colorPrimaries() const
{
    switch (primariesIndex) {
    case 1: return kCVImageBufferColorPrimaries_ITU_R_709_2;
    case 5: return kCVImageBufferColorPrimaries_EBU_3213;
    case 6: return kCVImageBufferColorPrimaries_SMPTE_C;
    case 9: return kCVImageBufferColorPrimaries_ITU_R_2020;
    case 11: return kCVImageBufferColorPrimaries_DCI_P3;
    case 12: return kCVImageBufferColorPrimaries_P3_D65;
    case 22: return kCVImageBufferColorPrimaries_P22;
    case 2: return nullptr;
    default:
        QXLogWarning("Color primaries %s is not supported.", av_color_primaries_name(AVColorPrimaries(primariesIndex)));
        return nullptr;
    }
}

std::string QXVideoTrack::displayDescription() const
{
    std::string text = format();
    if (codec_id == AV_CODEC_ID_H264 && profile && level) {
        text += " (";
        if (const char* profileName = avcodec_profile_name(AV_CODEC_ID_H264, profile)) text += profileName;
        text += "@" + levelText(level) + ")";
    } else if (codec_id == AV_CODEC_ID_HEVC && profile) {
        if (const char* profileName = avcodec_profile_name(AV_CODEC_ID_HEVC, profile)) {
            text += " (" + std::string(profileName) + ")";
        }
    }
    if (CMTIME_IS_VALID(duration)) text += ", " + CMTimeCopySmpteDescription(duration);
    if (bitrate >= 1000) text += ", " + std::to_string(bitrate / 1000) + "kbps";
    if (width && height) {
        char buffer[64];
        std::snprintf(buffer, sizeof buffer, ", %llux%llu", static_cast<unsigned long long>(width),
                      static_cast<unsigned long long>(height));
        text += buffer;
        if (CMTIME_IS_VALID(duration) && nominalFrameRate() > 0) {
            std::snprintf(buffer, sizeof buffer, "@%.3ffps", double(nominalFrameRate()));
            text += buffer;
        }
    }
    return text;
}
