// QMCoreDataStoreContextManager: the registry of one store's named managed
// object contexts. The store's well-known contexts are found here under
// "persistentStoreContext", "mainContext" and "masterBackgroundContext".
//
// Threading: not locked. The registry is filled and emptied on the thread that
// sets the store up; readers elsewhere work on the snapshots that
// `allManagedObjectContextsByName` and `allManagedObjectContexts` return.
// Contexts are held strongly until they are removed; removing one only drops
// it from the registry (nothing is saved, reset or torn down).
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

class QMCoreDataStoreContextManager final : public platform::Object {
public:
    using ContextsByName = std::map<std::string, platform::ManagedObjectContextRef, std::less<>>;

    static std::shared_ptr<QMCoreDataStoreContextManager> create();

    ContextsByName allManagedObjectContextsByName() const { return managedObjectContexts_; }
    // In no promised order.
    std::vector<platform::ManagedObjectContextRef> allManagedObjectContexts() const;

    // Nothing when no context is registered under the name.
    platform::ManagedObjectContextRef managedObjectContextForName(const std::optional<std::string>& name) const;
    // Replaces any context registered under the name.
    void setManagedObjectContext(const platform::ManagedObjectContextRef& managedObjectContext,
                                 const std::optional<std::string>& name);
    void removeManagedObjectContextForName(const std::optional<std::string>& name);
    void removeAllManagedObjectContexts();

    std::string className() const override { return "QMCoreDataStoreContextManager"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMCoreDataStoreContextManager() = default;

    ContextsByName managedObjectContexts_;
};

using QMCoreDataStoreContextManagerRef = std::shared_ptr<QMCoreDataStoreContextManager>;
