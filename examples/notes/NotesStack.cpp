#include "examples/notes/NotesStack.h"

#include "QMFoundation/Store/NSManagedObject+QMCoreData.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreData.h"
#include "QMFoundation/Store/NSManagedObjectContext+QMCoreDataStore.h"

#include <string>

using platform::ManagedObjectContext;
using platform::ManagedObjectContextConcurrencyType;

namespace notes {

void registerWellKnownContexts(QMCoreDataStore& store)
{
    auto root = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
    root->setPersistentStoreCoordinator(store.persistentStoreCoordinator());

    auto main = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::MainQueue);
    main->setParentContext(root);
    setName_(*main, std::string("Main context"));

    auto background = ManagedObjectContext::create(ManagedObjectContextConcurrencyType::PrivateQueue);
    background->setParentContext(root);
    setName_(*background, std::string("Master background context"));

    store.setManagedObjectContext(root, QMCoreDataStorePersistentStoreContextName);
    store.setManagedObjectContext(main, QMCoreDataStoreMainContextName);
    store.setManagedObjectContext(background, QMCoreDataStoreMasterBackgroundContextName);
    store.addObserverForContext(background, main);
}

void insertNotes(ManagedObjectContext& context, std::int64_t first, std::int64_t count)
{
    for (std::int64_t number = first; number < first + count; ++number) {
        const auto note = createInManagedObjectContext("Note", &context);
        note->setValueForKey("Note " + std::to_string(number), "title");
        note->setValueForKey("Imported by the worker context.", "body");
        note->setValueForKey(platform::Value(number), "number");
        note->setValueForKey(number % 10 == 0, "pinned");
    }
}

bool importNotes(std::int64_t first, std::int64_t count, platform::ErrorRef* error)
{
    const auto worker = createWorkerContextFromMasterBackgroundContext();
    insertNotes(*worker, first, count);
    return obtainPermanentIDs(*worker, error) && saveRecursive(*worker, error);
}

}  // namespace notes
