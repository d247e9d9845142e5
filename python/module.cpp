// The Python module qxmedia: movies, presets, jobs, MP4 tags and the media
// library.

#include "Bindings.h"
#include "qxmedia/core/QXMedia.h"

PYBIND11_MODULE(qxmedia, module)
{
    module.doc() = "Convert media into Apple-style M4V files and edit MP4 tags in place.";
    // FFmpeg and the MP4 layer report through the framework only once it exists.
    QXMedia::sharedMedia();
    qxpy::bindErrors(module);
    qxpy::bindMovie(module);
    qxpy::bindJob(module);
    qxpy::bindTags(module);
    qxpy::bindLibrary(module);
}
