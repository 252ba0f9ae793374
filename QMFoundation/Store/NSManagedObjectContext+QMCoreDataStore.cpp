#include "QMFoundation/Store/NSManagedObjectContext+QMCoreDataStore.h"

#include "QMFoundation/Store/NSManagedObjectContext+QMCoreData.h"
#include "QMFoundation/Store/QMCoreDataStore.h"

namespace {
platform::ManagedObjectContextRef childContext(platform::ManagedObjectContextConcurrencyType type,
                                               const platform::ManagedObjectContextRef& parent, const char* name)
{
    auto context = platform::ManagedObjectContext::create(type);
    context->setParentContext(parent);
    context->setUndoManager(nullptr);
    setName_(*context, std::string(name));
    return context;
}
}  // namespace

platform::ManagedObjectContextRef masterPersistentStoreContext()
{
    const auto store = QMCoreDataStore::defaultStore();
    return store ? store->persistentStoreManagedObjectContext() : nullptr;
}

platform::ManagedObjectContextRef mainContext()
{
    const auto store = QMCoreDataStore::defaultStore();
    return store ? store->mainManagedObjectContext() : nullptr;
}

platform::ManagedObjectContextRef masterBackgroundContext()
{
    const auto store = QMCoreDataStore::defaultStore();
    return store ? store->managedObjectContextForName(std::string(QMCoreDataStoreMasterBackgroundContextName))
                 : nullptr;
}

platform::ManagedObjectContextRef createBackgroundContextFromMainContext()
{
    return childContext(platform::ManagedObjectContextConcurrencyType::PrivateQueue, mainContext(),
                        "Main background context");
}

platform::ManagedObjectContextRef createWorkerContextFromMasterBackgroundContext()
{
    return childContext(platform::ManagedObjectContextConcurrencyType::Confinement, masterBackgroundContext(),
                        "Worker context");
}
