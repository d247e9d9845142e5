// qxconvert update FILE.m4v [--set KEY=VALUE]... [--chapters FILE]
// [--remove-track N]... [--subtitles FILE]... [--rename]: rewrites the tags,
// chapters and tracks of an MP4 file in place through an update job. No
// sample of the file is copied; an interrupted update leaves the file as it
// was or fully updated.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <optional>

#include "Commands.h"
#include "Interrupts.h"
#include "Report.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/source/QXChapterTrack.h"
#include "qxmedia/source/QXMovie.h"

namespace {

constexpr char kUsage[] = "usage: qxconvert update FILE.m4v [--set KEY=VALUE]... [--chapters FILE] "
                          "[--remove-track N]... [--subtitles FILE]... [--rename]\n";

struct UpdateArguments {
    QXURL file;
    std::vector<std::pair<std::string, std::string>> values;
    QXURL chapters;
    std::vector<int32_t> removedTracks;
    std::vector<QXURL> subtitles;
    bool rename = false;
};

std::optional<UpdateArguments> parse(const Arguments& arguments)
{
    UpdateArguments parsed;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (argument == "--set" && hasValue && arguments[i + 1].find('=') != std::string::npos) {
            const std::string& pair = arguments[++i];
            parsed.values.emplace_back(pair.substr(0, pair.find('=')), pair.substr(pair.find('=') + 1));
        } else if (argument == "--chapters" && hasValue) {
            parsed.chapters = std::filesystem::absolute(arguments[++i]);
        } else if (argument == "--remove-track" && hasValue && std::atoi(arguments[i + 1].c_str()) > 0) {
            parsed.removedTracks.push_back(std::atoi(arguments[++i].c_str()));
        } else if (argument == "--subtitles" && hasValue) {
            parsed.subtitles.push_back(std::filesystem::absolute(arguments[++i]));
        } else if (argument == "--rename") {
            parsed.rename = true;
        } else if (argument.empty() || argument.front() == '-' || !parsed.file.empty()) {
            std::fprintf(stderr, "qxconvert: unexpected argument %s\n%s", argument.c_str(), kUsage);
            return std::nullopt;
        } else {
            parsed.file = std::filesystem::absolute(argument);
        }
    }
    if (parsed.file.empty()) {
        std::fputs(kUsage, stderr);
        return std::nullopt;
    }
    return parsed;
}

// Texts, numbers and flags take the text as it is; a date is read from
// "yyyy-MM-dd", a list from comma-separated names; an empty value clears.
bool setValue(QXMetaData& metadata, const std::string& key, const std::string& text)
{
    const auto& keys = QXMetaData::defaultKeys();
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) return false;
    if (text.empty()) {
        metadata.setValue(QXValue(), key);
        return true;
    }
    metadata.setValue(QXValue(text), key);
    if (metadata.valueForKey(key).isNull()) {
        if (auto date = QXMetaData::dateFromMetadata(text.c_str())) metadata.setValue(QXValue(*date), key);
    }
    if (metadata.valueForKey(key).isNull()) {
        QXArray names;
        for (size_t start = 0; start <= text.size();) {
            const size_t comma = std::min(text.find(',', start), text.size());
            names.emplace_back(text.substr(start, comma - start));
            start = comma + 1;
        }
        metadata.setValue(QXValue(std::move(names)), key);
    }
    return !metadata.valueForKey(key).isNull();
}

std::string safeName(std::string text)
{
    for (char& c : text)
        if (c == '/' || c == '\0') c = '-';
    while (!text.empty() && text.front() == '.') text.erase(text.begin());
    return text;
}

