#pragma once
// Helpers of the MP4 layer tests: a capture of the layer's log lines, and
// what other tools say of a file (packets come from qxtest::readStream).

#include "qxmedia/mp4/MP4Log.h"
#include "support/TestMedia.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
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

// Runs a command and returns its output (stdout and stderr).
inline std::string output(const std::string& command)
{
    std::string text;
    qxtest::run(command + " 2>&1", &text);
    return text;
}

// A hash of every packet as ffmpeg reads it: same samples, same times.
inline std::string streamHash(const std::filesystem::path& path)
{
    return output("ffmpeg -nostdin -v error -i '" + path.string() + "' -map 0 -c copy -f streamhash -");
}

inline std::vector<uint8_t> bytesOf(const std::filesystem::path& path)
{
    std::string text = qxtest::readFile(path);
    return {text.begin(), text.end()};
}

inline void writeBytes(const std::filesystem::path& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// What ffmpeg says when decoding the whole file: empty when all is well.
inline std::string decodeErrors(const std::filesystem::path& path)
{
    return output("ffmpeg -nostdin -v error -i '" + path.string() + "' -f null -");
}

} // namespace mp4test
