#include "Platform/Predicates/SortDescriptor.h"

#include "Platform/Foundation/Exception.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace platform;
using ::testing::ElementsAre;

namespace {

Value item(Value name, Value rank, int id)
{
    return Dictionary{{"name", std::move(name)}, {"rank", std::move(rank)}, {"id", id}, {"owner", Dictionary{{"age", 100 - id}}}};
}

std::vector<std::int64_t> ids(const Array& array)
{
    std::vector<std::int64_t> result;
    for (const auto& value : array) {
        result.push_back(*value.dictionary()->get("id").integerValue());
    }
    return result;
}

const Array kItems = {
    item("banana", 2, 1), item("Apple", 1, 2), item(Value(), 3, 3), item("apple", 2.5, 4), item("cherry", Value(), 5),
    item("Banana", 2, 6),
};

}  // namespace

TEST(SortDescriptor, OrdersByCodePointUnlessCaseInsensitive)
{
    EXPECT_THAT(ids(SortDescriptor::sortedArray(kItems, {SortDescriptor("name")})), ElementsAre(3, 2, 6, 4, 1, 5));
    // Case-insensitive ties keep their order: the sort is stable.
    EXPECT_THAT(ids(SortDescriptor::sortedArray(kItems, {SortDescriptor("name", true, SortDescriptor::CaseInsensitive)})),
                ElementsAre(3, 2, 4, 1, 6, 5));
    EXPECT_THAT(ids(SortDescriptor::sortedArray(kItems, {SortDescriptor("name", false)})), ElementsAre(5, 1, 4, 6, 2, 3));
}

TEST(SortDescriptor, LaterKeysBreakTiesAndNilSortsFirst)
{
    EXPECT_THAT(ids(SortDescriptor::sortedArray(kItems, {SortDescriptor("rank"), SortDescriptor("id", false)})),
                ElementsAre(5, 2, 6, 1, 4, 3));
    EXPECT_THAT(ids(SortDescriptor::sortedArray(kItems, {SortDescriptor("owner.age")})), ElementsAre(6, 5, 4, 3, 2, 1));
    EXPECT_EQ(SortDescriptor("rank").reversedSortDescriptor(), SortDescriptor("rank", false));
}

TEST(SortDescriptor, MixedKindsSortByKindWithoutBreakingTheOrdering)
{
    const Array mixed = {item("b", "x", 1), item("a", 5, 2), item("c", Value(), 3), item("d", Date(5), 4), item("e", 1, 5)};
    EXPECT_THAT(ids(SortDescriptor::sortedArray(mixed, {SortDescriptor("rank")})), ElementsAre(3, 5, 2, 1, 4));
    EXPECT_THROW(SortDescriptor(""), Exception);
}
