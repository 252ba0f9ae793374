#include "QMFoundation/Errors/NSString+QMFormat.h"

#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

using platform::Array;
using platform::Value;

namespace {

TEST(StringWithFormat, WithoutArgumentsReturnsTheFormatUntouched)
{
    EXPECT_EQ(stringWithFormat("100%% of %@", {}), "100%% of %@");
}

TEST(StringWithFormat, FillsObjectSpecifiersInOrder)
{
    struct Case {
        const char* format;
        Array arguments;
        const char* expected;
    };
    const Case cases[] = {
        {"%@ of %@ (100%%)", {"3", 7}, "3 of 7 (100%)"},
        {"%2$@ before %1$@", {"a", "b"}, "b before a"},
        {"%1$@ and %@ and %@", {"x", "y"}, "x and x and y"},
        {"%@ %@", {"only"}, "only (null)"},
        {"%3$@", {"a", "b"}, "(null)"},
        // Other specifiers are text: nothing is read for them.
        {"%s %d %n %x %@ %", {"v"}, "%s %d %n %x v %"},
        {"%0$@ %1234567$@ %1$", {"v"}, "%0$@ %1234567$@ %1$"},
        {"%@", {Array{"a", "b"}}, "(\n    a,\n    b\n)"},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(stringWithFormat(testCase.format, testCase.arguments), testCase.expected) << testCase.format;
    }
}

TEST(StringWithFormat, TakesAtMostTenArguments)
{
    const Array ten(10, Value("x"));
    EXPECT_EQ(stringWithFormat("%@%@%@%@%@%@%@%@%@%@|%@", ten), "xxxxxxxxxx|(null)");

    const Array eleven(11, Value("x"));
    const auto failure = testsupport::captureAssertion([&] { stringWithFormat("%@", eleven); });
    EXPECT_EQ(failure.description, "Only 10 string format arguments supported.");
    EXPECT_EQ(failure.file, "QMFoundation/NSString+QMFormat");
}

}  // namespace
