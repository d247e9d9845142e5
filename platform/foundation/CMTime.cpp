#include "qxmedia/platform/foundation/CMTime.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <numeric>

namespace qx {
namespace {

using Wide = __int128;

constexpr Wide kInt64Max = std::numeric_limits<int64_t>::max();
constexpr Wide kInt64Min = std::numeric_limits<int64_t>::min();

// Where a time sits in the total order, numbers compared among themselves.
int rank(CMTime t)
{
    if (!CMTIME_IS_VALID(t)) return 4;
    if (t.flags & kCMTimeFlags_NegativeInfinity) return 0;
    if (t.flags & kCMTimeFlags_Indefinite) return 2;
    if (t.flags & kCMTimeFlags_PositiveInfinity) return 3;
    return 1;
}

CMTime infinityWithSign(bool negative)
{
    return negative ? kCMTimeNegativeInfinity : kCMTimePositiveInfinity;
}

// n / d with d > 0, rounded by the method; `rounded` tells whether the
// division was inexact. `growing` tells QuickTime rounding which way the scale
// goes.
Wide divide(Wide n, Wide d, CMTimeRoundingMethod method, bool growing, bool& rounded)
{
    Wide q = n / d;
    const Wide r = n % d;
    if (r == 0) return q;
    rounded = true;
    const int sign = n < 0 ? -1 : 1;
    const Wide twiceRemainder = (r < 0 ? -r : r) * 2;
    switch (method) {
    case kCMTimeRoundingMethod_RoundTowardZero: break;
    case kCMTimeRoundingMethod_RoundAwayFromZero: q += sign; break;
    case kCMTimeRoundingMethod_RoundTowardPositiveInfinity:
        if (n > 0) q += 1;
        break;
    case kCMTimeRoundingMethod_RoundTowardNegativeInfinity:
        if (n < 0) q -= 1;
        break;
    case kCMTimeRoundingMethod_QuickTime:
        // Toward zero when losing precision, away from zero when gaining it;
        // a negative time never rounds up to zero.
        if (growing) q += sign;
        if (q == 0 && n < 0) q = -1;
        break;
    case kCMTimeRoundingMethod_RoundHalfAwayFromZero:
    default:
        if (twiceRemainder >= d) q += sign;
        break;
    }
    return q;
}

// A numeric result, or an infinity when the value does not fit in 64 bits.
CMTime numeric(Wide value, int32_t timescale, CMTimeFlags extraFlags, int64_t epoch)
{
    if (value > kInt64Max || value < kInt64Min) return infinityWithSign(value < 0);
    return CMTime {int64_t(value), timescale, kCMTimeFlags_Valid | extraFlags, epoch};
}

CMTime negate(CMTime t)
{
    if (!CMTIME_IS_VALID(t)) return t;
    if (CMTIME_IS_POSITIVE_INFINITY(t)) return kCMTimeNegativeInfinity;
    if (CMTIME_IS_NEGATIVE_INFINITY(t)) return kCMTimePositiveInfinity;
    if (CMTIME_IS_INDEFINITE(t)) return t;
    if (t.value == std::numeric_limits<int64_t>::min()) return kCMTimePositiveInfinity;
    t.value = -t.value;
    return t;
}

} // namespace

CMTime CMTimeMake(int64_t value, int32_t timescale)
{
    if (timescale <= 0) return kCMTimeInvalid;
    return CMTime {value, timescale, kCMTimeFlags_Valid, 0};
}

CMTime CMTimeMakeWithEpoch(int64_t value, int32_t timescale, int64_t epoch)
{
    CMTime t = CMTimeMake(value, timescale);
    if (CMTIME_IS_VALID(t)) t.epoch = epoch;
    return t;
}

CMTime CMTimeMakeWithSeconds(double seconds, int32_t preferredTimescale)
{
    if (std::isnan(seconds) || preferredTimescale <= 0) return kCMTimeInvalid;
    if (std::isinf(seconds)) return infinityWithSign(seconds < 0);
    int32_t timescale = preferredTimescale;
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    constexpr double kLimit = 9223372036854775808.0;
    double scaled = std::round(seconds * timescale);
    while (std::fabs(scaled) >= kLimit && timescale > 1) {
        timescale /= 2;
        scaled = std::round(seconds * timescale);
    }
    if (std::fabs(scaled) >= kLimit) return infinityWithSign(seconds < 0);
    return CMTime {int64_t(scaled), timescale, kCMTimeFlags_Valid, 0};
}

double CMTimeGetSeconds(CMTime time)
{
    if (CMTIME_IS_POSITIVE_INFINITY(time)) return std::numeric_limits<double>::infinity();
    if (CMTIME_IS_NEGATIVE_INFINITY(time)) return -std::numeric_limits<double>::infinity();
    if (!CMTIME_IS_NUMERIC(time) || time.timescale <= 0) return std::numeric_limits<double>::quiet_NaN();
    return double(time.value) / double(time.timescale);
}

int32_t CMTimeCompare(CMTime time1, CMTime time2)
{
    const int r1 = rank(time1);
    const int r2 = rank(time2);
    if (r1 != r2) return r1 < r2 ? -1 : 1;
    if (r1 != 1) return 0;
    if (time1.epoch != time2.epoch) return time1.epoch < time2.epoch ? -1 : 1;
    const Wide a = Wide(time1.value) * time2.timescale;
    const Wide b = Wide(time2.value) * time1.timescale;
    return a < b ? -1 : (a > b ? 1 : 0);
}

CMTime CMTimeAdd(CMTime lhs, CMTime rhs)
{
    if (!CMTIME_IS_VALID(lhs) || !CMTIME_IS_VALID(rhs)) return kCMTimeInvalid;
    const bool plusInf = CMTIME_IS_POSITIVE_INFINITY(lhs) || CMTIME_IS_POSITIVE_INFINITY(rhs);
    const bool minusInf = CMTIME_IS_NEGATIVE_INFINITY(lhs) || CMTIME_IS_NEGATIVE_INFINITY(rhs);
    if (plusInf && minusInf) return kCMTimeInvalid;
    if (CMTIME_IS_INDEFINITE(lhs) || CMTIME_IS_INDEFINITE(rhs)) return kCMTimeIndefinite;
    if (plusInf) return kCMTimePositiveInfinity;
    if (minusInf) return kCMTimeNegativeInfinity;
    if (lhs.epoch != rhs.epoch) return kCMTimeInvalid;

    const CMTimeFlags carried = (lhs.flags | rhs.flags) & kCMTimeFlags_HasBeenRounded;
    if (lhs.timescale == rhs.timescale) {
        return numeric(Wide(lhs.value) + rhs.value, lhs.timescale, carried, lhs.epoch);
    }
    const int64_t lcm = std::lcm(int64_t(lhs.timescale), int64_t(rhs.timescale));
    if (lcm <= kCMTimeMaxTimescale) {
        const Wide sum = Wide(lhs.value) * (lcm / lhs.timescale) + Wide(rhs.value) * (lcm / rhs.timescale);
        return numeric(sum, int32_t(lcm), carried, lhs.epoch);
    }
    // No common timescale fits: use the finer one and round.
    const int32_t timescale = std::max(lhs.timescale, rhs.timescale);
    const CMTime a = CMTimeConvertScale(lhs, timescale, kCMTimeRoundingMethod_Default);
    const CMTime b = CMTimeConvertScale(rhs, timescale, kCMTimeRoundingMethod_Default);
    if (!CMTIME_IS_NUMERIC(a) || !CMTIME_IS_NUMERIC(b)) return CMTimeAdd(a, b);
    return numeric(Wide(a.value) + b.value, timescale, (a.flags | b.flags) & kCMTimeFlags_HasBeenRounded,
                   lhs.epoch);
}

CMTime CMTimeSubtract(CMTime lhs, CMTime rhs)
{
    return CMTimeAdd(lhs, negate(rhs));
}

CMTime CMTimeMultiply(CMTime time, int32_t multiplier)
{
    return CMTimeMultiplyByRatio(time, multiplier, 1);
}

CMTime CMTimeMultiplyByRatio(CMTime time, int32_t multiplier, int32_t divisor)
{
    if (!CMTIME_IS_VALID(time) || divisor == 0) return kCMTimeInvalid;
    const bool negative = (multiplier < 0) != (divisor < 0);
    if (CMTIME_IS_INDEFINITE(time)) return time;
    if (!CMTIME_IS_NUMERIC(time)) {
        if (multiplier == 0) return kCMTimeInvalid;
        return negative ? negate(time) : time;
    }
    Wide n = Wide(time.value) * multiplier;
    Wide d = divisor;
    if (d < 0) {
        n = -n;
        d = -d;
    }
    bool rounded = false;
    const Wide value = divide(n, d, kCMTimeRoundingMethod_Default, false, rounded);
    return numeric(value, time.timescale, (time.flags & kCMTimeFlags_HasBeenRounded) | (rounded ? CMTimeFlags(kCMTimeFlags_HasBeenRounded) : 0u),
                   time.epoch);
}

CMTime CMTimeMultiplyByFloat64(CMTime time, double multiplier)
{
    if (!CMTIME_IS_VALID(time) || std::isnan(multiplier)) return kCMTimeInvalid;
    if (CMTIME_IS_INDEFINITE(time)) return time;
    if (!CMTIME_IS_NUMERIC(time)) {
        if (multiplier == 0) return kCMTimeInvalid;
        return multiplier < 0 ? negate(time) : time;
    }
    // A timescale under 65536 is doubled until it reaches that (as Core Media
    // does), so that a small step such as a running average moving by 1/32 of
    // a millisecond is not rounded away; a product too large for 64 bits
    // halves the timescale until it fits.
    int32_t timescale = time.timescale;
    while (timescale < 65536) timescale *= 2;
    for (;;) {
        const double exact = double(time.value) * multiplier * (double(timescale) / double(time.timescale));
        if (std::isnan(exact)) return kCMTimeInvalid;
        const double product = std::round(exact);
        if (std::fabs(product) < 9223372036854775808.0) {
            CMTime result = time;
            result.value = int64_t(product);
            result.timescale = timescale;
            if (product != exact) result.flags |= kCMTimeFlags_HasBeenRounded;
            return result;
        }
        if (timescale == 1) return infinityWithSign(product < 0);
        timescale /= 2;
    }
}

CMTime CMTimeConvertScale(CMTime time, int32_t newTimescale, CMTimeRoundingMethod method)
{
    if (!CMTIME_IS_NUMERIC(time)) return time;
    if (newTimescale <= 0) return kCMTimeInvalid;
    if (time.timescale == newTimescale) return time;
    bool rounded = false;
    const Wide value = divide(Wide(time.value) * newTimescale, time.timescale, method, newTimescale > time.timescale,
                              rounded);
    return numeric(value, newTimescale,
                   (time.flags & kCMTimeFlags_HasBeenRounded) | (rounded ? CMTimeFlags(kCMTimeFlags_HasBeenRounded) : 0u),
                   time.epoch);
}

CMTime CMTimeAbsoluteValue(CMTime time)
{
    if (CMTIME_IS_NEGATIVE_INFINITY(time)) return kCMTimePositiveInfinity;
    if (CMTIME_IS_NUMERIC(time) && time.value < 0) return negate(time);
    return time;
}

CMTime CMTimeMinimum(CMTime time1, CMTime time2)
{
    if (!CMTIME_IS_VALID(time1) || !CMTIME_IS_VALID(time2)) return kCMTimeInvalid;
    return CMTimeCompare(time2, time1) < 0 ? time2 : time1;
}

CMTime CMTimeMaximum(CMTime time1, CMTime time2)
{
    if (!CMTIME_IS_VALID(time1) || !CMTIME_IS_VALID(time2)) return kCMTimeInvalid;
    return CMTimeCompare(time2, time1) > 0 ? time2 : time1;
}

std::string CMTimeCopyDescription(const void*, CMTime time)
{
    if (!CMTIME_IS_VALID(time)) return "{INVALID}";
    if (CMTIME_IS_INDEFINITE(time)) return "{INDEFINITE}";
    if (CMTIME_IS_POSITIVE_INFINITY(time)) return "{+INFINITY}";
    if (CMTIME_IS_NEGATIVE_INFINITY(time)) return "{-INFINITY}";
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "{%lld/%d = %.3f%s}", static_cast<long long>(time.value), time.timescale,
                  CMTimeGetSeconds(time), CMTIME_HAS_BEEN_ROUNDED(time) ? ", rounded" : "");
    return buffer;
}

bool CMTimeRangeContainsTime(CMTimeRange range, CMTime time)
{
    if (!CMTIMERANGE_IS_VALID(range) || !CMTIME_IS_VALID(time)) return false;
    return CMTimeCompare(range.start, time) <= 0 && CMTimeCompare(time, CMTimeRangeGetEnd(range)) < 0;
}

} // namespace qx
