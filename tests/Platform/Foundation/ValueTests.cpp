#include "Platform/Foundation/Value.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

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

// Strings up to std::string's own buffer stay in place, longer ones are
// shared; which way a string went must not show in what a Value says.
TEST(Value, StringsReadAlikeHoweverLongAndHoweverMade)
{
    for (const std::size_t length : {std::size_t{0}, std::size_t{15}, std::size_t{16}, std::size_t{200}}) {
        const std::string text(length, 'x');
        const Value fromString(text);
        const Value fromView{std::string_view(text)};
        const Value fromCharacters(text.c_str());
        for (const Value* value : {&fromString, &fromView, &fromCharacters}) {
            EXPECT_EQ(value->kind(), Value::Kind::String) << length;
            EXPECT_TRUE(value->isString());
            ASSERT_NE(value->string(), nullptr);
            EXPECT_EQ(*value->string(), text);
            EXPECT_EQ(value->description(), text);
            EXPECT_EQ(*value, fromString);
            EXPECT_FALSE(value->data() || value->array() || value->object() || value->integerValue());
        }
        EXPECT_NE(fromString, Value(text + "y"));
        EXPECT_NE(fromString, Value(Data(text.begin(), text.end())));
    }
    // The kinds after strings in the storage keep their own.
    EXPECT_EQ(Value(Data{1}).kind(), Value::Kind::Data);
    EXPECT_EQ(Value(Date()).kind(), Value::Kind::Date);
    EXPECT_EQ(Value(Array{}).kind(), Value::Kind::Array);
    EXPECT_EQ(Value(Set{}).kind(), Value::Kind::Set);
    EXPECT_EQ(Value(Dictionary{}).kind(), Value::Kind::Dictionary);
}

TEST(Value, CopiesOfALongStringShareItsText)
{
    const Value original(std::string(64, 'a'));
    const Value copy = original;
    EXPECT_EQ(copy.string(), original.string());
    Value assigned;
    assigned = copy;
    EXPECT_EQ(assigned.string(), original.string());

    // The text outlives the value it was made for, and a copy dropped on
    // another thread while this one reads leaves it whole.
    Value survivor;
    {
        const Value first(std::string(100, 'b'));
        survivor = first;
    }
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([copy = survivor] {
            Array copies(100, copy);
            EXPECT_EQ(copies.back().string()->size(), 100u);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(*survivor.string(), std::string(100, 'b'));
}

TEST(Value, KnowsAnErrorHoweverThePointerIsTyped)
{
    const ErrorRef error = Error::create("Domain", 7);
    EXPECT_EQ(Value(error).kind(), Value::Kind::Error);
    EXPECT_EQ(Value(ObjectRef(error)).kind(), Value::Kind::Error);
    EXPECT_EQ(Value(ObjectRef(error)).error(), error);
    EXPECT_EQ(Value(ErrorRef()).kind(), Value::Kind::Nothing);
    EXPECT_EQ(Value(ObjectRef()).kind(), Value::Kind::Nothing);
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
