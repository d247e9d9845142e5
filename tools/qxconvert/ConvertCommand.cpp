// qxconvert convert FILE... -o OUT [--preset ID] [--subtitles FILE]... [--plan]
// [--progress json] [--optimize] [--add-to-library [ID]] [--trash-source]:
// one conversion through a job (preset, plan, run).
// qxconvert remux is the same with the passthrough preset, and
// qxconvert presets lists the presets convert accepts.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <optional>

#include "Commands.h"
#include "Interrupts.h"
#include "PlanText.h"
#include "ProgressReport.h"
#include "Report.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/source/QXDVDTitleSource.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace {

struct ConvertArguments {
    std::vector<QXURL> inputs;
    QXURL output;
    std::string preset = QXPresetPassthrough;
    std::vector<QXURL> subtitles;
    bool planOnly = false;
    bool jsonProgress = false;
    int title = 0; // of a DVD folder; 0 when none was asked for
    bool optimize = false;
    bool addToLibrary = false;
    std::string libraryIdentifier; // empty: chosen by the video's kind
    bool trashSource = false;
};

constexpr char kUsage[] =
    "usage: qxconvert convert FILE... -o OUT.m4v [--preset ID] [--subtitles FILE]... [--plan] [--progress json]\n"
    "       [--optimize] [--add-to-library [tv|music|itunes]] [--trash-source]\n"
    "       qxconvert convert DVD_FOLDER [--title N] -o OUT.m4v ...\n";

bool isUpdatePreset(const std::string& identifier)
{
    return identifier == QXPresetUpdate || identifier == QXPresetUpdateRename;
}

bool sameText(std::string_view a, std::string_view b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return std::tolower(x) == std::tolower(y); });
}

// The identifier, the identifier without its "QXPreset" prefix, or the
// name, in any case of letters.
std::optional<std::string> findPreset(std::string_view wanted)
{
    constexpr std::string_view prefix = "QXPreset";
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        if (isUpdatePreset(identifier)) continue;
        const auto preset = QXPreset::initWithIdentifier(identifier);
        if (sameText(wanted, identifier) || sameText(wanted, std::string_view(identifier).substr(prefix.size())) ||
            (preset && sameText(wanted, preset->name))) {
            return identifier;
        }
    }
    return std::nullopt;
}

// Null after a usage line. `fixedPreset` (remux) takes no --preset.
std::optional<ConvertArguments> parse(const Arguments& arguments, bool fixedPreset)
{
    ConvertArguments parsed;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (argument == "-o" && hasValue) {
            parsed.output = arguments[++i];
        } else if (argument == "--preset" && hasValue && !fixedPreset) {
            const auto found = findPreset(arguments[++i]);
            if (!found) {
                report::note("unknown preset " + arguments[i] + " (qxconvert presets lists them)");
                return std::nullopt;
            }
            parsed.preset = *found;
        } else if (argument == "--subtitles" && hasValue) {
            parsed.subtitles.emplace_back(arguments[++i]);
        } else if (argument == "--title" && hasValue) {
            parsed.title = std::atoi(arguments[++i].c_str());
            if (parsed.title < 1) {
                std::fprintf(stderr, "qxconvert: --title takes a title number from 1\n%s", kUsage);
                return std::nullopt;
            }
        } else if (argument == "--optimize") {
            parsed.optimize = true;
        } else if (argument == "--add-to-library") {
            parsed.addToLibrary = true;
            if (hasValue) {
                if (auto identifier = libraryIdentifierNamed(arguments[i + 1])) {
                    parsed.libraryIdentifier = *identifier;
                    ++i;
                }
            }
        } else if (argument == "--trash-source") {
            parsed.trashSource = true;
        } else if (argument == "--plan") {
            parsed.planOnly = true;
        } else if (argument == "--progress" && hasValue && arguments[i + 1] == "json") {
            parsed.jsonProgress = true;
            ++i;
        } else if (!argument.empty() && argument.front() == '-') {
            std::fprintf(stderr, "qxconvert: unknown option %s\n%s", argument.c_str(), kUsage);
            return std::nullopt;
        } else {
            parsed.inputs.emplace_back(argument);
        }
    }
    if (parsed.inputs.empty() || parsed.output.empty()) {
        std::fputs(kUsage, stderr);
        return std::nullopt;
    }
    return parsed;
}

// The output must not be one of the files read: refused before anything
// is opened or written.
bool refuseOverwritingAnInput(const ConvertArguments& parsed)
{
    std::vector<QXURL> read = parsed.inputs;
    read.insert(read.end(), parsed.subtitles.begin(), parsed.subtitles.end());
    for (const QXURL& input : read) {
        if (!qx::isSameFile(input, parsed.output)) continue;
        report::failure("refused to write", parsed.output, "it is the input " + input.string() + " itself");
        return true;
    }
    return false;
}

bool subtitlesAreReadable(const ConvertArguments& parsed)
{
    for (const QXURL& file : parsed.subtitles) {
        if (::access(file.c_str(), R_OK) == 0 && std::filesystem::is_regular_file(file)) continue;
        report::failure("cannot open subtitles", file, std::filesystem::exists(file) ? "not a readable file"
                                                                                      : "no such file");
        return false;
    }
    return true;
}

bool takesPart(const QXTrackJob& line)
{
    return line.type != QXTrackJobTypeKeep && line.muxerInput;
}

