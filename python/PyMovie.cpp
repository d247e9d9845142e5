// qxmedia.Movie, qxmedia.Track and qxmedia.Chapter.

#include "PyMovie.h"

#include <pybind11/operators.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <cstring>
#include <filesystem>

#include "Bindings.h"
#include "PyErrors.h"
#include "PyValues.h"
#include "qxmedia/metadata/QXMetaData.h"
#include "qxmedia/source/QXAudioTrack.h"
#include "qxmedia/source/QXMovie.h"
#include "qxmedia/source/QXSubtitleTrack.h"
#include "qxmedia/source/QXVideoTrack.h"

namespace py = pybind11;

namespace qxpy {

namespace {

// Chapters are stored on a millisecond clock.
constexpr int32_t kChapterTimeScale = 1000;

const char* kindOf(const QXTrack& track)
{
    const QXMediaType type = track.mediaType();
    if (type && std::strcmp(type, AVMediaTypeVideo) == 0) return "video";
    if (type && std::strcmp(type, AVMediaTypeAudio) == 0) return "audio";
    if (type && std::strcmp(type, AVMediaTypeSubtitle) == 0) return "subtitle";
    return "other";
}

std::shared_ptr<QXMovie> openMovie(const std::vector<std::filesystem::path>& paths)
{
    if (paths.empty()) throw py::value_error("a movie needs at least one file");
    std::vector<QXURL> urls;
    for (const auto& path : paths) urls.push_back(std::filesystem::absolute(path));
    QXErrorRef error;
    std::shared_ptr<QXMovie> movie;
    {
        py::gil_scoped_release unlocked;
        movie = QXMovie::initWithURLs(urls, &error);
    }
    if (!movie) raise(error, "cannot open " + paths.front().string());
    return movie;
}

py::dict tagsOf(const std::shared_ptr<QXMetaData>& metadata)
{
    return metadata ? toPython(metadata->changedMetadata()) : py::dict();
}

void bindTrack(py::module_& module)
{
    py::class_<QXTrack, std::shared_ptr<QXTrack>>(module, "Track", "One stream of a movie, or a track of a plan.")
        .def_property_readonly("id", [](const QXTrack& track) { return track.trackID; })
        .def_property_readonly("kind", &kindOf, "'video', 'audio', 'subtitle' or 'other'")
        .def_property_readonly("format", &QXTrack::format)
        .def_property_readonly("duration", [](const QXTrack& track) { return seconds(track.duration); })
        .def_property_readonly("muxable", &QXTrack::isMuxable)
        .def_readwrite("language", &QXTrack::language)
        .def_readwrite("name", &QXTrack::name)
        .def_readwrite("enabled", &QXTrack::enabled)
        .def_property_readonly("width", [](const QXTrack& track) -> py::object {
            auto visual = dynamic_cast<const QXVisualTrack*>(&track);
            return visual ? py::int_(visual->width) : py::object(py::none());
        })
        .def_property_readonly("height", [](const QXTrack& track) -> py::object {
            auto visual = dynamic_cast<const QXVisualTrack*>(&track);
            return visual ? py::int_(visual->height) : py::object(py::none());
        })
        .def_property_readonly("frame_rate", [](const QXTrack& track) -> py::object {
            auto video = dynamic_cast<const QXVideoTrack*>(&track);
            return video ? py::float_(video->nominalFrameRate()) : py::object(py::none());
        })
        .def_property_readonly("channels", [](const QXTrack& track) -> py::object {
            auto audio = dynamic_cast<const QXAudioTrack*>(&track);
            return audio ? py::int_(audio->channels) : py::object(py::none());
        })
        .def_property_readonly("sample_rate", [](const QXTrack& track) -> py::object {
            auto audio = dynamic_cast<const QXAudioTrack*>(&track);
            return audio ? py::int_(audio->sample_rate) : py::object(py::none());
        })
        .def("__repr__", [](const QXTrack& track) {
            return "<qxmedia.Track " + std::to_string(track.trackID) + " " + kindOf(track) + ": " +
                   track.displayDescription() + ">";
        });
}

void bindChapter(py::module_& module)
{
    py::class_<Chapter>(module, "Chapter", "A named point of the time line; start in seconds.")
        .def(py::init([](std::string title, double start) { return Chapter {std::move(title), start}; }),
             py::arg("title"), py::arg("start"))
        .def_readwrite("title", &Chapter::title)
        .def_readwrite("start", &Chapter::start)
        .def(py::self == py::self)
        .def("__repr__", [](const Chapter& chapter) {
            return "Chapter(" + std::string(py::repr(py::str(chapter.title))) + ", " +
                   std::string(py::repr(py::float_(chapter.start))) + ")";
        });
}

void bindMovieClass(py::module_& module)
{
    py::class_<QXMovie, std::shared_ptr<QXMovie>>(module, "Movie",
                                                  "A source: one media file, or several played as one.")
        .def(py::init([](const std::filesystem::path& path) { return openMovie({path}); }), py::arg("path"))
        .def(py::init(&openMovie), py::arg("paths"))
        .def_property_readonly("path", [](const QXMovie& movie) { return movie.fileURL; })
        .def_property_readonly("paths", [](const QXMovie& movie) { return movie.fileURLs; })
        .def_property_readonly("format", [](const QXMovie& movie) { return movie.format; })
        .def_property_readonly("duration", [](const QXMovie& movie) { return seconds(movie.duration()); })
        .def_property_readonly("tracks", [](const QXMovie& movie) { return movie.tracks; })
        .def_property_readonly("chapters", [](const QXMovie& movie) { return chaptersOf(movie.chapters); })
        .def_property_readonly("tags", [](const QXMovie& movie) { return tagsOf(movie.metadata); },
                               "The source's tags by key, as the framework names them.")
        .def("__repr__", [](const QXMovie& movie) {
            return "<qxmedia.Movie " + movie.fileURL.string() + ", " + std::to_string(movie.tracks.size()) +
                   " tracks>";
        });
}

} // namespace

std::vector<Chapter> chaptersOf(const std::shared_ptr<QXChapterTrack>& track)
{
    std::vector<Chapter> chapters;
    if (!track) return chapters;
    for (const QXChapterRef& chapter : track->chapters) {
        chapters.push_back({chapter->title.value_or(""), qx::CMTimeGetSeconds(chapter->timestamp)});
    }
    return chapters;
}

std::shared_ptr<QXChapterTrack> chapterTrackFrom(const std::vector<Chapter>& chapters)
{
    auto track = QXChapterTrack::init();
    for (const Chapter& chapter : chapters) {
        track->chapters.push_back(
            QXChapter::init(chapter.title, qx::CMTimeMakeWithSeconds(chapter.start, kChapterTimeScale)));
    }
    return track;
}

void bindMovie(py::module_& module)
{
    bindTrack(module);
    bindChapter(module);
    bindMovieClass(module);
}

} // namespace qxpy
