#include "QMFoundation/Store/QMCoreDataStoreManager.h"

#include "Platform/Foundation/Exception.h"

#include <mutex>

namespace {
constexpr const char* kAssertionSourceFile = "QMFoundation/QMCoreDataStoreManager";
constexpr const char* kDefaultStoreName = "default";
}  // namespace

std::shared_ptr<QMCoreDataStoreManager> QMCoreDataStoreManager::sharedManager()
{
    static std::once_flag once;
    static std::shared_ptr<QMCoreDataStoreManager> shared;
    std::call_once(once, [] { shared = create(); });
    return shared;
}

std::shared_ptr<QMCoreDataStoreManager> QMCoreDataStoreManager::create()
{
    return platform::makeObject<QMCoreDataStoreManager>();
}

void QMCoreDataStoreManager::setDefaultStore(const QMCoreDataStoreRef& store)
{
    if (store) {
        setStore(store, std::string(kDefaultStoreName));
    } else {
        removeStoreForName(std::string(kDefaultStoreName));
    }
}

QMCoreDataStoreRef QMCoreDataStoreManager::storeForName(const std::optional<std::string>& name) const
{
    PLATFORM_PARAMETER_ASSERT(name.has_value(), "name");
    const auto found = managedStores_.find(*name);
    return found == managedStores_.end() ? nullptr : found->second;
}

void QMCoreDataStoreManager::setStore(const QMCoreDataStoreRef& store, const std::optional<std::string>& name)
{
    PLATFORM_PARAMETER_ASSERT(store != nullptr, "store");
    PLATFORM_PARAMETER_ASSERT(name.has_value(), "name");
    managedStores_[*name] = store;
}

void QMCoreDataStoreManager::removeStoreForName(const std::optional<std::string>& name)
{
    PLATFORM_PARAMETER_ASSERT(name.has_value(), "name");
    managedStores_.erase(*name);
}
