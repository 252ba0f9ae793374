#include "QMFoundation/Store/QMCoreDataStoreContextObserver.h"

#include "Platform/Foundation/Exception.h"

#include <algorithm>

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMCoreDataStoreContextObserver";
constexpr std::string_view kTargetsKey = "managedTargetManagedObjectContexts";

platform::Value contextsValue(const std::vector<platform::ManagedObjectContextRef>& contexts)
{
    platform::Array array;
    array.reserve(contexts.size());
    for (const auto& context : contexts) {
        array.emplace_back(context);
    }
    return platform::Value(std::move(array));
}
}  // namespace

std::shared_ptr<QMCoreDataStoreContextObserver> QMCoreDataStoreContextObserver::contextObserverWithManagedObjectContext(
    const platform::ManagedObjectContextRef& managedObjectContext, const platform::ObjectRef& observer)
{
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    PLATFORM_PARAMETER_ASSERT(observer != nullptr, "observer");
    return platform::makeObject<QMCoreDataStoreContextObserver>(managedObjectContext, observer);
}

void QMCoreDataStoreContextObserver::addTargetManagedObjectContext(
    const platform::ManagedObjectContextRef& targetManagedObjectContext)
{
    PLATFORM_PARAMETER_ASSERT(targetManagedObjectContext != nullptr, "targetManagedObjectContext");
    if (std::find(targets_.begin(), targets_.end(), targetManagedObjectContext) != targets_.end()) {
        return;
    }
    willChangeValueForKey(kTargetsKey);
    targets_.push_back(targetManagedObjectContext);
    didChangeValueForKey(kTargetsKey);
}

void QMCoreDataStoreContextObserver::removeTargetManagedObjectContext(
    const platform::ManagedObjectContextRef& targetManagedObjectContext)
{
    PLATFORM_PARAMETER_ASSERT(targetManagedObjectContext != nullptr, "targetManagedObjectContext");
    const auto found = std::find(targets_.begin(), targets_.end(), targetManagedObjectContext);
    if (found == targets_.end()) {
        return;
    }
    willChangeValueForKey(kTargetsKey);
    targets_.erase(found);
    didChangeValueForKey(kTargetsKey);
}

const platform::PropertyTable& QMCoreDataStoreContextObserver::propertyTable() const
{
    static const auto table = platform::PropertyTable::extending<QMCoreDataStoreContextObserver>(
        Object::propertyTable(),
        {
            {"managedObjectContext",
             [](const QMCoreDataStoreContextObserver& entry) { return platform::Value(entry.managedObjectContext_); }},
            {"observer", [](const QMCoreDataStoreContextObserver& entry) { return platform::Value(entry.observer_); }},
            {std::string(kTargetsKey),
             [](const QMCoreDataStoreContextObserver& entry) { return contextsValue(entry.targets_); }},
            {"targetManagedObjectContexts",
             [](const QMCoreDataStoreContextObserver& entry) { return contextsValue(entry.targets_); }},
        });
    return table;
}

std::vector<std::string> QMCoreDataStoreContextObserver::keyPathsForValuesAffectingValueForKey(std::string_view key) const
{
    if (key == "targetManagedObjectContexts") {
        return {std::string(kTargetsKey)};
    }
    return Object::keyPathsForValuesAffectingValueForKey(key);
}
