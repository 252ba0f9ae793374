// QMCoreDataStore: one persistent store of the application: its model, its
// coordinator over one store file (or an in-memory store), its named contexts
// and the merges between them.
//
//   auto store = QMCoreDataStore::defaultStoreWithSqliteStoreType();
//   ErrorRef error;
//   if (!store->initialize(&error)) ...
//   auto root = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
//   root->setPersistentStoreCoordinator(store->persistentStoreCoordinator());
//   store->setManagedObjectContext(root, QMCoreDataStorePersistentStoreContextName);
//   QMCoreDataStoreManager::sharedManager()->setDefaultStore(store);
//
// The application makes the three long-lived contexts and registers them
// under the well-known names; the store never makes a context itself.
//
// Opening without an error slot reports success even when the store could
// not be opened (the coordinator is then nothing): callers that care pass a
// slot. Opening twice builds a second coordinator and replaces the first.
//
// Threading: not locked; set up and torn down on one thread while no other
// thread uses it.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"
#include "Platform/ObjectGraph/PersistentStoreCoordinator.h"
#include "QMFoundation/Store/QMCoreDataStoreContextManager.h"
#include "QMFoundation/Store/QMCoreDataStoreDefaults.h"
#include "QMFoundation/Store/QMCoreDataStoreObserver.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::string_view QMCoreDataStorePersistentStoreContextName = "persistentStoreContext";
inline constexpr std::string_view QMCoreDataStoreMainContextName = "mainContext";
inline constexpr std::string_view QMCoreDataStoreMasterBackgroundContextName = "masterBackgroundContext";

class QMCoreDataStore;
using QMCoreDataStoreRef = std::shared_ptr<QMCoreDataStore>;

class QMCoreDataStore final : public platform::Object {
public:
    static QMCoreDataStoreDefaultsRef defaults();
    static QMCoreDataStoreRef defaultStore();
    static QMCoreDataStoreRef sharedStoreForName(const std::string& name);

    // New, unopened stores from the shared defaults; they are neither opened
    // nor registered with the manager.
    static QMCoreDataStoreRef defaultStoreWithInMemoryStoreType();
    static QMCoreDataStoreRef defaultStoreWithXMLStoreType();
    static QMCoreDataStoreRef defaultStoreWithSqliteStoreType();
    // The same from a given set of defaults.
    static QMCoreDataStoreRef defaultStoreWithStoreType(std::string_view storeType, QMCoreDataStoreDefaults& defaults);

    // The model URL must be a file URL; so must the store URL, except for the
    // in-memory type. Nothing is opened.
    static QMCoreDataStoreRef storeWithManagedObjectModelURL(const std::optional<platform::URL>& managedObjectModelURL,
                                                             const std::optional<std::string>& storeType,
                                                             const std::optional<platform::URL>& storeURL,
                                                             const std::optional<platform::Dictionary>& storeOptions);

    [[nodiscard]] bool initialize(platform::ErrorRef* error = nullptr);
    // Drops every merge observer and registered context; the model and the
    // coordinator stay.
    void uninitialize();
    // Removes the store file alone; the in-memory type has none.
    [[nodiscard]] bool deleteStoreFile(platform::ErrorRef* error = nullptr);
    // uninitialize, deleteStoreFile, initialize. The old coordinator's store
    // is closed before the file goes, so that no connection to the deleted
    // file can write its journal beside the new one.
    [[nodiscard]] bool rebuild(platform::ErrorRef* error = nullptr);

    const std::optional<std::string>& name() const { return name_; }
    void setName(std::optional<std::string> name) { name_ = std::move(name); }
    const platform::URL& managedObjectModelURL() const { return managedObjectModelURL_; }
    const std::optional<platform::URL>& storeURL() const { return storeURL_; }
    const std::string& storeType() const { return storeType_; }
    const std::optional<platform::Dictionary>& storeOptions() const { return storeOptions_; }
    const platform::ManagedObjectModelRef& managedObjectModel() const { return managedObjectModel_; }
    const platform::PersistentStoreCoordinatorRef& persistentStoreCoordinator() const { return coordinator_; }
    bool isInitialized() const { return initialized_; }

    // Read through the context manager; the setters only fill storage that is
    // never read back, so a context shows here only once registered under
    // "persistentStoreContext" or "mainContext".
    platform::ManagedObjectContextRef persistentStoreManagedObjectContext() const;
    void setPersistentStoreManagedObjectContext(platform::ManagedObjectContextRef context);
    platform::ManagedObjectContextRef mainManagedObjectContext() const;
    void setMainManagedObjectContext(platform::ManagedObjectContextRef context);
    // Kept for the application; the library never reads it.
    const platform::ManagedObjectContextRef& backgroundManagedObjectContext() const { return backgroundContext_; }
    void setBackgroundManagedObjectContext(platform::ManagedObjectContextRef context);

    const QMCoreDataStoreContextManagerRef& managedObjectContextManager() const;
    const QMCoreDataStoreObserverRef& storeObserver() const;

    // Forwarded to the context manager.
    QMCoreDataStoreContextManager::ContextsByName allManagedObjectContextsByName() const;
    std::vector<platform::ManagedObjectContextRef> allManagedObjectContexts() const;
    platform::ManagedObjectContextRef managedObjectContextForName(const std::optional<std::string>& name) const;
    void setManagedObjectContext(const platform::ManagedObjectContextRef& context, const std::optional<std::string>& name);
    void setManagedObjectContext(const platform::ManagedObjectContextRef& context, std::string_view name)
    {
        setManagedObjectContext(context, std::optional<std::string>(name));
    }
    void removeManagedObjectContextForName(const std::optional<std::string>& name);

    // Forwarded to the store observer.
    void addObserverForContext(const platform::ManagedObjectContextRef& observed,
                               const platform::ManagedObjectContextRef& target);
    void removeObserverForContext(const platform::ManagedObjectContextRef& observed,
                                  const platform::ManagedObjectContextRef& target);

    std::string className() const override { return "QMCoreDataStore"; }
    // The name, URLs, type and options as pretty-printed JSON ("<null>" for
    // what is missing).
    std::string description() const override;

private:
    template <class> friend struct platform::ObjectAllocator;
    QMCoreDataStore(platform::URL modelURL, std::string storeType, std::optional<platform::URL> storeURL,
                    std::optional<platform::Dictionary> storeOptions);

    std::optional<std::string> name_;
    platform::URL managedObjectModelURL_;
    std::string storeType_;
    std::optional<platform::URL> storeURL_;
    std::optional<platform::Dictionary> storeOptions_;
    platform::ManagedObjectModelRef managedObjectModel_;
    platform::PersistentStoreCoordinatorRef coordinator_;
    bool initialized_ = false;
    platform::ManagedObjectContextRef persistentStoreContext_;
    platform::ManagedObjectContextRef mainContext_;
    platform::ManagedObjectContextRef backgroundContext_;
    mutable QMCoreDataStoreContextManagerRef contextManager_;
    mutable QMCoreDataStoreObserverRef storeObserver_;
};
