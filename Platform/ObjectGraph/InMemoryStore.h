// InMemoryStore: a store that keeps the whole graph in memory. As it stands
// it is the in-memory store type (no file: the data lives as long as the
// store). A store that keeps its whole graph in one file (the XML store)
// derives from it and overrides the two hooks: `readContents` fills the rows
// when the store is loaded, `writeContents` writes them all after each save.
//
// Fetches and counts evaluate predicates and sort descriptors on rows, which
// answer key-value coding like managed objects do: attributes by name, to-one
// relationships as the related row (so "department.name" works), to-many as
// an array of rows.
//
// Threading as PersistentStore: one call at a time, from the coordinator.
#pragma once

#include "Platform/ObjectGraph/PersistentStore.h"
#include "Platform/ObjectGraph/StoreEvaluation.h"

#include <map>
#include <memory>
#include <unordered_map>

namespace platform {

class InMemoryStore : public PersistentStore, private objectgraph::StoredObjectSource {
public:
    static std::shared_ptr<InMemoryStore> create(Configuration configuration);

    std::string_view type() const override { return NSInMemoryStoreType; }

    [[nodiscard]] bool load(ErrorRef* error) override;
    [[nodiscard]] bool save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts,
                            ErrorRef* error) override;
    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> fetchObjectIDs(const FetchRequest& request,
                                                                               ErrorRef* error = nullptr) override;
    [[nodiscard]] std::optional<std::size_t> count(const FetchRequest& request, ErrorRef* error = nullptr) override;
    [[nodiscard]] std::optional<ObjectSnapshot> snapshotForObjectWithID(const ManagedObjectID& objectID,
                                                                         ErrorRef* error = nullptr) override;
    [[nodiscard]] std::optional<std::vector<std::int64_t>> newPrimaryKeys(const EntityDescription& entity,
                                                                         std::size_t count,
                                                                         ErrorRef* error = nullptr) override;

    // One saved object, as fetches evaluate it.
    using Row = objectgraph::StoredObject;

protected:
    template <class> friend struct ObjectAllocator;
    explicit InMemoryStore(Configuration configuration);

    // Hooks for a store with a file. `readContents` runs once in `load`; it
    // sets the identifier (setIdentifier) and adds rows (addRow) and returns
    // false with an error for a file it cannot use. The default makes a new,
    // empty store. `writeContents` runs at the end of each save, with the rows as
    // they will be; false (with an error) undoes
    // the save's changes in memory. The default writes nothing.
    [[nodiscard]] virtual bool readContents(ErrorRef* error);
    [[nodiscard]] virtual bool writeContents(ErrorRef* error);

    // For the hooks: every row of an entity by primary key, adding one while
    // reading, and the next primary key of an entity (kept so that keys are
    // never reused after a delete; a file store writes it and gives it back).
    const std::map<std::int64_t, std::shared_ptr<Row>>& rowsOfEntity(const EntityDescription& entity) const;
    void addRow(const EntityDescription& entity, std::int64_t primaryKey, ObjectSnapshot snapshot);
    std::int64_t nextPrimaryKey(const EntityDescription& entity) const;
    void setNextPrimaryKey(const EntityDescription& entity, std::int64_t key);

private:
    struct Table {
        std::map<std::int64_t, std::shared_ptr<Row>> rows;
        std::int64_t nextKey = 1;
    };
    Table& table(const EntityDescription& entity);
    const Table* findTable(const EntityDescription& entity) const;
    std::shared_ptr<Row> makeRow(const EntityDescription& entity, std::int64_t primaryKey, ObjectSnapshot snapshot) const;
    std::shared_ptr<Row> storedObject(const ManagedObjectID& objectID) const override;
    [[nodiscard]] std::optional<std::vector<std::shared_ptr<Row>>> matchingRows(const FetchRequest& request,
                                                                                ErrorRef* error) const;

    std::unordered_map<const EntityDescription*, Table> tables_;
};

}  // namespace platform
