// qxconvert mkvwalk FILE: the Matroska diagnostic walk, every line it logs
// printed to stdout, for people who debug a file.

#include <cstdarg>
#include <cstdio>

#include "qxmedia/core/QXMedia.h"
#include "qxmedia/matroska/QXMatroskaWalk.h"
#include "Commands.h"

int runMkvWalk(const Arguments& arguments)
{
    if (arguments.size() != 1) {
        std::fprintf(stderr, "usage: qxconvert mkvwalk FILE\n");
        return 2;
    }
    QXMedia::sharedMedia().setLogCallback([](bool, int32_t, int32_t, const char*, const char*, uint64_t,
                                             const QXValue*, const char* format, va_list values) {
        std::vprintf(format, values);
        std::putchar('\n');
    });
    QXMatroskaWalk::initWithMKVURL(arguments.front());
    return 0;
}
