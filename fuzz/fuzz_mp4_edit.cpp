// The whole edit cycle on arbitrary bytes: read, modify, store tags and
// chapters, close, read back. A file the layer accepts for editing must come
// back undamaged with exactly the tags and chapters that were stored, and
// the samples it held must still read the same.

#include "qxmedia/mp4/MP4File.h"
#include "qxmedia/mp4/MP4Log.h"
#include "qxmedia/mp4/tags/MP4Chapters.h"
#include "qxmedia/mp4/tags/MP4Tags.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
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

// The first samples of each track by track ID, to compare before and after
// (a replaced chapter track gets a new ID and drops out of the comparison).
std::map<uint32_t, std::vector<std::vector<uint8_t>>> someSamples(const MP4File& file)
{
    std::map<uint32_t, std::vector<std::vector<uint8_t>>> samples;
    for (MP4Track* track : file.tracks()) {
        for (uint32_t i = 0; i < std::min<uint32_t>(track->sampleCount(), 8); ++i) {
            SampleInfo info;
            samples[track->id()].emplace_back();
            if (track->sampleInfo(i, info) && info.size < (1 << 20)) track->readSample(i, samples[track->id()].back());
        }
    }
    return samples;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool once = [] {
        MP4SetLogCallback(quiet);
        MP4LogSetLevel(MP4_LOG_VERBOSE4);
        return true;
    }();
    (void)once;

    int fd = memfd_create("fuzz-mp4-edit", 0);
    if (fd < 0) return 0;
    if (size && write(fd, data, size) != ssize_t(size)) {
        close(fd);
        return 0;
    }
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    auto file = MP4File::modify(path);
    if (!file) {
        close(fd);
        return 0;
    }
    const auto samples = someSamples(*file);
    // What is stored depends on the input, so tags grow, shrink and vanish.
    MP4Tags tags;
    MP4TagsFetch(tags, *file);
    tags.name = std::string(size % 700, 'n');
    if (size % 3 == 0) tags.comments.reset();
    else tags.comments = "c";
    tags.track = MP4TagTrack {uint16_t(size % 17), 20};
    check(MP4TagsStore(tags, *file));
    std::vector<MP4Chapter> chapters;
    for (size_t i = 0; i < size % 4; ++i) chapters.push_back({100, "chapter " + std::to_string(i)});
    MP4SetChapters(*file, chapters, size % 2 ? MP4ChapterTypeNero : MP4ChapterTypeAny);
    MP4Tags stored;
    MP4TagsFetch(stored, *file);
    if (file->close()) {
        auto back = MP4File::read(path);
        check(back && !back->damaged());
        MP4Tags reread;
        MP4TagsFetch(reread, *back);
        check(reread.name == stored.name && reread.comments == stored.comments && reread.track == stored.track);
        for (const auto& [id, after] : someSamples(*back))
            check(!samples.count(id) || back->track(id)->type() == kTextTrack || samples.at(id) == after);
    }
    close(fd);
    return 0;
}
