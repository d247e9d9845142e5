#pragma once
// The commands of qxconvert; each takes its arguments (after the command
// name) and returns the process's exit status.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qxmedia/platform/dispatch/dispatch.h"
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
// Starts the movie's read loop and waits until `finished(timeout)` answers
// true, polling every 100 ms; meanwhile draws the read's progress (when
// asked) and turns Ctrl-C into one cancel of the read. Sets *started from
// startReading; answers whether the run was cancelled.
bool readAndWait(QXMovie& movie, const std::function<bool(qx::dispatch_time_t)>& finished, bool showProgress,
                 bool* started);

int runVersion(const Arguments& arguments);
int runEncoders(const Arguments& arguments);
int runInfo(const Arguments& arguments);
int runRead(const Arguments& arguments);
int runRemux(const Arguments& arguments);
// info on a VIDEO_TS folder (or the folder above it) lists its titles.
bool isDVDFolderArgument(const Arguments& arguments);
int runDVDInfo(const Arguments& arguments);
int runMkvWalk(const Arguments& arguments);

// Installs the log callback: warnings and errors to stderr, everything with
// verbose set.
void installLogger(bool verbose);
