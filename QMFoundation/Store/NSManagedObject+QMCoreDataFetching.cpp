#include "QMFoundation/Store/NSManagedObject+QMCoreDataFetching.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Predicates/Predicate.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/NSManagedObject+QMCoreDataFetching";

std::size_t count(const platform::FetchRequest& request, platform::ManagedObjectContext& context,
                  platform::ErrorRef* error)
{
    return context.countForFetchRequest(request, error).value_or(platform::NSNotFound);
}

platform::ManagedObjectRef first(std::optional<std::vector<platform::ManagedObjectRef>> objects)
{
    return objects && !objects->empty() ? objects->front() : nullptr;
}
}  // namespace

std::size_t countAllInManagedObjectContext(std::string_view entityName,
                                           platform::ManagedObjectContext* managedObjectContext,
                                           platform::ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    return count(*platform::FetchRequest::fetchRequestWithEntityName(std::string(entityName)), *managedObjectContext,
                 error);
}

std::size_t countAllWithPredicate(std::string_view entityName, const platform::FetchRequest::PredicateRef& predicate,
                                  platform::ManagedObjectContext* managedObjectContext, platform::ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    const auto request = platform::FetchRequest::fetchRequestWithEntityName(std::string(entityName));
    if (predicate) {
        request->setPredicate(predicate);
    }
    return count(*request, *managedObjectContext, error);
}

std::optional<std::vector<platform::ManagedObjectRef>> fetchAllInManagedObjectContext(
    std::string_view entityName, platform::ManagedObjectContext* managedObjectContext, platform::ErrorRef* error)
{
    return fetchAllWithPredicate(entityName, nullptr, {}, 0, managedObjectContext, error);
}

std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithSortDescriptors(
    std::string_view entityName, const QMSortDescriptors& sortDescriptors,
    platform::ManagedObjectContext* managedObjectContext, platform::ErrorRef* error)
{
    return fetchAllWithPredicate(entityName, nullptr, sortDescriptors, 0, managedObjectContext, error);
}

std::optional<std::vector<platform::ManagedObjectRef>> fetchAllWithPredicate(
    std::string_view entityName, const platform::FetchRequest::PredicateRef& predicate,
    const QMSortDescriptors& sortDescriptors, std::size_t limit, platform::ManagedObjectContext* managedObjectContext,
    platform::ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    const auto request = platform::FetchRequest::fetchRequestWithEntityName(std::string(entityName));
    if (predicate) {
        request->setPredicate(predicate);
    }
    if (!sortDescriptors.empty()) {
        request->setSortDescriptors(sortDescriptors);
    }
    if (limit != 0) {
        request->setFetchLimit(limit);
    }
    return managedObjectContext->executeFetchRequest(*request, error);
}

platform::ManagedObjectRef fetchFirstWithPredicate(std::string_view entityName,
                                                   const platform::FetchRequest::PredicateRef& predicate,
                                                   platform::ManagedObjectContext* managedObjectContext,
                                                   platform::ErrorRef* error)
{
    return first(fetchAllWithPredicate(entityName, predicate, {}, 1, managedObjectContext, error));
}

platform::ManagedObjectRef fetchFirstByAttribute(std::string_view entityName,
                                                 const std::optional<std::string>& attribute,
                                                 const platform::Value& value,
                                                 platform::ManagedObjectContext* managedObjectContext,
                                                 platform::ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    PLATFORM_PARAMETER_ASSERT(attribute.has_value(), "attribute");
    const auto predicate = platform::Predicate::predicateWithFormat("%K = %@", platform::Array{*attribute, value});
    return first(fetchAllWithPredicate(entityName, predicate, {}, 1, managedObjectContext, error));
}
