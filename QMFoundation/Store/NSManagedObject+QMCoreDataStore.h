// NSManagedObject(QMCoreDataStore) and NSManagedObject(QMCoreDataStoreFetching):
// the same operations on the default store's main context (mainContext), so
// for the main thread only.
//
//   auto note = create("Note");
//   auto count = countAll("Note", &error);
#pragma once

#include "QMFoundation/Store/NSManagedObject+QMCoreData.h"
#include "QMFoundation/Store/NSManagedObject+QMCoreDataFetching.h"

platform::ManagedObjectRef managedObjectWithObjectID(const platform::ManagedObjectIDRef& objectID);
platform::ManagedObjectRef create(std::string_view entityName);
platform::ManagedObjectRef createWithAttributes(std::string_view entityName,
                                                const std::optional<platform::Dictionary>& attributes);
// An object of the entity in no context, with the values set; it is saved
// only once the caller inserts it into a context.
platform::ManagedObjectRef createInMemory(std::string_view entityName);
platform::ManagedObjectRef createInMemoryWithAttributes(std::string_view entityName,
                                                        const std::optional<platform::Dictionary>& attributes);

[[nodiscard]] std::size_t countAll(std::string_view entityName, platform::ErrorRef* error = nullptr);
[[nodiscard]] std::size_t countAllWithPredicate(std::string_view entityName,
                                                const platform::FetchRequest::PredicateRef& predicate,
                                                platform::ErrorRef* error = nullptr);
[[nodiscard]] std::optional<std::vector<platform::ManagedObjectRef>> fetchAll(std::string_view entityName,
                                                                              platform::ErrorRef* error = nullptr);
[[nodiscard]] std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithSortDescriptors(
    std::string_view entityName, const QMSortDescriptors& sortDescriptors, platform::ErrorRef* error = nullptr);
[[nodiscard]] std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithPredicate(
    std::string_view entityName, const platform::FetchRequest::PredicateRef& predicate,
    const QMSortDescriptors& sortDescriptors, platform::ErrorRef* error = nullptr);
[[nodiscard]] platform::ManagedObjectRef fetchFirstWithPredicate(std::string_view entityName,
                                                                 const platform::FetchRequest::PredicateRef& predicate,
                                                                 platform::ErrorRef* error = nullptr);
[[nodiscard]] platform::ManagedObjectRef fetchFirstByAttribute(std::string_view entityName,
                                                               const std::optional<std::string>& attribute,
                                                               const platform::Value& value,
                                                               platform::ErrorRef* error = nullptr);
