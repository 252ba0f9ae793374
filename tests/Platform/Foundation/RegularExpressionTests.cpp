#include "Platform/Foundation/RegularExpression.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

using platform::RegularExpression;

namespace {

// Each group's location and length; an absent group as (npos, 0).
std::vector<std::pair<std::size_t, std::size_t>> spans(const platform::RegularExpressionMatch& match)
{
    std::vector<std::pair<std::size_t, std::size_t>> result;
    for (const auto& range : match.ranges) {
        result.emplace_back(range ? range->location : std::string::npos, range ? range->length : 0);
    }
    return result;
}

// Machine code gives the interpreter's answers, also where its small stack
// runs out (a backtracking group repeated a hundred thousand times).
TEST(RegularExpressionMachineCode, MatchesAsTheInterpreterDoes)
{
    const auto interpreted = RegularExpression::create("(a|b)*(c)?d", 0);
    const auto compiled = RegularExpression::create("(a|b)*(c)?d", 0);
    ASSERT_TRUE(interpreted && compiled);
    compiled->compileForRepeatedUse();
    const std::string deep = std::string(100000, 'a') + "d";
    for (const std::string& subject : {std::string("abd"), std::string("abcd"), std::string("xyz"), deep}) {
        SCOPED_TRACE(subject.substr(0, 8));
        const auto expected = interpreted->firstMatch(subject);
        const auto actual = compiled->firstMatch(subject);
        ASSERT_EQ(actual.has_value(), expected.has_value());
        if (expected) {
            EXPECT_EQ(spans(*actual), spans(*expected));
        }
        EXPECT_EQ(compiled->numberOfMatches(subject), interpreted->numberOfMatches(subject));
    }
    EXPECT_TRUE(compiled->firstMatch(deep));
}

// Each thread matches with working memory of its own, which grows for an
// expression with more groups than the one before and never lets an earlier
// match's groups show through.
TEST(RegularExpressionMatchData, GroupsAreThoseOfTheMatchAtHand)
{
    const auto few = RegularExpression::create("(x)", 0);
    const auto many = RegularExpression::create("(a)(b)?(c)?(d)?(e)?(f)?(g)?(h)?(i)?(j)?", 0);
    ASSERT_TRUE(few && many);
    std::thread([&] {
        ASSERT_TRUE(few->firstMatch("x"));
        const auto full = many->firstMatch("abcdefghij");
        ASSERT_TRUE(full);
        ASSERT_EQ(full->ranges.size(), 11u);
        EXPECT_TRUE(full->ranges[10]);
        const auto partial = many->firstMatch("ab");
        ASSERT_TRUE(partial);
        ASSERT_EQ(partial->ranges.size(), 11u);
        EXPECT_TRUE(partial->ranges[2]);
        for (std::size_t group = 3; group < 11; ++group) {
            EXPECT_FALSE(partial->ranges[group]) << group;
        }
    }).join();
}

}  // namespace
