// NSPersistentStoreCoordinator(QMCoreData): a coordinator with its one store
// added, in one call.
//
//   ErrorRef error;
//   auto coordinator = persistentStoreCoordinatorWithManagedObjectModel(
//       model, std::string(NSSQLiteStoreType), storeURL, std::nullopt, &error);
//
// Nothing is repaired or migrated: a store that cannot be opened (another
// model, a damaged file) fails, with the store's error, and the caller
// decides whether to rebuild it.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/URL.h"
#include "Platform/Foundation/Value.h"
#include "Platform/ObjectGraph/PersistentStoreCoordinator.h"

#include <optional>
#include <string>

// The model and the type are required, and the URL for every type but the
// in-memory one (assertions). For a file store the store's directory is made
// first; a failure there is the file system's error. Options are handed to
// the store unchanged.
[[nodiscard]] platform::PersistentStoreCoordinatorRef persistentStoreCoordinatorWithManagedObjectModel(
    const platform::ManagedObjectModelRef& managedObjectModel, const std::optional<std::string>& storeType,
    const std::optional<platform::URL>& storeURL, const std::optional<platform::Dictionary>& options,
    platform::ErrorRef* error = nullptr);

// Makes the directory that holds the store file, with its parents. Anything
// already at that path counts as success, an ordinary file too: the failure
// then comes when the store is added.
[[nodiscard]] bool createDirectoryIfNeededForStoreAtURL(const platform::URL& storeURL,
                                                        platform::ErrorRef* error = nullptr);
