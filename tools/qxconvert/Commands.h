#pragma once
// The commands of qxconvert; each takes its arguments (after the command
// name) and returns the process's exit status.

#include <memory>
#include <string>
#include <vector>

#include "qxmedia/platform/foundation/QXValue.h"

class QXMovie;

using Arguments = std::vector<std::string>;

// FILE... [--json]: the files of one movie and the output form.
struct MovieArguments {
    std::vector<QXURL> urls;
    bool asJson = false;
};
// Null (after printing the usage line) when no file is given.
std::unique_ptr<MovieArguments> parseMovieArguments(const Arguments& arguments, const char* command);
// The opened movie, or null after printing why it could not be opened.
std::shared_ptr<QXMovie> openMovie(const std::vector<QXURL>& urls);
// After a run: tracks and their outputs hold each other until the fan-out
// is idle; this lets them go, and the readers too.
void endRun(QXMovie& movie);
// "[#####     ]  42.0%" on stderr, redrawn in place.
void drawProgress(double fraction);

int runVersion(const Arguments& arguments);
int runEncoders(const Arguments& arguments);
int runInfo(const Arguments& arguments);
int runRead(const Arguments& arguments);
int runRemux(const Arguments& arguments);

// Installs the log callback: warnings and errors to stderr, everything with
// verbose set.
void installLogger(bool verbose);
