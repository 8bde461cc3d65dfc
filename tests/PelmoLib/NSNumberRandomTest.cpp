#include "PelmoLib/encodings/NSNumber+Random.h"

#include <gtest/gtest.h>

#include <set>

#include "platform/base/Exception.h"

namespace velkor {
namespace {

TEST(NSNumberRandomTest, isTheStandardGenerator) {
    seedRandomNumberGenerator(5489);
    for (int i = 1; i < 10000; ++i) nextRandomNumber();
    EXPECT_EQ(nextRandomNumber(), 4123659995U);  // the published 10,000th output for this seed
    seedRandomNumberGenerator(1);
    EXPECT_EQ(nextRandomNumber(), 1791095845U);
    seedRandomNumberGenerator(1);
    EXPECT_EQ(nextRandomNumber(), 1791095845U);
}

TEST(NSNumberRandomTest, drawsFromTheRangeWithoutItsEnd) {
    seedRandomNumberGenerator();
    std::set<std::int64_t> drawn;
    for (int i = 0; i < 5000; ++i) drawn.insert(numberWithRandomValueBetweenStart(3, 20));
    EXPECT_EQ(*drawn.begin(), 3);
    EXPECT_EQ(*drawn.rbegin(), 19);
    EXPECT_EQ(drawn.size(), 17U);
    seedRandomNumberGenerator(1);
    EXPECT_EQ(numberWithRandomValueBetweenStart(-5, 5), 1791095845 % 10 - 5);
    EXPECT_EQ(numberWithRandomValueBetweenStart(INT32_MIN, INT32_MAX), 4282876139LL % 4294967295LL - 2147483648LL);
    EXPECT_THROW((void)numberWithRandomValueBetweenStart(7, 7), NS::AssertionFailure);
}

TEST(NSNumberRandomTest, givesRealNumbers) {
    const double first = 1791095845.0;
    seedRandomNumberGenerator(1);
    EXPECT_DOUBLE_EQ(nextRandomRealClosed(), first / 4294967295.0);
    seedRandomNumberGenerator(1);
    EXPECT_DOUBLE_EQ(nextRandomRealHalfOpen(), first / 4294967296.0);
    seedRandomNumberGenerator(1);
    EXPECT_DOUBLE_EQ(nextRandomRealOpen(), (first + 0.5) / 4294967296.0);
    seedRandomNumberGenerator(1);
    EXPECT_NEAR(nextRandomReal53(), first / 4294967296.0, 1e-7);
}

}  // namespace
}  // namespace velkor
