#pragma once
/// @file
/// CMTime: a rational time (value / timescale) with flags for the special
/// values. Ordering: negative infinity < numbers < indefinite < positive
/// infinity < invalid; invalid equals invalid. Arithmetic with an invalid
/// operand gives invalid. Rescaling never overflows silently: a result that
/// does not fit becomes an infinity of the right sign.

#include <cstdint>
#include <string>

namespace qx {

using CMTimeValue = int64_t;  ///< The numerator: a count of 1/timescale seconds.
using CMTimeScale = int32_t;  ///< The denominator: units per second, greater than 0 in a numeric time.
using CMTimeEpoch = int64_t;  ///< Separates times that would otherwise be equal (loops); usually 0.
using CMTimeFlags = uint32_t; ///< A set of the kCMTimeFlags_ bits.

/// The bits of CMTime::flags.
enum : CMTimeFlags {
    kCMTimeFlags_Valid = 1u << 0,              ///< Set in every time but the invalid one.
    kCMTimeFlags_HasBeenRounded = 1u << 1,     ///< The value was rounded on the way (rescaling, multiplying).
    kCMTimeFlags_PositiveInfinity = 1u << 2,   ///< +infinity; value and timescale mean nothing.
    kCMTimeFlags_NegativeInfinity = 1u << 3,   ///< -infinity; value and timescale mean nothing.
    kCMTimeFlags_Indefinite = 1u << 4,         ///< Unknown (a live stream's duration); value means nothing.
    /// The bits that make a time non-numeric.
    kCMTimeFlags_ImpliedValueFlagsMask =
        kCMTimeFlags_PositiveInfinity | kCMTimeFlags_NegativeInfinity | kCMTimeFlags_Indefinite,
};

/// The largest timescale.
constexpr CMTimeScale kCMTimeMaxTimescale = 0x7fffffff;

/// How a value is rounded when a time changes timescale or is multiplied.
enum CMTimeRoundingMethod : uint32_t {
    kCMTimeRoundingMethod_RoundHalfAwayFromZero = 1,       ///< To nearest; halves away from zero.
    kCMTimeRoundingMethod_RoundTowardZero = 2,             ///< Cut off.
    kCMTimeRoundingMethod_RoundAwayFromZero = 3,           ///< Up in magnitude.
    /// Toward zero when the timescale shrinks, away from zero when it grows; a negative time never becomes 0.
    kCMTimeRoundingMethod_QuickTime = 4,
    kCMTimeRoundingMethod_RoundTowardPositiveInfinity = 5, ///< Ceiling.
    kCMTimeRoundingMethod_RoundTowardNegativeInfinity = 6, ///< Floor.
    kCMTimeRoundingMethod_Default = kCMTimeRoundingMethod_RoundHalfAwayFromZero, ///< Half away from zero.
};

/// A time of value/timescale seconds, or one of the special values the flags
/// name. A plain value type; {} is the invalid time.
struct CMTime {
    CMTimeValue value = 0;     ///< Units of 1/timescale seconds.
    CMTimeScale timescale = 0; ///< Units per second.
    CMTimeFlags flags = 0;     ///< kCMTimeFlags_ bits; 0 is invalid.
    CMTimeEpoch epoch = 0;     ///< Usually 0; times of different epochs do not add.
};

inline constexpr CMTime kCMTimeInvalid {0, 0, 0, 0};    ///< No time: the result of bad input.
inline constexpr CMTime kCMTimeZero {0, 1, kCMTimeFlags_Valid, 0}; ///< 0 s.
inline constexpr CMTime kCMTimeIndefinite {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_Indefinite, 0}; ///< Unknown.
/// +infinity.
inline constexpr CMTime kCMTimePositiveInfinity {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_PositiveInfinity, 0};
/// -infinity.
inline constexpr CMTime kCMTimeNegativeInfinity {0, 0, kCMTimeFlags_Valid | kCMTimeFlags_NegativeInfinity, 0};

/// Anything but the invalid time (infinities and indefinite included).
constexpr bool CMTIME_IS_VALID(CMTime t) { return (t.flags & kCMTimeFlags_Valid) != 0; }
/// The invalid time.
constexpr bool CMTIME_IS_INVALID(CMTime t) { return !CMTIME_IS_VALID(t); }
/// +infinity.
constexpr bool CMTIME_IS_POSITIVE_INFINITY(CMTime t)
{
    return CMTIME_IS_VALID(t) && (t.flags & kCMTimeFlags_PositiveInfinity) != 0;
}
/// -infinity.
constexpr bool CMTIME_IS_NEGATIVE_INFINITY(CMTime t)
{
    return CMTIME_IS_VALID(t) && (t.flags & kCMTimeFlags_NegativeInfinity) != 0;
}
/// The indefinite time.
constexpr bool CMTIME_IS_INDEFINITE(CMTime t) { return CMTIME_IS_VALID(t) && (t.flags & kCMTimeFlags_Indefinite) != 0; }
/// A time with a usable value/timescale: valid and none of the special values.
constexpr bool CMTIME_IS_NUMERIC(CMTime t)
{
    return (t.flags & (kCMTimeFlags_Valid | kCMTimeFlags_ImpliedValueFlagsMask)) == kCMTimeFlags_Valid;
}
/// A numeric time whose value was rounded on the way.
constexpr bool CMTIME_HAS_BEEN_ROUNDED(CMTime t)
{
    return CMTIME_IS_NUMERIC(t) && (t.flags & kCMTimeFlags_HasBeenRounded) != 0;
}

#pragma GCC visibility push(default) // the names below are exported
/// A numeric time; a timescale of 0 or less gives invalid.
CMTime CMTimeMake(int64_t value, int32_t timescale);
/// Seconds in the preferred timescale, rounded half away from zero; NaN is
/// invalid, infinities stay infinities; a value beyond 64 bits lowers the
/// timescale until it fits.
CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale);
/// CMTimeMake() with an epoch.
CMTime CMTimeMakeWithEpoch(int64_t value, int32_t timescale, int64_t epoch);
/// NaN for invalid and indefinite, +-infinity for the infinities.
double CMTimeGetSeconds(CMTime time);

