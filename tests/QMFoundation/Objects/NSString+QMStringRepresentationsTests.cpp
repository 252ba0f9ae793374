#include "QMFoundation/Objects/NSString+QMStringRepresentations.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(NSStringQMStringRepresentationsTest, BooleansAreWordsNotDigits)
{
    EXPECT_EQ(stringForBoolean(true), "YES");
    EXPECT_EQ(stringForBoolean(false), "NO");
}

TEST(NSStringQMStringRepresentationsTest, IntegersKeepTheirFullRange)
{
    EXPECT_EQ(stringForInteger(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(stringForUnsignedInteger(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
}

TEST(NSStringQMStringRepresentationsTest, FloatingPointUsesTheTypesOwnPrecision)
{
    struct Case {
        double value;
        const char* expected;
    };
    for (const auto& [value, expected] : {Case{3.0, "3"}, Case{0.1, "0.1"}, Case{1.0 / 3, "0.3333333333333333"},
                                          Case{1e20, "1e+20"}, Case{-0.5, "-0.5"}}) {
        EXPECT_EQ(stringForDouble(value), expected) << value;
    }
    EXPECT_EQ(stringForFloat(0.1f), "0.1");
    EXPECT_EQ(stringForFloat(1.0f / 3), "0.3333333");
    EXPECT_EQ(stringForFloat(16777216.0f), "1.677722e+07");
}

}  // namespace
