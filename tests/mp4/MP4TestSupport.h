#pragma once
// Helpers of the MP4 layer tests: a capture of the layer's log lines, and
// packets of ffmpeg-made sources read with libavformat.

#include "qxmedia/mp4/MP4Log.h"
#include "support/TestMedia.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace mp4test {

struct Logged {
    int level;
    std::string format;
    std::string text;
};

// Installs a capture of the layer's log lines (every level) for its lifetime.
class LogLines {
public:
    LogLines()
    {
        current() = this;
        qx::mp4::MP4LogSetLevel(qx::mp4::MP4_LOG_VERBOSE4);
        qx::mp4::MP4SetLogCallback(&LogLines::capture);
    }
    ~LogLines()
    {
        qx::mp4::MP4SetLogCallback(nullptr);
        qx::mp4::MP4LogSetLevel(qx::mp4::MP4_LOG_WARNING);
        current() = nullptr;
    }
    bool has(int level, const std::string& fragment) const
    {
        for (const auto& l : lines)
            if (l.level == level && l.text.find(fragment) != std::string::npos) return true;
        return false;
    }
    // What the framework's corruption check looks for.
    bool reportsDamage() const
    {
        for (const auto& l : lines) {
            if (l.level == qx::mp4::MP4_LOG_ERROR && l.format.find("invalid atom size") != std::string::npos)
                return true;
            if (l.level == qx::mp4::MP4_LOG_WARNING && l.text.find("atom type  is suspect") != std::string::npos)
                return true;
        }
        return false;
    }
    std::vector<Logged> lines;

private:
    static LogLines*& current()
    {
        static LogLines* instance = nullptr;
        return instance;
    }
    static void capture(int level, const char* format, va_list arguments)
    {
        char buffer[2048];
        std::vsnprintf(buffer, sizeof buffer, format, arguments);
        if (current()) current()->lines.push_back({level, format, buffer});
    }
};

struct Packet {
    std::vector<uint8_t> data;
    int64_t pts = 0, dts = 0, duration = 0;
    bool key = false;
};

struct Stream {
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    AVCodecID codec = AV_CODEC_ID_NONE;
    AVRational timeBase {1, 1};
    std::vector<uint8_t> extradata;
    int width = 0, height = 0, sampleRate = 0, channels = 0, frameSize = 0;
    std::vector<Packet> packets;
};

// Every packet of the first stream of `type` in `path`.
inline Stream readStream(const std::filesystem::path& path, AVMediaType type)
{
    Stream stream;
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return stream;
    if (avformat_find_stream_info(context, nullptr) < 0) {
        avformat_close_input(&context);
        return stream;
    }
    int index = av_find_best_stream(context, type, -1, -1, nullptr, 0);
    if (index >= 0) {
        AVStream* s = context->streams[index];
        AVCodecParameters* p = s->codecpar;
        stream.type = type;
        stream.codec = p->codec_id;
        stream.timeBase = s->time_base;
        if (p->extradata) stream.extradata.assign(p->extradata, p->extradata + p->extradata_size);
        stream.width = p->width;
        stream.height = p->height;
        stream.sampleRate = p->sample_rate;
        stream.channels = p->ch_layout.nb_channels;
        stream.frameSize = p->frame_size;
        AVPacket* packet = av_packet_alloc();
        while (av_read_frame(context, packet) >= 0) {
            if (packet->stream_index == index) {
                Packet copy;
                copy.data.assign(packet->data, packet->data + packet->size);
                copy.pts = packet->pts;
                copy.dts = packet->dts;
                copy.duration = packet->duration;
                copy.key = packet->flags & AV_PKT_FLAG_KEY;
                stream.packets.push_back(std::move(copy));
            }
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
    }
    avformat_close_input(&context);
    return stream;
}

// Runs a command and returns its output (stdout and stderr).
inline std::string output(const std::string& command)
{
    std::string text;
    qxtest::run(command + " 2>&1", &text);
    return text;
}

// What ffmpeg says when decoding the whole file: empty when all is well.
inline std::string decodeErrors(const std::filesystem::path& path)
{
    return output("ffmpeg -nostdin -v error -i '" + path.string() + "' -f null -");
}

} // namespace mp4test
