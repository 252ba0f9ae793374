// JSON model mapping: property mappings, models filled from JSON and written
// back, the receiver-driven equality, and the parser over good and bad data.
#include "QMFoundation/REST/QMRESTAPIJSONParser.h"
#include "QMFoundation/REST/QMRESTAPIModel.h"
#include "QMFoundation/REST/QMRESTAPIModelPropertyMapping.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/JSON.h"
#include "tests/QMFoundation/REST/TestModels.h"
#include "tests/Support/AssertionCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

using platform::Data;
using platform::Dictionary;
using platform::Value;
using resttest::TestRepository;

namespace {

Dictionary json(std::string_view text)
{
    return *platform::JSONSerialization::valueWithString(text)->dictionary();
}

std::shared_ptr<TestRepository> repositoryFrom(std::string_view text)
{
    return std::dynamic_pointer_cast<TestRepository>(
        QMRESTAPIModel::objectWithJSONObject(resttest::repositoryClass(), json(text)));
}

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

TEST(QMRESTAPIModelPropertyMappingTest, ATransformerNameGivenAsALiteralIsNotTakenForWritable)
{
    const auto transformed = QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName("a", "b", "T");
    EXPECT_EQ(transformed->valueTransformer(), "T");
    EXPECT_FALSE(transformed->isWritable());
    const auto writable = QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName("a", "b", true);
    EXPECT_FALSE(writable->valueTransformer());
    EXPECT_TRUE(writable->isWritable());
}

TEST(QMRESTAPIModelPropertyMappingTest, MissingNamesFailTheirAssertionsAtTheirLines)
{
    auto failure = testsupport::captureAssertion([] { QMRESTAPIModelPropertyMapping::create(); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: jsonPropertyName");
    EXPECT_EQ(failure.file, "QMFoundation/QMRESTAPIModelPropertyMapping");
    EXPECT_EQ(failure.line, 42);

    failure = testsupport::captureAssertion(
        [] { QMRESTAPIModelPropertyMapping::propertyMappingWithJSONPropertyName("id", std::nullopt, "T", true); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: modelPropertyName");
    EXPECT_EQ(failure.line, 43);
}

TEST(QMRESTAPIModelTest, MappingTablesByNameFollowTheDeclaredOrderAndLaterMappingsWin)
{
    const auto byJSON = QMRESTAPIModel::propertyMappingsByJSONPropertyName(resttest::userClass());
    EXPECT_THAT(byJSON.keys(), testing::ElementsAre("login", "title"));
    EXPECT_EQ(byJSON.get("login").objectAs<QMRESTAPIModelPropertyMapping>()->modelPropertyName(), "title");

    const auto byModel = QMRESTAPIModel::propertyMappingsByModelPropertyName(resttest::userClass());
    EXPECT_THAT(byModel.keys(), testing::ElementsAre("name", "title"));

    // A subclass inherits the table; the base class has none.
    EXPECT_EQ(QMRESTAPIModel::propertyMappings(resttest::forkClass()).size(),
              QMRESTAPIModel::propertyMappings(resttest::repositoryClass()).size());
    EXPECT_TRUE(QMRESTAPIModel::propertyMappings(*platform::classFromString("QMRESTAPIModel")).empty());
}

TEST(QMRESTAPIModelTest, FillsMappedPropertiesAndSkipsNullsUnknownKeysAndFailedTransforms)
{
    const auto repository = repositoryFrom(R"({
        "id": 42, "name": 17, "unmapped": "ignored",
        "pushed_at": "2014-03-05T10:11:12.123Z", "homepage": "https://example.com/a",
        "private": 1, "owner": "jo", "watchers": null, "stargazers": "many"
    })");
    ASSERT_TRUE(repository);
    EXPECT_EQ(repository->get("identifier"), Value(42));
    // No type checks: a number mapped onto a text property stays a number.
    EXPECT_EQ(repository->get("name"), Value(17));
    EXPECT_EQ(repository->get("pushedAt"), Value(platform::Date(1394014272.123)));
    EXPECT_EQ(repository->get("homepage"), Value(*platform::URL::fromString("https://example.com/a")));
    EXPECT_EQ(repository->get("isPrivate"), Value(true));
    EXPECT_TRUE(repository->get("isPrivate").isBoolean());
    EXPECT_EQ(repository->get("stars"), Value("many"));
    // A transformer name that names nothing: the property is not set.
    EXPECT_TRUE(repository->get("owner").isNothing());
    // JSON null leaves the initial value.
    EXPECT_EQ(repository->get("watchers"), Value(7));

    // A transformer that gives nothing (a timestamp without a fraction, text
    // that is no URL) leaves the property alone.
    const auto partial = repositoryFrom(R"({"pushed_at": "2014-03-05T10:11:12Z", "homepage": "not a url"})");
    EXPECT_TRUE(partial->get("pushedAt").isNothing());
    EXPECT_TRUE(partial->get("homepage").isNothing());
    EXPECT_EQ(partial->get("watchers"), Value(7));
}

TEST(QMRESTAPIModelTest, ObjectWithJSONObjectMakesNothingOfAClassThatIsNoModel)
{
    EXPECT_FALSE(QMRESTAPIModel::objectWithJSONObject(*platform::classFromString("NSString"), json(R"({"a": 1})")));
    EXPECT_TRUE(std::dynamic_pointer_cast<resttest::TestFork>(
        QMRESTAPIModel::objectWithJSONObject(resttest::forkClass(), json(R"({"name": "f"})"))));
}

TEST(QMRESTAPIModelTest, WritableJSONPropertiesReverseTransformAndLeaveOutNothingValues)
{
    const auto repository = repositoryFrom(R"({
        "id": 42, "name": "zarvo", "pushed_at": "2014-03-05T10:11:12.123Z",
        "homepage": "https://example.com/a", "private": 0, "stargazers": 3
    })");
    repository->set("updatedText", "yesterday");  // the time-ago transformer cannot reverse: sent as it is
    repository->set("owner", "jo");                // its transformer names no class: sent as it is
    const auto written = repository->writableJSONProperties();
    // "id" and "stargazers" are not writable.
    EXPECT_THAT(written.keys(), testing::ElementsAre("name", "pushed_at", "homepage", "private", "updated_at", "owner",
                                                     "watchers"));
    EXPECT_EQ(written.get("pushed_at"), Value("2014-03-05T10:11:12.123Z"));
    EXPECT_EQ(written.get("homepage"), Value("https://example.com/a"));
    EXPECT_EQ(written.get("private"), Value(false));
    EXPECT_EQ(written.get("updated_at"), Value("yesterday"));
    EXPECT_EQ(written.get("owner"), Value("jo"));

    // A reverse transformation that gives nothing leaves the key out.
    repository->set("pushedAt", "not a date");
    repository->set("homepage", Value());
    const auto reduced = repository->writableJSONProperties();
    EXPECT_FALSE(reduced.contains("pushed_at"));
    EXPECT_FALSE(reduced.contains("homepage"));
    EXPECT_TRUE(platform::JSONSerialization::isValidJSONObject(Value(reduced)));
}

TEST(QMRESTAPIModelTest, EqualityIsDrivenByTheReceiversValues)
{
    const auto named = repositoryFrom(R"({"id": 1, "name": "x", "homepage": "https://example.com"})");
    const auto unnamed = repositoryFrom(R"({"id": 1, "homepage": "https://example.com"})");
    // Nothing on the receiver's side is not compared; the other way round it is.
    EXPECT_TRUE(unnamed->isEqualToObject(named));
    EXPECT_FALSE(named->isEqualToObject(unnamed));

    EXPECT_TRUE(named->isEqualToObject(repositoryFrom(R"({"id": 1.0, "name": "x", "homepage": "https://example.com"})")));
    EXPECT_FALSE(named->isEqualToObject(repositoryFrom(R"({"id": 2, "name": "x", "homepage": "https://example.com"})")));
    EXPECT_FALSE(named->isEqualToObject(repositoryFrom(R"({"id": "1", "name": "x", "homepage": "https://example.com"})")));
    EXPECT_FALSE(named->isEqualToObject(repositoryFrom(R"({"id": 1, "name": "x", "homepage": "https://example.org"})")));

    // Collections are never compared.
    const auto listed = repositoryFrom(R"({"id": 1, "name": "x", "homepage": "https://example.com"})");
    listed->set("owner", platform::Array{1, 2});
    named->set("owner", platform::Array{3});
    EXPECT_TRUE(named->isEqualToObject(listed));

    // A subclass instance counts; another model class, or nothing, does not.
    const auto fork = resttest::TestFork::create();
    fork->set("identifier", 1);
    fork->set("name", "x");
    fork->set("homepage", *platform::URL::fromString("https://example.com"));
    fork->set("watchers", 7);
    EXPECT_TRUE(named->isEqualToObject(fork));
    EXPECT_FALSE(named->isEqualToObject(resttest::TestUser::create()));
    EXPECT_FALSE(named->isEqualToObject(nullptr));
    EXPECT_TRUE(named->isEqualToObject(named));
}

TEST(QMRESTAPIModelTest, DescriptionListsTheModelPropertiesInMappingOrder)
{
    const auto user = resttest::TestUser::create();
    user->set("name", "jo");
    EXPECT_THAT(user->description(), testing::MatchesRegex(R"(TestUser <0x[0-9a-f]+> \{ name: jo, title: .* \})"));
}

struct ParseRow {
    std::string data;
    bool parses;
};

TEST(QMRESTAPIJSONParserTest, OneObjectFromDataThatIsAJSONObjectElseNothingAndAnError)
{
    const ParseRow rows[] = {
        {R"({"name": "zarvo", "id": 3})", true},
        {R"({})", true},
        {R"([{"name": "zarvo"}])", false},  // an array where one object is expected
        {R"("zarvo")", false},
        {"42", false},
        {"", false},
        {"not json", false},
        {R"({"name": "zarvo")", false},
        {"{\"name\": \"\xff\xfe\"}", false},  // not UTF-8
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.data);
        platform::ErrorRef error;
        const auto model = QMRESTAPIJSONParser::parseObjectFromJSONData(bytes(row.data), &resttest::repositoryClass(), &error);
        EXPECT_EQ(model != nullptr, row.parses);
        if (row.parses) {
            EXPECT_TRUE(std::dynamic_pointer_cast<TestRepository>(model));
            EXPECT_FALSE(error);
        } else {
            ASSERT_TRUE(error);
            EXPECT_EQ(error->domain(), platform::NSCocoaErrorDomain);
            EXPECT_EQ(error->code(), 3840);
            // Without an out-parameter the failure is the same, only unsaid.
            EXPECT_FALSE(QMRESTAPIJSONParser::parseObjectFromJSONData(bytes(row.data), &resttest::repositoryClass()));
        }
    }
}

TEST(QMRESTAPIJSONParserTest, ListsKeepTheObjectElementsInOrder)
{
    platform::ErrorRef error;
    auto models = QMRESTAPIJSONParser::parseObjectsFromJSONData(bytes("[]"), &resttest::repositoryClass(), &error);
    ASSERT_TRUE(models);
    EXPECT_TRUE(models->empty());

    models = QMRESTAPIJSONParser::parseObjectsFromJSONData(bytes(R"([{"name": "a"}, 3, null, [], {"name": "b"}])"),
                                                           &resttest::repositoryClass(), &error);
    ASSERT_TRUE(models);
    ASSERT_EQ(models->size(), 2U);
    EXPECT_EQ(std::dynamic_pointer_cast<TestRepository>((*models)[0])->get("name"), Value("a"));
    EXPECT_EQ(std::dynamic_pointer_cast<TestRepository>((*models)[1])->get("name"), Value("b"));

    for (const char* bad : {R"({"name": "a"})", "[", "\"[]\"", "[\"\xc3\"]"}) {
        SCOPED_TRACE(bad);
        error = nullptr;
        EXPECT_FALSE(QMRESTAPIJSONParser::parseObjectsFromJSONData(bytes(bad), &resttest::repositoryClass(), &error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), 3840);
    }
}

TEST(QMRESTAPIJSONParserTest, AnswersNestedBeyondReasonAreErrorsNotCrashes)
{
    // A server can send a few hundred kilobytes of brackets; reading them must
    // not recurse once per level.
    constexpr std::size_t kLevels = 200000;
    const std::string deepList = std::string(kLevels, '[') + std::string(kLevels, ']');
    const std::string deepObject = R"({"name": )" + deepList + "}";
    platform::ErrorRef error;
    EXPECT_FALSE(QMRESTAPIJSONParser::parseObjectFromJSONData(bytes(deepObject), &resttest::repositoryClass(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3840);
    error = nullptr;
    EXPECT_FALSE(QMRESTAPIJSONParser::parseObjectsFromJSONData(bytes(deepList), &resttest::repositoryClass(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3840);

    // Nesting that real answers use still reads, deepest level included.
    const std::string nested = std::string(100, '[') + "\"x\"" + std::string(100, ']');
    const auto model = std::dynamic_pointer_cast<TestRepository>(QMRESTAPIJSONParser::parseObjectFromJSONData(
        bytes(R"({"name": )" + nested + "}"), &resttest::repositoryClass()));
    ASSERT_TRUE(model);
    Value level = model->get("name");
    for (int depth = 0; depth < 100 && level.array() != nullptr && level.array()->size() == 1; ++depth) {
        level = level.array()->front();
    }
    EXPECT_EQ(level, Value("x"));
}

TEST(QMRESTAPIJSONParserTest, MissingDataOrClassAndNonModelClassesFailTheirAssertions)
{
    const Data empty = bytes("{}");
    const auto* text = platform::classFromString("NSString");
    struct Case {
        std::function<void()> call;
        std::string condition;
        int line;
    };
    const Case cases[] = {
        {[&] { (void)QMRESTAPIJSONParser::parseObjectFromJSONData(std::nullopt, &resttest::repositoryClass()); }, "jsonData", 15},
        {[&] { (void)QMRESTAPIJSONParser::parseObjectFromJSONData(empty, nullptr); }, "modelClass", 16},
        {[&] { (void)QMRESTAPIJSONParser::parseObjectFromJSONData(empty, text); },
         "[modelClass isSubclassOfClass:[QMRESTAPIModel class]]", 17},
        {[&] { (void)QMRESTAPIJSONParser::parseObjectsFromJSONData(std::nullopt, &resttest::repositoryClass()); }, "jsonData", 35},
        {[&] { (void)QMRESTAPIJSONParser::parseObjectsFromJSONData(empty, nullptr); }, "modelClass", 36},
        {[&] { (void)QMRESTAPIJSONParser::parseObjectsFromJSONData(empty, text); },
         "[modelClass isSubclassOfClass:[QMRESTAPIModel class]]", 37},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.line);
        const auto failure = testsupport::captureAssertion(test.call);
        EXPECT_EQ(failure.description, "Invalid parameter not satisfying: " + test.condition);
        EXPECT_EQ(failure.file, "QMFoundation/QMRESTAPIJSONParser");
        EXPECT_EQ(failure.line, test.line);
    }
}

}  // namespace