// "Show - S01E02 - Title.m4v" for an episode, else "Title (Year).m4v" or
// "Title.m4v"; empty without a title. The folder stays.
QXURL renamedURL(const QXURL& file, const QXMetaData& metadata)
{
    const std::string title = safeName(metadata.name.get() ? *metadata.name.get() : "");
    const std::string show = safeName(metadata.show.get() ? *metadata.show.get() : "");
    if (title.empty()) return {};
    std::string name = title;
    if (!show.empty() && metadata.episodeNumber > 0) {
        char episode[32];
        std::snprintf(episode, sizeof episode, " - S%02lluE%02llu - ", (unsigned long long)metadata.seasonNumber,
                      (unsigned long long)metadata.episodeNumber);
        name = show + episode + title;
    } else if (auto released = metadata.releaseDate.get()) {
        const std::string day = QXMetaData::formattedDate(*released);
        if (day.size() >= 4) name += " (" + day.substr(0, 4) + ")";
    }
    return file.parent_path() / (name + file.extension().string());
}

// Applies the arguments to the job's plan; false after one line saying why.
bool planUpdate(QXJob& job, const UpdateArguments& parsed)
{
    QXMovie& movie = *job.movie;
    job.metadata = movie.metadata ? movie.metadata : QXMetaData::init();
    for (const auto& [key, value] : parsed.values) {
        if (setValue(*job.metadata, key, value)) continue;
        report::failure("cannot set " + key + " of", parsed.file,
                        "not a key of the record, or not a value of its kind");
        return false;
    }
    job.chapters = movie.chapters ? movie.chapters : QXChapterTrack::init();
    if (!parsed.chapters.empty()) {
        QXErrorRef error;
        if (!job.chapters->importChaptersFromURL(parsed.chapters, &error)) {
            report::failure("cannot read chapters", parsed.chapters,
                            error ? error : QXErrorRef());
            return false;
        }
    }
    for (int32_t id : parsed.removedTracks) {
        auto line = std::find_if(job.tracks.begin(), job.tracks.end(),
                                 [id](const QXTrackJobRef& l) { return l->source && l->source->trackID == id; });
        if (line == job.tracks.end()) {
            report::failure("cannot remove track " + std::to_string(id) + " of", parsed.file, "no such track");
            return false;
        }
        job.removeTrackJob(*line);
    }
    for (const QXURL& file : parsed.subtitles) {
        if (::access(file.c_str(), R_OK) == 0) continue;
        report::failure("cannot open subtitles", file, "no such readable file");
        return false;
    }
    if (!parsed.subtitles.empty()) job.attachSubtitleTracksWithURLs(parsed.subtitles);
    job.destination = parsed.file;
    if (parsed.rename) {
        job.destination = renamedURL(parsed.file, *job.metadata);
        if (job.destination.empty()) {
            report::failure("cannot rename", parsed.file, "it has no title to name it by");
            return false;
        }
    }
    return true;
}

int update(const UpdateArguments& parsed)
{
    auto movie = openMovie({parsed.file});
    if (!movie) return 1;
    const char* presetIdentifier = parsed.rename ? QXPresetUpdateRename : QXPresetUpdate;
    auto job = QXJob::initWithMovie(movie, QXPreset::initWithIdentifier(presetIdentifier));
    if (!job->preset || job->preset->identifier != presetIdentifier) {
        report::failure("cannot update", parsed.file, "it is not an MP4 file that can be changed in place");
        return 1;
    }
    if (!planUpdate(*job, parsed)) return 1;

    job->queue();
    // A signal cancels the job, which abandons its edit: the file stays as it was.
    interrupts::onInterrupt([] {});
    job->start();
    interrupts::onInterrupt([job] { job->cancel(); });
    const bool succeeded = job->waitUntilFinished();
    if (succeeded) {
        std::printf("updated %s\n", job->destination.c_str());
        return 0;
    }
    if (job->status == QXJobStatusCancelled) {
        report::failure("cancelled", parsed.file, "the file was left as it was");
        return interrupts::received() ? interrupts::exitStatus() : 1;
    }
    report::failure("cannot update", parsed.file, job->error());
    return 1;
}

} // namespace

int runUpdate(const Arguments& arguments)
{
    const auto parsed = parse(arguments);
    return parsed ? update(*parsed) : 2;
}
