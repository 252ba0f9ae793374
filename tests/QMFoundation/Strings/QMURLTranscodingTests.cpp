#include "QMFoundation/Strings/NSDictionary+QMURLEncoding.h"
#include "QMFoundation/Strings/NSString+QMQueryParams.h"
#include "QMFoundation/Strings/NSString+QMURLTranscoding.h"
#include "QMFoundation/Strings/NSURL+QMQueryParams.h"

#include <gtest/gtest.h>

using platform::Dictionary;
using platform::Value;

namespace {

TEST(URLEncoding, LeavesOnlyUnreservedCharactersByDefault)
{
    struct Case {
        const char* input;
        const char* expected;
    };
    const Case cases[] = {
        {"", ""},
        {"AZaz09-._", "AZaz09-._"},
        {"~:/?#[]@!$&'()*+,;=", "%7E%3A%2F%3F%23%5B%5D%40%21%24%26%27%28%29%2A%2B%2C%3B%3D"},
        {"a b\"%<>\\^`{|}", "a%20b%22%25%3C%3E%5C%5E%60%7B%7C%7D"},
        {"\x01\x7F", "%01%7F"},
        {"caf\xC3\xA9", "caf%C3%A9"},
        {"\xF0\x9F\x94\x91", "%F0%9F%94%91"},
        {"\xFF", "%FF"},  // not UTF-8: escaped byte by byte all the same
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(stringByURLEncodingString(input), expected) << input;
        EXPECT_EQ(stringByURLEncodingIllegalAndCriticalLegalURLCharactersInString(input), expected) << input;
    }
}

TEST(URLEncoding, CharactersToLeaveWinOverEverything)
{
    // Legal characters not named stay; named ones are escaped.
    EXPECT_EQ(stringByURLEncodingStringLeavingCharactersInStringUntoched("a/b?c d", "", "?"), "a/b%3Fc%20d");
    // Left characters are copied even when illegal or also named for escaping.
    EXPECT_EQ(stringByURLEncodingStringLeavingCharactersInStringUntoched("a/b c?", " ?", "?/"), "a%2Fb c?");
    // A left character is a whole character, not one of its bytes.
    EXPECT_EQ(stringByURLEncodingStringLeavingCharactersInStringUntoched("\xC3\xA9\xC3\xA8", "\xC3\xA9", ""),
              "\xC3\xA9%C3%A8");
}

TEST(URLDecoding, ReadsEscapesAsUTF8)
{
    EXPECT_EQ(stringByURLDecodingString("caf%C3%A9+x%2f"), "caf\xC3\xA9+x/");
    EXPECT_EQ(stringByURLDecodingString(stringByURLEncodingString("a&b=c d\xE2\x82\xAC")), "a&b=c d\xE2\x82\xAC");
    for (const char* invalid : {"%", "%4", "%zz", "100%", "%C3", "%FF", "%-0"}) {
        EXPECT_FALSE(stringByURLDecodingString(invalid)) << invalid;
    }
}

TEST(URLEncodedQueryString, JoinsEscapedPairsInInsertionOrder)
{
    EXPECT_EQ(URLEncodedQueryString(Dictionary{}), "");
    EXPECT_EQ(URLEncodedQueryString(Dictionary{{"page", 2}, {"a", "x"}}), "page=2&a=x");
    EXPECT_EQ(URLEncodedQueryString(Dictionary{{"q&r", "a=b&c"}}), "q%26r=a%3Db%26c");
    EXPECT_EQ(URLEncodedQueryString(Dictionary{{"flag", true}, {"none", Value::null()}}), "flag=1&none=%3Cnull%3E");
}

TEST(QueryParams, KeepsOnlyPiecesWithExactlyOneEquals)
{
    EXPECT_EQ(queryParams("a=1&b&c=2=3"), (Dictionary{{"a", "1"}}));
    EXPECT_EQ(queryParams(""), Dictionary{});
    EXPECT_EQ(queryParams("a=&=b&&"), (Dictionary{{"a", ""}, {"", "b"}}));
    EXPECT_EQ(queryParams("a=1&a=2"), (Dictionary{{"a", "2"}}));
    EXPECT_EQ(queryParams("a%20b=c%3D"), (Dictionary{{"a%20b", "c%3D"}}));  // not decoded
}

TEST(QueryParams, OfAURLReadItsQuery)
{
    EXPECT_FALSE(queryParams(*platform::URL::fromString("https://host/x")));
    EXPECT_EQ(queryParams(*platform::URL::fromString("https://host/x?a=1&b=2#c=3")),
              (Dictionary{{"a", "1"}, {"b", "2"}}));
}

}  // namespace
