// qxconvert: a thin host program over libqxmedia.
//
//   qxconvert version            the library's version and its FFmpeg
//   qxconvert encoders           the H.264/HEVC encoders and the hardware check
//   qxconvert info FILE... [--json]   what a source holds
//   qxconvert read FILE... [--json]   reads a source through the pipeline
//   qxconvert remux FILE... -o OUT    copies what an MP4 can hold into one
//
// Log lines at warning and above go to stderr (all of them with -v).

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXVersion.h"
#include "Commands.h"

namespace {

int gVerbosity = QXLogFlagWarning;

} // namespace

void installLogger(bool verbose)
{
    if (verbose) gVerbosity = QXLogFlagVerbose;
    QXMedia::sharedMedia().setLogCallback([](bool, int32_t flag, int32_t, const char*, const char*, uint64_t,
                                             const QXValue*, const char* format, va_list arguments) {
        if (flag > gVerbosity) return;
        static const char* names[] = {"", "error", "warning", "", "info", "", "", "", "debug"};
        const char* name = flag < 9 ? names[flag] : "verbose";
        char buffer[4096];
        std::vsnprintf(buffer, sizeof buffer, format, arguments);
        std::fprintf(stderr, "[%s] %s\n", name, buffer);
    });
}

int runVersion(const Arguments&)
{
    std::printf("QXMedia %s\n%s\n", QXMediaVersionString(), QXMediaFFmpegDescription().c_str());
    return 0;
}

int runEncoders(const Arguments&)
{
    for (const QXEncoderInfo& info : QXEncoderList::copyVideoEncoderList()) {
        std::printf("%-16s %-5s %-9s %s (%s)\n", info.encoderID.c_str(), info.isHEVC ? "HEVC" : "H.264",
                    info.isHardware ? "hardware" : "software", info.displayName.c_str(), info.encoderName.c_str());
    }
    std::printf("hardware HEVC encoder: %s\n", QXMedia::sharedMedia().hasHardwareHEVCEncoder() ? "yes" : "no");
    return 0;
}

namespace {

struct Command {
    const char* usage;
    std::function<int(const std::vector<std::string>&)> run;
};

const std::map<std::string, Command>& commands()
{
    static const std::map<std::string, Command> table = {
        {"version", {"version", runVersion}},
        {"encoders", {"encoders", runEncoders}},
        {"info", {"info FILE... [--json]", runInfo}},
        {"read", {"read FILE... [--json]", runRead}},
        {"remux", {"remux FILE... -o OUT.m4v", runRemux}},
        {"mkvwalk", {"mkvwalk FILE", runMkvWalk}},
    };
    return table;
}

int usage()
{
    std::fprintf(stderr, "usage: qxconvert [-v] COMMAND [ARGS]\ncommands:\n");
    for (const auto& [name, command] : commands()) std::fprintf(stderr, "  qxconvert %s\n", command.usage);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> arguments(argv + 1, argv + argc);
    bool verbose = false;
    if (!arguments.empty() && arguments.front() == "-v") {
        verbose = true;
        arguments.erase(arguments.begin());
    }
    if (arguments.empty()) return usage();
    auto it = commands().find(arguments.front());
    if (it == commands().end()) return usage();
    installLogger(verbose);
    arguments.erase(arguments.begin());
    return it->second.run(arguments);
}
