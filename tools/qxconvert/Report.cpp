#include "Report.h"

#include <cstdarg>
#include <cstdio>

#include "qxmedia/core/QXMedia.h"

namespace {

bool gVerbose = false;

} // namespace

void report::setVerbose(bool verbose)
{
    gVerbose = verbose;
}

bool report::verbose()
{
    return gVerbose;
}

void report::installLogger()
{
    if (!gVerbose) {
        QXMedia::sharedMedia().setLogCallback([](bool, int32_t, int32_t, const char*, const char*, uint64_t,
                                                 const QXValue*, const char*, va_list) {});
        return;
    }
    QXMedia::sharedMedia().setLogCallback([](bool, int32_t flag, int32_t, const char*, const char*, uint64_t,
                                             const QXValue*, const char* format, va_list arguments) {
        static const char* names[] = {"", "error", "warning", "", "info", "", "", "", "debug"};
        const char* name = flag >= 0 && flag < 9 ? names[flag] : "verbose";
        char buffer[4096];
        std::vsnprintf(buffer, sizeof buffer, format, arguments);
        std::fprintf(stderr, "[%s] %s\n", name, buffer);
    });
}

namespace {

// The file system's errors often come without a text of their own.
std::string why(const QXError& error)
{
    if (error.userInfo().count(NSLocalizedDescriptionKey) || error.domain() != std::string(NSCocoaErrorDomain)) {
        return error.localizedDescription();
    }
    switch (error.code()) {
    case 4: return "no such file";
    case 513: return "permission denied";
    case 514: return "not a valid file name";
    case 516: return "a file of that name is in the way";
    case 640: return "the disk is full";
    case 642: return "the volume is read-only";
    case 3072: return "cancelled";
    default: return error.localizedDescription();
    }
}

} // namespace

void report::failure(const std::string& what, const QXURL& file, const QXErrorRef& error)
{
    failure(what, file, error ? why(*error) : std::string("unknown error"));
    if (gVerbose && error) std::fprintf(stderr, "%s\n", error->description().c_str());
}

void report::failure(const std::string& what, const QXURL& file, const std::string& why)
{
    std::fprintf(stderr, "qxconvert: %s %s: %s\n", what.c_str(), file.c_str(), why.c_str());
}

void report::note(const std::string& text)
{
    std::fprintf(stderr, "qxconvert: %s\n", text.c_str());
}