/// -1, 0 or 1.
int32_t CMTimeCompare(CMTime time1, CMTime time2);
/// The sum in a timescale both fit exactly (the finer one, rounded, when no
/// common one fits); of different epochs, or +inf and -inf, it is invalid.
CMTime CMTimeAdd(CMTime lhs, CMTime rhs);
/// lhs + (-rhs), with CMTimeAdd()'s rules.
CMTime CMTimeSubtract(CMTime lhs, CMTime rhs);
/// The time times an integer, in its own timescale.
CMTime CMTimeMultiply(CMTime time, int32_t multiplier);
/// The time times a factor, in its own timescale, rounded half away from zero.
CMTime CMTimeMultiplyByFloat64(CMTime time, double multiplier);
/// time * multiplier / divisor in its own timescale, rounded half away from
/// zero; a divisor of 0 gives invalid.
CMTime CMTimeMultiplyByRatio(CMTime time, int32_t multiplier, int32_t divisor);
/// The time in another timescale, rounded by `method` (flagged when inexact);
/// special values stay as they are, a timescale of 0 or less gives invalid.
CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale, CMTimeRoundingMethod method);
/// The time without its sign (-infinity becomes +infinity).
CMTime CMTimeAbsoluteValue(CMTime time);
///@{
/// The smaller or the larger of two times in CMTimeCompare()'s order; invalid when either is invalid.
CMTime CMTimeMinimum(CMTime time1, CMTime time2);
CMTime CMTimeMaximum(CMTime time1, CMTime time2);
///@}

/// A readable form such as {1001/30000 = 0.033}; the special values read
/// {INVALID}, {INDEFINITE}, {+INFINITY}, {-INFINITY}.
std::string CMTimeCopyDescription(const void* allocator, CMTime time);
/// The same without an allocator.
inline std::string CMTimeCopyDescription(CMTime time) { return CMTimeCopyDescription(nullptr, time); }

///@{
/// Comparison in CMTimeCompare()'s order: equal values in different timescales are equal.
inline bool operator==(CMTime a, CMTime b) { return CMTimeCompare(a, b) == 0; }
inline bool operator<(CMTime a, CMTime b) { return CMTimeCompare(a, b) < 0; }
inline bool operator>(CMTime a, CMTime b) { return CMTimeCompare(a, b) > 0; }
inline bool operator<=(CMTime a, CMTime b) { return CMTimeCompare(a, b) <= 0; }
inline bool operator>=(CMTime a, CMTime b) { return CMTimeCompare(a, b) >= 0; }
///@}

/// A span of time: from start, for duration (the end itself not included).
struct CMTimeRange {
    CMTime start = kCMTimeInvalid;    ///< The first instant.
    CMTime duration = kCMTimeInvalid; ///< The length; 0 or more in a valid range.
};

inline constexpr CMTimeRange kCMTimeRangeInvalid {kCMTimeInvalid, kCMTimeInvalid}; ///< No range.
inline constexpr CMTimeRange kCMTimeRangeZero {kCMTimeZero, kCMTimeZero};          ///< Empty, at 0.

/// The range from start for duration.
inline CMTimeRange CMTimeRangeMake(CMTime start, CMTime duration) { return {start, duration}; }
/// start + duration: the first instant after the range.
inline CMTime CMTimeRangeGetEnd(CMTimeRange range) { return CMTimeAdd(range.start, range.duration); }
/// Both times valid and the duration not negative, of epoch 0.
inline bool CMTIMERANGE_IS_VALID(CMTimeRange range)
{
    return CMTIME_IS_VALID(range.start) && CMTIME_IS_VALID(range.duration) && range.duration.epoch == 0 &&
           range.duration.value >= 0;
}
/// Whether start <= time < end; false for an invalid range or time.
bool CMTimeRangeContainsTime(CMTimeRange range, CMTime time);
#pragma GCC visibility pop

} // namespace qx
