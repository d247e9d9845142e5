#include "PyErrors.h"

#include <cstring>
#include <map>
#include <utility>

#include "Bindings.h"

namespace py = pybind11;

namespace qxpy {

namespace {

// FFmpeg's own error tags: the negated little-endian four characters.
constexpr int64_t ffmpegTag(char a, char b, char c, char d)
{
    return -int64_t(uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
                    uint32_t(uint8_t(d)) << 24);
}

// Codes of the framework's own domain and the FFmpeg results it passes on.
const std::map<int64_t, const char*>& mediaCodeNames()
{
    static const std::map<int64_t, const char*> names = {
        {-13001, "FailedToOpenFile"},
        {-13002, "FailedToCreateFile"},
        {-13003, "CorruptedFile"},
        {-13004, "FailedToOptimize"},
        {-13005, "LibraryReturnedOtherItem"},
        {-13006, "LibraryRejectedFile"},
        {-13010, "FailedToAddTrack"},
        {-13011, "InvalidTrackID"},
        {-13012, "UnexpectedTrackID"},
        {-13013, "FailedToEditTrack"},
        {-11834, "EncoderNotFound"},
        {-11807, "DiskFull"},
        {ffmpegTag('I', 'N', 'D', 'A'), "InvalidData"},
        {ffmpegTag('E', 'O', 'F', ' '), "EndOfFile"},
        {ffmpegTag(char(0xF8), 'D', 'E', 'C'), "DecoderNotFound"},
        {ffmpegTag(char(0xF8), 'D', 'E', 'M'), "DemuxerNotFound"},
        {ffmpegTag(char(0xF8), 'E', 'N', 'C'), "EncoderNotFound"},
        {ffmpegTag(char(0xF8), 'M', 'U', 'X'), "MuxerNotFound"},
        {ffmpegTag(char(0xF8), 'S', 'T', 'R'), "StreamNotFound"},
        {ffmpegTag('P', 'A', 'W', 'E'), "PatchWelcome"},
        {ffmpegTag('U', 'N', 'K', 'N'), "UnknownError"},
    };
    return names;
}

const std::map<int64_t, const char*>& cocoaCodeNames()
{
    static const std::map<int64_t, const char*> names = {
        {4, "FileNoSuchFile"},
        {256, "FileReadUnknown"},
        {257, "FileReadNoPermission"},
        {260, "FileReadNoSuchFile"},
        {264, "FileReadInapplicableStringEncoding"},
        {512, "FileWriteUnknown"},
        {513, "FileWriteNoPermission"},
        {514, "FileWriteInvalidFileName"},
        {516, "FileWriteFileExists"},
        {517, "FileWriteInapplicableStringEncoding"},
        {640, "FileWriteOutOfSpace"},
        {2048, "Formatting"},
        {3072, "UserCancelled"},
        {3840, "PropertyListReadCorrupt"},
        {3851, "PropertyListWriteInvalid"},
        {4864, "CoderReadCorrupt"},
    };
    return names;
}

const char* lookUp(const std::map<int64_t, const char*>& names, int64_t code)
{
    const auto found = names.find(code);
    return found == names.end() ? nullptr : found->second;
}

// errno's symbolic name ("ENOENT"), or null.
const char* errnoName(int64_t code)
{
    return code > 0 && code < 4096 ? strerrorname_np(int(code)) : nullptr;
}

py::handle errorType;
py::handle cancelledType;

// The instance carries the fields, so that `except qxmedia.Error as e`
// can tell one failure from another without parsing the text.
py::object makeException(py::handle type, const char* domain, int64_t code, const std::string& name,
                         const std::string& description)
{
    const std::string text = name + " (" + std::to_string(code) + "): " + description;
    py::object exception = type(text);
    exception.attr("domain") = domain;
    exception.attr("code") = code;
    exception.attr("name") = name;
    exception.attr("description") = description;
    return exception;
}

} // namespace

std::string errorCodeName(QXErrorDomain domain, int64_t code)
{
    const char* name = nullptr;
    if (domain == QXMediaErrorDomain) {
        name = lookUp(mediaCodeNames(), code);
        if (!name) name = errnoName(-code); // FFmpeg hands errno values on negated
    } else if (domain == NSCocoaErrorDomain) {
        name = lookUp(cocoaCodeNames(), code);
    } else if (domain == NSPOSIXErrorDomain) {
        name = errnoName(code);
    } else if (domain == AVFoundationErrorDomain && code == -11832) {
        name = "NoImageAtTime";
    }
    return name ? name : "Unknown";
}

void raise(const QXErrorRef& error, const std::string& fallback)
{
    const bool cancelled = error && error->domain() == NSCocoaErrorDomain && error->code() == 3072;
    py::object exception =
        error ? makeException(cancelled ? cancelledType : errorType, error->domain(), error->code(),
                              errorCodeName(error->domain(), error->code()), error->localizedDescription())
              : makeException(errorType, QXMediaErrorDomain, 0, "Unknown", fallback);
    PyErr_SetObject(exception.get_type().ptr(), exception.ptr());
    throw py::error_already_set();
}

void bindErrors(py::module_& module)
{
    // Module attributes keep the types alive for the process's life.
    errorType = PyErr_NewExceptionWithDoc("qxmedia.Error",
                                          "A failure of the framework: domain, code, name and description.",
                                          PyExc_Exception, nullptr);
    cancelledType = PyErr_NewExceptionWithDoc("qxmedia.Cancelled", "A job that was cancelled before it ended.",
                                              errorType.ptr(), nullptr);
    module.add_object("Error", errorType);
    module.add_object("Cancelled", cancelledType);
    module.def("error_code_name", [](const std::string& domain, int64_t code) {
        for (QXErrorDomain known : {QXMediaErrorDomain, NSOSStatusErrorDomain, NSPOSIXErrorDomain,
                                    NSCocoaErrorDomain, AVFoundationErrorDomain}) {
            if (domain == known) return errorCodeName(known, code);
        }
        return std::string("Unknown");
    }, py::arg("domain"), py::arg("code"));
}

} // namespace qxpy
