#include "QMFoundation/Strings/NSString+QMRegularExpression.h"

#include "Platform/Foundation/Exception.h"

#include <gtest/gtest.h>

using platform::RegularExpression;

namespace {

TEST(ComponentsMatchedByRegularExpression, GivesWholeMatchThenGroups)
{
    const auto expression = RegularExpression::create("(a)(x)?(b)", 0);
    const auto components = componentsMatchedByRegularExpression("zzab", expression);
    ASSERT_TRUE(components);
    ASSERT_EQ(components->size(), 4u);
    EXPECT_EQ((*components)[0], platform::Value("ab"));
    EXPECT_EQ((*components)[1], platform::Value("a"));
    EXPECT_TRUE((*components)[2].isNull());  // the optional group took no part
    EXPECT_EQ((*components)[3], platform::Value("b"));

    EXPECT_FALSE(componentsMatchedByRegularExpression("nothing here", expression));
}

TEST(ComponentsMatchedByRegularExpression, MatchesCaselesslyAndAnchorsAtTheStart)
{
    const auto caseless = RegularExpression::create("password for '(.+)':", RegularExpression::CaseInsensitive);
    EXPECT_TRUE(isMatchedByRegularExpression("PASSWORD FOR 'x':", caseless));
    const auto anchored = RegularExpression::create("^(.+)'s", RegularExpression::CaseInsensitive);
    EXPECT_FALSE(isMatchedByRegularExpression("first line\njo's", anchored));  // "." stops at the line break
    EXPECT_TRUE(isMatchedByRegularExpression("jo's", anchored));
    EXPECT_FALSE(isMatchedByRegularExpression("\xff\xfe's", RegularExpression::create("^(x+)'s", 0)));
}

// A prompt that carries a second line must not have it read as part of a URL
// or a user name, whichever line break separates them.
TEST(ComponentsMatchedByRegularExpression, DotStopsAtEveryLineBreak)
{
    const auto anchored = RegularExpression::create("^(.+)'s password:", RegularExpression::CaseInsensitive);
    for (const std::string lineBreak : {"\n", "\r", "\r\n", "\v", "\f", "\u0085", "\u2028", "\u2029"}) {
        SCOPED_TRACE(testing::PrintToString(lineBreak));
        EXPECT_FALSE(isMatchedByRegularExpression("evil.com" + lineBreak + "jo@host's password:", anchored));
    }
    EXPECT_TRUE(isMatchedByRegularExpression("jo@host\t's password:", anchored));
    const auto dotAll = RegularExpression::create("^(.+)'s", RegularExpression::DotMatchesLineSeparators);
    EXPECT_TRUE(isMatchedByRegularExpression("a\rb's", dotAll));
}

TEST(ComponentsMatchedByRegularExpression, AssertsOnAMissingExpression)
{
    platform::AssertionFailure seen;
    auto previous = platform::AssertionHandler::setObserver([&](const platform::AssertionFailure& failure) { seen = failure; });
    try {
        componentsMatchedByRegularExpression("x", nullptr);
        FAIL() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(exception.reason(), "Invalid parameter not satisfying: regularExpression != nil");
    }
    platform::AssertionHandler::setObserver(previous);
    EXPECT_EQ(seen.file, "QMFoundation/NSString+QMRegularExpression");
    EXPECT_GT(seen.line, 0);
    EXPECT_THROW(isMatchedByRegularExpression("x", nullptr), platform::Exception);
}

}  // namespace
