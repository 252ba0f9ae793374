#include "QMFoundation/Store/NSManagedObject+QMCoreDataStore.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/ObjectGraph/PersistentStoreCoordinator.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreDataStore.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSManagedObject+QMCoreDataStore";
}

platform::ManagedObjectRef managedObjectWithObjectID(const platform::ManagedObjectIDRef& objectID)
{
    PLATFORM_PARAMETER_ASSERT(objectID != nullptr, "objectID");
    return managedObjectWithObjectID(objectID, mainContext().get());
}

platform::ManagedObjectRef create(std::string_view entityName)
{
    return createWithAttributes(entityName, std::nullopt);
}

platform::ManagedObjectRef createWithAttributes(std::string_view entityName,
                                                const std::optional<platform::Dictionary>& attributes)
{
    return createInManagedObjectContext(entityName, mainContext().get(), attributes);
}

platform::ManagedObjectRef createInMemory(std::string_view entityName)
{
    return createInMemoryWithAttributes(entityName, std::nullopt);
}

platform::ManagedObjectRef createInMemoryWithAttributes(std::string_view entityName,
                                                        const std::optional<platform::Dictionary>& attributes)
{
    const auto context = mainContext();
    PLATFORM_PARAMETER_ASSERT(context != nullptr, "managedObjectContext");
    const auto coordinator = context->persistentStoreCoordinator();
    const auto* entity = coordinator ? coordinator->managedObjectModel()->entityNamed(entityName) : nullptr;
    if (entity == nullptr) {
        platform::Exception::raise(platform::NSInternalInconsistencyException,
                                   "No entity named " + std::string(entityName) + " in the main context's model");
    }
    auto object = platform::ManagedObject::create(*entity, nullptr);
    if (attributes) {
        object->setValuesForKeysWithDictionary(*attributes);
    }
    return object;
}

std::size_t countAll(std::string_view entityName, platform::ErrorRef* error)
{
    return countAllInManagedObjectContext(entityName, mainContext().get(), error);
}

std::size_t countAllWithPredicate(std::string_view entityName, const platform::FetchRequest::PredicateRef& predicate,
                                  platform::ErrorRef* error)
{
    return countAllWithPredicate(entityName, predicate, mainContext().get(), error);
}

std::optional<std::vector<platform::ManagedObjectRef>> fetchAll(std::string_view entityName, platform::ErrorRef* error)
{
    return fetchAllInManagedObjectContext(entityName, mainContext().get(), error);
}

std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithSortDescriptors(
    std::string_view entityName, const QMSortDescriptors& sortDescriptors, platform::ErrorRef* error)
{
    return fetchAllWithSortDescriptors(entityName, sortDescriptors, mainContext().get(), error);
}

std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithPredicate(
    std::string_view entityName, const platform::FetchRequest::PredicateRef& predicate,
    const QMSortDescriptors& sortDescriptors, platform::ErrorRef* error)
{
    return fetchAllWithPredicate(entityName, predicate, sortDescriptors, 0, mainContext().get(), error);
}

platform::ManagedObjectRef fetchFirstWithPredicate(std::string_view entityName,
                                                   const platform::FetchRequest::PredicateRef& predicate,
                                                   platform::ErrorRef* error)
{
    return fetchFirstWithPredicate(entityName, predicate, mainContext().get(), error);
}

platform::ManagedObjectRef fetchFirstByAttribute(std::string_view entityName,
                                                 const std::optional<std::string>& attribute,
                                                 const platform::Value& value, platform::ErrorRef* error)
{
    return fetchFirstByAttribute(entityName, attribute, value, mainContext().get(), error);
}
