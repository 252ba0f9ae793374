#include "Platform/ObjectGraph/XMLStore.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/Foundation/Error.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

using namespace platform;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr std::string_view kModel = R"({
  "format": "zarvo-object-model",
  "formatVersion": 1,
  "entities": [
    {"name": "Department",
     "attributes": [{"name": "name", "type": "string"}, {"name": "budget", "type": "double"}],
     "relationships": [{"name": "employees", "destination": "Employee", "inverse": "department", "toMany": true}]},
    {"name": "Employee",
     "attributes": [{"name": "name", "type": "string"}, {"name": "age", "type": "integer32"},
                    {"name": "active", "type": "boolean"}, {"name": "hired", "type": "date"},
                    {"name": "photo", "type": "binary"}],
     "relationships": [{"name": "department", "destination": "Department", "inverse": "employees"},
                       {"name": "tags", "destination": "Tag", "inverse": "employees", "toMany": true, "ordered": true}]},
    {"name": "Tag",
     "attributes": [{"name": "name", "type": "string"}],
     "relationships": [{"name": "employees", "destination": "Employee", "inverse": "tags", "toMany": true}]}
  ]
})";

Value idValue(const ManagedObjectIDRef& id)
{
    return Value(std::const_pointer_cast<ManagedObjectID>(id));
}

class XMLStoreTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = FileManager::temporaryDirectory() + "/xml-store-XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        path_ = directory_ + "/Company.xml";
        ErrorRef error;
        model_ = ManagedObjectModel::modelWithJSONText(kModel, "Company.momd", &error);
        ASSERT_TRUE(model_) << error->description();
    }
    void TearDown() override { (void)FileManager::removeItemAtPath(directory_); }

    std::shared_ptr<XMLStore> open(ErrorRef* error = nullptr, ManagedObjectModelRef model = nullptr)
    {
        auto store = XMLStore::create({model ? model : model_, URL::fileURLWithPath(path_), {}});
        return store->load(error) ? store : nullptr;
    }

    const EntityDescription& entity(std::string_view name) const { return *model_->entityNamed(name); }

    // A whole snapshot of `entity` from the values given by name.
    ObjectSnapshot snapshot(std::string_view entityName, const std::map<std::string, Value>& values) const
    {
        const auto& description = entity(entityName);
        ObjectSnapshot result;
        result.values.resize(description.properties().size());
        for (const auto& relationship : description.relationships()) {
            if (relationship->isToMany()) {
                result.values[relationship->index()] = Array();
            }
        }
        for (const auto& [name, value] : values) {
            result.values[description.propertyNamed(name)->index()] = value;
        }
        return result;
    }

    std::string fileText() const
    {
        const auto contents = FileManager::contentsAtPath(path_, 1 << 20);
        return contents ? std::string(contents->begin(), contents->end()) : std::string();
    }
    void writeFile(const std::string& text) const
    {
        ASSERT_TRUE(FileManager::writeContentsAtomically(path_, Data(text.begin(), text.end())));
    }

    // Research (Ada, Bob), Sales (Cy); tags work and home. Returns the IDs by name.
    std::map<std::string, ManagedObjectIDRef> saveCompany(XMLStore& store)
    {
        std::map<std::string, ManagedObjectIDRef> ids;
        const auto make = [&](const std::string& name, std::string_view entityName) {
            ids[name] = store.objectIDFor(entity(entityName), store.newPrimaryKeys(entity(entityName), 1)->front());
        };
        for (const auto* name : {"Research", "Sales"}) {
            make(name, "Department");
        }
        for (const auto* name : {"Ada", "Bob", "Cy"}) {
            make(name, "Employee");
        }
        for (const auto* name : {"work", "home"}) {
            make(name, "Tag");
        }
        SaveChanges changes;
        const auto add = [&](const std::string& name, std::string_view entityName, std::map<std::string, Value> values) {
            changes.inserted.push_back({ids[name], snapshot(entityName, values), std::nullopt});
        };
        add("Research", "Department",
            {{"name", "Research"}, {"budget", 1e6}, {"employees", Array{idValue(ids["Ada"]), idValue(ids["Bob"])}}});
        add("Sales", "Department", {{"name", "Sales"}, {"employees", Array{idValue(ids["Cy"])}}});
        add("Ada", "Employee", {{"name", "Ada"}, {"age", 42}, {"active", true}, {"department", idValue(ids["Research"])},
                                {"tags", Array{idValue(ids["work"]), idValue(ids["home"])}}});
        add("Bob", "Employee", {{"name", "bob"}, {"age", 35}, {"active", false}, {"department", idValue(ids["Research"])},
                                {"tags", Array{idValue(ids["home"])}}});
        add("Cy", "Employee", {{"name", "Cy"}, {"department", idValue(ids["Sales"])}});
        add("work", "Tag", {{"name", "work"}, {"employees", Array{idValue(ids["Ada"])}}});
        add("home", "Tag", {{"name", "home"}, {"employees", Array{idValue(ids["Ada"]), idValue(ids["Bob"])}}});
        ErrorRef error;
        EXPECT_TRUE(store.save(changes, nullptr, &error)) << (error ? error->description() : "");
        return ids;
    }

    std::vector<std::string> fetchNames(XMLStore& store, const FetchRequest& request)
    {
        std::vector<std::string> names;
        ErrorRef error;
        const auto ids = store.fetchObjectIDs(request, &error);
        EXPECT_TRUE(ids) << (error ? error->description() : "");
        for (const auto& id : ids.value_or(std::vector<ManagedObjectIDRef>{})) {
            const auto found = store.snapshotForObjectWithID(*id);
            names.push_back(*found->values[entity("Employee").propertyNamed("name")->index()].string());
        }
        return names;
    }

    std::string directory_;
    std::string path_;
    ManagedObjectModelRef model_;
};

