#include "Platform/Predicates/Predicate.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/OrderedSet.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace platform;

namespace {

// An object reached through key-value coding, as managed objects are.
class Employee final : public Object {
public:
    static std::shared_ptr<Employee> create(std::string name, Value manager = {})
    {
        auto employee = platform::makeObject<Employee>();
        employee->name_ = std::move(name);
        employee->manager_ = std::move(manager);
        return employee;
    }
    const PropertyTable& propertyTable() const override
    {
        static const auto table = PropertyTable::extending<Employee>(Object::propertyTable(), {
            {"name", [](const Employee& employee) { return Value(employee.name_); }},
            {"manager", [](const Employee& employee) { return employee.manager_; }},
        });
        return table;
    }

private:
    template <class> friend struct platform::ObjectAllocator;
    Employee() = default;
    std::string name_;
    Value manager_;
};

struct Row {
    std::string format;
    Array arguments;
    bool expected;
};

// Evaluates each row against `object`.
void expectRows(const Value& object, const std::vector<Row>& rows)
{
    for (const auto& row : rows) {
        SCOPED_TRACE(row.format);
        EXPECT_EQ(Predicate::predicateWithFormat(row.format, row.arguments)->evaluateWithObject(object), row.expected);
    }
}

Value person()
{
    Dictionary city{{"name", "Zürich"}, {"zip", 8001}};
    Dictionary address{{"street", "Bahnhofstrasse"}, {"city", Value(city)}};
    Dictionary tag1{{"name", "work"}, {"weight", 3}};
    Dictionary tag2{{"name", "Home"}, {"weight", 7}};
    return Dictionary{
        {"name", "Jöhn O'Neil"}, {"age", 42}, {"height", 1.85}, {"active", true}, {"nickname", Value()},
        {"street", "Straße"}, {"address", Value(address)}, {"tags", Array{Value(tag1), Value(tag2)}},
        {"scores", Set{3, 5, 8}}, {"empty", Array{}}, {"pattern", "J*"},
    };
}

}  // namespace

TEST(PredicateEvaluation, ComparesNumbersByValueAndNilOnlyWithNil)
{
    expectRows(person(), {
        {"age = 42", {}, true}, {"age == 42.0", {}, true}, {"age != 41", {}, true}, {"age <> 42", {}, false},
        {"age < 42.5", {}, true}, {"age <= 42", {}, true}, {"age =< 41", {}, false}, {"age > -1", {}, true},
        {"age >= 43", {}, false}, {"age => 42", {}, true}, {"height > 1.8 AND height < 1.9", {}, true},
        {"active = TRUE", {}, true}, {"active = YES", {}, true}, {"active = 1", {}, true}, {"active == NO", {}, false},
        {"nickname = nil", {}, true}, {"nickname == NULL", {}, true}, {"nickname != nil", {}, false},
        {"name = nil", {}, false}, {"missing = nil", {}, true},
        // An ordering with nil or across kinds is false both ways round.
        {"nickname < 1", {}, false}, {"nickname >= 1", {}, false}, {"name > 5", {}, false}, {"name < 5", {}, false},
        {"age = '42'", {}, false},
        {"age = %@", {42}, true}, {"age = %d", {42}, true}, {"height < %f", {2}, true}, {"nickname = %@", {Value()}, true},
    });
}

