#pragma once
// Bounded waits, so that a deadlock fails a dispatch test instead of hanging the suite.

#include "qxmedia/platform/dispatch/dispatch.h"

namespace qxtest {

inline qx::dispatch_time_t inSeconds(double seconds)
{
    return qx::dispatch_time(qx::DISPATCH_TIME_NOW, static_cast<int64_t>(seconds * qx::NSEC_PER_SEC));
}

} // namespace qxtest
