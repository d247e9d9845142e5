#include "PyErrors.h"

#include "Bindings.h"

namespace py = pybind11;

namespace qxpy {

namespace {

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
    // The framework's own names without their C++ prefix; FFmpeg's and
    // errno's as they are spelled in C.
    std::string name = QXErrorCodeName(domain, code);
    if (name.rfind("QXError", 0) == 0) name.erase(0, 7);
    return name.empty() ? "Unknown" : name;
}

void raise(const QXErrorRef& error, const std::string& fallback)
{
    const bool cancelled = error && error->domain() == NSCocoaErrorDomain && error->code() == QXErrorUserCancelled;
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
