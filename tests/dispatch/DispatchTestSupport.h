#pragma once
// Helpers of the dispatch tests: bounded waits, so that a deadlock fails a
// test instead of hanging the suite.

#include <chrono>
#include <functional>
#include <thread>

#include "qxmedia/platform/dispatch/dispatch.h"

namespace qxtest {

inline qx::dispatch_time_t inSeconds(double seconds)
{
    return qx::dispatch_time(qx::DISPATCH_TIME_NOW, static_cast<int64_t>(seconds * qx::NSEC_PER_SEC));
}

// True once `condition` holds, polling for up to `seconds`.
inline bool eventually(const std::function<bool()>& condition, double seconds = 10)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace qxtest
