#pragma once
// Logging of the MP4 layer. The layer depends on nothing else in the
// framework: like any library it reports through a callback that its host
// (the framework facade) installs, filtered by a level.

#include <cstdarg>

namespace qx::mp4 {

enum MP4LogLevel : int {
    MP4_LOG_NONE = 0,
    MP4_LOG_ERROR = 1,
    MP4_LOG_WARNING = 2,
    MP4_LOG_INFO = 3,
    MP4_LOG_VERBOSE1 = 4,
    MP4_LOG_VERBOSE2 = 5,
    MP4_LOG_VERBOSE3 = 6,
    MP4_LOG_VERBOSE4 = 7,
};

using MP4LogCallback = void (*)(int level, const char* format, va_list arguments);

void MP4LogSetLevel(int level);
int MP4LogGetLevel();
void MP4SetLogCallback(MP4LogCallback callback);

// Sends a line at level when the level lets it through and a callback is set.
void MP4Log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

} // namespace qx::mp4
