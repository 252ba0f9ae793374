#include "Platform/ObjectGraph/InMemoryStore.h"

#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ManagedObject.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/ObjectGraph/StoreEvaluation.h"

#include <algorithm>
#include <mutex>

namespace platform {

std::shared_ptr<InMemoryStore> InMemoryStore::create(Configuration configuration)
{
    return makeObject<InMemoryStore>(std::move(configuration));
}

InMemoryStore::InMemoryStore(Configuration configuration)
    : PersistentStore(std::move(configuration)), StoredObjectSource(static_cast<const PersistentStore&>(*this))
{
}

bool InMemoryStore::load(ErrorRef* error)
{
    return readContents(error);
}

bool InMemoryStore::readContents(ErrorRef*)
{
    setIdentifier(makeStoreIdentifier());
    return true;
}

bool InMemoryStore::writeContents(ErrorRef*)
{
    return true;
}

InMemoryStore::Table& InMemoryStore::table(const EntityDescription& entity)
{
    return tables_[&entity];
}

const InMemoryStore::Table* InMemoryStore::findTable(const EntityDescription& entity) const
{
    const auto found = tables_.find(&entity);
    return found != tables_.end() ? &found->second : nullptr;
}

const std::map<std::int64_t, std::shared_ptr<InMemoryStore::Row>>& InMemoryStore::rowsOfEntity(
    const EntityDescription& entity) const
{
    static const std::map<std::int64_t, std::shared_ptr<Row>> none;
    const Table* found = findTable(entity);
    return found != nullptr ? found->rows : none;
}

std::shared_ptr<InMemoryStore::Row> InMemoryStore::makeRow(const EntityDescription& entity, std::int64_t primaryKey,
                                                          ObjectSnapshot snapshot) const
{
    return makeObject<Row>(static_cast<const StoredObjectSource&>(*this), entity, primaryKey, std::move(snapshot));
}

void InMemoryStore::addRow(const EntityDescription& entity, std::int64_t primaryKey, ObjectSnapshot snapshot)
{
    Table& rows = table(entity);
    rows.rows[primaryKey] = makeRow(entity, primaryKey, std::move(snapshot));
    rows.nextKey = std::max(rows.nextKey, primaryKey + 1);
}

std::int64_t InMemoryStore::nextPrimaryKey(const EntityDescription& entity) const
{
    const Table* found = findTable(entity);
    return found != nullptr ? found->nextKey : 1;
}

void InMemoryStore::setNextPrimaryKey(const EntityDescription& entity, std::int64_t key)
{
    Table& rows = table(entity);
    rows.nextKey = std::max(rows.nextKey, key);
}

std::shared_ptr<InMemoryStore::Row> InMemoryStore::storedObject(const ManagedObjectID& objectID) const
{
    if (objectID.isTemporaryID() || objectID.storeIdentifier() != *identifier()) {
        return nullptr;
    }
    const Table* rows = findTable(objectID.entity());
    if (rows == nullptr) {
        return nullptr;
    }
    const auto found = rows->rows.find(objectID.primaryKey());
    return found != rows->rows.end() ? found->second : nullptr;
}

bool InMemoryStore::save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts, ErrorRef* error)
{
    // Every change is checked before any is made, so a refused save leaves
    // the rows untouched.
    std::vector<ManagedObjectIDRef> conflicting;
    auto check = [&](const SaveChanges::Change& change) {
        const auto row = storedObject(*change.objectID);
        if (change.basedOnVersion && (!row || row->snapshot().version != *change.basedOnVersion)) {
            conflicting.push_back(change.objectID);
        }
    };
    for (const auto& change : changes.updated) {
        check(change);
    }
    for (const auto& change : changes.deleted) {
        check(change);
    }
    if (!conflicting.empty()) {
        if (conflicts != nullptr) {
            *conflicts = conflicting;
        }
        setError(error, objectgraph::makeError(NSManagedObjectMergeError,
                                               "The objects were changed in the store since they were read.",
                                               std::to_string(conflicting.size()) + " conflicting objects."));
        return false;
    }
    if (options().get(NSReadOnlyPersistentStoreOption).boolValue().value_or(false) && !changes.empty()) {
        setError(error, objectgraph::makeError(NSPersistentStoreSaveError, "The store is read only."));
        return false;
    }

    // What the save replaces, to put back if writing fails.
    struct Undo {
        const EntityDescription* entity;
        std::int64_t key;
        std::shared_ptr<Row> previous;  // null: the row did not exist
    };
    std::vector<Undo> undo;
    auto put = [&](const SaveChanges::Change& change, bool insert) {
        const EntityDescription& entity = change.objectID->entity();
        Table& rows = table(entity);
        const std::int64_t key = change.objectID->primaryKey();
        auto& slot = rows.rows[key];
        undo.push_back({&entity, key, slot});
        ObjectSnapshot snapshot = change.snapshot;
        snapshot.version = insert || !slot ? 1 : slot->snapshot().version + 1;
        slot = makeRow(entity, key, std::move(snapshot));
        rows.nextKey = std::max(rows.nextKey, key + 1);
    };
    for (const auto& change : changes.inserted) {
        put(change, true);
    }
    for (const auto& change : changes.updated) {
        put(change, false);
    }
    for (const auto& change : changes.deleted) {
        const EntityDescription& entity = change.objectID->entity();
        Table& rows = table(entity);
        const auto found = rows.rows.find(change.objectID->primaryKey());
        if (found != rows.rows.end()) {
            undo.push_back({&entity, found->first, found->second});
            rows.rows.erase(found);
        }
    }
    // Written even when nothing changed: primary keys handed out since the
    // last save are kept with the rows.
    if (writeContents(error)) {
        return true;
    }
    for (auto step = undo.rbegin(); step != undo.rend(); ++step) {
        auto& rows = table(*step->entity).rows;
        if (step->previous) {
            rows[step->key] = step->previous;
        } else {
            rows.erase(step->key);
        }
    }
    return false;
}

