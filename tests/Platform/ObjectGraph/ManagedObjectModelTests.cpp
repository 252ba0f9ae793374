#include "Platform/ObjectGraph/ManagedObjectModel.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/ObjectGraph/ManagedObjectID.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"
#include "tests/Support/RunProgram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <thread>
#include <string>

using namespace platform;
using testing::HasSubstr;

namespace {

constexpr std::string_view kCompanyModel = objectgraphtest::kCompanyModelText;

ManagedObjectModelRef readModel(std::string_view text, ErrorRef* error = nullptr)
{
    return ManagedObjectModel::modelWithJSONText(text, "Company.momd", error);
}

std::string replaced(std::string text, std::string_view from, std::string_view to)
{
    const auto at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) {
        text.replace(at, from.size(), to);
    }
    return text;
}

TEST(ManagedObjectModelFileTest, ReadsEveryKindOfPropertyWithItsOptions)
{
    ErrorRef error;
    const auto model = readModel(kCompanyModel, &error);
    ASSERT_NE(model, nullptr) << (error ? error->description() : "");

    const EntityDescription* employee = model->entityNamed("Employee");
    ASSERT_NE(employee, nullptr);
    EXPECT_EQ(employee->managedObjectClassName(), "CompanyEmployee");
    EXPECT_EQ(model->entityNamed("Department")->managedObjectClassName(), "Department");

    struct Row {
        std::string name;
        AttributeType type;
        bool optional;
        Value defaultValue;
    };
    const Row rows[] = {
        {"name", AttributeType::String, true, {}},
        {"level", AttributeType::Integer16, true, 3},
        {"badge", AttributeType::Integer32, true, {}},
        {"serial", AttributeType::Integer64, true, {}},
        {"active", AttributeType::Boolean, true, true},
        {"hired", AttributeType::Date, true, Date(-86400)},
        {"photo", AttributeType::Binary, true, {}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const AttributeDescription* attribute = employee->attributeNamed(row.name);
        ASSERT_NE(attribute, nullptr);
        EXPECT_EQ(attribute->attributeType(), row.type);
        EXPECT_EQ(attribute->isOptional(), row.optional);
        EXPECT_EQ(attribute->defaultValue(), row.defaultValue);
        EXPECT_EQ(&attribute->entity(), employee);
    }
    // A whole-number default of a double attribute is a double.
    EXPECT_EQ(model->entityNamed("Department")->attributeNamed("budget")->defaultValue().kind(), Value::Kind::Double);
    EXPECT_TRUE(model->entityNamed("Department")->attributeNamed("name")->isIndexed());
    EXPECT_FALSE(model->entityNamed("Department")->attributeNamed("name")->isOptional());
    EXPECT_FALSE(employee->attributeNamed("name")->isIndexed());

    const EntityDescription* department = model->entityNamed("Department");
    const RelationshipDescription* employees = department->relationshipNamed("employees");
    const RelationshipDescription* rota = department->relationshipNamed("rota");
    const RelationshipDescription* worksIn = employee->relationshipNamed("department");
    ASSERT_TRUE(employees && rota && worksIn);
    EXPECT_TRUE(employees->isToMany());
    EXPECT_FALSE(employees->isOrdered());
    EXPECT_TRUE(rota->isOrdered());
    EXPECT_FALSE(worksIn->isToMany());
    EXPECT_EQ(employees->inverseRelationship(), worksIn);
    EXPECT_EQ(worksIn->inverseRelationship(), employees);
    EXPECT_EQ(&employees->destinationEntity(), employee);
    EXPECT_EQ(employees->deleteRule(), DeleteRule::Cascade);
    EXPECT_EQ(rota->deleteRule(), DeleteRule::Deny);
    EXPECT_EQ(worksIn->deleteRule(), DeleteRule::Nullify);
    EXPECT_EQ(employee->relationshipNamed("rotaOf")->deleteRule(), DeleteRule::Nullify);
    EXPECT_EQ(employee->relationshipNamed("mentor")->deleteRule(), DeleteRule::NoAction);
    EXPECT_EQ(employee->relationshipNamed("mentor")->inverseRelationship(), nullptr);

    // Attributes come first in the property order, then relationships.
    ASSERT_EQ(employee->properties().size(), 10u);
    EXPECT_EQ(employee->properties()[7]->name(), "department");
    EXPECT_EQ(worksIn->index(), 7u);
    EXPECT_EQ(employee->propertyNamed("photo")->index(), 6u);
    EXPECT_EQ(employee->propertyNamed("missing"), nullptr);
    EXPECT_EQ(department->relationshipsByName().keys(), (std::vector<std::string>{"employees", "rota"}));
    EXPECT_EQ(department->relationshipsByName().get("rota").objectAs<RelationshipDescription>().get(), rota);
}

TEST(ManagedObjectModelFileTest, WrittenTextReadsBackAsTheSameModel)
{
    const auto model = readModel(kCompanyModel);
    ASSERT_NE(model, nullptr);
    testsupport::TemporaryDirectory directory;
    const URL url = URL::fileURLWithPath(directory.path() + "/Company.momd");
    ErrorRef error;
    ASSERT_TRUE(model->writeToURL(url, &error)) << error->description();

    const auto again = ManagedObjectModel::modelWithContentsOfURL(url, &error);
    ASSERT_NE(again, nullptr) << error->description();
    EXPECT_EQ(again->versionHash(), model->versionHash());
    EXPECT_EQ(again->JSONText(), model->JSONText());
    const auto* hired = again->entityNamed("Employee")->attributeNamed("hired");
    EXPECT_EQ(hired->defaultValue(), Value(Date(-86400)));
    EXPECT_EQ(again->entityNamed("Employee")->managedObjectClassName(), "CompanyEmployee");
    EXPECT_EQ(again->entityNamed("Department")->relationshipNamed("rota")->deleteRule(), DeleteRule::Deny);
}

TEST(ManagedObjectModelFileTest, VersionHashFollowsTheLayoutOfTheDataOnly)
{
    const auto base = readModel(kCompanyModel);
    ASSERT_NE(base, nullptr);
    EXPECT_EQ(base->versionHash().size(), 64u);

    struct Row {
        std::string what;
        std::string from;
        std::string to;
        bool changesHash;
    };
    const Row rows[] = {
        {"optionality", R"("type": "integer32")", R"("type": "integer32", "optional": false)", false},
        {"default", R"("default": 1000)", R"("default": 2000)", false},
        {"index", R"("indexed": true)", R"("indexed": false)", false},
        {"delete rule", R"("deleteRule": "cascade")", R"("deleteRule": "nullify")", false},
        {"attribute type", R"("name": "badge", "type": "integer32")", R"("name": "badge", "type": "integer64")", true},
        {"attribute name", R"("name": "badge")", R"("name": "token")", true},
        {"new attribute", R"({"name": "photo", "type": "binary"})",
         R"({"name": "photo", "type": "binary"}, {"name": "notes", "type": "string"})", true},
        {"ordering", R"("toMany": true, "ordered": true)", R"("toMany": true)", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ErrorRef error;
        const auto changed = readModel(replaced(std::string(kCompanyModel), row.from, row.to), &error);
        ASSERT_NE(changed, nullptr) << error->description();
        EXPECT_EQ(changed->versionHash() != base->versionHash(), row.changesHash);
    }

    // The order of entities and properties in the file is not part of it.
    auto reordered = EntityDescription::create(
        "Department",
        {AttributeDescription::create("budget", AttributeType::Double),
         AttributeDescription::create("name", AttributeType::String)},
        {RelationshipDescription::create("rota", "Employee", {.inverse = "rotaOf", .toMany = true, .ordered = true}),
         RelationshipDescription::create("employees", "Employee", {.inverse = "department", .toMany = true})});
    auto employee = EntityDescription::create(
        "Employee",
        {AttributeDescription::create("photo", AttributeType::Binary),
         AttributeDescription::create("name", AttributeType::String),
         AttributeDescription::create("level", AttributeType::Integer16),
         AttributeDescription::create("badge", AttributeType::Integer32),
         AttributeDescription::create("serial", AttributeType::Integer64),
         AttributeDescription::create("active", AttributeType::Boolean),
         AttributeDescription::create("hired", AttributeType::Date)},
        {RelationshipDescription::create("mentor", "Employee", {}),
         RelationshipDescription::create("rotaOf", "Department", {.inverse = "rota"}),
         RelationshipDescription::create("department", "Department", {.inverse = "employees"})});
    const auto built = ManagedObjectModel::create({employee, reordered});
    ASSERT_NE(built, nullptr);
    EXPECT_EQ(built->versionHash(), base->versionHash());
}

TEST(ManagedObjectModelFileTest, BadFilesAreRefusedNamingThePlace)
{
    struct Row {
        std::string what;
        std::string text;
        std::string place;  // expected in the failure reason
    };
    const std::string model(kCompanyModel);
    const Row rows[] = {
        {"syntax", replaced(model, R"("name": "Department",)", R"("name": "Department")"), "line 7, column"},
        {"not an object", "[1, 2]", "not a JSON object"},
        {"nested without end", std::string(100000, '[') + std::string(100000, ']'), "nested deeper"},
        {"format name", replaced(model, "zarvo-object-model", "other"), "format"},
        {"format version", replaced(model, R"("formatVersion": 1)", R"("formatVersion": 2)"), "formatVersion"},
        {"unknown key", replaced(model, R"("class": "CompanyEmployee",)", R"("klass": "CompanyEmployee",)"),
         "entities[1].klass"},
        {"unknown type", replaced(model, R"("type": "integer32")", R"("type": "int")"),
         "entities[1].attributes[2].type"},
        {"default of the wrong type", replaced(model, R"("default": 3)", R"("default": "three")"),
         "entities[1].attributes[1].default"},
        {"default out of range", replaced(model, R"("default": 3)", R"("default": 40000)"),
         "entities[1].attributes[1].default"},
        {"binary default", replaced(model, R"({"name": "photo", "type": "binary"})",
                                    R"({"name": "photo", "type": "binary", "default": "AA=="})"),
         "entities[1].attributes[6].default"},
        {"flag not a boolean", replaced(model, R"("optional": false, "indexed")", R"("optional": 0, "indexed")"),
         "entities[0].attributes[0].optional"},
        {"name missing", replaced(model, R"({"name": "budget", )", "{"), "entities[0].attributes[1].name"},
        {"ordered to-one", replaced(model, R"("inverse": "rota"})", R"("inverse": "rota", "ordered": true})"),
         "entities[1].relationships[1].ordered"},
        {"unknown delete rule", replaced(model, R"("deleteRule": "deny")", R"("deleteRule": "refuse")"),
         "entities[0].relationships[1].deleteRule"},
        {"unknown destination", replaced(model, R"("destination": "Employee", "inverse": "department")",
                                         R"("destination": "Staff", "inverse": "department")"),
         "relationship employees: no entity named \"Staff\""},
        {"inverse missing", replaced(model, R"("inverse": "rotaOf")", R"("inverse": "rotaFor")"),
         "Employee.rotaFor does not exist"},
        {"inverse not pointing back", replaced(model, R"("inverse": "rota"})", R"("inverse": "employees"})"),
         "does not name it back"},
        {"duplicate property", replaced(model, R"("name": "badge")", R"("name": "level")"),
         "the property level is defined twice"},
        {"reserved name", replaced(model, R"("name": "badge")", R"("name": "objectID")"), "reserved"},
        {"bad entity name", replaced(model, R"("name": "Department",)", R"("name": "Depart ment",)"),
         "not a name"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        ErrorRef error;
        EXPECT_EQ(readModel(row.text, &error), nullptr);
        ASSERT_NE(error, nullptr);
        EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error->code(), NSFileReadCorruptFileError);
        EXPECT_THAT(error->localizedDescription(), HasSubstr("Company.momd"));
        EXPECT_THAT(error->localizedFailureReason().value_or(""), HasSubstr(row.place));
    }
}

TEST(ManagedObjectModelFileTest, MissingAndUnreadableFilesAreTheirOwnErrors)
{
    testsupport::TemporaryDirectory directory;
    ErrorRef error;
    EXPECT_EQ(ManagedObjectModel::modelWithContentsOfURL(URL::fileURLWithPath(directory.path() + "/None.momd"), &error),
              nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), NSFileReadNoSuchFileError);

    error = nullptr;
    EXPECT_EQ(ManagedObjectModel::modelWithContentsOfURL(URL::fileURLWithPath(directory.path()), &error), nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), NSFileReadCorruptFileError);
    ASSERT_NE(error->userInfo().find(NSUnderlyingErrorKey), nullptr);
}