TEST(PredicateEvaluation, StringOperatorsHonourCaseAndDiacriticOptions)
{
    expectRows(person(), {
        {"name BEGINSWITH 'Jö'", {}, true}, {"name BEGINSWITH 'jö'", {}, false}, {"name BEGINSWITH[c] 'JÖ'", {}, true},
        {"name BEGINSWITH[d] 'Jo'", {}, true}, {"name BEGINSWITH[cd] 'JOHN'", {}, true},
        {"name ENDSWITH \"O'Neil\"", {}, true}, {"name ENDSWITH[c] 'neil'", {}, true}, {"name ENDSWITH 'Jöhn'", {}, false},
        {"name CONTAINS 'n O'", {}, true}, {"name CONTAINS[c] 'N o'", {}, true}, {"name CONTAINS 'x'", {}, false},
        {"name CONTAINS ''", {}, true}, {"name BEGINSWITH ''", {}, true},
        // Full case folding: one character on one side, two on the other.
        {"street ==[c] 'STRASSE'", {}, true}, {"street == 'STRASSE'", {}, false},
        // Canonically equal texts agree under any option, and only under one.
        {"address.city.name ==[d] 'Zurich'", {}, true}, {"address.city.name ==[c] %@", {"zu\xCC\x88rich"}, true},
        {"address.city.name == %@", {"Zu\xCC\x88rich"}, false},
        {"name < 'K'", {}, true}, {"name <[c] 'joa'", {}, false}, {"name <[cd] 'joi'", {}, true},
        {"age BEGINSWITH '4'", {}, false}, {"nickname CONTAINS ''", {}, false},
    });
}

TEST(PredicateEvaluation, LikeAndMatchesCoverTheWholeString)
{
    expectRows(Dictionary{{"file", "report*.txt"}, {"word", "çava"}, {"text", "line1\nline2"}}, {
        {"file LIKE 'report*'", {}, true}, {"file LIKE 'report'", {}, false}, {"file LIKE '*.txt'", {}, true},
        {"file LIKE 'rep?rt*.t?t'", {}, true}, {"file LIKE 'rep??rt*'", {}, false},
        {"file LIKE 'report\\\\*.txt'", {}, true}, {"file LIKE 'repor\\\\t*'", {}, true},
        {"file LIKE %@", {"report\\*x.txt"}, false}, {"file LIKE '**.txt'", {}, true},
        {"file LIKE[c] 'REPORT*'", {}, true}, {"file LIKE 'REPORT*'", {}, false},
        // "?" is one character, not one byte.
        {"word LIKE '?ava'", {}, true}, {"word LIKE[d] 'cav?'", {}, true}, {"word LIKE '??ava'", {}, false},
        {"file MATCHES 'rep.*'", {}, true}, {"file MATCHES 'rep'", {}, false}, {"file MATCHES 'xx|report.*'", {}, true},
        {"file MATCHES 'r|report\\\\*\\\\.txt'", {}, true}, {"file MATCHES[c] 'REPORT.*'", {}, true},
        {"word MATCHES[d] 'cava'", {}, true}, {"text MATCHES 'line1.line2'", {}, false},
        {"text MATCHES 'line1'", {}, false},
        // A "\Q" left open does not swallow the anchors that make it a full match.
        {"file MATCHES '\\\\Qreport*'", {}, false}, {"file MATCHES 'report\\\\Q*.txt'", {}, true},
    });
    EXPECT_THROW(Predicate::predicateWithFormat("file MATCHES '('")->evaluateWithObject(Dictionary{{"file", "x"}}), Exception);
}

TEST(PredicateEvaluation, InBetweenAndCollections)
{
    expectRows(person(), {
        {"age IN {1, 42, 3}", {}, true}, {"age IN %@", {Value(Array{1, 2})}, false}, {"age IN {}", {}, false},
        {"age IN %@", {Value(Set{42.0})}, true}, {"age IN %@", {Value(OrderedSet{7, 42})}, true},
        {"'work' IN[c] {'WORK'}", {}, true}, {"nickname IN {nil, 1}", {}, true}, {"name IN \"Jöhn O'Neil!\"", {}, true}, {"name IN 'Jöhn'", {}, false},
        {"'Neil' IN name", {}, true},
        {"age BETWEEN {40, 42}", {}, true}, {"age BETWEEN {42.5, 50}", {}, false}, {"age BETWEEN %@", {Value(Array{0, 100})}, true},
        {"name BETWEEN {'A', 'K'}", {}, true}, {"nickname BETWEEN {0, 1}", {}, false},
        {"scores CONTAINS 5", {}, true}, {"scores CONTAINS 4", {}, false}, {"tags.name CONTAINS 'Home'", {}, true},
    });
}

