// The example's store set-up and import, shared with bench/store_stack so the
// benchmark times exactly what the example does.
//
//   auto store = QMCoreDataStore::defaultStoreWithSqliteStoreType();
//   if (!store->initialize(&error)) ...
//   notes::registerWellKnownContexts(*store);   // on the main thread
//   QMCoreDataStoreManager::sharedManager()->setDefaultStore(store);
//   // on any other thread:
//   notes::importNotes(0, 5000, &error);
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/ObjectGraph/ManagedObjectContext.h"
#include "QMFoundation/Store/QMCoreDataStore.h"

#include <cstdint>

namespace notes {

// The contexts an application makes once, registered under the well-known
// names:
//   persistentStoreContext   root on the store's coordinator, private queue
//   mainContext              child of the root, main queue
//   masterBackgroundContext  child of the root, private queue
// Each save of the master background context is merged into the main
// context, whose objects would otherwise keep the values they were first
// read with. Called on the main thread: the main context belongs to it.
void registerWellKnownContexts(QMCoreDataStore& store);

// Inserts the notes numbered first ..< first + count into the context (on
// its thread or queue): title "Note <n>", a body, the number, every tenth
// pinned. The context is not saved.
void insertNotes(platform::ManagedObjectContext& context, std::int64_t first, std::int64_t count);

// The import as an application runs it away from the main thread: a worker
// context made from the default store's master background context (bound to
// the calling thread), the notes inserted there, permanent IDs taken so that
// the main context can find the merged objects by ID, then saveRecursive
// through the master background and root contexts to the store. False with
// the failing level's error.
[[nodiscard]] bool importNotes(std::int64_t first, std::int64_t count, platform::ErrorRef* error = nullptr);

}  // namespace notes
