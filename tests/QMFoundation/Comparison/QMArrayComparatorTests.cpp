#include "QMFoundation/Comparison/NSArray+QMComparing.h"
#include "QMFoundation/Comparison/NSIndexPath+QMArraySupport.h"
#include "QMFoundation/Comparison/NSMutableArray+QMMoving.h"
#include "QMFoundation/Comparison/QMArrayComparator.h"
#include "QMFoundation/Comparison/QMEqualityFingerprint.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/OrderedSet.h"

#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

using platform::Array;
using platform::ComparisonResult;
using platform::Dictionary;
using platform::IndexSet;
using platform::Value;

namespace {

struct Comparison {
    IndexSet removed;
    IndexSet inserted;
    std::vector<QMArrayMove> moves;
    int calls = 0;
};

Comparison compare(const Array& left, const Array& right, std::size_t concurrency = 2,
                   QMArrayComparator::Comparator comparator = nullptr)
{
    Comparison result;
    auto arrayComparator = QMArrayComparator::create(left, right, std::move(comparator));
    arrayComparator->setConcurrency(concurrency);
    arrayComparator->compareWithCompletionHandler([&](IndexSet removed, IndexSet inserted, std::vector<QMArrayMove> moves) {
        result = {std::move(removed), std::move(inserted), std::move(moves), result.calls + 1};
    });
    return result;
}

// What a consumer of the results does to turn the old array into the new one.
Array replay(Array array, const Array& right, const Comparison& comparison)
{
    for (auto index = comparison.removed.rbegin(); index != comparison.removed.rend(); ++index) {
        array.erase(array.begin() + static_cast<std::ptrdiff_t>(*index));
    }
    for (const auto index : comparison.inserted) {
        insertObject(array, right[index], index);
    }
    for (const auto& move : comparison.moves) {
        moveObjectAtIndex(array, move.from, move.to);
    }
    return array;
}

Array letters(std::string_view text)
{
    Array array;
    for (const char letter : text) {
        array.emplace_back(std::string(1, letter));
    }
    return array;
}

TEST(QMArrayComparator, FindsRemovalsInsertionsAndMoves)
{
    struct Case {
        const char* left;
        const char* right;
        IndexSet removed;
        IndexSet inserted;
        std::vector<QMArrayMove> moves;
    };
    const Case cases[] = {
        {"ABC", "ABC", {}, {}, {}},
        {"", "", {}, {}, {}},
        // The furthest element moves first; the others are then in place.
        {"ABC", "CAB", {}, {}, {{2, 0}}},
        {"AB", "BC", {0}, {1}, {}},
        {"", "XYZ", {}, {0, 1, 2}, {}},
        {"XYZ", "", {0, 1, 2}, {}, {}},
        // Equal distances: the lower index of the working copy moves first.
        {"ABCD", "BADC", {}, {}, {{0, 1}, {2, 3}}},
        {"ABCDE", "EDCBA", {}, {}, {{0, 4}, {3, 0}, {1, 3}, {2, 1}}},
        {"AXBYC", "CZBA", {1, 3}, {1}, {{0, 3}, {2, 0}}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(std::string(testCase.left) + " -> " + testCase.right);
        const auto left = letters(testCase.left);
        const auto right = letters(testCase.right);
        const auto result = compare(left, right);
        EXPECT_EQ(result.calls, 1);
        EXPECT_EQ(result.removed, testCase.removed);
        EXPECT_EQ(result.inserted, testCase.inserted);
        EXPECT_EQ(result.moves, testCase.moves);
        EXPECT_EQ(replay(left, right, result), right);
    }
}

// Scans compare fingerprints before values, so values that are equal must
// fingerprint alike, whatever their kind.
TEST(QMArrayComparator, MatchesEqualValuesOfEveryKind)
{
    const std::pair<Value, Value> equalPairs[] = {
        {1, 1.0},
        {true, 1},
        {0, -0.0},
        {false, 0.0},
        {std::int64_t{1} << 53, static_cast<double>(std::int64_t{1} << 53)},
        {"text", std::string("text")},
        {platform::Date(0.0), platform::Date(-0.0)},
        {Array{1, "a"}, Array{1.0, "a"}},
        {Dictionary{{"a", 1}, {"b", 2}}, Dictionary{{"b", 2.0}, {"a", true}}},
        {platform::Set{1, 2}, platform::Set{2, 1}},
        {platform::OrderedSet{1, "a"}, platform::OrderedSet{true, "a"}},
        {Value::null(), Value::null()},
        {platform::Error::create("d", 3), platform::Error::create("d", 3)},
    };
    for (const auto& [left, right] : equalPairs) {
        ASSERT_EQ(left, right) << left.description();
        EXPECT_EQ(equalityFingerprint(left), equalityFingerprint(right)) << left.description();
        const auto result = compare(Array{"x", left}, Array{right, "x"});
        EXPECT_TRUE(result.removed.empty()) << left.description();
        EXPECT_TRUE(result.inserted.empty()) << left.description();
        EXPECT_EQ(result.moves, (std::vector<QMArrayMove>{{0, 1}})) << left.description();
    }
    // Equal fingerprints alone do not make values equal.
    EXPECT_EQ(equalityFingerprint(Array{1}), equalityFingerprint(Array{2}));
    EXPECT_EQ(compare(Array{Array{1}}, Array{Array{2}}).removed, (IndexSet{0}));
}

TEST(QMArrayComparator, RaisesWhenDuplicatesDoNotPairUp)
{
    auto failure = testsupport::captureAssertion([] { compare(letters("AA"), letters("A")); });
    EXPECT_EQ(failure.description, "Expected same size of current array (2) and final array (1)");
    EXPECT_EQ(failure.file, "QMFoundation/QMArrayComparator");

    // The same counts, but no move list can turn ABB into BAA: the state
    // repeats and the comparison stops instead of going round forever.
    failure = testsupport::captureAssertion([] { compare(letters("ABB"), letters("BAA")); });
    EXPECT_EQ(failure.description.rfind("Moves cannot turn the current array into the final array", 0), 0u);

    // An insertion index beyond the working copy is a range error, not a
    // write out of bounds.
    try {
        compare(letters("A"), letters("AAAB"));
        ADD_FAILURE() << "nothing was raised";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), platform::NSRangeException);
    }
}

