// qxconvert: a thin host program over libqxmedia. `qxconvert --help` lists
// the commands and the exit statuses.

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#ifdef QX_WITH_TCMALLOC
#include <gperftools/malloc_extension.h>
#endif

#include "Commands.h"
#include "Interrupts.h"
#include "Report.h"
#include "qxmedia/core/QXEncoderList.h"
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXVersion.h"

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
        {"version", {"version                       the library's version and its FFmpeg", runVersion}},
        {"encoders", {"encoders                      the H.264/HEVC encoders and the hardware check", runEncoders}},
        {"info", {"info FILE... [--json]         what a source holds", runInfo}},
        {"read", {"read FILE... [--json]         reads a source through the pipeline, counting samples", runRead}},
        {"presets", {"presets                       the presets convert accepts, with what each makes",
                     runPresets}},
        {"convert", {"convert FILE...|DVD_FOLDER [--title N] -o OUT.m4v [--preset ID] [--subtitles FILE]... [--plan] [--progress json]\n"
                     "                                [--optimize] [--add-to-library [NAME]] [--trash-source]\n"
                     "                                converts a source (default preset: Passthrough)",
                     runConvert}},
        {"remux", {"remux FILE... -o OUT.m4v      convert with the Passthrough preset", runRemux}},
        {"update", {"update FILE.m4v [--set KEY=VALUE]... [--chapters FILE] [--remove-track N]... [--subtitles FILE]...\n"
                    "                [--rename]    rewrites tags, chapters and tracks in place", runUpdate}},

        {"library", {"library list|show ID|add FILE [--in-place]|remove ID [--delete] [--library NAME] [--json]\n"
                     "                                the local media library (NAME: tv, music, itunes)",
                     runLibrary}},
        {"mkvwalk", {"mkvwalk FILE                  the Matroska diagnostic walk of a file", runMkvWalk}},
    };
    return table;
}

constexpr char kExitStatuses[] =
    "options (anywhere): -v, --verbose   the library's log lines and whole error objects\n"
    "exit status:\n"
    "  0        done\n"
    "  1        a file could not be opened, read or written (one line on stderr says which and why)\n"
    "  2        wrong arguments, or an output that is one of the inputs (refused before anything is written)\n"
    "  128+N    cancelled by signal N (130 Ctrl-C, 143 SIGTERM, 129 SIGHUP); no output is left behind;\n"
    "           a signal the tool was started with ignored (nohup) stays ignored\n"
    "Outputs are written under a hidden name beside OUT and get their name when complete.\n";

int usage(FILE* to, int status)
{
    std::fprintf(to, "usage: qxconvert [-v] COMMAND [ARGS]\ncommands:\n");
    for (const auto& [name, command] : commands()) std::fprintf(to, "  qxconvert %s\n", command.usage);
    std::fputs(kExitStatuses, to);
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    // First, before any thread or file exists.
    interrupts::block();
    // The pipeline's threads free what other threads allocated; tcmalloc's
    // per-thread caches (32 MiB in all by default) then hold memory no
    // thread needs. 8 MiB costs no measurable time and ~7% of a remux's peak.
#ifdef QX_WITH_TCMALLOC
    MallocExtension::instance()->SetNumericProperty("tcmalloc.max_total_thread_cache_bytes", size_t(8) << 20);
#endif

    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "-v") == 0 || std::strcmp(argv[i], "--verbose") == 0) {
            report::setVerbose(true);
        } else {
            arguments.emplace_back(argv[i]);
        }
    }
    if (!arguments.empty() && (arguments.front() == "--help" || arguments.front() == "-h" ||
                               arguments.front() == "help")) {
        return usage(stdout, 0);
    }
    if (arguments.empty()) return usage(stderr, 2);
    auto it = commands().find(arguments.front());
    if (it == commands().end()) return usage(stderr, 2);
    report::installLogger();
    arguments.erase(arguments.begin());
    return it->second.run(arguments);
}
