// The local media library from Python: its tracks with their tags, adding
// and removing files.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include "Bindings.h"
#include "PyErrors.h"
#include "PyValues.h"
#include "qxmedia/library/QXLibraryMetadata.h"
#include "qxmedia/library/QXMediaManager.h"
#include "qxmedia/metadata/QXMetaData.h"

namespace py = pybind11;

namespace qxpy {

namespace {

using Library = std::shared_ptr<QXMediaManagerApplication>;
using LibraryTrack = std::shared_ptr<QXMediaManagerTrack>;

Library openLibrary(const std::string& name)
{
    const char* identifier = name == "tv"       ? QXLibraryTVIdentifier
                             : name == "music"  ? QXLibraryMusicIdentifier
                             : name == "itunes" ? QXLibraryITunesIdentifier
                                                : nullptr;
    Library library = QXMediaManagerApplication::applicationWithBundleIdentifier(identifier ? identifier : name);
    if (!library) throw py::value_error("no media library named " + name);
    return library;
}

py::object optionalPath(const std::optional<QXURL>& url)
{
    return url ? py::cast(*url) : py::none();
}

} // namespace

void bindLibrary(py::module_& module)
{
    py::class_<QXMediaManagerTrack, LibraryTrack>(module, "LibraryTrack", "A file track of a media library.")
        .def_property_readonly("persistent_id", [](const QXMediaManagerTrack& track) { return track.track.persistentID; })
        .def_property_readonly("media_kind", [](const QXMediaManagerTrack& track) { return track.track.mediaKind; })
        .def_property_readonly("location", [](const QXMediaManagerTrack& track) { return optionalPath(track.location()); })
        .def_property_readonly("date_added", [](const QXMediaManagerTrack& track) {
            const auto date = track.dateAdded();
            return date ? toPython(QXValue(*date)) : py::none();
        })
        .def_property_readonly("tags", [](const QXMediaManagerTrack& track) {
            return toPython(track.metadata()->changedMetadata());
        }, "The track's tags by key, as the framework names them.")
        .def("refresh", [](QXMediaManagerTrack& track) {
            py::gil_scoped_release unlocked;
            track.refresh();
        }, "Reads the file's tags into the track again.")
        .def("reveal", &QXMediaManagerTrack::reveal, "The folder that holds the file.");

    py::class_<QXMediaManagerApplication, Library>(module, "Library",
                                                   "A local media library: tv (default), music, itunes.")
        .def(py::init(&openLibrary), py::arg("name") = "tv")
        .def_readonly("identifier", &QXMediaManagerApplication::identifier)
        .def("tracks", [](QXMediaManagerApplication& library) {
            py::gil_scoped_release unlocked;
            return library.fileTracks();
        })
        .def("track", [](QXMediaManagerApplication& library, const std::string& persistentID) {
            LibraryTrack track = library.trackWithPersistentID(persistentID);
            if (!track) throw py::key_error(persistentID);
            return track;
        }, py::arg("persistent_id"))
        .def("add", [](QXMediaManagerApplication& library, const std::filesystem::path& path, bool copy) {
            QXErrorRef error;
            LibraryTrack track;
            {
                py::gil_scoped_release unlocked;
                library.copiesFiles = copy;
                track = library.add(path, &error);
            }
            if (!track) raise(error, "cannot add " + path.string());
            return track;
        }, py::arg("path"), py::arg("copy") = true,
             "Files a video: copied into the library folder, or left where it is.")
        .def("remove", [](QXMediaManagerApplication& library, const std::string& persistentID, bool deleteFile) {
            QXErrorRef error;
            bool removed;
            {
                py::gil_scoped_release unlocked;
                removed = library.remove(persistentID, deleteFile, &error);
            }
            if (!removed) raise(error, "cannot remove " + persistentID);
        }, py::arg("persistent_id"), py::arg("delete_file") = false);
}

} // namespace qxpy
