#include "QMFoundation/Comparison/NSString+QMVersionStringComparator.h"

#include <gtest/gtest.h>

using platform::ComparisonResult;
using Type = QMVersionPartType;

namespace {

constexpr auto Ascending = ComparisonResult::OrderedAscending;
constexpr auto Same = ComparisonResult::OrderedSame;
constexpr auto Descending = ComparisonResult::OrderedDescending;

ComparisonResult reversed(ComparisonResult result)
{
    return static_cast<ComparisonResult>(-static_cast<int>(result));
}

TEST(QMVersionStringComparator, KnowsTheTypeOfACharacter)
{
    struct Case {
        const char* characters;
        Type type;
    };
    const Case cases[] = {
        {".", Type::Separator}, {"7", Type::Number},   {"a", Type::String},  {"..", Type::String},
        {"10", Type::Number},   {"\u0663", Type::Number} /* ARABIC-INDIC DIGIT THREE */,
        {"\U0001D7D0", Type::Number} /* MATHEMATICAL BOLD DIGIT TWO */,
        {"\u00B2", Type::String} /* superscript two: a number, but not a decimal digit */,
        {"\u2167", Type::String} /* roman numeral eight */, {"\xff", Type::String}, {"", Type::String},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(QMVersionStringComparator::typeOfCharacter(testCase.characters), testCase.type) << testCase.characters;
    }
}

TEST(QMVersionStringComparator, SplitsIntoRunsAndSingleSeparators)
{
    using Parts = std::vector<std::string>;
    struct Case {
        const char* version;
        Parts parts;
    };
    const Case cases[] = {
        {"1.10b2", {"1", ".", "10", "b", "2"}},
        {"1..2", {"1", ".", ".", "2"}},
        {"rc1", {"rc", "1"}},
        {"", {}},
        {"...", {".", ".", "."}},
        {"2.0 beta", {"2", ".", "0", " beta"}},
        {"\u0661\u0662.x\u00e9", {"\u0661\u0662", ".", "x\u00e9"}},
        {"1\xff\xfe" "2", {"1", "\xff\xfe", "2"}},
        {"1\xe2\x82", {"1", "\xe2\x82"}},  // a sequence cut short at the end
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(QMVersionStringComparator::splitVersionString(testCase.version), testCase.parts) << testCase.version;
    }
}

TEST(QMVersionStringComparator, OrdersVersions)
{
    struct Case {
        const char* version;
        const char* otherVersion;
        ComparisonResult result;
    };
    const Case cases[] = {
        {"1.0", "1.0.1", Ascending},
        {"1.0a", "1.0", Ascending},
        {"1.0b1", "1.0", Ascending},
        {"1.9", "1.10", Ascending},
        {"1.0a", "1.0b", Ascending},
        {"1.0", "1.0.", Ascending},
        {"1.5", "1.b", Descending},
        {"1.0", "1.00", Same},
        {"01", "1", Same},
        {"", "", Same},
        {"", "1", Ascending},
        {"", "a", Descending},
        {"", ".", Ascending},
        {"1.0RC", "1.0rc", Ascending},
        {"1.2", "1..2", Descending},  // a number beats a separator at the same place
        {"a", "b", Ascending},
        {"2", "10", Ascending},
        // Number parts saturate at the 32-bit limit.
        {"3000000000", "4000000000", Same},
        {"2147483647", "99999999999999999999999", Same},
        {"2147483646", "2147483647", Ascending},
        // Digits of any script, by value.
        {"1.\u0662", "1.2", Same},
        {"1.\u0661\u0660", "1.9", Descending},
        {"\U0001D7CF\U0001D7CE", "10", Same},
        {"\u0967.\u0968", "1.3", Ascending},  // Devanagari 1.2
        // Words compare as text: composed and decomposed spellings are one.
        {"1.0\u00e9", "1.0e\u0301", Same},
        {"1.0\u00e9", "1.0f", Ascending},  // "e" and an accent, before "f"
        {"1.0z", "1.0\u00e9", Descending},
        // Bytes that are not UTF-8 are word characters and keep their order.
        {"1.\xfe", "1.\xff", Ascending},
        {"1.0\xff", "1.0", Ascending},
        {"1.\xff", "1.\xc3\xa9", Descending},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(QMVersionStringComparator::compareVersion(testCase.version, testCase.otherVersion), testCase.result)
            << testCase.version << " vs " << testCase.otherVersion;
        EXPECT_EQ(QMVersionStringComparator::compareVersion(testCase.otherVersion, testCase.version), reversed(testCase.result))
            << testCase.otherVersion << " vs " << testCase.version;
    }
}

TEST(NSStringQMVersionStringComparator, AnswersTheFourQuestions)
{
    EXPECT_EQ(compareToOtherVersionString("1.2", "1.10"), Ascending);
    EXPECT_TRUE(isGreaterThanOrEqualToOtherVersionString("1.0", "1.00"));
    EXPECT_TRUE(isLessThanOrEqualToOtherVersionString("1.0", "1.00"));
    EXPECT_FALSE(isGreaterThanOtherVersionString("1.0", "1.00"));
    EXPECT_FALSE(isLessThanOtherVersionString("1.0", "1.00"));
    EXPECT_TRUE(isGreaterThanOtherVersionString("2.0", "2.0b3"));
    EXPECT_FALSE(isGreaterThanOrEqualToOtherVersionString("2.0b3", "2.0"));
    EXPECT_TRUE(isLessThanOtherVersionString("2.0b3", "2.0"));
    EXPECT_FALSE(isLessThanOrEqualToOtherVersionString("2.0", "2.0b3"));
}

}  // namespace
