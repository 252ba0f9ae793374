// QMCoreDataStoreManager: the process's stores by name. The store named
// "default" is the one the class-level conveniences use.
//
// Threading: not locked; stores are registered and removed on one thread
// while no other thread uses the manager.
#pragma once

#include "Platform/Foundation/Object.h"
#include "QMFoundation/Store/QMCoreDataStore.h"

#include <map>
#include <memory>
#include <optional>
#include <string>

class QMCoreDataStoreManager final : public platform::Object {
public:
    using StoresByName = std::map<std::string, QMCoreDataStoreRef, std::less<>>;

    static std::shared_ptr<QMCoreDataStoreManager> sharedManager();
    static std::shared_ptr<QMCoreDataStoreManager> create();

    QMCoreDataStoreRef defaultStore() const { return storeForName(std::string("default")); }
    // Registers a store as "default"; nothing removes the "default" entry.
    void setDefaultStore(const QMCoreDataStoreRef& store);

    QMCoreDataStoreRef storeForName(const std::optional<std::string>& name) const;
    void setStore(const QMCoreDataStoreRef& store, const std::optional<std::string>& name);
    void removeStoreForName(const std::optional<std::string>& name);
    StoresByName allStores() const { return managedStores_; }

    std::string className() const override { return "QMCoreDataStoreManager"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMCoreDataStoreManager() = default;

    StoresByName managedStores_;
};
