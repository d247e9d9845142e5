#pragma once
// The commands of qxconvert; each takes its arguments (after the command
// name) and returns the process's exit status.

#include <memory>
#include <optional>
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
// The opened movie, or null after one line that says why it could not be
// opened (naming the file as `shownAs`, the name the user typed).
std::shared_ptr<QXMovie> openMovie(const std::vector<QXURL>& urls, const QXURL& shownAs = {});

int runVersion(const Arguments& arguments);
int runEncoders(const Arguments& arguments);
int runInfo(const Arguments& arguments);
int runRead(const Arguments& arguments);
int runConvert(const Arguments& arguments);
int runRemux(const Arguments& arguments);
int runUpdate(const Arguments& arguments);
int runPresets(const Arguments& arguments);
// info on a VIDEO_TS folder (or the folder above it) lists its titles.
bool isDVDFolderArgument(const Arguments& arguments);
int runDVDInfo(const Arguments& arguments);
int runMkvWalk(const Arguments& arguments);
int runLibrary(const Arguments& arguments);
// The library identifier of "tv", "music", "itunes" or of an identifier itself.
std::optional<std::string> libraryIdentifierNamed(const std::string& name);
