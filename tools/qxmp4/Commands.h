#pragma once
// Commands of qxmp4. Each command is a function taking its arguments (after
// the command name) and returning the exit status; main.cpp lists them in
// its command table, one line per command.

#include <string>
#include <vector>

namespace qxmp4 {

using Arguments = std::vector<std::string>;

struct Command {
    const char* name;
    const char* usage;   // arguments, e.g. "FILE"
    const char* summary; // one line
    int (*run)(const Arguments& arguments);
};

// Prints one line "qxmp4: <message>: <why>" on stderr (why: the first error
// the MP4 layer reported, if any) and returns 1.
int fail(const std::string& message);
// Prints "usage: qxmp4 <name> <usage>" on stderr and returns 2.
int usage(const char* name, const char* usage);

// Box commands (BoxCommands.cpp).
int dumpCommand(const Arguments& arguments);
int optimizeCommand(const Arguments& arguments);

// Tag and chapter commands (TagCommands.cpp).
int tagsCommand(const Arguments& arguments);
int setCommand(const Arguments& arguments);
int chaptersCommand(const Arguments& arguments);

} // namespace qxmp4
