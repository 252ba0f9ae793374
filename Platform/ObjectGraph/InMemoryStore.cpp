#include "Platform/ObjectGraph/InMemoryStore.h"

#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ManagedObject.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/ObjectGraph/StoreEvaluation.h"
#include "Platform/Predicates/Predicate.h"

#include <algorithm>
#include <mutex>

namespace platform {

std::shared_ptr<InMemoryStore> InMemoryStore::create(Configuration configuration)
{
    return std::shared_ptr<InMemoryStore>(new InMemoryStore(std::move(configuration)));
}

InMemoryStore::InMemoryStore(Configuration configuration) : PersistentStore(std::move(configuration)) {}

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

void InMemoryStore::addRow(const EntityDescription& entity, std::int64_t primaryKey, ObjectSnapshot snapshot)
{
    Table& rows = table(entity);
    rows.rows[primaryKey] = std::make_shared<Row>(*this, entity, primaryKey, std::move(snapshot));
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

std::shared_ptr<InMemoryStore::Row> InMemoryStore::findRow(const ManagedObjectID& objectID) const
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
        const auto row = findRow(*change.objectID);
        if (change.basedOnVersion && (!row || row->snapshot_.version != *change.basedOnVersion)) {
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
        snapshot.version = insert || !slot ? 1 : slot->snapshot_.version + 1;
        slot = std::make_shared<Row>(*this, entity, key, std::move(snapshot));
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

PredicateRef InMemoryStore::predicateOverRows(const PredicateRef& predicate) const
{
    if (!predicate) {
        return nullptr;
    }
    return predicateByReplacingConstants(predicate, [&](const Value& value) {
        ManagedObjectIDRef id = value.objectAs<ManagedObjectID>();
        if (const auto object = value.objectAs<ManagedObject>()) {
            id = object->objectID();
        }
        const auto row = id ? findRow(*id) : nullptr;
        return row ? Value(row) : value;
    });
}

std::optional<std::vector<std::shared_ptr<InMemoryStore::Row>>> InMemoryStore::matchingRows(
    const FetchRequest& request, ErrorRef* error) const
{
    const EntityDescription* entity = model().entityNamed(request.entityName());
    if (entity == nullptr) {
        setError(error, objectgraph::unknownEntityError(request.entityName()));
        return std::nullopt;
    }
    std::vector<ObjectRef> candidates;
    for (const auto& [key, row] : rowsOfEntity(*entity)) {
        candidates.push_back(row);
    }
    auto selected =
        objectgraph::filterSortAndLimit(std::move(candidates), request, predicateOverRows(request.predicate()), error);
    if (!selected) {
        return std::nullopt;
    }
    std::vector<std::shared_ptr<Row>> rows;
    rows.reserve(selected->size());
    for (auto& object : *selected) {
        rows.push_back(std::static_pointer_cast<Row>(object));
    }
    return rows;
}

std::optional<std::vector<ManagedObjectIDRef>> InMemoryStore::fetchObjectIDs(const FetchRequest& request,
                                                                            ErrorRef* error)
{
    auto rows = matchingRows(request, error);
    if (!rows) {
        return std::nullopt;
    }
    std::vector<ManagedObjectIDRef> ids;
    ids.reserve(rows->size());
    for (const auto& row : *rows) {
        ids.push_back(row->objectID());
    }
    return ids;
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
    if (const auto row = findRow(objectID)) {
        return row->snapshot_;
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

// --- Rows -------------------------------------------------------------------------

Value InMemoryStore::Row::valueOfProperty(const PropertyDescription& property) const
{
    const Value& stored = property.index() < snapshot_.values.size() ? snapshot_.values[property.index()] : Value();
    if (!property.isRelationship()) {
        return stored;
    }
    auto rowOf = [&](const Value& id) -> Value {
        const auto objectID = id.objectAs<ManagedObjectID>();
        if (!objectID) {
            return Value();
        }
        const auto row = store_->findRow(*objectID);
        return row ? Value(row) : Value();
    };
    const auto& relationship = static_cast<const RelationshipDescription&>(property);
    if (!relationship.isToMany()) {
        return rowOf(stored);
    }
    Array related;
    if (const Array* ids = stored.array()) {
        for (const auto& id : *ids) {
            if (Value row = rowOf(id)) {
                related.push_back(std::move(row));
            }
        }
    }
    return Value(std::move(related));
}

bool InMemoryStore::Row::isEqual(const Object& other) const
{
    if (const auto* row = dynamic_cast<const Row*>(&other)) {
        return row->entity_ == entity_ && row->primaryKey_ == primaryKey_;
    }
    ManagedObjectIDRef id;
    if (const auto* object = dynamic_cast<const ManagedObject*>(&other)) {
        id = object->objectID();
    }
    const ManagedObjectID* named = id ? id.get() : dynamic_cast<const ManagedObjectID*>(&other);
    return named != nullptr && !named->isTemporaryID() && &named->entity() == entity_ &&
           named->primaryKey() == primaryKey_ && named->storeIdentifier() == *store_->identifier();
}

const PropertyTable& InMemoryStore::Row::propertyTable() const
{
    // One table per entity, made on first use; the store is called from one
    // thread at a time, so its cache needs no lock.
    auto& table = store_->rowTables_[entity_];
    if (!table) {
        PropertyTable built = Object::propertyTable();
        for (const auto* property : entity_->properties()) {
            built = PropertyTable::extending<Row>(
                built, {{property->name(), [property](const Row& row) { return row.valueOfProperty(*property); }}});
        }
        built = PropertyTable::extending<Row>(built, {{"objectID", [](const Row& row) { return Value(row.objectID()); }}});
        table = std::make_unique<PropertyTable>(std::move(built));
    }
    return *table;
}

}  // namespace platform
