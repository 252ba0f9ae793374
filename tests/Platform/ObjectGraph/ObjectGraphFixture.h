// A company model and a store of each type for the object-graph tests.
#pragma once

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/OrderedSet.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"
#include "Platform/ObjectGraph/ManagedObjectModel.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/ObjectGraph/PersistentStoreCoordinator.h"
#include "tests/Support/RunProgram.h"
#include "tests/Support/StoreTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace platform {
// Values print as the platform describes them, in test failures.
inline std::ostream& operator<<(std::ostream& stream, const Value& value)
{
    return stream << value.description();
}
inline void PrintTo(const Value& value, std::ostream* stream)
{
    *stream << value.description();
}
}  // namespace platform

namespace objectgraphtest {

// Every feature of the model file once, for the model's own tests and the
// behaviour tables alike: each attribute type, optional and not, defaults,
// an index, to-one, to-many and ordered to-many with inverses, each delete
// rule, and a class name that no class is registered under (so employees are
// generic managed objects). Departments own their employees (cascade) and
// keep a rota that denies their deletion while it names anyone; an
// employee's mentor is left dangling when the mentor goes (no action).
inline constexpr std::string_view kCompanyModelText = R"({
  "format": "zarvo-object-model",
  "formatVersion": 1,
  "entities": [
    {
      "name": "Department",
      "attributes": [
        {"name": "name", "type": "string", "optional": false, "indexed": true},
        {"name": "budget", "type": "double", "default": 1000}
      ],
      "relationships": [
        {"name": "employees", "destination": "Employee", "inverse": "department",
         "toMany": true, "deleteRule": "cascade"},
        {"name": "rota", "destination": "Employee", "inverse": "rotaOf",
         "toMany": true, "ordered": true, "deleteRule": "deny"}
      ]
    },
    {
      "name": "Employee",
      "class": "CompanyEmployee",
      "attributes": [
        {"name": "name", "type": "string"},
        {"name": "level", "type": "integer16", "default": 3},
        {"name": "badge", "type": "integer32"},
        {"name": "serial", "type": "integer64"},
        {"name": "active", "type": "boolean", "default": true},
        {"name": "hired", "type": "date", "default": -86400},
        {"name": "photo", "type": "binary"}
      ],
      "relationships": [
        {"name": "department", "destination": "Department", "inverse": "employees"},
        {"name": "rotaOf", "destination": "Department", "inverse": "rota"},
        {"name": "mentor", "destination": "Employee", "deleteRule": "noAction"}
      ]
    }
  ]
})";

inline platform::ManagedObjectModelRef companyModel()
{
    static const auto model = platform::ManagedObjectModel::modelWithJSONText(kCompanyModelText, "Company.momd");
    return model;
}

using testsupport::storeTypes;

inline std::string storeFileName(const std::string& type)
{
    return type == platform::NSSQLiteStoreType ? "Company.sqlite3" : type == platform::NSXMLStoreType ? "Company.xml" : "";
}

// Departments in no context, each with a temporary ID of its own: members
// for the tables a context keeps.
inline std::vector<platform::ManagedObjectRef> looseObjects(std::size_t count)
{
    const platform::EntityDescription& entity = *companyModel()->entityNamed("Department");
    std::vector<platform::ManagedObjectRef> objects;
    for (std::size_t index = 0; index < count; ++index) {
        objects.push_back(platform::ManagedObject::create(entity, nullptr));
    }
    return objects;
}

// The objects of a to-many value (a set, or an ordered set in its order).
inline std::vector<platform::ManagedObjectRef> membersOf(const platform::Value& collection)
{
    std::vector<platform::ManagedObjectRef> members;
    const auto add = [&](const platform::Value& member) {
        members.push_back(member.objectAs<platform::ManagedObject>());
    };
    if (const auto* set = collection.set()) {
        std::for_each(set->begin(), set->end(), add);
    }
    if (const auto* ordered = collection.orderedSet()) {
        std::for_each(ordered->begin(), ordered->end(), add);
    }
    return members;
}

// A coordinator with one store of the test's type, in a directory of its own.
class StoreTest : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override { coordinator_ = openCoordinator(); }

    std::optional<platform::URL> storeURL() const
    {
        if (GetParam() == platform::NSInMemoryStoreType) {
            return std::nullopt;
        }
        return platform::URL::fileURLWithPath(directory_.path() + "/" + storeFileName(GetParam()));
    }
    bool storeHasFile() const { return GetParam() != platform::NSInMemoryStoreType; }

    platform::PersistentStoreCoordinatorRef openCoordinator(platform::ErrorRef* error = nullptr)
    {
        auto coordinator = platform::PersistentStoreCoordinator::create(companyModel());
        platform::ErrorRef failure;
        if (!coordinator->addPersistentStoreWithType(GetParam(), std::nullopt, storeURL(), {}, &failure)) {
            if (error != nullptr) {
                *error = failure;
            } else {
                ADD_FAILURE() << failure->description();
            }
            return nullptr;
        }
        return coordinator;
    }

    // A root context of the confinement kind, used on the test's thread.
    platform::ManagedObjectContextRef rootContext(const platform::PersistentStoreCoordinatorRef& coordinator = nullptr)
    {
        auto context = platform::ManagedObjectContext::create(platform::ManagedObjectContextConcurrencyType::Confinement);
        context->setPersistentStoreCoordinator(coordinator ? coordinator : coordinator_);
        return context;
    }
    platform::ManagedObjectContextRef childOf(const platform::ManagedObjectContextRef& parent)
    {
        auto context = platform::ManagedObjectContext::create(platform::ManagedObjectContextConcurrencyType::Confinement);
        context->setParentContext(parent);
        return context;
    }

    static platform::ManagedObjectRef insert(const platform::ManagedObjectContextRef& context, std::string_view entity,
                                             const platform::Dictionary& values = {})
    {
        auto object = platform::ManagedObject::insertNewObjectForEntityForName(entity, *context);
        object->setValuesForKeysWithDictionary(values);
        return object;
    }

    static void save(const platform::ManagedObjectContextRef& context)
    {
        platform::ErrorRef error;
        ASSERT_TRUE(context->save(&error)) << (error ? error->description() : "");
    }

    static std::vector<platform::ManagedObjectRef> fetchAll(const platform::ManagedObjectContextRef& context,
                                                             const std::string& entity)
    {
        platform::ErrorRef error;
        auto objects = context->executeFetchRequest(*platform::FetchRequest::fetchRequestWithEntityName(entity), &error);
        EXPECT_TRUE(objects.has_value()) << (error ? error->description() : "");
        return objects.value_or(std::vector<platform::ManagedObjectRef>{});
    }

    // The names of objects, sorted, for comparing results that have no order.
    static std::vector<std::string> names(const std::vector<platform::ManagedObjectRef>& objects)
    {
        std::vector<std::string> result;
        for (const auto& object : objects) {
            const auto name = object->valueForKey("name");
            result.push_back(name.string() != nullptr ? *name.string() : "(nil)");
        }
        std::sort(result.begin(), result.end());
        return result;
    }
    static std::vector<std::string> names(const platform::Value& collection) { return names(membersOf(collection)); }

    testsupport::TemporaryDirectory directory_;
    platform::PersistentStoreCoordinatorRef coordinator_;
};

}  // namespace objectgraphtest
