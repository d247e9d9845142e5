#pragma once
// What the tool tells the user. A failure is one line on stderr: what
// failed, on which file, why. With --verbose the library's log lines and
// the whole error object follow; without it the library stays quiet, as
// the tool reports every failure itself.

#include <string>

#include "qxmedia/platform/foundation/QXError.h"
#include "qxmedia/platform/foundation/QXValue.h"

namespace report {

void setVerbose(bool verbose);
bool verbose();
// Installs the library's log callback at the chosen verbosity.
void installLogger();
// "qxconvert: WHAT FILE: WHY", then with --verbose the error object.
void failure(const std::string& what, const QXURL& file, const QXErrorRef& error);
void failure(const std::string& what, const QXURL& file, const std::string& why);
// "qxconvert: TEXT": notes that are not failures.
void note(const std::string& text);

} // namespace report
