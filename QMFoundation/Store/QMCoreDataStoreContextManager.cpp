#include "QMFoundation/Store/QMCoreDataStoreContextManager.h"

#include "Platform/Foundation/Exception.h"

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMCoreDataStoreContextManager";
}

std::shared_ptr<QMCoreDataStoreContextManager> QMCoreDataStoreContextManager::create()
{
    return platform::makeObject<QMCoreDataStoreContextManager>();
}

std::vector<platform::ManagedObjectContextRef> QMCoreDataStoreContextManager::allManagedObjectContexts() const
{
    std::vector<platform::ManagedObjectContextRef> contexts;
    contexts.reserve(managedObjectContexts_.size());
    for (const auto& [name, context] : managedObjectContexts_) {
        contexts.push_back(context);
    }
    return contexts;
}

platform::ManagedObjectContextRef QMCoreDataStoreContextManager::managedObjectContextForName(
    const std::optional<std::string>& name) const
{
    PLATFORM_PARAMETER_ASSERT(name.has_value(), "name");
    const auto found = managedObjectContexts_.find(*name);
    return found == managedObjectContexts_.end() ? nullptr : found->second;
}

void QMCoreDataStoreContextManager::setManagedObjectContext(const platform::ManagedObjectContextRef& managedObjectContext,
                                                            const std::optional<std::string>& name)
{
    PLATFORM_PARAMETER_ASSERT(name.has_value(), "name");
    PLATFORM_PARAMETER_ASSERT(managedObjectContext != nullptr, "managedObjectContext");
    removeManagedObjectContextForName(name);
    managedObjectContexts_.emplace(*name, managedObjectContext);
}

void QMCoreDataStoreContextManager::removeManagedObjectContextForName(const std::optional<std::string>& name)
{
    PLATFORM_PARAMETER_ASSERT(name.has_value(), "name");
    const auto found = managedObjectContexts_.find(*name);
    if (found != managedObjectContexts_.end()) {
        managedObjectContexts_.erase(found);
    }
}

void QMCoreDataStoreContextManager::removeAllManagedObjectContexts()
{
    const auto snapshot = managedObjectContexts_;
    for (const auto& [name, context] : snapshot) {
        removeManagedObjectContextForName(name);
    }
}
