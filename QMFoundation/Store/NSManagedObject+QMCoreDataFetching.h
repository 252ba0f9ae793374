// NSManagedObject(QMCoreDataFetching): counting and fetching the objects of
// an entity class (named like its entity) in a given context.
//
//   auto notes = fetchAllWithPredicate("Note", predicate, {byTitle}, 20, context.get(), &error);
//   auto first = fetchFirstByAttribute("Note", "title", "Hello", context.get(), &error);
//
// The context is required (an assertion). Failures are the context's,
// unchanged: a fetch gives nothing, a count the platform's not-found value
// (NSNotFound). Called where the context may be used.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Indexes.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using QMSortDescriptors = std::vector<platform::FetchRequest::SortDescriptorRef>;

[[nodiscard]] std::size_t countAllInManagedObjectContext(std::string_view entityName,
                                                         platform::ManagedObjectContext* managedObjectContext,
                                                         platform::ErrorRef* error = nullptr);
[[nodiscard]] std::size_t countAllWithPredicate(std::string_view entityName,
                                                const platform::FetchRequest::PredicateRef& predicate,
                                                platform::ManagedObjectContext* managedObjectContext,
                                                platform::ErrorRef* error = nullptr);

[[nodiscard]] std::optional<std::vector<platform::ManagedObjectRef>> fetchAllInManagedObjectContext(
    std::string_view entityName, platform::ManagedObjectContext* managedObjectContext,
    platform::ErrorRef* error = nullptr);
[[nodiscard]] std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithSortDescriptors(
    std::string_view entityName, const QMSortDescriptors& sortDescriptors,
    platform::ManagedObjectContext* managedObjectContext, platform::ErrorRef* error = nullptr);
// A limit of 0 is no limit.
[[nodiscard]] std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithPredicate(
    std::string_view entityName, const platform::FetchRequest::PredicateRef& predicate,
    const QMSortDescriptors& sortDescriptors, std::size_t limit, platform::ManagedObjectContext* managedObjectContext,
    platform::ErrorRef* error = nullptr);

// The first match in no particular order, or nothing.
[[nodiscard]] platform::ManagedObjectRef fetchFirstWithPredicate(std::string_view entityName,
                                                                 const platform::FetchRequest::PredicateRef& predicate,
                                                                 platform::ManagedObjectContext* managedObjectContext,
                                                                 platform::ErrorRef* error = nullptr);
// The first object whose attribute equals the value ("%K = %@"), or nothing.
[[nodiscard]] platform::ManagedObjectRef fetchFirstByAttribute(std::string_view entityName,
                                                               const std::optional<std::string>& attribute,
                                                               const platform::Value& value,
                                                               platform::ManagedObjectContext* managedObjectContext,
                                                               platform::ErrorRef* error = nullptr);
