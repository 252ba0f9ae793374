#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSON.h"

#include <gtest/gtest.h>

#include <memory>

using platform::Dictionary;
using platform::Value;

namespace {

// A record with a few attributes of the kinds descriptions meet: text, a
// number, a boolean and a property that holds nothing.
class Record final : public platform::Object {
public:
    std::string className() const override { return "Record"; }

    const platform::PropertyTable& propertyTable() const override
    {
        static const auto table = platform::PropertyTable::extending<Record>(Object::propertyTable(), {
            {"name", [](const Record& record) { return Value(record.name); }},
            {"count", [](const Record& record) { return Value(record.count); }},
            {"enabled", [](const Record& record) { return Value(record.enabled); }},
            {"owner", [](const Record&) { return Value(); }},
        });
        return table;
    }

    std::optional<std::vector<std::string>> attributeKeys() const override { return keys; }

    std::string name = "build";
    int count = 3;
    bool enabled = false;
    std::optional<std::vector<std::string>> keys = std::vector<std::string>{"name", "count"};
};

class NSObjectQMObjectDescribingTest : public ::testing::Test {
protected:
    std::string heading() const { return "Record <" + record->addressString() + ">"; }

    std::shared_ptr<Record> record = platform::makeObject<Record>();
};

TEST_F(NSObjectQMObjectDescribingTest, DescribesAttributesInDeclaredOrder)
{
    EXPECT_EQ(defaultDescription(*record), heading() + " { name: build, count: 3 }");
    EXPECT_EQ(prettyDescription(*record), heading() + " {\n\tname: build,\n\tcount: 3\n}");
}

TEST_F(NSObjectQMObjectDescribingTest, WithoutAttributeKeysStopsAfterTheOpeningBrace)
{
    record->keys.reset();
    const auto expected = "Record <0x" + record->addressString() + "> { ";
    EXPECT_EQ(defaultDescription(*record), expected);
    EXPECT_EQ(prettyDescription(*record), expected);
    EXPECT_EQ(expected.rfind("Record <0x0x", 0), 0u);
}

TEST_F(NSObjectQMObjectDescribingTest, BooleanAttributesAlwaysReadYesAndNothingReadsNull)
{
    record->keys = std::vector<std::string>{"enabled", "owner"};
    record->enabled = false;
    EXPECT_EQ(defaultDescription(*record), heading() + " { enabled: YES, owner: (null) }");
    record->enabled = true;
    EXPECT_EQ(defaultDescription(*record), heading() + " { enabled: YES, owner: (null) }");
}

TEST_F(NSObjectQMObjectDescribingTest, ItemsMixAttributeNamesAndLabelledValues)
{
    const platform::Array items{"name", Dictionary{{"label", "value"}}};
    EXPECT_EQ(prettyDescriptionWithItems(*record, items), heading() + " { name: build, label: value }");

    // With several entries only the last listed key is used; a boolean item is
    // shown as the number it is, not as "YES".
    const platform::Array more{Dictionary{{"first", 1}, {"second", 2}}, "enabled"};
    EXPECT_EQ(prettyDescriptionWithItems(*record, more), heading() + " { second: 2, enabled: 0 }");

    EXPECT_EQ(prettyDescriptionWithItems(*record, {}), heading() + " {  }");
    EXPECT_EQ(prettyDescriptionWithItems(*record, {Dictionary{}}), heading() + " { (null): (null) }");
}

TEST_F(NSObjectQMObjectDescribingTest, DictionaryIsEmbeddedAsPrettyJSON)
{
    const Dictionary empty;
    EXPECT_EQ(prettyDescriptionWithDictionary(*record, empty),
              heading() + " " + *platform::JSONSerialization::stringWithValue(Value(empty), platform::JSONSerialization::PrettyPrinted));
    EXPECT_EQ(prettyDescriptionWithDictionary(*record, empty), heading() + " {}");

    const Dictionary entries{{"b", 1}, {"a", "x"}};
    EXPECT_EQ(prettyDescriptionWithDictionary(*record, entries), heading() + " {\n  \"b\": 1,\n  \"a\": \"x\"\n}");
}

TEST_F(NSObjectQMObjectDescribingTest, DictionaryAssertionsNameTheirSource)
{
    platform::AssertionFailure seen;
    const auto previous = platform::AssertionHandler::setObserver([&](const platform::AssertionFailure& failure) { seen = failure; });

    EXPECT_THROW(prettyDescriptionWithDictionary(*record, std::nullopt), platform::Exception);
    EXPECT_EQ(seen.description, "Invalid parameter not satisfying: dictionary");
    EXPECT_EQ(seen.file, "QMFoundation/NSObject+QMObjectDescribing");

    try {
        prettyDescriptionWithDictionary(*record, Dictionary{{"when", platform::Date(0)}});
        ADD_FAILURE() << "no exception";
    } catch (const platform::Exception& exception) {
        EXPECT_EQ(exception.name(), platform::NSInternalInconsistencyException);
        EXPECT_EQ(exception.reason().rfind("Is not a valid JSON object: {", 0), 0u) << exception.reason();
    }
    platform::AssertionHandler::setObserver(previous);
}

TEST_F(NSObjectQMObjectDescribingTest, ObjectDescriptionFallsBackToTheNullObject)
{
    EXPECT_EQ(prettyDescriptionForObject(*record, Value()), "<null>");
    EXPECT_EQ(prettyDescriptionForObject(*record, Value("text")), "text");
    EXPECT_EQ(prettyDescriptionForObject(*record, Value(std::static_pointer_cast<platform::Object>(record))),
              record->description());
}

}  // namespace
