// optimize on arbitrary bytes: a source the layer accepts gives a copy with
// moov first that reads back undamaged with the same samples; a source it
// refuses leaves no file behind.

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Log.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

using namespace qx::mp4;

namespace {

void quiet(int, const char*, va_list) {}

// Aborts with the line of the broken promise.
#define check(condition) ((condition) ? void(0) : failed(#condition, __LINE__))
[[noreturn]] void failed(const char* what, int line)
{
    std::fprintf(stderr, "broken at line %d: %s\n", line, what);
    std::abort();
}

std::vector<std::vector<uint8_t>> someSamples(const MP4File& file)
{
    std::vector<std::vector<uint8_t>> samples;
    for (MP4Track* track : file.tracks()) {
        for (uint32_t i = 0; i < std::min<uint32_t>(track->sampleCount(), 8); ++i) {
            SampleInfo info;
            samples.emplace_back();
            if (track->sampleInfo(i, info) && info.size < (1 << 20)) track->readSample(i, samples.back());
        }
    }
    return samples;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::filesystem::path directory = [] {
        MP4SetLogCallback(quiet);
        MP4LogSetLevel(MP4_LOG_VERBOSE4);
        auto dir = std::filesystem::temp_directory_path() / ("fuzz-mp4-optimize-" + std::to_string(getpid()));
        std::filesystem::create_directories(dir);
        return dir;
    }();

    int fd = memfd_create("fuzz-mp4-optimize", 0);
    if (fd < 0) return 0;
    if (size && write(fd, data, size) != ssize_t(size)) {
        close(fd);
        return 0;
    }
    const std::string source = "/proc/self/fd/" + std::to_string(fd);
    const auto output = directory / "out.mp4";
    std::filesystem::remove(output);
    if (MP4File::optimize(source, output)) {
        auto before = MP4File::read(source);
        auto after = MP4File::read(output);
        check(before && after && !after->damaged());
        check(after->trackCount() == before->trackCount());
        check(someSamples(*after) == someSamples(*before));
        auto& top = after->root().children();
        check(top.size() >= 1 && (top[0]->type() == kMoov || (top.size() >= 2 && top[1]->type() == kMoov)));
    } else {
        check(!std::filesystem::exists(output));
    }
    check(std::distance(std::filesystem::directory_iterator(directory), {}) <= 1); // no temporary left
    close(fd);
    return 0;
}
