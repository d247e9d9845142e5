#pragma once
// Shared test support: generated media in a per-build cache, commands, and
// a capture of the framework's log lines.

#include <cstdint>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qxtest {

// The folder generated media lives in (QX_TEST_TMP, else a temp folder).
std::filesystem::path mediaDir();
// A fresh empty folder for one test.
std::filesystem::path makeTempDir(const std::string& name);

// Runs a shell command; returns its exit status and, if asked, its stdout.
int run(const std::string& command, std::string* output = nullptr);
bool haveTool(const std::string& tool);

// Makes `name` in mediaDir() by running `ffmpegArguments` (everything after
// "ffmpeg -y -v error"), once per build; the output path is appended. Returns
// the path, or an empty path when ffmpeg failed (the test should fail then).
std::filesystem::path generate(const std::string& name, const std::string& ffmpegArguments);

// Writes text to a file, creating folders.
void writeFile(const std::filesystem::path& path, const std::string& text);
std::string readFile(const std::filesystem::path& path);
// The payload of the first box of this type found anywhere in an MP4 file;
// empty when there is none.
std::vector<uint8_t> boxPayload(const std::filesystem::path& path, const std::string& type);

struct Packet {
    std::vector<uint8_t> data;
    int64_t pts = 0, dts = 0, duration = 0;
    bool key = false;
};

// A stream's parameters and packets, as libavformat reads them.
struct StreamPackets {
    int codec = 0; // an AVCodecID
    struct {
        int num = 0, den = 1;
    } timeBase;
    int sampleRate = 0, channels = 0, width = 0, height = 0, profile = 0, level = 0;
    uint64_t channelMask = 0;
    int64_t bitRate = 0;
    int sarNum = 0, sarDen = 0;
    int colorPrimaries = 0, colorTrc = 0, colorSpace = 0, colorRange = 0;
    std::vector<uint8_t> extradata;
    std::vector<Packet> packets;
};

// Up to maxPackets packets of the file's best stream of a media type (an
// AVMediaType), or of its first stream for -1, with the stream's parameters.
StreamPackets readStream(const std::filesystem::path& path, size_t maxPackets = std::numeric_limits<size_t>::max(),
                         int mediaType = -1);
// Lower-case hex digits of bytes, for comparisons that print readably.
std::string hex(const std::vector<uint8_t>& bytes);

// Sets environment variables for its lifetime and restores them afterwards.
class ScopedEnvironment {
public:
    ScopedEnvironment() = default;
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    ~ScopedEnvironment();
    void set(const char* name, const char* value); // null unsets

private:
    std::map<std::string, std::optional<std::string>> saved_;
};

struct LogLine {
    bool log;
    int32_t flag;
    std::string file;
    std::string function;
    uint64_t line;
    std::string text; // expanded
};

// Installs a log callback for its lifetime and keeps every line.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<LogLine> lines() const;
    bool contains(const std::string& fragment, int32_t flag = 0) const;
    void clear();

private:
    mutable std::mutex lock_;
    std::vector<LogLine> lines_;
};

} // namespace qxtest