TEST_F(XMLStoreTest, KeepsEveryKindOfValueAcrossAReopen)
{
    ManagedObjectIDRef id;
    const std::string awkward = "quotes \" <&> and\ttabs,\nlines,\r\nCRs, \x01 controls, ü";
    std::string identifier;
    {
        auto store = open();
        ASSERT_TRUE(store);
        ASSERT_TRUE(FileManager::fileExistsAtPath(path_));
        identifier = *store->identifier();
        id = store->objectIDFor(entity("Employee"), store->newPrimaryKeys(entity("Employee"), 1)->front());
        SaveChanges changes;
        changes.inserted.push_back({id, snapshot("Employee", {{"name", awkward}, {"age", -2147483647 - 1}, {"active", false},
                                                              {"hired", Date(1.5e9 + 0.1)}, {"photo", Data{0, 1, 255}}}),
                                    std::nullopt});
        auto blank = store->objectIDFor(entity("Employee"), store->newPrimaryKeys(entity("Employee"), 1)->front());
        changes.inserted.push_back({blank, snapshot("Employee", {{"name", "  "}}), std::nullopt});
        ASSERT_TRUE(store->save(changes, nullptr, nullptr));
    }
    ErrorRef error;
    auto store = open(&error);
    ASSERT_TRUE(store) << error->description();
    EXPECT_EQ(*store->identifier(), identifier);
    const auto saved = store->snapshotForObjectWithID(*store->objectIDFor(entity("Employee"), id->primaryKey()), &error);
    ASSERT_TRUE(saved) << error->description();
    EXPECT_EQ(saved->version, 1);
    const auto& employee = entity("Employee");
    EXPECT_EQ(saved->values[employee.propertyNamed("name")->index()], Value(awkward));
    EXPECT_EQ(saved->values[employee.propertyNamed("age")->index()], Value(-2147483647 - 1));
    EXPECT_EQ(saved->values[employee.propertyNamed("active")->index()], Value(false));
    EXPECT_EQ(saved->values[employee.propertyNamed("hired")->index()], Value(Date(1.5e9 + 0.1)));
    EXPECT_EQ(saved->values[employee.propertyNamed("photo")->index()], Value(Data{0, 1, 255}));
    EXPECT_TRUE(saved->values[employee.propertyNamed("department")->index()].isNothing());
    EXPECT_EQ(saved->values[employee.propertyNamed("tags")->index()], Value(Array{}));
    const auto blank = store->snapshotForObjectWithID(*store->objectIDFor(employee, id->primaryKey() + 1));
    EXPECT_EQ(blank->values[employee.propertyNamed("name")->index()], Value("  "));
    // Keys are not given out again after a restart.
    EXPECT_GT(store->newPrimaryKeys(employee, 1)->front(), id->primaryKey() + 1);
}

