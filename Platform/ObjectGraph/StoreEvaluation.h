// Evaluating a fetch request's predicate, sort descriptors, offset and limit
// on objects in memory: the in-memory and XML stores on their rows, the
// SQLite store on rows it loads for what SQL cannot say, and contexts on
// their unsaved objects. Internal to the object-graph store (InMemoryStore.h
// includes it only for its rows' type).
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/ObjectGraph/PersistentStore.h"

#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

namespace platform {
class FetchRequest;
class Predicate;
}

namespace platform::objectgraph {

// Whether `object` satisfies `predicate` (every object does when there is
// none). Nothing, with NSPersistentStoreOperationError, when the predicate
// cannot be evaluated on it (a key the object does not have, a bad pattern).
[[nodiscard]] std::optional<bool> matchesPredicate(const Predicate* predicate, const Object& object, ErrorRef* error);
// The same with the request's predicate.
[[nodiscard]] std::optional<bool> matchesPredicate(const FetchRequest& request, const Object& object,
                                                   ErrorRef* error);

// Sorts `objects` by the request's sort descriptors (stable; kept as given
// without any). False with an error when the request cannot be evaluated.
[[nodiscard]] bool sortObjects(std::vector<ObjectRef>& objects, const FetchRequest& request, ErrorRef* error);

// The objects that match `predicate` (a store passes the request's, with the
// objects it names replaced by the store's own stand-ins), sorted by the
// request's sort descriptors, with its offset and limit applied.
[[nodiscard]] std::optional<std::vector<ObjectRef>> filterSortAndLimit(
    std::vector<ObjectRef> objects, const FetchRequest& request, const std::shared_ptr<const Predicate>& predicate,
    ErrorRef* error);

// Applies offset and limit to objects already filtered and sorted.
void applyOffsetAndLimit(std::vector<ObjectRef>& objects, const FetchRequest& request);

class StoredObjectSource;

// A saved object as a store's in-memory evaluation sees it: its properties
// by name through key-value coding (attributes as stored, a to-one as the
// related stored object, a to-many as an array of them, so "department.name"
// and "ANY tags.name" work), and "objectID". It equals the same object as a
// stored object, a permanent ID or a managed object, so that
// "department == %@" with an object matches as in SQL. Valid while its
// source lives.
class StoredObject final : public Object {
public:
    StoredObject(const StoredObjectSource& source, const EntityDescription& entity, std::int64_t primaryKey,
                 ObjectSnapshot snapshot)
        : source_(&source), entity_(&entity), primaryKey_(primaryKey), snapshot_(std::move(snapshot))
    {
    }

    const EntityDescription& entity() const { return *entity_; }
    std::int64_t primaryKey() const { return primaryKey_; }
    const ObjectSnapshot& snapshot() const { return snapshot_; }
    ManagedObjectIDRef objectID() const;

    const PropertyTable& propertyTable() const override;
    bool isEqual(const Object& other) const override;
    std::string className() const override { return entity_->name(); }

    Value valueOfProperty(const PropertyDescription& property) const;

private:
    const StoredObjectSource* source_;
    const EntityDescription* entity_;
    std::int64_t primaryKey_;
    ObjectSnapshot snapshot_;
};

// The IDs of stored objects, in order.
std::vector<ManagedObjectIDRef> objectIDsOf(const std::vector<std::shared_ptr<StoredObject>>& objects);

// Where a store's stored objects come from (the rows an in-memory store
// keeps, or rows an SQLite store loads for one fetch it cannot say in SQL),
// and the evaluation of a fetch request on them. Used from the store's
// thread only.
class StoredObjectSource {
public:
    explicit StoredObjectSource(const PersistentStore& store) : store_(&store) {}
    virtual ~StoredObjectSource();
    StoredObjectSource(const StoredObjectSource&) = delete;
    StoredObjectSource& operator=(const StoredObjectSource&) = delete;

    const PersistentStore& persistentStore() const { return *store_; }

    // The stored object of a permanent ID of this store; null for an ID of
    // no object here (temporary, another store's, deleted).
    virtual std::shared_ptr<StoredObject> storedObject(const ManagedObjectID& objectID) const = 0;

    // The candidates that match the request's predicate, sorted by its sort
    // descriptors, with its offset and limit applied. The objects and IDs the
    // predicate names are replaced by stored objects first, so that they
    // equal what key paths reach on either side ("%@ IN tags").
    [[nodiscard]] std::optional<std::vector<std::shared_ptr<StoredObject>>> select(
        std::vector<std::shared_ptr<StoredObject>> candidates, const FetchRequest& request, ErrorRef* error) const;

private:
    friend class StoredObject;
    std::shared_ptr<const Predicate> predicateOverStoredObjects(const std::shared_ptr<const Predicate>& predicate) const;

    const PersistentStore* store_;
    // Key-value coding of each entity's stored objects, made on first use.
    mutable std::unordered_map<const EntityDescription*, std::unique_ptr<PropertyTable>> propertyTables_;
};

}  // namespace platform::objectgraph
