#pragma once
/// @file
/// Points in time for the waiting operations of qx::dispatch. A dispatch_time_t
/// is a point on the monotonic clock in nanoseconds; DISPATCH_TIME_NOW and
/// DISPATCH_TIME_FOREVER are the two special values.

#include <cstdint>

namespace qx {

/// A point on the monotonic clock in nanoseconds, or one of the two special values.
using dispatch_time_t = uint64_t;

inline constexpr dispatch_time_t DISPATCH_TIME_NOW = 0;         ///< The present moment: a wait does not wait.
inline constexpr dispatch_time_t DISPATCH_TIME_FOREVER = ~0ull; ///< Never: a wait has no limit.

///@{
/// Unit factors for the `delta` of dispatch_time().
inline constexpr uint64_t NSEC_PER_SEC = 1000000000ull;
inline constexpr uint64_t NSEC_PER_MSEC = 1000000ull;
inline constexpr uint64_t NSEC_PER_USEC = 1000ull;
inline constexpr uint64_t USEC_PER_SEC = 1000000ull;
///@}

/// `when` (DISPATCH_TIME_NOW for the present moment) shifted by `delta`
/// nanoseconds. FOREVER stays FOREVER; results saturate instead of wrapping.
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta);

} // namespace qx
