#include "QMFoundation/Strings/NSURL+QMCommon.h"

#include <gtest/gtest.h>

using platform::URL;

namespace {

URL url(const char* text)
{
    auto parsed = URL::fromString(text);
    EXPECT_TRUE(parsed) << text;
    return parsed.value_or(*URL::fromString("invalid:"));
}

std::string text(const std::optional<URL>& value)
{
    return value ? value->absoluteString() : "(nothing)";
}

TEST(RawUser, IsTheTextBetweenSchemeAndFirstAt)
{
    EXPECT_FALSE(rawUser(url("https://host/repo")));
    EXPECT_EQ(rawUser(url("https://jo@host")), "jo");
    EXPECT_EQ(rawUser(url("https://jo%40corp:pw@host")), "jo%40corp:pw");  // as written, not decoded
    EXPECT_EQ(rawUser(url("jo@host")), "jo");                              // no scheme: from the start
    EXPECT_EQ(rawUser(url("https://host/path@x")), "host/path");           // the first "@" anywhere counts
    EXPECT_FALSE(rawUser(url("a:jo@b://c")));                             // "://" after the "@"
}

TEST(URLByRemovingUser, DropsEveryOccurrenceOfTheUserPart)
{
    EXPECT_EQ(text(URLByRemovingUser(url("https://jo@host"))), "https://host");
    EXPECT_EQ(text(URLByRemovingUser(url("https://host/x"))), "https://host/x");
    EXPECT_EQ(text(URLByRemovingUser(url("https://jo@host/jo@x"))), "https://host/x");
}

TEST(URLByDeletingPath, CutsByLengthFromTheEnd)
{
    EXPECT_EQ(text(URLByDeletingPath(url("https://jo@host/team/repo.git"))), "https://jo@host");
    EXPECT_EQ(text(URLByDeletingPath(url("https://jo@host:8443"))), "https://jo@host:8443");
    // The arithmetic is kept as it is: a query shifts the cut, escapes shorten the path.
    EXPECT_EQ(text(URLByDeletingPath(url("https://host/ab?q=1"))), "https://host/ab?");
    EXPECT_EQ(text(URLByDeletingPath(url("https://host/a%20b"))), "https://host/a");
    // A trailing slash is not part of the decoded path, so one character stays.
    EXPECT_EQ(text(URLByDeletingPath(url("https://host/repo/"))), "https://host/");
}

}  // namespace

namespace {

TEST(URLBySettingUser, ReplacesInsertsOrRemovesTheUserPart)
{
    struct Case {
        const char* url;
        std::optional<std::string_view> user;
        const char* expected;
    };
    const Case cases[] = {
        {"https://jo@host/x", "ann", "https://ann@host/x"},
        {"https://host/x", "ann", "https://ann@host/x"},
        {"host/x", "ann", "ann@host/x"},
        {"https://host/x", "jo@corp.com", "https://jo%40corp.com@host/x"},
        {"https://jo:pw@host", "ann", "https://ann@host"},  // the password is part of the raw user
        {"https://jo@host/jo@x", "ann", "https://ann@host/ann@x"},  // every occurrence, as written
        {"https://jo@host", std::nullopt, "https://host"},
        {"https://jo@host", "", "https://host"},
    };
    for (const auto& [input, user, expected] : cases) {
        EXPECT_EQ(text(URLBySettingUser(url(input), user)), expected) << input;
    }
}

TEST(URLByAppendingQueryParams, ChoosesTheSeparatorByTheExistingQuery)
{
    const platform::Dictionary params{{"page", 2}, {"q", "a b&c"}};
    EXPECT_EQ(text(URLByAppendingQueryParams(url("https://host/x"), params)), "https://host/x?page=2&q=a%20b%26c");
    EXPECT_EQ(text(URLByAppendingQueryParams(url("https://host/x?per_page=50"), params)),
              "https://host/x?per_page=50&page=2&q=a%20b%26c");
    EXPECT_EQ(text(URLByAppendingQueryParams(url("https://host/x?a=1"), platform::Dictionary{})), "https://host/x?a=1");
    EXPECT_EQ(text(URLByAppendingQueryParams(url("https://host/x"), std::nullopt)), "https://host/x");
}

}  // namespace