std::optional<std::vector<std::shared_ptr<InMemoryStore::Row>>> InMemoryStore::matchingRows(
    const FetchRequest& request, ErrorRef* error) const
{
    const EntityDescription* entity = model().entityNamed(request.entityName());
    if (entity == nullptr) {
        setError(error, objectgraph::unknownEntityError(request.entityName()));
        return std::nullopt;
    }
    std::vector<std::shared_ptr<Row>> candidates;
    for (const auto& [key, row] : rowsOfEntity(*entity)) {
        candidates.push_back(row);
    }
    return select(std::move(candidates), request, error);
}

std::optional<std::vector<ManagedObjectIDRef>> InMemoryStore::fetchObjectIDs(const FetchRequest& request,
                                                                            ErrorRef* error)
{
    auto rows = matchingRows(request, error);
    if (!rows) {
        return std::nullopt;
    }
    return objectgraph::objectIDsOf(*rows);
}

std::optional<std::size_t> InMemoryStore::count(const FetchRequest& request, ErrorRef* error)
{
    auto rows = matchingRows(request, error);
    if (!rows) {
        return std::nullopt;
    }
    return rows->size();
}

std::optional<ObjectSnapshot> InMemoryStore::snapshotForObjectWithID(const ManagedObjectID& objectID, ErrorRef* error)
{
    if (const auto row = storedObject(objectID)) {
        return row->snapshot();
    }
    setError(error, objectgraph::makeError(NSManagedObjectReferentialIntegrityError,
                                           "The object does not exist in the store.",
                                           objectID.description()));
    return std::nullopt;
}

std::optional<std::vector<std::int64_t>> InMemoryStore::newPrimaryKeys(const EntityDescription& entity,
                                                                      std::size_t count, ErrorRef*)
{
    Table& rows = table(entity);
    std::vector<std::int64_t> keys;
    keys.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        keys.push_back(rows.nextKey++);
    }
    return keys;
}

}  // namespace platform
