// qxmedia.Preset, qxmedia.PlanLine and qxmedia.Job: a plan made from a
// preset, edited, then run with a progress callback.
//
// A run holds no GIL while the job works. The waiting thread takes the GIL
// only to call the progress callback and to look for signals, so a cancel
// from any Python thread (or from the callback itself) goes through.

#include <pybind11/functional.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <future>
#include <optional>

#include "Bindings.h"
#include "PyErrors.h"
#include "PyMovie.h"
#include "PyValues.h"
#include "qxmedia/job/QXJob.h"
#include "qxmedia/job/QXPreset.h"
#include "qxmedia/job/QXTrackJob.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/platform/progress/QXProgress.h"
#include "qxmedia/source/QXMovie.h"

namespace py = pybind11;

namespace qxpy {

namespace {

bool isUpdatePreset(const std::string& identifier)
{
    return identifier == QXPresetUpdate || identifier == QXPresetUpdateRename;
}

bool sameText(std::string_view a, std::string_view b)
{
    return std::ranges::equal(a, b, [](char x, char y) { return std::tolower(x) == std::tolower(y); });
}

// A preset by identifier, by identifier without "QXPreset", or by name, in
// any case of letters. The update presets rewrite a source in place and
// are no conversion; write_tags does that part.
std::shared_ptr<QXPreset> findPreset(std::string_view wanted)
{
    constexpr std::string_view prefix = "QXPreset";
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        if (isUpdatePreset(identifier)) continue;
        auto preset = QXPreset::initWithIdentifier(identifier);
        if (sameText(wanted, identifier) || sameText(wanted, std::string_view(identifier).substr(prefix.size())) ||
            sameText(wanted, preset->name)) {
            return preset;
        }
    }
    throw py::value_error("no preset is called " + std::string(wanted));
}

std::vector<std::string> presetIdentifiers()
{
    std::vector<std::string> identifiers;
    for (const std::string& identifier : QXPreset::presetIdentifiers()) {
        if (!isUpdatePreset(identifier)) identifiers.push_back(identifier);
    }
    return identifiers;
}

const char* statusName(int64_t status)
{
    static const char* const names[] = {"idle",   "queued",   "processing", "optimizing",
                                        "adding", "finished", "failed",     "cancelled"};
    return status >= 0 && status < int64_t(std::size(names)) ? names[status] : "unknown";
}

const char* actionName(int64_t type)
{
    return type == QXTrackJobTypeEncode ? "encode" : type == QXTrackJobTypeKeep ? "keep" : "copy";
}

bool takesPart(const QXTrackJob& line)
{
    return line.type != QXTrackJobTypeKeep && line.muxerInput;
}

// The plan may be edited only before the run.
void requireIdle(const QXJob& job)
{
    if (job.status != QXJobStatusIdle) throw py::value_error("the job has started; its plan is fixed");
}

std::shared_ptr<QXJob> makeJob(const std::shared_ptr<QXMovie>& movie, const py::object& presetOrName,
                               const std::optional<std::filesystem::path>& destination)
{
    std::shared_ptr<QXPreset> preset = presetOrName.is_none() ? QXPreset::initWithIdentifier(QXPresetPassthrough)
                                       : py::isinstance<py::str>(presetOrName)
                                           ? findPreset(presetOrName.cast<std::string>())
                                           : presetOrName.cast<std::shared_ptr<QXPreset>>();
    std::shared_ptr<QXJob> job;
    {
        py::gil_scoped_release unlocked;
        job = QXJob::initWithMovie(movie, preset);
    }
    if (!job->preset || isUpdatePreset(job->preset->identifier)) {
        throw py::value_error("none of the tracks of " + movie->fileURL.string() + " can be copied or encoded");
    }
    // The job's tags and chapters are its own: editing them leaves the movie's alone.
    job->metadata = movie->metadata ? movie->metadata->copy() : QXMetaData::init();
    job->chapters = chapterTrackFrom(chaptersOf(movie->chapters));
    if (destination) job->destination = std::filesystem::absolute(*destination);
    return job;
}

void checkRunnable(const QXJob& job)
{
    if (job.status != QXJobStatusIdle) throw py::value_error("a job runs once");
    if (job.destination.empty()) throw py::value_error("the job has no destination");
    if (const QXURL source = job.sourceAtDestination(); !source.empty()) {
        throw py::value_error("the destination is the source " + source.string() + " itself");
    }
    if (std::none_of(job.tracks.begin(), job.tracks.end(), [](const auto& line) { return takesPart(*line); })) {
        throw py::value_error("no line of the plan can go into an MP4");
    }
}

double fractionOf(const QXJob& job)
{
    const std::shared_ptr<QXProgress> progress = job.progress;
    return progress ? progress->fractionCompleted() : 0.0;
}

// Runs the job to its end. A callback that raises, or a signal such as
// Ctrl-C, cancels the job; its exception is raised once the job has ended.
void run(const std::shared_ptr<QXJob>& job, const std::function<void(double)>& progress, double interval)
{
    checkRunnable(*job);
    if (!(interval > 0)) throw py::value_error("the progress interval must be positive");
    const auto period = std::chrono::duration<double>(interval);
    std::optional<py::error_already_set> pending;
    bool succeeded = false;
    {
        py::gil_scoped_release unlocked;
        job->queue();
        job->start();
        std::future<bool> finished = std::async(std::launch::async, [job] { return job->waitUntilFinished(); });
        while (finished.wait_for(period) != std::future_status::ready) {
            // A cancelled job shows a full bar on its way out: not reported.
            if (pending || job->status >= QXJobStatusFinished) continue;
            py::gil_scoped_acquire locked;
            try {
                if (PyErr_CheckSignals() != 0) throw py::error_already_set();
                if (progress) progress(fractionOf(*job));
            } catch (py::error_already_set& error) {
                pending.emplace(std::move(error));
                py::gil_scoped_release again;
                job->cancel();
            }
        }
        succeeded = finished.get();
    }
    if (pending) {
        pending->restore();
        throw py::error_already_set();
    }
    if (!succeeded) raise(job->error(), "the conversion into " + job->destination.string() + " failed");
    if (progress) progress(1.0);
}

void bindPreset(py::module_& module)
{
    py::class_<QXPreset, std::shared_ptr<QXPreset>>(module, "Preset", "What a job makes: codecs, sizes, rates.")
        .def(py::init(&findPreset), py::arg("name"))
        .def_property_readonly("identifier", [](const QXPreset& preset) { return preset.identifier; })
        .def_property_readonly("name", [](const QXPreset& preset) { return preset.name; })
        .def_property_readonly("summary", [](const QXPreset& preset) { return preset.toolTip; })
        .def_property_readonly("hevc", &QXPreset::encodesHEVC)
        .def_readwrite("require_encode", &QXPreset::requireEncode)
        .def_readwrite("allow_surround_audio", &QXPreset::allowSurroundAudio)
        .def_readwrite("audio_bitrate", &QXPreset::audioBitrate)
        .def_readwrite("video_width", &QXPreset::videoWidth)
        .def_readwrite("video_height", &QXPreset::videoHeight)
        .def_property("encoder_quality", &QXPreset::encoderQuality, &QXPreset::setEncoderQuality,
                      "0 to 100")
        .def("copy", &QXPreset::copy, "An independent preset with the same values and a new identifier.")
        .def("__repr__", [](const QXPreset& preset) { return "<qxmedia.Preset " + preset.identifier + ">"; });
    module.def("presets", &presetIdentifiers, "The identifiers of the built-in conversion presets.");
}

void bindPlanLine(py::module_& module)
{
    py::class_<QXTrackJob, std::shared_ptr<QXTrackJob>>(module, "PlanLine",
                                                        "One line of a plan: a source track and what it becomes.")
        .def_readonly("source", &QXTrackJob::source)
        .def_readonly("destination", &QXTrackJob::destination, "The track to be written; its fields can be edited.")
        .def_property_readonly("action", [](const QXTrackJob& line) { return actionName(line.type); },
                               "'copy', 'encode' or 'keep'")
        .def_property_readonly("writable", &takesPart, "False when no writer handles the track's codec yet.")
        .def("__repr__", [](const QXTrackJob& line) { return "<qxmedia.PlanLine " + line.description() + ">"; });
}

void bindJobClass(py::module_& module)
{
    py::class_<QXJob, std::shared_ptr<QXJob>>(module, "Job", "One conversion of a movie into an M4V file.")
        .def(py::init(&makeJob), py::arg("movie"), py::arg("preset") = py::none(),
             py::arg("destination") = py::none())
        .def_property(
            "destination", [](const QXJob& job) { return job.destination; },
            [](QXJob& job, const std::filesystem::path& path) {
                requireIdle(job);
                job.destination = std::filesystem::absolute(path);
            })
        .def_readonly("movie", &QXJob::movie)
        .def_readonly("preset", &QXJob::preset)
        .def_property_readonly("plan", [](const QXJob& job) { return job.tracks; })
        .def("apply_preset", [](QXJob& job, const py::object& preset) {
            requireIdle(job);
            job.applyPreset(py::isinstance<py::str>(preset) ? findPreset(preset.cast<std::string>())
                                                            : preset.cast<std::shared_ptr<QXPreset>>());
        }, py::arg("preset"), "Plans the job again under another preset.")
        .def("remove", [](QXJob& job, const std::shared_ptr<QXTrackJob>& line) {
            requireIdle(job);
            if (std::find(job.tracks.begin(), job.tracks.end(), line) == job.tracks.end()) {
                throw py::value_error("the line is not in this job's plan");
            }
            job.removeTrackJob(line);
        }, py::arg("line"), "Takes a line out of the plan.")
        .def("attach_subtitles", [](QXJob& job, const std::vector<std::filesystem::path>& paths) {
            requireIdle(job);
            std::vector<QXURL> urls;
            for (const auto& path : paths) urls.push_back(std::filesystem::absolute(path));
            py::gil_scoped_release unlocked;
            job.attachSubtitleTracksWithURLs(urls);
        }, py::arg("paths"), "Adds the text subtitles of each file to the plan.")
        .def_property(
            "chapters", [](const QXJob& job) { return chaptersOf(job.chapters); },
            [](QXJob& job, const std::vector<Chapter>& chapters) {
                requireIdle(job);
                job.chapters = chapterTrackFrom(chapters);
            })
        .def_property_readonly("tags", [](const QXJob& job) { return toPython(job.metadata->changedMetadata()); })
        .def("set_tag", [](QXJob& job, const std::string& key, const py::object& value) {
            requireIdle(job);
            const auto& keys = QXMetaData::defaultKeys();
            if (std::find(keys.begin(), keys.end(), key) == keys.end()) throw py::key_error("no tag is called " + key);
            if (value.is_none()) {
                job.metadata->setNilValueForKey(key);
            } else {
                job.metadata->setValue(fromPython(value), key);
            }
        }, py::arg("key"), py::arg("value"), "Sets a tag of the output; None clears it.")
        .def_property_readonly("status", [](const QXJob& job) { return statusName(job.status); })
        .def_property_readonly("progress", &fractionOf)
        .def("run", &run, py::arg("progress") = nullptr, py::arg("interval") = 0.25,
             "Converts and returns once the output is complete; raises qxmedia.Error or qxmedia.Cancelled.")
        .def("cancel", &QXJob::cancel, py::call_guard<py::gil_scoped_release>(),
             "Stops a running job from any thread; run() then raises qxmedia.Cancelled.")
        .def("__repr__", [](const QXJob& job) {
            return "<qxmedia.Job " + job.destination.string() + " " + statusName(job.status) + ">";
        });
}

} // namespace

void bindJob(py::module_& module)
{
    bindPreset(module);
    bindPlanLine(module);
    bindJobClass(module);
}

} // namespace qxpy
