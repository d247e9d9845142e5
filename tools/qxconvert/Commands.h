#pragma once
// The commands of qxconvert; each takes its arguments (after the command
// name) and returns the process's exit status.

#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

int runVersion(const Arguments& arguments);
int runEncoders(const Arguments& arguments);
int runInfo(const Arguments& arguments);
int runRead(const Arguments& arguments);

// Installs the log callback: warnings and errors to stderr, everything with
// verbose set.
void installLogger(bool verbose);