TEST(QMArrayComparator, StopsWhenTheComparatorCallsUnequalObjectsTheSame)
{
    const auto everythingIsTheSame = [](const Value&, const Value&) { return ComparisonResult::OrderedSame; };
    const auto failure = testsupport::captureAssertion([&] { compare(letters("AB"), letters("BA"), 2, everythingIsTheSame); });
    EXPECT_EQ(failure.description.rfind("Moves cannot turn the current array into the final array", 0), 0u);
}

TEST(QMArrayComparator, UsesTheComparatorForIdentityDuringMoves)
{
    const auto caseInsensitive = [](const Value& a, const Value& b) {
        auto lower = [](std::string text) {
            std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
            return text;
        };
        const auto x = lower(*a.string());
        const auto y = lower(*b.string());
        return x < y ? ComparisonResult::OrderedAscending
                     : (y < x ? ComparisonResult::OrderedDescending : ComparisonResult::OrderedSame);
    };
    const auto withComparator = QMArrayComparator::create(Array{}, Array{}, caseInsensitive);
    const auto withoutComparator = QMArrayComparator::arrayComparatorWithLeftArray(Array{}, Array{});
    const auto array = letters("aBb");
    EXPECT_EQ(withComparator->indexOfObject("b", array), 1u);
    EXPECT_EQ(withoutComparator->indexOfObject("b", array), 2u);
    EXPECT_EQ(withoutComparator->indexOfObject("z", array), platform::NSNotFound);

    // By the comparator "B" already stands where "b" belongs; by equality it
    // is nowhere in the final array, so its indexes differ.
    EXPECT_TRUE(withComparator->movedObjectInfosSortedByDistanceForArray(letters("Ba"), letters("ba")).empty());
    EXPECT_EQ(withoutComparator->movedObjectInfosSortedByDistanceForArray(letters("Ba"), letters("ba")).size(), 1u);
}

TEST(QMArrayComparator, DescribesMovesAsRecordsFurthestFirst)
{
    const auto comparator = QMArrayComparator::arrayComparatorWithLeftArray(Array{}, Array{});
    const auto records = comparator->movedObjectInfosSortedByDistanceForArray(letters("ABC"), letters("CAB"));
    EXPECT_EQ(records, (Array{Dictionary{{"object", "C"}, {"distance", 2}}, Dictionary{{"object", "A"}, {"distance", 1}},
                              Dictionary{{"object", "B"}, {"distance", 1}}}));
}

TEST(QMArrayComparator, AccumulatesResultsOverRepeatedComparisons)
{
    const auto comparator = QMArrayComparator::arrayComparatorWithLeftArray(letters("XABC"), letters("CAB"));
    std::vector<QMArrayMove> lastMoves;
    const auto keep = [&](IndexSet, IndexSet, std::vector<QMArrayMove> moves) { lastMoves = std::move(moves); };
    comparator->compareWithCompletionHandler(keep);
    comparator->compareWithCompletionHandler(keep);
    EXPECT_EQ(lastMoves, (std::vector<QMArrayMove>{{2, 0}, {2, 0}}));
    EXPECT_EQ(comparator->removedIndexes(), (IndexSet{0}));
}

TEST(QMArrayComparator, AssertsItsArguments)
{
    EXPECT_EQ(testsupport::captureAssertion([] { QMArrayComparator::create(std::nullopt, std::nullopt); }).description,
              "Invalid parameter not satisfying: leftArray");
    EXPECT_EQ(testsupport::captureAssertion([] { QMArrayComparator::create(Array{}, std::nullopt); }).description,
              "Invalid parameter not satisfying: rightArray");
    const auto comparator = QMArrayComparator::create(Array{}, Array{});
    EXPECT_EQ(testsupport::captureAssertion([&] { comparator->compareWithCompletionHandler(nullptr); }).description,
              "Invalid parameter not satisfying: completionHandler");
}

