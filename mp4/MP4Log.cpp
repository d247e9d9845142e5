#include "qxmedia/mp4/MP4Log.h"

#include <atomic>

namespace qx::mp4 {
namespace {
std::atomic<int> gLevel {MP4_LOG_WARNING};
std::atomic<MP4LogCallback> gCallback {nullptr};
} // namespace

void MP4LogSetLevel(int level) { gLevel.store(level, std::memory_order_relaxed); }
int MP4LogGetLevel() { return gLevel.load(std::memory_order_relaxed); }
void MP4SetLogCallback(MP4LogCallback callback) { gCallback.store(callback, std::memory_order_release); }

void MP4Log(int level, const char* format, ...)
{
    MP4LogCallback callback = gCallback.load(std::memory_order_acquire);
    if (!callback || level > MP4LogGetLevel() || level <= MP4_LOG_NONE) return;
    va_list arguments;
    va_start(arguments, format);
    callback(level, format, arguments);
    va_end(arguments);
}

} // namespace qx::mp4
