#include "Platform/Foundation/Value.h"

#include <gtest/gtest.h>

using namespace platform;

namespace {

TEST(Value, RemembersTheKindOfNumber)
{
    EXPECT_EQ(Value(true).kind(), Value::Kind::Boolean);
    EXPECT_EQ(Value(42).kind(), Value::Kind::Integer);
    EXPECT_EQ(Value(0.5).kind(), Value::Kind::Double);
    EXPECT_EQ(Value(true).integerValue(), 1);
    EXPECT_EQ(Value(2.9).integerValue(), 2);
    EXPECT_FALSE(Value("2").integerValue());
    EXPECT_EQ(Value(1), Value(true));
    EXPECT_EQ(Value(1), Value(1.0));
    EXPECT_NE(Value("1"), Value(1));
}

TEST(Value, DescribesItselfAsFormattingPrintsIt)
{
    EXPECT_EQ(Value().description(), "(null)");
    EXPECT_EQ(Value::null().description(), "<null>");
    EXPECT_EQ(Value(false).description(), "0");
    EXPECT_EQ(Value(0.1).description(), "0.1");
    EXPECT_EQ(Value(Data{1, 2, 3, 4, 5}).description(), "<01020304 05>");
    EXPECT_EQ(Value(Array{"a", "b c"}).description(), "(\n    a,\n    \"b c\"\n)");
    EXPECT_EQ(Value(Dictionary{{"k", 1}}).description(), "{\n    k = 1;\n}");
}

TEST(Dictionary, KeepsInsertionOrderAndReplacesInPlace)
{
    Dictionary dictionary{{"z", 1}, {"a", 2}};
    dictionary.set("m", 3);
    dictionary.set("z", 4);
    EXPECT_EQ(dictionary.keys(), (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_EQ(dictionary.get("z"), Value(4));
    EXPECT_TRUE(dictionary.get("missing").isNothing());
    EXPECT_TRUE(dictionary.remove("a"));
    EXPECT_FALSE(dictionary.remove("a"));
    EXPECT_EQ(dictionary, (Dictionary{{"m", 3}, {"z", 4}}));
}

TEST(Set, HoldsDistinctValuesInInsertionOrder)
{
    Set set{"b", "a"};
    EXPECT_FALSE(set.insert("b"));
    EXPECT_TRUE(set.insert(1));
    EXPECT_FALSE(set.insert(true));  // equal numbers are one member
    EXPECT_EQ(set.size(), 3u);
    EXPECT_EQ(*set.begin(), Value("b"));
}

}  // namespace
