#include "Platform/Foundation/OrderedSet.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSON.h"

#include "tests/Support/AssertionCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace platform;
using ::testing::ElementsAre;

namespace {

template <typename Body>
std::string rangeFailure(Body&& body)
{
    return testsupport::raisedReason(NSRangeException, std::forward<Body>(body));
}

TEST(OrderedSet, KeepsTheFirstOccurrenceOfEqualValues)
{
    const auto ordered = OrderedSet::withArray({"b", 1, "a", "b", true, 1.0});
    EXPECT_THAT(ordered.array(), ElementsAre(Value("b"), Value(1), Value("a")));
    // The member that stays is the first one given, with its own kind.
    EXPECT_EQ(ordered[1].kind(), Value::Kind::Integer);
    EXPECT_EQ(ordered.indexOf("a"), 2u);
    EXPECT_EQ(ordered.indexOf(1.0), 1u);
    EXPECT_FALSE(ordered.indexOf("c"));
}

TEST(OrderedSet, InsertsAtAnIndexAndRemovesByValueOrIndex)
{
    OrderedSet ordered{"a", "c"};
    EXPECT_TRUE(ordered.insert("b", 1));
    EXPECT_TRUE(ordered.insert("d", ordered.size()));
    EXPECT_FALSE(ordered.insert("a", 3));  // present: stays where it was
    EXPECT_THAT(ordered.array(), ElementsAre(Value("a"), Value("b"), Value("c"), Value("d")));

    EXPECT_TRUE(ordered.remove("b"));
    EXPECT_FALSE(ordered.remove("b"));
    ordered.removeAt(0);
    EXPECT_THAT(ordered.array(), ElementsAre(Value("c"), Value("d")));
    EXPECT_TRUE(ordered.insert("b"));  // removed values may come back, at the end
    EXPECT_EQ(ordered.indexOf("b"), 2u);
}

TEST(OrderedSet, RaisesForIndexesBeyondTheEnd)
{
    OrderedSet ordered{"secret", "other"};
    const auto reason = rangeFailure([&] { (void)ordered.at(2); });
    EXPECT_THAT(reason, ::testing::HasSubstr("index 2 beyond bounds [0 .. 1]"));
    EXPECT_THAT(reason, ::testing::Not(::testing::HasSubstr("secret")));
    EXPECT_THAT(rangeFailure([&] { ordered.insert("x", 3); }), ::testing::HasSubstr("index 3"));
    EXPECT_THAT(rangeFailure([&] { OrderedSet().removeAt(0); }), ::testing::HasSubstr("empty ordered set"));
    EXPECT_EQ(ordered.size(), 2u);  // a failed insert changed nothing
}

TEST(OrderedSet, ConvertsToAndFromSets)
{
    const Set set{"x", "y", 2};
    const auto ordered = OrderedSet::withSet(set);
    EXPECT_THAT(ordered.array(), ElementsAre(Value("x"), Value("y"), Value(2)));
    EXPECT_EQ(ordered.set(), set);
    EXPECT_EQ(OrderedSet::withArray({1, 1, 2}).set(), (Set{2, 1}));
}

TEST(OrderedSet, ComparesOrderAsWellAsMembers)
{
    EXPECT_EQ((OrderedSet{1, "a"}), (OrderedSet{1.0, "a"}));
    EXPECT_NE((OrderedSet{1, "a"}), (OrderedSet{"a", 1}));
    EXPECT_NE((OrderedSet{1}), (OrderedSet{1, 2}));
}

TEST(OrderedSetValue, IsAKindOfItsOwn)
{
    const Value value(OrderedSet{"a", "b"});
    EXPECT_EQ(value.kind(), Value::Kind::OrderedSet);
    ASSERT_NE(value.orderedSet(), nullptr);
    EXPECT_EQ(value.orderedSet()->size(), 2u);
    EXPECT_EQ(value.set(), nullptr);
    EXPECT_EQ(value.array(), nullptr);
    EXPECT_EQ(Value(Set{"a"}).orderedSet(), nullptr);

    EXPECT_EQ(value, Value(OrderedSet{"a", "b"}));
    EXPECT_NE(value, Value(OrderedSet{"b", "a"}));
    // Same members, other collection kinds: not equal, as on the platform.
    EXPECT_NE(value, Value(Array{"a", "b"}));
    EXPECT_NE(value, Value(Set{"a", "b"}));
    // Nested, an ordered set compares by value inside other collections.
    EXPECT_EQ(Value(Array{OrderedSet{1}}), Value(Array{OrderedSet{true}}));
}

TEST(OrderedSetValue, DescribesItselfAsASetDoes)
{
    EXPECT_EQ(Value(OrderedSet{"b", "a c"}).description(), "{(\n    b,\n    \"a c\"\n)}");
    EXPECT_EQ(Value(OrderedSet{"b", "a c"}).description(), Value(Set{"b", "a c"}).description());
    EXPECT_EQ(Value(Array{OrderedSet{1}}).description(), "(\n    {(\n        1\n    )}\n)");
}

TEST(OrderedSetValue, IsNoJSONValue)
{
    EXPECT_FALSE(JSONSerialization::isValidJSONObject(Value(OrderedSet{1})));
    EXPECT_FALSE(JSONSerialization::isValidJSONObject(Value(Array{OrderedSet{1}})));
    ErrorRef error;
    EXPECT_FALSE(JSONSerialization::stringWithValue(Value(Dictionary{{"k", OrderedSet{1}}}), 0, &error));
    EXPECT_NE(error, nullptr);
    // Its array is.
    EXPECT_EQ(JSONSerialization::stringWithValue(Value(OrderedSet{1, "a"}.array())), "[1,\"a\"]");
}

}  // namespace
