// qxmp4: inspection and in-place editing of MP4 files with the project's
// own MP4 layer.

#include "Commands.h"

#include "qxmedia/mp4/MP4Log.h"
#include "qxmedia/version.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// One line per command; add new commands here.
const qxmp4::Command kCommands[] = {
    {"dump", "FILE", "print the box tree with the fields that matter", qxmp4::dumpCommand},
    {"optimize", "IN OUT", "write a copy with the movie header first", qxmp4::optimizeCommand},
    {"tags", "FILE", "print the tags and free-form items as JSON", qxmp4::tagsCommand},
    {"set", "FILE KEY=VALUE...", "edit tags in place; KEY is a code or ----:MEAN:NAME, an empty VALUE removes", qxmp4::setCommand},
    {"chapters", "FILE", "print the chapters as JSON", qxmp4::chaptersCommand},
};

bool gVerbose = false;
std::string gReason; // the first error the layer reported

// Every line of the layer with --verbose; otherwise only the first error is
// kept, as the reason of the one line a failure prints.
void printLog(int level, const char* format, va_list arguments)
{
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    if (gVerbose)
        std::fprintf(stderr, "qxmp4: %s: %s\n", level <= qx::mp4::MP4_LOG_ERROR ? "error" : "note", text);
    else if (level <= qx::mp4::MP4_LOG_ERROR && gReason.empty())
        gReason = text;
}

int help(FILE* to)
{
    std::fprintf(to, "usage: qxmp4 [--verbose] COMMAND [ARGUMENTS] | --version\n\ncommands:\n");
    for (const auto& command : kCommands)
        std::fprintf(to, "  %-10s %-24s %s\n", command.name, command.usage, command.summary);
    return to == stdout ? 0 : 2;
}

} // namespace

namespace qxmp4 {

int fail(const std::string& message)
{
    if (gReason.empty() || gVerbose)
        std::fprintf(stderr, "qxmp4: %s\n", message.c_str());
    else
        std::fprintf(stderr, "qxmp4: %s: %s\n", message.c_str(), gReason.c_str());
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
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--verbose") || !std::strcmp(argv[i], "-v"))
            gVerbose = true;
        else
            words.emplace_back(argv[i]);
    }
    if (words.empty()) return help(stderr);
    if (words[0] == "help" || words[0] == "--help" || words[0] == "-h") return help(stdout);
    if (words[0] == "--version") {
        std::printf("qxmp4 %s\n", QXMEDIA_VERSION_STRING);
        return 0;
    }
    qx::mp4::MP4LogSetLevel(gVerbose ? qx::mp4::MP4_LOG_INFO : qx::mp4::MP4_LOG_ERROR);
    qx::mp4::MP4SetLogCallback(printLog);
    for (const auto& command : kCommands) {
        if (words[0] != command.name) continue;
        return command.run(qxmp4::Arguments(words.begin() + 1, words.end()));
    }
    std::fprintf(stderr, "qxmp4: unknown command \"%s\"\n", words[0].c_str());
    return help(stderr);
}
