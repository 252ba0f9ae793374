// PersistentStoreCoordinator: the one place through which root contexts reach
// a store, for one model.
//
//   auto coordinator = PersistentStoreCoordinator::create(model);
//   ErrorRef error;
//   if (!coordinator->addPersistentStoreWithType(NSSQLiteStoreType, std::nullopt, storeURL, {}, &error)) ...
//
// Threading: every member may be called from any thread. Requests to the
// store are served one at a time in the order they arrive (a lock named for
// the store, held only while the store works); contexts of several threads
// therefore share one coordinator safely, and a save is never seen half done
// by a fetch.
//
// One store per coordinator: adding a second is NSPersistentStoreOperationError.
// The library above never adds more than one, and one store keeps every save
// a single transaction.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"
#include "Platform/ObjectGraph/ManagedObjectModel.h"
#include "Platform/ObjectGraph/PersistentStore.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class PersistentStoreCoordinator final : public Object {
public:
    static std::shared_ptr<PersistentStoreCoordinator> create(ManagedObjectModelRef model);

    const ManagedObjectModelRef& managedObjectModel() const { return model_; }

    // Adds and loads a store of `type` (NSSQLiteStoreType, NSXMLStoreType,
    // NSInMemoryStoreType). `configuration` must be empty (the model's one
    // configuration); `url` is required except for the in-memory type. Errors:
    // NSPersistentStoreInvalidTypeError for an unknown type, and the store's
    // own from loading (ObjectGraphError.h).
    [[nodiscard]] PersistentStoreRef addPersistentStoreWithType(std::string_view type,
                                                                const std::optional<std::string>& configuration,
                                                                const std::optional<URL>& url,
                                                                const Dictionary& options, ErrorRef* error = nullptr);
    [[nodiscard]] bool removePersistentStore(const PersistentStoreRef& store, ErrorRef* error = nullptr);
    std::vector<PersistentStoreRef> persistentStores() const;

    // The ID a URI from ManagedObjectID::URIRepresentation names, when it is
    // one of this coordinator's store (by its identifier) and model; nothing
    // otherwise. The object itself is not looked for.
    ManagedObjectIDRef managedObjectIDForURIRepresentation(const URL& uri) const;

    // --- For root contexts ------------------------------------------------------
    // Each call is one request to the store, with the store's errors; without
    // a store, NSPersistentStoreOperationError.
    [[nodiscard]] bool save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts, ErrorRef* error);
    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> fetchObjectIDs(const FetchRequest& request,
                                                                               ErrorRef* error);
    [[nodiscard]] std::optional<std::size_t> count(const FetchRequest& request, ErrorRef* error);
    [[nodiscard]] std::optional<ObjectSnapshot> snapshotForObjectWithID(const ManagedObjectID& objectID,
                                                                         ErrorRef* error);
    // Permanent IDs for new objects of one entity.
    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> newObjectIDs(const EntityDescription& entity,
                                                                             std::size_t count, ErrorRef* error);

    std::string className() const override { return "NSPersistentStoreCoordinator"; }

private:
    template <class> friend struct ObjectAllocator;
    explicit PersistentStoreCoordinator(ManagedObjectModelRef model) : model_(std::move(model)) {}
    [[nodiscard]] PersistentStoreRef storeOrError(ErrorRef* error) const;

    const ManagedObjectModelRef model_;
    mutable std::mutex storeMutex_;  // guards `store_` and serialises every call into it
    PersistentStoreRef store_;
};

using PersistentStoreCoordinatorRef = std::shared_ptr<PersistentStoreCoordinator>;

}  // namespace platform
