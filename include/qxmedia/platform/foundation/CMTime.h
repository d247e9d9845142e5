#pragma once
// CMTime: a rational time (value / timescale) with flags for the special
// values. Ordering: negative infinity < numbers < indefinite < positive
// infinity < invalid; invalid equals invalid. Arithmetic with an invalid
// operand gives invalid. Rescaling never overflows silently: a result that
// does not fit becomes an infinity of the right sign.

#include <cstdint>
#include <string>

namespace qx {

using CMTimeValue = int64_t;
using CMTimeScale = int32_t;
using CMTimeEpoch = int64_t;
using CMTimeFlags = uint32_t;

enum : CMTimeFlags {
    kCMTimeFlags_Valid = 1u << 0,
    kCMTimeFlags_HasBeenRounded = 1u << 1,
    kCMTimeFlags_PositiveInfinity = 1u << 2,
    kCMTimeFlags_NegativeInfinity = 1u << 3,
    kCMTimeFlags_Indefinite = 1u << 4,
    kCMTimeFlags_ImpliedValueFlagsMask =
        kCMTimeFlags_PositiveInfinity | kCMTimeFlags_NegativeInfinity | kCMTimeFlags_Indefinite,
};

constexpr CMTimeScale kCMTimeMaxTimescale = 0x7fffffff;

enum CMTimeRoundingMethod : uint32_t {
    kCMTimeRoundingMethod_RoundHalfAwayFromZero = 1,
    kCMTimeRoundingMethod_RoundTowardZero = 2,
    kCMTimeRoundingMethod_RoundAwayFromZero = 3,
    kCMTimeRoundingMethod_QuickTime = 4,
    kCMTimeRoundingMethod_RoundTowardPositiveInfinity = 5,
    kCMTimeRoundingMethod_RoundTowardNegativeInfinity = 6,
    kCMTimeRoundingMethod_Default = kCMTimeRoundingMethod_RoundHalfAwayFromZero,
};

struct CMTime {
    CMTimeValue value = 0;
    CMTimeScale timescale = 0;
    CMTimeFlags flags = 0;
    CMTimeEpoch epoch = 0;
};

inline constexpr CMTime kCMTimeInvalid {0, 0, 0, 0};
inline constexpr CMTime kCMTimeZero {0, 1, kCMTimeFlags_Valid, 0};
inline constexpr CMTime kCMTimeIndefinite {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_Indefinite, 0};
inline constexpr CMTime kCMTimePositiveInfinity {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_PositiveInfinity, 0};
inline constexpr CMTime kCMTimeNegativeInfinity {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_NegativeInfinity, 0};

constexpr bool CMTIME_IS_VALID(CMTime t) { return (t.flags & kCMTimeFlags_Valid) != 0; }
constexpr bool CMTIME_IS_INVALID(CMTime t) { return !CMTIME_IS_VALID(t); }
constexpr bool CMTIME_IS_POSITIVE_INFINITY(CMTime t)
{
    return CMTIME_IS_VALID(t) && (t.flags & kCMTimeFlags_PositiveInfinity) != 0;
}
constexpr bool CMTIME_IS_NEGATIVE_INFINITY(CMTime t)
{
    return CMTIME_IS_VALID(t) && (t.flags & kCMTimeFlags_NegativeInfinity) != 0;
}
constexpr bool CMTIME_IS_INDEFINITE(CMTime t) { return CMTIME_IS_VALID(t) && (t.flags & kCMTimeFlags_Indefinite) != 0; }
constexpr bool CMTIME_IS_NUMERIC(CMTime t)
{
    return (t.flags & (kCMTimeFlags_Valid | kCMTimeFlags_ImpliedValueFlagsMask)) == kCMTimeFlags_Valid;
}
constexpr bool CMTIME_HAS_BEEN_ROUNDED(CMTime t)
{
    return CMTIME_IS_NUMERIC(t) && (t.flags & kCMTimeFlags_HasBeenRounded) != 0;
}

#pragma GCC visibility push(default) // the names below are exported
// A numeric time; a timescale of 0 or less gives invalid.
CMTime CMTimeMake(int64_t value, int32_t timescale);
// Seconds in the preferred timescale, rounded half away from zero; NaN is
// invalid, infinities stay infinities; a value beyond 64 bits lowers the
// timescale until it fits.
CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale);
CMTime CMTimeMakeWithEpoch(int64_t value, int32_t timescale, int64_t epoch);
// NaN for invalid and indefinite, +-infinity for the infinities.
double CMTimeGetSeconds(CMTime time);

// -1, 0 or 1.
int32_t CMTimeCompare(CMTime time1, CMTime time2);
CMTime CMTimeAdd(CMTime lhs, CMTime rhs);
CMTime CMTimeSubtract(CMTime lhs, CMTime rhs);
CMTime CMTimeMultiply(CMTime time, int32_t multiplier);
CMTime CMTimeMultiplyByFloat64(CMTime time, double multiplier);
CMTime CMTimeMultiplyByRatio(CMTime time, int32_t multiplier, int32_t divisor);
CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale, CMTimeRoundingMethod method);
CMTime CMTimeAbsoluteValue(CMTime time);
CMTime CMTimeMinimum(CMTime time1, CMTime time2);
CMTime CMTimeMaximum(CMTime time1, CMTime time2);

// A readable form such as {1001/30000 = 0.033}; the special values read
// {INVALID}, {INDEFINITE}, {+INFINITY}, {-INFINITY}.
std::string CMTimeCopyDescription(const void* allocator, CMTime time);
inline std::string CMTimeCopyDescription(CMTime time) { return CMTimeCopyDescription(nullptr, time); }

inline bool operator==(CMTime a, CMTime b) { return CMTimeCompare(a, b) == 0; }
inline bool operator<(CMTime a, CMTime b) { return CMTimeCompare(a, b) < 0; }
inline bool operator>(CMTime a, CMTime b) { return CMTimeCompare(a, b) > 0; }
inline bool operator<=(CMTime a, CMTime b) { return CMTimeCompare(a, b) <= 0; }
inline bool operator>=(CMTime a, CMTime b) { return CMTimeCompare(a, b) >= 0; }

struct CMTimeRange {
    CMTime start = kCMTimeInvalid;
    CMTime duration = kCMTimeInvalid;
};

inline constexpr CMTimeRange kCMTimeRangeInvalid {kCMTimeInvalid, kCMTimeInvalid};
inline constexpr CMTimeRange kCMTimeRangeZero {kCMTimeZero, kCMTimeZero};

inline CMTimeRange CMTimeRangeMake(CMTime start, CMTime duration) { return {start, duration}; }
inline CMTime CMTimeRangeGetEnd(CMTimeRange range) { return CMTimeAdd(range.start, range.duration); }
inline bool CMTIMERANGE_IS_VALID(CMTimeRange range)
{
    return CMTIME_IS_VALID(range.start) && CMTIME_IS_VALID(range.duration) && range.duration.epoch == 0 &&
           range.duration.value >= 0;
}
bool CMTimeRangeContainsTime(CMTimeRange range, CMTime time);
#pragma GCC visibility pop

} // namespace qx
