#pragma once
// Framework errors as Python exceptions: qxmedia.Error carries the domain,
// the numeric code, the code's name and the description; a cancelled job
// raises its subclass qxmedia.Cancelled.

#include <cstdint>
#include <string>

#include "qxmedia/platform/foundation/QXError.h"

namespace qxpy {

// The name of a code in its domain ("DiskFull", "AVERROR(ENOENT)");
// "Unknown" for a code without one.
std::string errorCodeName(QXErrorDomain domain, int64_t code);

// Raises the error as qxmedia.Error (or Cancelled); `fallback` describes
// a failure that came without an error object. Never returns.
[[noreturn]] void raise(const QXErrorRef& error, const std::string& fallback = "operation failed");

} // namespace qxpy
