// CMTime: ordering, exact comparison, arithmetic, overflow, rounding, seconds and text.

#include <gtest/gtest.h>

#include <cmath>
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
    EXPECT_EQ(CMTimeCompare(kCMTimeInvalid, CMTime {5, 0, 0, 0}), 0) << "invalid equals invalid";
}

TEST(CMTime, CompareIsExactAcrossTimescalesAndLargeValues)
{
    EXPECT_EQ(CMTimeCompare(CMTimeMake(1001, 30000), CMTimeMake(1001 * 3, 90000)), 0);
    EXPECT_GT(CMTimeCompare(CMTimeMake(1, 3), CMTimeMake(333333333, 1000000000)), 0);
    // Products beyond 64 bits must still compare right.
    const int64_t big = std::numeric_limits<int64_t>::max();
    EXPECT_GT(CMTimeCompare(CMTimeMake(big, 1), CMTimeMake(big, 2)), 0);
    EXPECT_LT(CMTimeCompare(CMTimeMake(-big, 1), CMTimeMake(big, kCMTimeMaxTimescale)), 0);
}

TEST(CMTime, ArithmeticWithSpecialValues)
{
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeAdd(kCMTimeInvalid, CMTimeMake(1, 1))));
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeSubtract(CMTimeMake(1, 1), kCMTimeInvalid)));
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeAdd(kCMTimePositiveInfinity, kCMTimeNegativeInfinity)));
    EXPECT_TRUE(CMTIME_IS_POSITIVE_INFINITY(CMTimeAdd(kCMTimePositiveInfinity, CMTimeMake(-7, 2))));
    EXPECT_TRUE(CMTIME_IS_NEGATIVE_INFINITY(CMTimeSubtract(CMTimeMake(3, 1), kCMTimePositiveInfinity)));
    EXPECT_TRUE(CMTIME_IS_INDEFINITE(CMTimeAdd(kCMTimeIndefinite, CMTimeMake(1, 1))));
}

TEST(CMTime, AddUsesCommonTimescaleOrRounds)
{
    const CMTime sum = CMTimeAdd(CMTimeMake(1, 3), CMTimeMake(1, 2));
    EXPECT_EQ(sum.value, 5);
    EXPECT_EQ(sum.timescale, 6);
    const CMTime diff = CMTimeSubtract(CMTimeMake(3003, 90000), CMTimeMake(1001, 30000));
    EXPECT_EQ(CMTimeCompare(diff, kCMTimeZero), 0);

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
    EXPECT_TRUE(CMTIME_IS_INDEFINITE(CMTimeConvertScale(kCMTimeIndefinite, 1000, kCMTimeRoundingMethod_Default)));
}

TEST(CMTime, MultiplyByRatioAndFloat)
{
    EXPECT_EQ(CMTimeMultiplyByRatio(CMTimeMake(1001, 30000), 3, 2).value, 1502); // 1501.5 rounds away
    EXPECT_EQ(CMTimeMultiplyByRatio(CMTimeMake(-1001, 30000), 3, 2).value, -1502);
    EXPECT_EQ(CMTimeMultiplyByRatio(CMTimeMake(10, 1), 1, -4).value, -3);
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeMultiplyByRatio(CMTimeMake(10, 1), 1, 0)));
    const CMTime scaled = CMTimeMultiplyByFloat64(CMTimeMake(1000, 1000), 1.0 / 3.0);
    EXPECT_EQ(scaled.value, 333);
    EXPECT_EQ(scaled.timescale, 1000);
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeMultiplyByFloat64(CMTimeMake(1, 1), std::nan(""))));
}

TEST(CMTime, SecondsConversions)
{
    const CMTime t = CMTimeMakeWithSeconds(1.0005, 1000);
    EXPECT_EQ(t.value, 1001) << "half rounds away from zero";
    EXPECT_EQ(CMTimeMakeWithSeconds(-1.0005, 1000).value, -1001);
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeMakeWithSeconds(std::nan(""), 600)));
    EXPECT_TRUE(CMTIME_IS_NEGATIVE_INFINITY(CMTimeMakeWithSeconds(-INFINITY, 600)));
    // A value beyond 64 bits lowers the timescale instead of overflowing.
    const CMTime huge = CMTimeMakeWithSeconds(1e13, 1000000000);
    EXPECT_TRUE(CMTIME_IS_NUMERIC(huge));
    EXPECT_LT(huge.timescale, 1000000000);
    EXPECT_NEAR(CMTimeGetSeconds(huge), 1e13, 1);
    EXPECT_TRUE(std::isnan(CMTimeGetSeconds(kCMTimeIndefinite)));
    EXPECT_FALSE(CMTIME_IS_VALID(CMTimeMake(1, 0)));
}

TEST(CMTime, Description)
{
    EXPECT_EQ(CMTimeCopyDescription(CMTimeMake(1001, 30000)), "{1001/30000 = 0.033}");
    EXPECT_EQ(CMTimeCopyDescription(kCMTimeInvalid), "{INVALID}");
    EXPECT_EQ(CMTimeCopyDescription(kCMTimeNegativeInfinity), "{-INFINITY}");
    EXPECT_EQ(CMTimeCopyDescription(CMTimeConvertScale(CMTimeMake(1, 3), 10, kCMTimeRoundingMethod_Default)),
              "{3/10 = 0.300, rounded}");
}
