// CMTime: ordering, exact comparison, overflow, rounding.

#include <gtest/gtest.h>

#include <limits>

#include "qxmedia/platform/foundation/CMTime.h"

using namespace qx;

TEST(CMTime, TotalOrderOfSpecialValues)
{
    const CMTime ordered[] = {kCMTimeNegativeInfinity, CMTimeMake(-5, 1), CMTimeMake(1, 3), CMTimeMake(1000, 1),
                              kCMTimeIndefinite, kCMTimePositiveInfinity, kCMTimeInvalid};
    for (size_t i = 0; i < std::size(ordered); ++i) {
        for (size_t j = 0; j < std::size(ordered); ++j) {
            const int expected = i < j ? -1 : (i > j ? 1 : 0);
            EXPECT_EQ(CMTimeCompare(ordered[i], ordered[j]), expected) << i << " vs " << j;
        }
    }
}

TEST(CMTime, AddUsesCommonTimescaleOrRounds)
{
    EXPECT_EQ(CMTimeAdd(CMTimeMake(1, 3), CMTimeMake(1, 2)).timescale, 6);
    EXPECT_EQ(CMTimeCompare(CMTimeMake(1001, 30000), CMTimeMake(1001 * 3, 90000)), 0);
    const int64_t big = std::numeric_limits<int64_t>::max(); // products beyond 64 bits
    EXPECT_GT(CMTimeCompare(CMTimeMake(big, 1), CMTimeMake(big, 2)), 0);

    // Two large coprime timescales: no common multiple fits, so the finer
    // one is taken and the result is marked rounded.
    const CMTime a = CMTimeMake(1, 1000000007);
    const CMTime b = CMTimeMake(1, 999999937);
    const CMTime rounded = CMTimeAdd(a, b);
    EXPECT_EQ(rounded.timescale, 1000000007);
    EXPECT_TRUE(CMTIME_HAS_BEEN_ROUNDED(rounded));
    EXPECT_EQ(rounded.value, 2);
}

TEST(CMTime, OverflowBecomesInfinityNotUndefinedBehaviour)
{
    const int64_t big = std::numeric_limits<int64_t>::max();
    EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(CMTimeAdd(CMTimeMake(big, 1), CMTimeMake(1, 1))));
    EXPECT_TRUE(CMTIME_IS_NEGATIVE_INFINITY(CMTimeSubtract(CMTimeMake(-big, 1), CMTimeMake(2, 1))));
    EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(CMTimeConvertScale(CMTimeMake(big / 2, 1), 1000, kCMTimeRoundingMethod_Default)));
    EXPECT_TRUE(CMTIME_IS_NEGATIVE_INFINITY(CMTimeMultiply(CMTimeMake(-big, 1), 3)));
    EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(CMTimeMultiplyByFloat64(CMTimeMake(big, 1), 2.0)));
    EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(CMTimeSubtract(CMTimeMake(1, 1), CMTimeMake(std::numeric_limits<int64_t>::min(), 1))));
}

// A running average in milliseconds moves by 1/32 of the difference; kept
// at the millisecond it would stall 15 ms short of a 40 ms frame spacing.
TEST(CMTime, MultiplyByFloatKeepsSmallFractions)
{
    const CMTime step = CMTimeMultiplyByFloat64(CMTimeMake(5, 1000), 0.03125);
    EXPECT_EQ(CMTimeCompare(step, CMTimeMake(5, 32000)), 0);
    EXPECT_FALSE(CMTIME_HAS_BEEN_ROUNDED(step));
    CMTime average = CMTimeMake(1, 30);
    for (int i = 0; i < 400; ++i)
        average = CMTimeAdd(average, CMTimeMultiplyByFloat64(CMTimeSubtract(CMTimeMake(40, 1000), average), 0.03125));
    EXPECT_EQ(CMTimeConvertScale(average, 1000, kCMTimeRoundingMethod_RoundHalfAwayFromZero).value, 40);
}

TEST(CMTime, ConvertScaleRoundingMethods)
{
    struct Case {
        int64_t value;
        CMTimeRoundingMethod method;
        int64_t expected;
    };
    // Tenths to timescale 1: the halves, and each direction where a method adjusts.
    const Case cases[] = {
        {5, kCMTimeRoundingMethod_RoundHalfAwayFromZero, 1},
        {-5, kCMTimeRoundingMethod_RoundHalfAwayFromZero, -1},
        {4, kCMTimeRoundingMethod_RoundHalfAwayFromZero, 0},
        {-19, kCMTimeRoundingMethod_RoundTowardZero, -1},
        {-11, kCMTimeRoundingMethod_RoundAwayFromZero, -2},
        {11, kCMTimeRoundingMethod_RoundTowardPositiveInfinity, 2},
        {-11, kCMTimeRoundingMethod_RoundTowardPositiveInfinity, -1},
        {-11, kCMTimeRoundingMethod_RoundTowardNegativeInfinity, -2},
        {11, kCMTimeRoundingMethod_RoundTowardNegativeInfinity, 1},
        {19, kCMTimeRoundingMethod_QuickTime, 1},
        {-3, kCMTimeRoundingMethod_QuickTime, -1}, // never rounds a negative time up to zero
    };
    for (const Case& c : cases) {
        const CMTime t = CMTimeConvertScale(CMTimeMake(c.value, 10), 1, c.method);
        EXPECT_EQ(t.value, c.expected) << c.value << "/10 method " << c.method;
        EXPECT_TRUE(CMTIME_HAS_BEEN_ROUNDED(t));
    }
    const CMTime exact = CMTimeConvertScale(CMTimeMake(3, 25), 90000, kCMTimeRoundingMethod_Default);
    EXPECT_EQ(exact.value, 10800);
    EXPECT_FALSE(CMTIME_HAS_BEEN_ROUNDED(exact));
}

