#include "Platform/ObjectGraph/PersistentStoreCoordinator.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"

namespace platform {

std::shared_ptr<PersistentStoreCoordinator> PersistentStoreCoordinator::create(ManagedObjectModelRef model)
{
    if (!model) {
        Exception::raise(NSInvalidArgumentException, "A coordinator needs a model.");
    }
    return makeObject<PersistentStoreCoordinator>(std::move(model));
}

PersistentStoreRef PersistentStoreCoordinator::addPersistentStoreWithType(std::string_view type,
                                                                          const std::optional<std::string>& configuration,
                                                                          const std::optional<URL>& url,
                                                                          const Dictionary& options, ErrorRef* error)
{
    if (configuration && !configuration->empty()) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError,
                                               "The model has no configuration of that name.", *configuration));
        return nullptr;
    }
    const PersistentStore::Factory* factory = PersistentStore::factoryForType(type);
    if (factory == nullptr) {
        setError(error, objectgraph::makeError(NSPersistentStoreInvalidTypeError, "Unknown store type.",
                                               "No store of the type \"" + std::string(type) + "\"."));
        return nullptr;
    }
    if (type != NSInMemoryStoreType && (!url || !url->isFileURL())) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError,
                                               "A store of this type needs a file URL."));
        return nullptr;
    }
    std::lock_guard lock(storeMutex_);
    if (store_) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError,
                                               "The coordinator has a store already."));
        return nullptr;
    }
    auto store = (*factory)({model_, type == NSInMemoryStoreType ? std::nullopt : url, options});
    if (!store->load(error)) {
        return nullptr;
    }
    store_ = store;
    return store;
}

bool PersistentStoreCoordinator::removePersistentStore(const PersistentStoreRef& store, ErrorRef* error)
{
    std::lock_guard lock(storeMutex_);
    if (!store || store != store_) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError,
                                               "The store is not one of the coordinator's."));
        return false;
    }
    store_ = nullptr;
    return true;
}

std::vector<PersistentStoreRef> PersistentStoreCoordinator::persistentStores() const
{
    std::lock_guard lock(storeMutex_);
    return store_ ? std::vector<PersistentStoreRef>{store_} : std::vector<PersistentStoreRef>{};
}

ManagedObjectIDRef PersistentStoreCoordinator::managedObjectIDForURIRepresentation(const URL& uri) const
{
    const auto parts = ManagedObjectID::parseURIRepresentation(uri);
    if (!parts || parts->storeIdentifier.empty()) {
        return nullptr;
    }
    const EntityDescription* entity = model_->entityNamed(parts->entityName);
    std::lock_guard lock(storeMutex_);
    if (entity == nullptr || !store_ || *store_->identifier() != parts->storeIdentifier) {
        return nullptr;
    }
    return store_->objectIDFor(*entity, parts->primaryKey);
}

PersistentStoreRef PersistentStoreCoordinator::storeOrError(ErrorRef* error) const
{
    if (!store_) {
        setError(error, objectgraph::makeError(NSPersistentStoreOperationError, "The coordinator has no store."));
    }
    return store_;
}

bool PersistentStoreCoordinator::save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts,
                                      ErrorRef* error)
{
    std::lock_guard lock(storeMutex_);
    const auto store = storeOrError(error);
    return store && store->save(changes, conflicts, error);
}

std::optional<std::vector<ManagedObjectIDRef>> PersistentStoreCoordinator::fetchObjectIDs(const FetchRequest& request,
                                                                                          ErrorRef* error)
{
    std::lock_guard lock(storeMutex_);
    const auto store = storeOrError(error);
    return store ? store->fetchObjectIDs(request, error) : std::nullopt;
}

std::optional<std::size_t> PersistentStoreCoordinator::count(const FetchRequest& request, ErrorRef* error)
{
    std::lock_guard lock(storeMutex_);
    const auto store = storeOrError(error);
    return store ? store->count(request, error) : std::nullopt;
}

std::optional<ObjectSnapshot> PersistentStoreCoordinator::snapshotForObjectWithID(const ManagedObjectID& objectID,
                                                                                  ErrorRef* error)
{
    std::lock_guard lock(storeMutex_);
    const auto store = storeOrError(error);
    return store ? store->snapshotForObjectWithID(objectID, error) : std::nullopt;
}

std::optional<std::vector<ManagedObjectIDRef>> PersistentStoreCoordinator::newObjectIDs(const EntityDescription& entity,
                                                                                       std::size_t count,
                                                                                       ErrorRef* error)
{
    std::lock_guard lock(storeMutex_);
    const auto store = storeOrError(error);
    if (!store) {
        return std::nullopt;
    }
    const auto keys = store->newPrimaryKeys(entity, count, error);
    if (!keys) {
        return std::nullopt;
    }
    std::vector<ManagedObjectIDRef> ids;
    ids.reserve(keys->size());
    for (const auto key : *keys) {
        ids.push_back(store->objectIDFor(entity, key));
    }
    return ids;
}

}  // namespace platform