TEST_F(XMLStoreTest, FetchesFilterSortPageAndCountInMemory)
{
    auto store = open();
    ASSERT_TRUE(store);
    const auto ids = saveCompany(*store);
    const auto request = [](PredicateRef predicate, std::vector<std::shared_ptr<const SortDescriptor>> order = {}) {
        auto fetch = FetchRequest::fetchRequestWithEntityName("Employee");
        fetch->setPredicate(std::move(predicate));
        fetch->setSortDescriptors(std::move(order));
        return fetch;
    };
    const auto byName = SortDescriptor::create("name", true, SortDescriptor::CaseInsensitive);
    EXPECT_THAT(fetchNames(*store, *request(nullptr, {byName})), ElementsAre("Ada", "bob", "Cy"));
    EXPECT_THAT(fetchNames(*store, *request(predicateWithFormat("department.name = 'Research'"), {byName})),
                ElementsAre("Ada", "bob"));
    EXPECT_THAT(fetchNames(*store, *request(predicateWithFormat("ANY tags.name = 'home' AND age > 40"))), ElementsAre("Ada"));
    EXPECT_THAT(fetchNames(*store, *request(predicateWithFormat("NONE tags.name = 'work'"), {byName})),
                ElementsAre("bob", "Cy"));
    // Objects named by ID compare with what key paths reach, on either side.
    EXPECT_THAT(fetchNames(*store, *request(predicateWithFormat("department = %@", {idValue(ids.at("Sales"))}))),
                ElementsAre("Cy"));
    EXPECT_THAT(fetchNames(*store, *request(predicateWithFormat("%@ IN tags", {idValue(ids.at("work"))}))),
                ElementsAre("Ada"));
    EXPECT_THAT(fetchNames(*store, *request(predicateWithFormat("SELF IN %@", {Value(Array{idValue(ids.at("Cy"))})}))),
                ElementsAre("Cy"));
    EXPECT_THAT(fetchNames(*store, *request(predicateWithFormat("name MATCHES[c] 'b.*' OR age = nil"), {byName})),
                ElementsAre("bob", "Cy"));

    auto paged = request(nullptr, {SortDescriptor::create("name", false)});
    paged->setFetchOffset(1);
    paged->setFetchLimit(1);
    EXPECT_THAT(fetchNames(*store, *paged), ElementsAre("Cy"));
    EXPECT_EQ(store->count(*paged, nullptr), 1u);
    paged->setFetchOffset(5);
    EXPECT_EQ(store->count(*paged, nullptr), 0u);
    EXPECT_EQ(store->count(*request(predicateWithFormat("active = NO")), nullptr), 1u);

    // A key the entity does not have is an error, not an exception.
    ErrorRef error;
    EXPECT_FALSE(store->fetchObjectIDs(*request(predicateWithFormat("salary > 1")), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSPersistentStoreOperationError);
    EXPECT_FALSE(store->count(*FetchRequest::fetchRequestWithEntityName("Nobody"), &error));
}

TEST_F(XMLStoreTest, AStaleUpdateIsAConflictAndWritesNothing)
{
    auto store = open();
    ASSERT_TRUE(store);
    const auto ids = saveCompany(*store);
    SaveChanges first;
    first.updated.push_back({ids.at("Cy"), snapshot("Employee", {{"name", "Cyrus"}, {"department", idValue(ids.at("Sales"))}}), 1});
    ASSERT_TRUE(store->save(first, nullptr, nullptr));
    EXPECT_EQ(store->snapshotForObjectWithID(*ids.at("Cy"))->version, 2);
    const std::string before = fileText();

    SaveChanges stale;
    stale.updated.push_back({ids.at("Ada"), snapshot("Employee", {{"name", "Ada II"}}), 1});
    stale.updated.push_back({ids.at("Cy"), snapshot("Employee", {{"name", "Cy again"}}), 1});
    stale.deleted.push_back({ids.at("Bob"), {}, 7});
    std::vector<ManagedObjectIDRef> conflicts;
    ErrorRef error;
    EXPECT_FALSE(store->save(stale, &conflicts, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSManagedObjectMergeError);
    ASSERT_EQ(conflicts.size(), 2u);
    EXPECT_TRUE(conflicts[0]->isEqual(*ids.at("Cy")));
    EXPECT_TRUE(conflicts[1]->isEqual(*ids.at("Bob")));
    EXPECT_EQ(fileText(), before);
    EXPECT_EQ(store->snapshotForObjectWithID(*ids.at("Ada"))->version, 1);
}

TEST_F(XMLStoreTest, DeletedObjectsAreGoneAfterAReopen)
{
    std::map<std::string, ManagedObjectIDRef> ids;
    {
        auto store = open();
        ASSERT_TRUE(store);
        ids = saveCompany(*store);
        SaveChanges changes;
        changes.deleted.push_back({ids.at("Bob"), {}, 1});
        ASSERT_TRUE(store->save(changes, nullptr, nullptr));
    }
    auto store = open();
    ASSERT_TRUE(store);
    ErrorRef error;
    EXPECT_FALSE(store->snapshotForObjectWithID(*store->objectIDFor(entity("Employee"), ids.at("Bob")->primaryKey()), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSManagedObjectReferentialIntegrityError);
    EXPECT_EQ(store->count(*FetchRequest::fetchRequestWithEntityName("Employee"), nullptr), 2u);
}

TEST_F(XMLStoreTest, AFailedWriteLeavesTheStoreAsItWas)
{
    auto store = open();
    ASSERT_TRUE(store);
    const auto ids = saveCompany(*store);
    // With its directory gone the file cannot be replaced.
    ASSERT_TRUE(FileManager::removeItemAtPath(directory_));
    SaveChanges changes;
    changes.updated.push_back({ids.at("Ada"), snapshot("Employee", {{"name", "changed"}}), 1});
    changes.deleted.push_back({ids.at("Cy"), {}, 1});
    auto extra = store->objectIDFor(entity("Tag"), store->newPrimaryKeys(entity("Tag"), 1)->front());
    changes.inserted.push_back({extra, snapshot("Tag", {{"name", "new"}}), std::nullopt});
    ErrorRef error;
    EXPECT_FALSE(store->save(changes, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSPersistentStoreSaveError);
    const auto ada = store->snapshotForObjectWithID(*ids.at("Ada"));
    ASSERT_TRUE(ada);
    EXPECT_EQ(ada->values[entity("Employee").propertyNamed("name")->index()], Value("Ada"));
    EXPECT_EQ(ada->version, 1);
    EXPECT_TRUE(store->snapshotForObjectWithID(*ids.at("Cy")));
    EXPECT_EQ(store->count(*FetchRequest::fetchRequestWithEntityName("Tag"), nullptr), 2u);
}

TEST_F(XMLStoreTest, RefusesFilesThatAreNotOurs)
{
    {
        auto store = open();
        ASSERT_TRUE(store);
        saveCompany(*store);
    }
    const std::string good = fileText();
    const auto replaced = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        const auto at = text.find(from);
        EXPECT_NE(at, std::string::npos) << from;
        return at == std::string::npos ? text : text.replace(at, from.size(), to);
    };
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"not XML", "{\"entities\": []}"},
        {"another root", "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict/></plist>"},
        {"another format", replaced("format=\"1\"", "format=\"2\"")},
        {"an unknown property", replaced("n=\"age\"", "n=\"salary\"")},
        {"a value that does not parse", replaced("v=\"42\"", "v=\"forty-two\"")},
        {"an integer beyond its type", replaced("v=\"42\"", "v=\"4294967296\"")},
        {"a reference to no object", replaced("t=\"ref\" v=\"", "t=\"ref\" v=\"9")},
        {"an unknown entity", replaced("name=\"Tag\"", "name=\"Label\"")},
        {"truncated", good.substr(0, good.size() / 2)},
    };
    for (const auto& [what, text] : rows) {
        SCOPED_TRACE(what);
        writeFile(text);
        ErrorRef error;
        EXPECT_FALSE(open(&error));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), NSPersistentStoreTypeMismatchError);
        EXPECT_THAT(error->description(), HasSubstr("Company.xml"));
    }

    writeFile(good);
    ErrorRef error;
    auto otherModel = ManagedObjectModel::modelWithJSONText(
        R"({"format": "zarvo-object-model", "formatVersion": 1, "entities": [{"name": "Note", "attributes": [{"name": "text", "type": "string"}]}]})",
        "Other.momd", &error);
    ASSERT_TRUE(otherModel) << error->description();
    EXPECT_FALSE(open(&error, otherModel));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), NSPersistentStoreIncompatibleVersionHashError);
    EXPECT_TRUE(open());
}

TEST_F(XMLStoreTest, IsRegisteredUnderItsStoreType)
{
    const auto* factory = PersistentStore::factoryForType(NSXMLStoreType);
    ASSERT_NE(factory, nullptr);
    auto store = (*factory)({model_, URL::fileURLWithPath(path_), {}});
    EXPECT_EQ(store->type(), NSXMLStoreType);
    EXPECT_TRUE(store->load(nullptr));
}

}  // namespace