TEST(ManagedObjectModelCreateTest, EntitiesBuiltInCodeMakeAModelAndJoinOnlyOne)
{
    auto person = EntityDescription::create(
        "Person", {AttributeDescription::create("name", AttributeType::String, {.optional = false, .defaultValue = {}, .indexed = true})},
        {RelationshipDescription::create("friends", "Person", {.inverse = "friends", .toMany = true})});
    ErrorRef error;
    const auto model = ManagedObjectModel::create({person}, &error);
    ASSERT_NE(model, nullptr) << error->description();
    // A relationship may be its own inverse (friends of friends).
    EXPECT_EQ(person->relationshipNamed("friends")->inverseRelationship(), person->relationshipNamed("friends"));
    EXPECT_EQ(&person->managedObjectModel(), model.get());
    EXPECT_THROW((void)ManagedObjectModel::create({person}), Exception);

    auto wrongDefault = EntityDescription::create(
        "Thing", {AttributeDescription::create("count", AttributeType::Integer16, {.optional = true, .defaultValue = Value(1.5)})}, {});
    EXPECT_EQ(ManagedObjectModel::create({wrongDefault}, &error), nullptr);
    EXPECT_EQ(error->code(), NSManagedObjectValidationError);
    EXPECT_THAT(error->localizedFailureReason().value_or(""), HasSubstr("attribute count"));
}

