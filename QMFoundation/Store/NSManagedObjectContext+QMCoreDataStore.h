// NSManagedObjectContext(QMCoreDataStore): the default store's well-known
// contexts, and children made from them.
//
// Each returns nothing when there is no default store or the context is not
// registered. The children are made with no undo manager:
//   createBackgroundContextFromMainContext        private queue, parent the
//                                                 main context, "Main background context"
//   createWorkerContextFromMasterBackgroundContext confinement (bound to the
//                                                 calling thread), parent the
//                                                 master background context, "Worker context"
#pragma once

#include "Platform/ObjectGraph/ManagedObjectContext.h"

platform::ManagedObjectContextRef masterPersistentStoreContext();
platform::ManagedObjectContextRef mainContext();
platform::ManagedObjectContextRef masterBackgroundContext();
platform::ManagedObjectContextRef createBackgroundContextFromMainContext();
platform::ManagedObjectContextRef createWorkerContextFromMasterBackgroundContext();