TEST(PredicateEvaluation, AnyAllAndNoneOverToMany)
{
    expectRows(person(), {
        {"ANY tags.name = 'work'", {}, true}, {"SOME tags.name ==[c] 'home'", {}, true}, {"ANY tags.name = 'play'", {}, false},
        {"ALL tags.weight > 2", {}, true}, {"ALL tags.weight > 3", {}, false}, {"NONE tags.weight > 7", {}, true},
        {"NONE tags.weight >= 7", {}, false}, {"ANY tags.name IN {'x', 'Home'}", {}, true},
        {"ANY scores BETWEEN {6, 9}", {}, true}, {"ALL scores < 9", {}, true},
        // Nothing to look at: ALL holds, ANY does not.
        {"ALL empty.weight > 100", {}, true}, {"ANY empty.weight > 0", {}, false}, {"ANY nickname = nil", {}, false},
        {"ANY age = 42", {}, true},
    });
}

TEST(PredicateEvaluation, KeyPathsFollowToOneObjectsAndDictionaries)
{
    const auto boss = Employee::create("Ada");
    const auto clerk = Employee::create("Bob", Value(boss));
    expectRows(Value(clerk), {
        {"manager.name = 'Ada'", {}, true}, {"manager.manager.name = nil", {}, true}, {"manager.manager = nil", {}, true},
        {"SELF.name = 'Bob'", {}, true}, {"%K.name BEGINSWITH 'A'", {"manager"}, true}, {"%K = 'Ada'", {"manager.name"}, true},
        {"SELF = %@", {Value(clerk)}, true}, {"SELF != %@", {Value(boss)}, true}, {"manager = %@", {Value(boss)}, true},
    });
    expectRows(person(), {{"address.city.zip = 8001", {}, true}});
}

TEST(PredicateEvaluation, UnknownKeyOfAnObjectRaisesAsKeyValueCodingDoes)
{
    const auto clerk = Employee::create("Bob");
    try {
        Predicate::predicateWithFormat("salary > 3")->evaluateWithObject(Value(clerk));
        FAIL() << "no exception";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSUndefinedKeyException);
    }
}

TEST(PredicateEvaluation, CompoundsShortCircuitAndBindAsWritten)
{
    // NOT binds tighter than AND, AND tighter than OR; brackets override.
    expectRows(person(), {
        {"age = 1 OR age = 42 AND name = 'x'", {}, false}, {"(age = 1 OR age = 42) AND name BEGINSWITH 'J'", {}, true},
        {"NOT age = 1 AND age = 42", {}, true}, {"!(age = 42) || active = TRUE", {}, true}, {"age = 42 && !(active = YES)", {}, false},
        {"NOT NOT age = 42", {}, true}, {"TRUEPREDICATE", {}, true}, {"FALSEPREDICATE OR falsepredicate", {}, false},
        {"not (age = 42 and active = yes)", {}, false},
    });
    // The right side of a decided AND is never evaluated: it would raise.
    const auto clerk = Employee::create("Bob");
    EXPECT_FALSE(Predicate::predicateWithFormat("name = 'x' AND salary > 3")->evaluateWithObject(Value(clerk)));
}