ProgressReport::Form progressForm(const ConvertArguments& parsed)
{
    if (parsed.jsonProgress) return ProgressReport::Form::Json;
    return ::isatty(STDERR_FILENO) ? ProgressReport::Form::Terminal : ProgressReport::Form::None;
}

// Starts the job and waits for its end, reporting progress; a signal
// cancels it. Answers the process's exit status.
int run(const std::shared_ptr<QXJob>& job, const ConvertArguments& parsed)
{
    const QXMovie& movie = *job->movie;
    const double frameRate = movie.videoTrack ? movie.videoTrack->nominalFrameRate() : 0.0;
    ProgressReport progress(progressForm(parsed), qx::CMTimeGetSeconds(movie.duration()), frameRate);

    job->queue();
    // From here a signal must not end the process: start() makes the
    // partial file. It is only noted until the job can take a cancel.
    interrupts::onInterrupt([] {});
    job->start();
    // Registered after start: a cancel before it would be overwritten by
    // the start's status; a signal that came meanwhile cancels now.
    interrupts::onInterrupt([job] { job->cancel(); });
    std::future<bool> finished = std::async(std::launch::async, [job] { return job->waitUntilFinished(); });
    while (finished.wait_for(std::chrono::milliseconds(250)) != std::future_status::ready) progress.update(*job);
    const bool succeeded = finished.get();
    progress.finish(*job);

    if (succeeded) {
        if (!parsed.jsonProgress) std::printf("wrote %s\n", job->destination.c_str());
        if (job->track && !parsed.jsonProgress) {
            std::printf("added to the library as %s\n", job->track->track.persistentID.c_str());
        }
        if (job->error() && !parsed.jsonProgress) report::note(job->error()->localizedDescription());
        return 0;
    }
    if (job->status == QXJobStatusCancelled) {
        report::failure("cancelled", parsed.output, "nothing was written");
        return interrupts::received() ? interrupts::exitStatus() : 1;
    }
    report::failure("cannot convert " + parsed.inputs.front().string() + " into", parsed.output, job->error());
    return 1;
}

int convert(const ConvertArguments& given)
{
    // Relative paths are taken from the working folder, as the shell means them.
    ConvertArguments parsed = given;
    const QXURL output = std::filesystem::absolute(parsed.output);
    if (refuseOverwritingAnInput(parsed)) return 2;
    if (!subtitlesAreReadable(parsed)) return 1;
    std::vector<QXURL> inputs;
    for (const QXURL& input : parsed.inputs) inputs.push_back(std::filesystem::absolute(input));
    // A DVD folder (VIDEO_TS or the folder above it) stands for the VOB
    // files of one of its titles, joined.
    if (inputs.size() == 1 && std::filesystem::is_directory(inputs.front())) {
        QXErrorRef titleError;
        inputs = QXDVDTitleURLs(inputs.front(), parsed.title > 0 ? parsed.title : 1, &titleError);
        if (inputs.empty()) {
            report::failure("cannot open title " + std::to_string(parsed.title > 0 ? parsed.title : 1) + " of",
                            parsed.inputs.front(), titleError);
            return 1;
        }
    }
    auto movie = openMovie(inputs, parsed.inputs.front());
    if (!movie) return 1;

    auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(parsed.preset));
    if (!job->preset || isUpdatePreset(job->preset->identifier)) {
        // A job converts only movies with a picture; an audio file is tagged in place instead.
        const char* reason = movie->hasProtectedContent() ? "its tracks are copy-protected"
                             : !movie->isEncodeable()     ? "it has no video track (tag an audio file with qxmp4)"
                                                          : "none of its tracks can be copied or encoded";
        report::failure("cannot convert", parsed.inputs.front(), reason);
        return 1;
    }
    job->metadata = movie->metadata;
    job->chapters = movie->chapters;
    job->destination = output;
    job->optimize = parsed.optimize;
    job->addToiTunes = parsed.addToLibrary;
    job->libraryIdentifier = parsed.libraryIdentifier;
    job->moveToTrash = parsed.trashSource;
    if (!parsed.subtitles.empty()) {
        std::vector<QXURL> subtitles;
        for (const QXURL& file : parsed.subtitles) subtitles.push_back(std::filesystem::absolute(file));
        job->attachSubtitleTracksWithURLs(subtitles);
    }
    if (parsed.planOnly) {
        printPlan(*job);
        return 0;
    }
    for (const QXTrackJobRef& line : job->tracks) {
        if (line->type != QXTrackJobTypeKeep && !line->muxerInput) {
            report::note("left out " + line->source->description() + ": no writer for it yet");
        }
    }
    if (std::none_of(job->tracks.begin(), job->tracks.end(), [](const auto& line) { return takesPart(*line); })) {
        report::failure("cannot convert", parsed.inputs.front(), "no track of it can go into an MP4");
        return 1;
    }
    return run(job, parsed);
}

} // namespace

int runConvert(const Arguments& arguments)
{
    const auto parsed = parse(arguments, false);
    return parsed ? convert(*parsed) : 2;
}

int runRemux(const Arguments& arguments)
{
    const auto parsed = parse(arguments, true);
    return parsed ? convert(*parsed) : 2;
}

int runPresets(const Arguments&)
{
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        if (isUpdatePreset(identifier)) continue;
        const auto preset = QXPreset::initWithIdentifier(identifier);
        std::printf("%-26s %-20s %s\n", identifier.c_str(), preset->name.c_str(), preset->toolTip.c_str());
    }
    return 0;
}