TEST(AttributeTypeTest, ValuesFitTheirTypesWithinRange)
{
    EXPECT_TRUE(valueFitsAttributeType(Value(32767), AttributeType::Integer16));
    EXPECT_FALSE(valueFitsAttributeType(Value(32768), AttributeType::Integer16));
    EXPECT_FALSE(valueFitsAttributeType(Value(-2147483649LL), AttributeType::Integer32));
    EXPECT_FALSE(valueFitsAttributeType(Value(1.0), AttributeType::Integer64));
    EXPECT_TRUE(valueFitsAttributeType(Value(1), AttributeType::Double));
    EXPECT_FALSE(valueFitsAttributeType(Value(true), AttributeType::Double));
    EXPECT_TRUE(valueFitsAttributeType(Value(1), AttributeType::Boolean));
    EXPECT_FALSE(valueFitsAttributeType(Value(2), AttributeType::Boolean));
    EXPECT_FALSE(valueFitsAttributeType(Value(), AttributeType::String));
    EXPECT_FALSE(valueFitsAttributeType(Value::null(), AttributeType::String));
    EXPECT_TRUE(valueFitsAttributeType(Value(Data{1}), AttributeType::Binary));
}

TEST(ManagedObjectIDTest, PermanentURIsNameStoreEntityAndKeyAndParseBack)
{
    const auto model = readModel(kCompanyModel);
    const EntityDescription& employee = *model->entityNamed("Employee");
    const std::string store = "0123456789ABCDEF0123456789ABCDEF";
    const auto id = ManagedObjectID::permanentID(employee, InternedStoreIdentifier(store), 42);
    EXPECT_EQ(id->URIRepresentation().absoluteString(),
              "x-zarvo-object://0123456789ABCDEF0123456789ABCDEF/Employee/p42");
    const auto parts = ManagedObjectID::parseURIRepresentation(id->URIRepresentation());
    ASSERT_TRUE(parts.has_value());
    EXPECT_EQ(parts->storeIdentifier, store);
    EXPECT_EQ(parts->entityName, "Employee");
    EXPECT_EQ(parts->primaryKey, 42);

    // Interned again from another copy of the text: the same store.
    const InternedStoreIdentifier again{std::string(store)};
    EXPECT_EQ(again.text(), InternedStoreIdentifier(store).text());
    EXPECT_TRUE(id->isEqual(*ManagedObjectID::permanentID(employee, again, 42)));
    EXPECT_FALSE(id->isEqual(*ManagedObjectID::permanentID(employee, again, 43)));
    EXPECT_FALSE(id->isEqual(*ManagedObjectID::permanentID(*model->entityNamed("Department"), again, 42)));

    // IDs keep one process-wide copy of each store identifier and compare
    // stores by it: another store's ID differs, and an ID made on another
    // thread (as merges see them) equals this one. An empty identifier is
    // no store at all.
    const std::string otherStore = "FEDCBA9876543210FEDCBA9876543210";
    const auto ofOtherStore = ManagedObjectID::permanentID(employee, InternedStoreIdentifier(otherStore), 42);
    EXPECT_FALSE(id->isEqual(*ofOtherStore));
    EXPECT_EQ(ofOtherStore->storeIdentifier(), otherStore);
    EXPECT_EQ(id->storeIdentifier(), store);
    EXPECT_EQ(InternedStoreIdentifier(std::string()).text(), nullptr);
    ManagedObjectIDRef fromThread;
    std::thread([&] {
        fromThread = ManagedObjectID::permanentID(employee, InternedStoreIdentifier(std::string(store)), 42);
    }).join();
    EXPECT_TRUE(id->isEqual(*fromThread));
    EXPECT_EQ(id->hash(), fromThread->hash());

    const auto temporary = ManagedObjectID::temporaryID(employee);
    EXPECT_TRUE(temporary->isTemporaryID());
    EXPECT_FALSE(temporary->isEqual(*ManagedObjectID::temporaryID(employee)));
    const auto temporaryParts = ManagedObjectID::parseURIRepresentation(temporary->URIRepresentation());
    ASSERT_TRUE(temporaryParts.has_value());
    EXPECT_EQ(temporaryParts->primaryKey, temporary->primaryKey());
    EXPECT_TRUE(temporaryParts->storeIdentifier.empty());

    for (const char* text : {"x-zarvo-object://AB/Employee/p", "x-zarvo-object://AB/Employee/p-1",
                             "x-zarvo-object://AB/Employee/p12x", "x-zarvo-object:///Employee/p12",
                             "x-zarvo-object:///Employee/t0000000000000000-5", "x-other://AB/Employee/p1",
                             "x-zarvo-object://AB/Employee/p99999999999999999999", "x-zarvo-object://AB/p1"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(ManagedObjectID::parseURIRepresentation(*URL::fromString(text)).has_value());
    }
}

}  // namespace
