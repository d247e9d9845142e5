// Arbitrary bytes as a Matroska file through the diagnostic walk: libebml's
// exceptions must stay inside the walk, and nothing may crash or read
// outside what libebml allocated.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/matroska/QXMatroskaWalk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = [] {
        QXMedia::sharedMedia().setLogCallback([](bool, int32_t, int32_t, const char*, const char*, uint64_t,
                                                 const QXValue*, const char*, va_list) {});
        return true;
    }();
    (void)quiet;
    // The walk reads a path: an in-memory file gives it one.
    const int fd = memfd_create("mkvwalk", 0);
    if (fd < 0) return 0;
    if (write(fd, data, size) == ssize_t(size)) {
        QXMatroskaWalk::initWithMKVURL("/proc/self/fd/" + std::to_string(fd));
    }
    close(fd);
    return 0;
}
