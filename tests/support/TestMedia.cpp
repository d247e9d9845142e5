#include "support/TestMedia.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include "qxmedia/core/QXMedia.h"

namespace qxtest {

std::filesystem::path mediaDir()
{
    const char* env = std::getenv("QX_TEST_TMP");
    std::filesystem::path dir = env && *env ? env : std::filesystem::temp_directory_path() / "qxmedia-test-media";
    std::filesystem::create_directories(dir);
    return dir;
}

std::filesystem::path makeTempDir(const std::string& name)
{
    auto dir = mediaDir() / "tmp" / (name + "-" + std::to_string(::getpid()));
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    return dir;
}

int run(const std::string& command, std::string* output)
{
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return -1;
    std::string text;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) text.append(buffer, n);
    const int status = ::pclose(pipe);
    if (output) *output = std::move(text);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveTool(const std::string& tool)
{
    return run("command -v " + tool + " >/dev/null 2>&1") == 0;
}

std::filesystem::path generate(const std::string& name, const std::string& ffmpegArguments)
{
    const auto path = mediaDir() / name;
    // The arguments a file was made with stand beside it, so that a test
    // that changes them gets a new file rather than the old one.
    const auto made = mediaDir() / (name + ".args");
    if (std::filesystem::exists(path) && std::filesystem::file_size(path) > 0 && readFile(made) == ffmpegArguments) {
        return path;
    }
    // Write under a temporary name so that a concurrent or failed run never
    // leaves a half-made file behind.
    const auto partial = mediaDir() / ("partial-" + std::to_string(::getpid()) + "-" + name);
    const std::string command =
        "ffmpeg -nostdin -y -v error " + ffmpegArguments + " '" + partial.string() + "' 2>&1";
    std::string output;
    if (run(command, &output) != 0) {
        std::fprintf(stderr, "ffmpeg failed for %s:\n%s\n", name.c_str(), output.c_str());
        std::filesystem::remove(partial);
        return {};
    }
    std::filesystem::rename(partial, path);
    writeFile(made, ffmpegArguments);
    return path;
}

void writeFile(const std::filesystem::path& path, const std::string& text)
{
    if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

std::vector<uint8_t> boxPayload(const std::filesystem::path& path, const std::string& type)
{
    const std::string data = readFile(path);
    const size_t at = data.find(type);
    if (at == std::string::npos || at < 4) return {};
    const auto* size = reinterpret_cast<const uint8_t*>(data.data() + at - 4);
    const size_t length = (size_t(size[0]) << 24) | (size_t(size[1]) << 16) | (size_t(size[2]) << 8) | size[3];
    if (length < 8 || at - 4 + length > data.size()) return {};
    return std::vector<uint8_t>(data.begin() + std::ptrdiff_t(at + 4), data.begin() + std::ptrdiff_t(at - 4 + length));
}

StreamPackets readStream(const std::filesystem::path& path, size_t maxPackets, int mediaType)
{
    StreamPackets result;
    AVFormatContext* context = nullptr;
    if (avformat_open_input(&context, path.c_str(), nullptr, nullptr) < 0) return result;
    const int index = avformat_find_stream_info(context, nullptr) < 0 || context->nb_streams == 0 ? -1
                      : mediaType < 0 ? 0
                                      : av_find_best_stream(context, AVMediaType(mediaType), -1, -1, nullptr, 0);
    if (index >= 0) {
        const AVStream* stream = context->streams[index];
        const AVCodecParameters* p = stream->codecpar;
        result.codec = p->codec_id;
        result.timeBase = {stream->time_base.num, stream->time_base.den};
        result.sampleRate = p->sample_rate;
        result.channels = p->ch_layout.nb_channels;
        if (p->ch_layout.order == AV_CHANNEL_ORDER_NATIVE) result.channelMask = p->ch_layout.u.mask;
        result.bitRate = p->bit_rate;
        result.width = p->width;
        result.height = p->height;
        result.profile = p->profile;
        result.level = p->level;
        result.sarNum = p->sample_aspect_ratio.num;
        result.sarDen = p->sample_aspect_ratio.den;
        result.colorPrimaries = p->color_primaries;
        result.colorTrc = p->color_trc;
        result.colorSpace = p->color_space;
        result.colorRange = p->color_range;
        if (p->extradata) result.extradata.assign(p->extradata, p->extradata + p->extradata_size);
        AVPacket* packet = av_packet_alloc();
        while (result.packets.size() < maxPackets && av_read_frame(context, packet) >= 0) {
            if (packet->stream_index == index) {
                result.packets.push_back({{packet->data, packet->data + packet->size}, packet->pts, packet->dts,
                                          packet->duration, (packet->flags & AV_PKT_FLAG_KEY) != 0});
            }
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
    }
    avformat_close_input(&context);
    return result;
}

std::string hex(const std::vector<uint8_t>& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : bytes) text += {digits[byte >> 4], digits[byte & 15]};
    return text;
}

void ScopedEnvironment::set(const char* name, const char* value)
{
    if (!saved_.count(name)) {
        const char* old = std::getenv(name);
        saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    if (value) ::setenv(name, value, 1);
    else ::unsetenv(name);
}

ScopedEnvironment::~ScopedEnvironment()
{
    for (const auto& [name, value] : saved_) {
        if (value) ::setenv(name.c_str(), value->c_str(), 1);
        else ::unsetenv(name.c_str());
    }
}

LogCapture::LogCapture()
{
    QXMedia::sharedMedia().setLogCallback([this](bool log, int32_t flag, int32_t, const char* file,
                                                 const char* function, uint64_t line, const QXValue*,
                                                 const char* format, va_list arguments) {
        char buffer[4096];
        std::vsnprintf(buffer, sizeof buffer, format, arguments);
        std::lock_guard guard(lock_);
        lines_.push_back({log, flag, file ? file : "", function ? function : "", line, buffer});
    });
}

LogCapture::~LogCapture()
{
    QXMedia::sharedMedia().setLogCallback(nullptr);
}

std::vector<LogLine> LogCapture::lines() const
{
    std::lock_guard guard(lock_);
    return lines_;
}

bool LogCapture::contains(const std::string& fragment, int32_t flag) const
{
    std::lock_guard guard(lock_);
    for (const auto& line : lines_) {
        if ((flag == 0 || line.flag == flag) && line.text.find(fragment) != std::string::npos) return true;
    }
    return false;
}

void LogCapture::clear()
{
    std::lock_guard guard(lock_);
    lines_.clear();
}

} // namespace qxtest
