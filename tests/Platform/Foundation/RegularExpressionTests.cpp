#include "Platform/Foundation/RegularExpression.h"
#include "Platform/Foundation/RegularExpressionOptions.h"
#include "Platform/Foundation/URIReferenceGrammar.h"

#include <gtest/gtest.h>

#include <barrier>
#include <cstdint>
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

bool machineCodeAvailable()
{
    const auto probe = RegularExpression::create("a", 0);
    probe->compileForRepeatedUse();
    return probe->runsMachineCode();
}

struct Outcome {
    bool matched;
    std::vector<std::pair<std::size_t, std::size_t>> spans;
    std::size_t count;
    bool operator==(const Outcome&) const = default;
};

Outcome outcome(const RegularExpression& expression, const std::string& subject)
{
    const auto match = expression.firstMatch(subject);
    return {match.has_value(), match ? spans(*match) : decltype(Outcome::spans){}, expression.numberOfMatches(subject)};
}

const std::vector<std::string> kSubjects = {"k=v; key2=value2", "=v", "no pairs here", "a=\u00e9\u00e8;b=\xff\xfe;c=d"};
constexpr const char* kPairs = "(\\w+)=(\\w*)(;)?";

// A program that matches a few times never pays for machine code; one that
// matches often gets it, and its answers do not change at the switch.
TEST(RegularExpressionMachineCode, ComesAfterManyMatchesWithTheSameAnswers)
{
    if (!machineCodeAvailable()) {
        GTEST_SKIP() << "PCRE2 without JIT support";
    }
    const auto expression = RegularExpression::create(kPairs, 0);
    ASSERT_TRUE(expression);
    std::vector<Outcome> interpreted;
    for (const auto& subject : kSubjects) {
        interpreted.push_back(outcome(*expression, subject));
    }
    EXPECT_TRUE(interpreted[0].matched && interpreted[0].count == 2);
    EXPECT_FALSE(expression->runsMachineCode());

    std::size_t rounds = 0;
    while (!expression->runsMachineCode() && rounds < 100) {
        for (std::size_t index = 0; index < kSubjects.size(); ++index) {
            ASSERT_EQ(outcome(*expression, kSubjects[index]), interpreted[index]) << rounds;
        }
        ++rounds;
    }
    ASSERT_TRUE(expression->runsMachineCode());
    // Four subjects, each matched at least twice a round: some ten rounds.
    EXPECT_GT(rounds, 2u);
    for (std::size_t index = 0; index < kSubjects.size(); ++index) {
        EXPECT_EQ(outcome(*expression, kSubjects[index]), interpreted[index]) << kSubjects[index];
    }
}

// Threads matching one expression while one of them compiles it to machine
// code all get the interpreter's answers, and none sees half-made code.
TEST(RegularExpressionMachineCode, ThreadsMatchAcrossTheSwitch)
{
    const auto reference = RegularExpression::create(kPairs, 0);
    const auto shared = RegularExpression::create(kPairs, 0);
    ASSERT_TRUE(reference && shared);
    std::vector<Outcome> expected;
    for (const auto& subject : kSubjects) {
        expected.push_back(outcome(*reference, subject));
    }
    constexpr int kThreads = 4;
    std::barrier start(kThreads);
    std::vector<int> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            start.arrive_and_wait();
            for (int round = 0; round < 50; ++round) {
                for (std::size_t index = 0; index < kSubjects.size(); ++index) {
                    mismatches[thread] += outcome(*shared, kSubjects[index]) == expected[index] ? 0 : 1;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(mismatches[thread], 0) << thread;
    }
    EXPECT_EQ(shared->runsMachineCode(), machineCodeAvailable());
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

// What pcre2_serialize_encode makes of `pattern` compiled with `options`.
std::vector<std::uint8_t> encoded(std::string_view pattern, unsigned options)
{
    auto bytes = platform::internal::pcre2EncodedPattern(pattern, options);
    EXPECT_FALSE(bytes.empty()) << "compiled and serialized";
    return bytes;
}

// The URL grammar the build embeds decodes (a build whose encoder and library
// disagree would quietly compile at every start) and parses as the compiled
// grammar does, groups and all.
TEST(RegularExpressionFromCode, TheEmbeddedURLGrammarDecodesAndMatchesAsCompiled)
{
    using namespace platform::internal;
    bool decoded = false;
    const auto fromCode = RegularExpression::createFromCode(
        kURIReferenceGrammar, kURIReferenceGrammarOptions, {kURIReferenceGrammarCode, kURIReferenceGrammarCodeSize},
        &decoded);
    const auto compiled = RegularExpression::create(kURIReferenceGrammar, kURIReferenceGrammarOptions);
    ASSERT_TRUE(fromCode && compiled);
    EXPECT_TRUE(decoded);
    EXPECT_EQ(fromCode->pattern(), kURIReferenceGrammar);
    EXPECT_EQ(fromCode->numberOfCaptureGroups(), compiled->numberOfCaptureGroups());
    for (const std::string_view text :
         {"https://user:secret@[::1]:8080/a/b?q=1#f", "ssh://git@host.example/repo.git", "mailto:someone@example.org",
          "//host", "relative/path?x", "http://[v7.fe80::1]/", "http://exa mple.org/", "http://host:80x/",
          "line\nbreak", "http://host/%zz", ""}) {
        SCOPED_TRACE(text);
        const auto expected = compiled->firstMatch(text);
        const auto actual = fromCode->firstMatch(text);
        ASSERT_EQ(actual.has_value(), expected.has_value());
        if (expected) {
            EXPECT_EQ(spans(*actual), spans(*expected));
        }
    }
}

// Code that does not fit is compiled over: from another PCRE2 version (here
// a version field changed), or compiled with other options than asked for.
TEST(RegularExpressionFromCode, CompilesThePatternWhenTheCodeDoesNotFit)
{
    auto otherVersion = encoded("(a+)b", 0);
    ASSERT_GT(otherVersion.size(), 8u);
    otherVersion[4] ^= 0x7f;  // the major version, after the 4-byte magic number
    bool decoded = true;
    const auto fromOtherVersion = RegularExpression::createFromCode("(a+)b", 0, otherVersion, &decoded);
    ASSERT_TRUE(fromOtherVersion);
    EXPECT_FALSE(decoded);
    const auto match = fromOtherVersion->firstMatch("xaab");
    ASSERT_TRUE(match);
    EXPECT_EQ(match->substring("xaab", 1), "aa");

    // Caseless code asked for as case-sensitive: "A" must not match.
    decoded = true;
    const auto caseSensitive =
        RegularExpression::createFromCode("a", 0, encoded("a", RegularExpression::CaseInsensitive), &decoded);
    ASSERT_TRUE(caseSensitive);
    EXPECT_FALSE(decoded);
    EXPECT_FALSE(caseSensitive->firstMatch("A"));
    EXPECT_EQ(caseSensitive->options(), 0u);

    decoded = false;
    const auto caseless = RegularExpression::createFromCode("a", RegularExpression::CaseInsensitive,
                                                            encoded("a", RegularExpression::CaseInsensitive), &decoded);
    ASSERT_TRUE(caseless);
    EXPECT_TRUE(decoded);
    EXPECT_TRUE(caseless->firstMatch("A"));
}

}  // namespace