TEST(PredicateFormat, PrintsTextThatParsesBackToAnEqualPredicate)
{
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"name = 'a\"b'", R"(name == "a\"b")"},
        {"ANY tags.name BEGINSWITH[cd] 'x'", R"(ANY tags.name BEGINSWITH[cd] "x")"},
        {"NONE tags.weight > 3", "NOT ANY tags.weight > 3"},
        {"a = 1 OR (b = 2 AND NOT c <> 3.5)", "a == 1 OR (b == 2 AND NOT c != 3.5)"},
        {"(a = 1 OR b = 2) AND c = nil", "(a == 1 OR b == 2) AND c == nil"},
        {"#in IN {1, 'x', TRUE, nil}", R"(#in IN {1, "x", TRUE, nil})"},
        {"x BETWEEN {-1e3, 2.0}", "x BETWEEN {-1000.0, 2.0}"},
        {"SELF == 'a\\\\b\\n'", R"(SELF == "a\\b\n")"},
        {"all a.b < 2", "ALL a.b < 2"},
    };
    for (const auto& [format, printed] : rows) {
        SCOPED_TRACE(format);
        const auto predicate = Predicate::predicateWithFormat(format);
        EXPECT_EQ(predicate->predicateFormat(), printed);
        const auto again = Predicate::predicateWithFormat(predicate->predicateFormat());
        EXPECT_TRUE(again->isEqual(*predicate));
    }
    EXPECT_EQ(Predicate::predicateWithFormat("%K IN %@", {"a", Array{"x", 2}})->predicateFormat(), R"(a IN {"x", 2})");
}

TEST(PredicateFormat, ArgumentsAreValuesNeverSyntax)
{
    // Quotes, operators and brackets inside an argument stay part of the value.
    const std::string hostile = "x' OR 1 = 1 OR name = 'y";
    const auto predicate = Predicate::predicateWithFormat("name = %@", {hostile});
    EXPECT_FALSE(predicate->evaluateWithObject(Dictionary{{"name", "x"}}));
    EXPECT_TRUE(predicate->evaluateWithObject(Dictionary{{"name", hostile}}));
    // A key from %K is a key, whatever characters it has.
    const auto byKey = Predicate::predicateWithFormat("%K = 1", {"we ird;key"});
    EXPECT_TRUE(byKey->evaluateWithObject(Dictionary{{"we ird;key", 1}}));
}

TEST(PredicateFormat, MalformedFormatsNameTheirPosition)
{
    struct Malformed {
        std::string format;
        Array arguments;
        std::int64_t position;
    };
    const std::vector<Malformed> rows = {
        {"", {}, 0}, {"name", {}, 4}, {"name =", {}, 6}, {"name = 'abc", {}, 7}, {"(a = 1", {}, 6},
        {"a = 1)", {}, 5}, {"a = 1 AND", {}, 9}, {"a === 1", {}, 4}, {"a BEGINSWITH[x] 'a'", {}, 13},
        {"a CONTAINS[] 'a'", {}, 10}, {"a LIKE[c 'x'", {}, 8}, {"a = %@", {}, 4}, {"%K = 1", {5}, 0},
        {"%K = 1", {"a..b"}, 0}, {"a = %z", {1}, 4}, {"a = 12abc", {}, 4}, {"and = 1", {}, 0},
        {"a.in = 1", {}, 2}, {"a BETWEEN 5", {}, 2}, {"a = {1, 2", {}, 9}, {"a = 1 b = 2", {}, 6},
        {"a = %d", {"x"}, 4}, {"a = 1e999", {}, 4}, {"ANY = 1", {}, 4}, {"a = 1 OR", {}, 8}, {"a = %", {}, 4},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.format);
        try {
            Predicate::predicateWithFormat(row.format, row.arguments);
            ADD_FAILURE() << "parsed";
        } catch (const Exception& exception) {
            EXPECT_EQ(exception.name(), NSInvalidArgumentException);
            ASSERT_NE(exception.userInfo().find("position"), nullptr);
            EXPECT_EQ(exception.userInfo().get("position").integerValue(), row.position);
            EXPECT_NE(exception.reason().find("position " + std::to_string(row.position)), std::string::npos);
        }
    }
}

TEST(PredicateFormat, DeepNestingIsRefusedNotOverflowed)
{
    const std::string deep = std::string(100000, '(') + "a = 1" + std::string(100000, ')');
    EXPECT_THROW(Predicate::predicateWithFormat(deep), Exception);
    const std::string nots(100000, '!');
    EXPECT_THROW(Predicate::predicateWithFormat(nots + "a = 1"), Exception);
}