// Large enough that every scan is split between threads.
TEST(QMArrayComparator, GivesTheSameResultsOnOneThreadAsOnSeveral)
{
    std::mt19937 random(20240611);
    Array left;
    for (int index = 0; index < 600; ++index) {
        left.emplace_back("item-" + std::to_string(index));
    }
    Array right = left;
    for (int step = 0; step < 6; ++step) {
        right.erase(right.begin() + static_cast<std::ptrdiff_t>(random() % right.size()));
        right.insert(right.begin() + static_cast<std::ptrdiff_t>(random() % right.size()), "new-" + std::to_string(step));
        moveObjectAtIndex(right, random() % right.size(), random() % right.size());
    }
    const auto parallel = compare(left, right, 8);
    const auto serial = compare(left, right, 1);
    EXPECT_EQ(parallel.removed, serial.removed);
    EXPECT_EQ(parallel.inserted, serial.inserted);
    EXPECT_EQ(parallel.moves, serial.moves);
    EXPECT_EQ(parallel.removed.size(), 6u);
    EXPECT_EQ(replay(left, right, parallel), right);
}

// Small arrays over a small alphabet, duplicates included: every comparison
// either reproduces the new array or raises; none hangs or misbehaves.
TEST(QMArrayComparator, EitherReproducesTheNewArrayOrRaises)
{
    std::mt19937 random(7);
    int reproduced = 0;
    int raised = 0;
    for (int round = 0; round < 3000; ++round) {
        auto randomLetters = [&] {
            std::string text(random() % 7, ' ');
            for (auto& letter : text) {
                letter = static_cast<char>('A' + random() % 4);
            }
            return letters(text);
        };
        const auto left = randomLetters();
        const auto right = randomLetters();
        try {
            const auto result = compare(left, right, 1 + round % 2);
            EXPECT_EQ(replay(left, right, result), right);
            ++reproduced;
        } catch (const platform::Exception&) {
            ++raised;
        }
    }
    EXPECT_GT(reproduced, 500);
    EXPECT_GT(raised, 500);
}

TEST(NSArrayQMComparing, RunsOneComparisonOnTheReceiver)
{
    int calls = 0;
    compareIndexesOfObjectsWithIndexesOfObjectsInArray(letters("AB"), letters("BC"),
                                                       [&](IndexSet removed, IndexSet inserted, std::vector<QMArrayMove> moves) {
                                                           ++calls;
                                                           EXPECT_EQ(removed, (IndexSet{0}));
                                                           EXPECT_EQ(inserted, (IndexSet{1}));
                                                           EXPECT_TRUE(moves.empty());
                                                       });
    EXPECT_EQ(calls, 1);
}

TEST(NSMutableArrayQMMoving, MovesToTheFinalIndex)
{
    auto array = letters("abcd");
    moveObjectAtIndex(array, 1, 3);
    EXPECT_EQ(array, letters("acdb"));
    moveObjectAtIndex(array, 3, 0);
    EXPECT_EQ(array, letters("bacd"));
    moveObjectAtIndex(array, 2, 2);
    EXPECT_EQ(array, letters("bacd"));
    for (const auto& [from, to] : {std::pair{4, 0}, std::pair{0, 4}, std::pair{-1, 0}}) {
        try {
            moveObjectAtIndex(array, static_cast<std::size_t>(from), static_cast<std::size_t>(to));
            ADD_FAILURE() << from << " -> " << to;
        } catch (const platform::Exception& exception) {
            EXPECT_EQ(exception.name(), platform::NSRangeException);
        }
    }
    EXPECT_EQ(array, letters("bacd"));
}

TEST(NSIndexPathQMArraySupport, ConvertsBothWays)
{
    const auto path = indexPathWithArray(Array{1, 4});
    EXPECT_EQ(path, platform::IndexPath().indexPathByAddingIndex(1).indexPathByAddingIndex(4));
    EXPECT_EQ(indexes(path), (Array{1, 4}));
    EXPECT_EQ(indexes(indexPathWithArray(Array{2.9, "7", true})), (Array{2, 7, 1}));
    EXPECT_EQ(indexPathWithArray(Array{-1}).indexAtPosition(0), platform::NSNotFound);
    EXPECT_EQ(indexPathWithArray(indexes(indexPathWithArray(Array{-1}))), indexPathWithArray(Array{-1}));
    EXPECT_EQ(indexPathWithArray(Array{}).length(), 0u);

    EXPECT_EQ(testsupport::captureAssertion([] { indexPathWithArray(std::nullopt); }).description,
              "Invalid parameter not satisfying: indexes");
    try {
        indexPathWithArray(Array{Dictionary{}});
        ADD_FAILURE() << "nothing was raised";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), platform::NSInvalidArgumentException);
    }
}

}  // namespace
