#include "CodecsTestSupport.h"

#include <cstdio>

extern "C" {
#include <libavformat/avformat.h>
}

#include "support/TestMedia.h"

namespace qxtest {

StreamPackets readStream(const std::filesystem::path& path, size_t maxPackets)
{
    StreamPackets result;
    av_log_set_level(AV_LOG_ERROR);
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return result;
    if (avformat_find_stream_info(context, nullptr) >= 0 && context->nb_streams > 0) {
        const AVCodecParameters* parameters = context->streams[0]->codecpar;
        result.sampleRate = parameters->sample_rate;
        result.channels = parameters->ch_layout.nb_channels;
        if (parameters->ch_layout.order == AV_CHANNEL_ORDER_NATIVE) result.channelMask = parameters->ch_layout.u.mask;
        result.bitRate = parameters->bit_rate;
        result.width = parameters->width;
        result.height = parameters->height;
        result.profile = parameters->profile;
        result.level = parameters->level;
        result.sarNum = parameters->sample_aspect_ratio.num;
        result.sarDen = parameters->sample_aspect_ratio.den;
        result.colorPrimaries = parameters->color_primaries;
        result.colorTrc = parameters->color_trc;
        result.colorSpace = parameters->color_space;
        result.colorRange = parameters->color_range;
        result.extradata.assign(parameters->extradata, parameters->extradata + parameters->extradata_size);
        AVPacket* packet = av_packet_alloc();
        while (result.packets.size() < maxPackets && av_read_frame(context, packet) >= 0) {
            if (packet->stream_index == 0) result.packets.emplace_back(packet->data, packet->data + packet->size);
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
    }
    avformat_close_input(&context);
    return result;
}

std::vector<uint8_t> bytesOf(const std::string& text)
{
    return std::vector<uint8_t>(text.begin(), text.end());
}

std::string hex(const std::vector<uint8_t>& bytes)
{
    std::string text;
    char digits[4];
    for (uint8_t byte : bytes) {
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

} // namespace qxtest
