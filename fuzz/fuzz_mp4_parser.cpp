// Feeds arbitrary bytes to the MP4 layer as a file: parsing, the sample
// index, serialisation and the track metadata must all stay in bounds.

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Log.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

using namespace qx::mp4;

namespace {
void quiet(int, const char*, va_list) {}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool once = [] {
        MP4SetLogCallback(quiet);
        MP4LogSetLevel(MP4_LOG_VERBOSE4); // format every message too
        return true;
    }();
    (void)once;

    // In-memory parse of the bytes as a list of boxes.
    RootBox root;
    BoxParser::parseChildren(ByteReader(data, size), 0, root);
    for (const auto& box : root.children()) (void)box->toBytes();

    // The same bytes as a file.
    int fd = memfd_create("fuzz-mp4", 0);
    if (fd < 0) return 0;
    if (size && write(fd, data, size) != ssize_t(size)) {
        close(fd);
        return 0;
    }
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (auto file = MP4File::read(path)) {
        (void)file->moov()->toBytes();
        (void)file->copyTrackMetadata();
        for (MP4Track* track : file->tracks()) {
            uint32_t count = std::min<uint32_t>(track->sampleCount(), 64);
            std::vector<uint8_t> sample;
            for (uint32_t i = 0; i < count; ++i) {
                SampleInfo info;
                if (track->sampleInfo(i, info) && info.size < (1 << 20)) track->readSample(i, sample);
            }
            (void)track->name();
            (void)track->language();
            (void)track->edits();
        }
        file->close();
    }
    close(fd);
    return 0;
}
