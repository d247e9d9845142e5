// qxmp4: inspection and in-place editing of MP4 files with the project's
// own MP4 layer.

#include "Commands.h"

#include "qxmedia/mp4/MP4Log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

// One line per command; add new commands here.
const qxmp4::Command kCommands[] = {
    {"dump", "FILE", "print the box tree with the fields that matter", qxmp4::dumpCommand},
    {"optimize", "IN OUT", "write a copy with the movie header first", qxmp4::optimizeCommand},
    {"tags", "FILE", "print the tags and free-form items as JSON", qxmp4::tagsCommand},
    {"set", "FILE KEY=VALUE...", "edit tags in place; KEY is a code or ----:MEAN:NAME, an empty VALUE removes", qxmp4::setCommand},
    {"chapters", "FILE", "print the chapters as JSON", qxmp4::chaptersCommand},
};

void printLog(int level, const char* format, va_list arguments)
{
    std::fputs(level <= qx::mp4::MP4_LOG_ERROR ? "qxmp4: error: " : "qxmp4: warning: ", stderr);
    std::vfprintf(stderr, format, arguments);
    std::fputc('\n', stderr);
}

int help(FILE* to)
{
    std::fprintf(to, "usage: qxmp4 COMMAND [ARGUMENTS]\n\ncommands:\n");
    for (const auto& command : kCommands)
        std::fprintf(to, "  %-10s %-24s %s\n", command.name, command.usage, command.summary);
    return to == stdout ? 0 : 2;
}

} // namespace

namespace qxmp4 {

int fail(const std::string& message)
{
    std::fprintf(stderr, "qxmp4: %s\n", message.c_str());
    return 1;
}

int usage(const char* name, const char* arguments)
{
    std::fprintf(stderr, "usage: qxmp4 %s %s\n", name, arguments);
    return 2;
}

} // namespace qxmp4

int main(int argc, char** argv)
{
    if (argc < 2) return help(stderr);
    if (!std::strcmp(argv[1], "help") || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))
        return help(stdout);
    qx::mp4::MP4LogSetLevel(qx::mp4::MP4_LOG_WARNING);
    qx::mp4::MP4SetLogCallback(printLog);
    for (const auto& command : kCommands) {
        if (std::strcmp(argv[1], command.name) != 0) continue;
        qxmp4::Arguments arguments(argv + 2, argv + argc);
        return command.run(arguments);
    }
    std::fprintf(stderr, "qxmp4: unknown command \"%s\"\n", argv[1]);
    return help(stderr);
}
