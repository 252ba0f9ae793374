// SQLiteStore: the store type NSSQLiteStoreType, one SQLite file.
//
// Layout (the names are the model's; "Z_" names are the store's own):
//   Z_METADATA(Z_KEY, Z_VALUE)      store UUID, model version hash, layout version
//   Z_PRIMARYKEY(Z_ENTITY, Z_MAX)   the last primary key given out per entity
//   "<Entity>"(Z_PK, Z_OPT, "<attribute>"..., "<to-one>"...)
//                                   a row per object; Z_OPT counts its saves;
//                                   a to-one is the related row's Z_PK
//   "Z_<Entity>_<relationship>"(Z_SOURCE, Z_TARGET, Z_ORDER)
//                                   a to-many relationship, unless it is
//                                   unordered with a to-one inverse (then it is
//                                   read from the inverse's column)
// Indexes: every indexed attribute, every to-one column, every link table's
// source. Values: strings TEXT, integers and booleans INTEGER, doubles REAL,
// dates REAL seconds since 1970, binary BLOB, nil NULL.
//
// Files and processes. The file is in WAL mode with a busy time-out
// (NSSQLiteBusyTimeoutOption, default 5 s), so several processes may open
// one store; each save is one IMMEDIATE transaction, so a crash or a kill
// during a save leaves the last saved state. When the store file does not
// exist, stale -wal, -shm and -journal files beside it are removed before it
// is made: pairing an old log with a new file corrupts it.
//
// Errors on opening: a file that is not SQLite, or SQLite without our
// metadata, is NSPersistentStoreTypeMismatchError; another model's version
// hash is NSPersistentStoreIncompatibleVersionHashError (the store's and the
// model's hashes are in the user information); no migration is attempted.
//
// Fetches and counts run as SQL. A predicate or sort that the translator
// cannot say in SQL with the same meaning (PredicateSQL.h) is evaluated in
// memory over the entity's rows, with the in-memory store's evaluator: the
// same rows, at the cost of reading every row of the entity.
//
// Threading as PersistentStore: the coordinator serialises every call.
#pragma once

#include "Platform/ObjectGraph/PersistentStore.h"

#include <map>
#include <memory>
#include <string>
#include <unordered_map>

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

class SQLiteStore final : public PersistentStore {
public:
    static std::shared_ptr<SQLiteStore> create(Configuration configuration);
    ~SQLiteStore() override;

    std::string_view type() const override { return NSSQLiteStoreType; }

    [[nodiscard]] bool load(ErrorRef* error) override;
    [[nodiscard]] bool save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts,
                            ErrorRef* error) override;
    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> fetchObjectIDs(const FetchRequest& request,
                                                                               ErrorRef* error) override;
    [[nodiscard]] std::optional<std::size_t> count(const FetchRequest& request, ErrorRef* error) override;
    [[nodiscard]] std::optional<ObjectSnapshot> snapshotForObjectWithID(const ManagedObjectID& objectID,
                                                                         ErrorRef* error) override;
    [[nodiscard]] std::optional<std::vector<std::int64_t>> newPrimaryKeys(const EntityDescription& entity,
                                                                         std::size_t count,
                                                                         ErrorRef* error) override;

    // The layout's names, for SQL built elsewhere (predicate translation).
    static std::string quoted(std::string_view identifier);
    static std::string linkTableName(const RelationshipDescription& relationship);
    // Whether a to-many relationship is read from its inverse's column.
    static bool isStoredByInverse(const RelationshipDescription& relationship);

private:
    class Statement;
    class Mapping;
    class LoadedRows;
    // A fetch or count as SQL, with the values to bind in order; or, for a
    // predicate or sort that SQL cannot say with the same meaning, none, and
    // the request is evaluated in memory over the entity's rows.
    struct Query {
        const EntityDescription* entity = nullptr;
        bool inMemory = false;
        Statement* statement = nullptr;  // one of statements_; use it before asking for another
        Array bindings;
    };
    [[nodiscard]] std::optional<Query> query(const FetchRequest& request, bool counting, ErrorRef* error);
    [[nodiscard]] std::optional<std::vector<ManagedObjectIDRef>> fetchInMemory(const EntityDescription& entity,
                                                                               const FetchRequest& request,
                                                                               ErrorRef* error);
    template <class> friend struct ObjectAllocator;
    explicit SQLiteStore(Configuration configuration);

    Statement& statement(const std::string& sql);
    ErrorRef sqliteError(std::int64_t code, std::string description) const;
    [[nodiscard]] bool execute(const char* sql, ErrorRef* error);
    [[nodiscard]] bool createSchema(ErrorRef* error);
    [[nodiscard]] bool checkMetadata(ErrorRef* error);
    [[nodiscard]] bool writeObject(const SaveChanges::Change& change, bool insert, ErrorRef* error);
    [[nodiscard]] bool writeRow(const SaveChanges::Change& change, bool insert, ErrorRef* error);
    [[nodiscard]] bool writeLinks(const SaveChanges::Change& change, const RelationshipDescription& relationship,
                                  bool insert, ErrorRef* error);
    [[nodiscard]] bool deleteObject(const ManagedObjectID& objectID, ErrorRef* error);
    [[nodiscard]] std::optional<std::int64_t> storedVersion(const ManagedObjectID& objectID, ErrorRef* error);

    // The statements that write one entity's rows, with the columns they bind.
    struct EntityWriter {
        std::vector<const PropertyDescription*> columns;
        std::unique_ptr<Statement> insert;
        std::unique_ptr<Statement> update;
        ~EntityWriter();
    };
    EntityWriter& writerFor(const EntityDescription& entity);

    sqlite3* database_ = nullptr;
    std::map<std::string, std::unique_ptr<Statement>> statements_;
    // The statement of each fetch or count shape translated so far (see
    // predicateSQLShape), emptied with statements_.
    std::unordered_map<std::string, Statement*> queries_;
    std::map<const EntityDescription*, std::unique_ptr<EntityWriter>> writers_;
};

}  // namespace platform
