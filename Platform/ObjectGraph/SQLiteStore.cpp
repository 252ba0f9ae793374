#include "Platform/ObjectGraph/SQLiteStore.h"

#include "Platform/FileSystem/FileManager.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/ObjectGraph/ManagedObject.h"
#include "Platform/ObjectGraph/StoreEvaluation.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Predicates/PredicateSQL.h"

#include <sqlite3.h>

#include <cmath>
#include <filesystem>
#include <unistd.h>

namespace platform {
namespace {

constexpr std::string_view kLayoutVersion = "zarvo-object-graph-sqlite-1";
constexpr double kDefaultBusyTimeout = 5.0;
// Statements are kept prepared; fetches with many different predicates would
// keep adding, so the cache starts over beyond this many.
constexpr std::size_t kMaximumCachedStatements = 256;

std::string_view columnType(AttributeType type)
{
    switch (type) {
    case AttributeType::Integer16:
    case AttributeType::Integer32:
    case AttributeType::Integer64:
    case AttributeType::Boolean:
        return "INTEGER";
    case AttributeType::Double:
    case AttributeType::Date:
        return "REAL";
    case AttributeType::String:
        return "TEXT";
    case AttributeType::Binary:
        return "BLOB";
    }
    return "BLOB";
}

}  // namespace

// A prepared statement kept for the life of the connection, reset after use.
class SQLiteStore::Statement {
public:
    Statement(sqlite3* database, const std::string& sql)
    {
        result_ = sqlite3_prepare_v3(database, sql.c_str(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT,
                                     &statement_, nullptr);
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool prepared() const { return result_ == SQLITE_OK && statement_ != nullptr; }

    // Values are always bound, never written into the SQL text.
    void bind(int index, const Value& value) { bind(index, value, SQLITE_TRANSIENT); }
    // Binds text and bytes where they lie instead of copying them: `value`
    // must stay alive and unchanged until the statement is reset. Saves and
    // fetches bind from snapshots and plans that outlive their statement use.
    void bindInPlace(int index, const Value& value) { bind(index, value, SQLITE_STATIC); }
    void bindAll(const Array& values)
    {
        for (std::size_t index = 0; index < values.size(); ++index) {
            bindInPlace(static_cast<int>(index + 1), values[index]);
        }
    }
    void bind(int index, std::int64_t integer) { sqlite3_bind_int64(statement_, index, integer); }
    void bind(int index, std::string_view text)
    {
        sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    }

    int step() { return sqlite3_step(statement_); }
    void reset()
    {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }

    bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }
    std::string text(int column) const
    {
        const auto* bytes = sqlite3_column_text(statement_, column);
        return bytes == nullptr ? std::string()
                                : std::string(reinterpret_cast<const char*>(bytes),
                                              static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)));
    }
    Value value(int column, AttributeType type) const
    {
        if (isNull(column)) {
            return Value();
        }
        switch (type) {
        case AttributeType::Integer16:
        case AttributeType::Integer32:
        case AttributeType::Integer64:
            return Value(integer(column));
        case AttributeType::Boolean:
            return Value(integer(column) != 0);
        case AttributeType::Double:
            return Value(sqlite3_column_double(statement_, column));
        case AttributeType::Date:
            return Value(Date(sqlite3_column_double(statement_, column)));
        case AttributeType::String:
            return Value(text(column));
        case AttributeType::Binary: {
            const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
            return Value(bytes == nullptr ? Data{} : Data(bytes, bytes + size));
        }
        }
        return Value();
    }

private:
    void bind(int index, const Value& value, sqlite3_destructor_type lifetime)
    {
        switch (value.kind()) {
        case Value::Kind::Boolean:
        case Value::Kind::Integer:
            sqlite3_bind_int64(statement_, index, *value.integerValue());
            break;
        case Value::Kind::Double:
            sqlite3_bind_double(statement_, index, *value.doubleValue());
            break;
        case Value::Kind::String:
            sqlite3_bind_text64(statement_, index, value.string()->data(), value.string()->size(), lifetime,
                                SQLITE_UTF8);
            break;
        case Value::Kind::Data: {
            const Data& data = *value.data();
            sqlite3_bind_blob64(statement_, index, data.empty() ? "" : static_cast<const void*>(data.data()),
                                data.size(), lifetime);
            break;
        }
        case Value::Kind::Date:
            sqlite3_bind_double(statement_, index, value.date()->timeIntervalSince1970());
            break;
        default:
            sqlite3_bind_null(statement_, index);
            break;
        }
    }

    sqlite3_stmt* statement_ = nullptr;
    int result_ = SQLITE_ERROR;
};

// Resets a statement when the scope that used it ends, however it ends.
class StatementUse {
public:
    explicit StatementUse(auto& statement) : reset_([&statement] { statement.reset(); }) {}
    ~StatementUse() { reset_(); }
    StatementUse(const StatementUse&) = delete;
    StatementUse& operator=(const StatementUse&) = delete;

private:
    std::function<void()> reset_;
};

// How predicates reach this layout: attributes and to-one relationships are
// columns of the entity's table, to-many relationships the inverse's column
// or a link table.
class SQLiteStore::Mapping final : public PredicateSQLMapping {
public:
    explicit Mapping(const SQLiteStore& store) : store_(store) {}

    std::optional<Property> property(std::string_view entityName, std::string_view key) const override
    {
        const PropertyDescription* property = findProperty(entityName, key);
        if (property == nullptr) {
            return std::nullopt;
        }
        if (!property->isRelationship()) {
            return Property{Property::Kind::Attribute, quoted(property->name()), {}};
        }
        const auto& relationship = static_cast<const RelationshipDescription&>(*property);
        return Property{relationship.isToMany() ? Property::Kind::ToMany : Property::Kind::ToOne,
                        relationship.isToMany() ? std::string() : quoted(relationship.name()),
                        relationship.destinationEntityName()};
    }

    std::string toOneJoin(std::string_view entityName, std::string_view key, std::string_view alias,
                          std::string_view destinationAlias) const override
    {
        const auto& relationship = static_cast<const RelationshipDescription&>(*findProperty(entityName, key));
        const std::string destination(destinationAlias);
        return quoted(relationship.destinationEntityName()) + " AS " + destination + " ON " + destination +
               ".Z_PK = " + std::string(alias) + "." + quoted(relationship.name());
    }

    RowSource toManySource(std::string_view entityName, std::string_view key, std::string_view alias,
                           std::string_view destinationAlias) const override
    {
        const auto& relationship = static_cast<const RelationshipDescription&>(*findProperty(entityName, key));
        const std::string destination(destinationAlias);
        const std::string table = quoted(relationship.destinationEntityName());
        if (isStoredByInverse(relationship)) {
            return {table + " AS " + destination,
                    destination + "." + quoted(relationship.inverseName()) + " = " + std::string(alias) + ".Z_PK"};
        }
        const std::string link = destination + "l";
        return {linkTableName(relationship) + " AS " + link + " JOIN " + table + " AS " + destination + " ON " +
                    destination + ".Z_PK = " + link + ".Z_TARGET",
                link + ".Z_SOURCE = " + std::string(alias) + ".Z_PK"};
    }

    std::string primaryKeyColumn(std::string_view) const override { return "Z_PK"; }

    std::optional<Value> primaryKeyForObject(const Value& object) const override
    {
        ManagedObjectIDRef id = object.objectAs<ManagedObjectID>();
        if (!id) {
            if (auto managed = ManagedObject::refIn(object)) {
                id = managed->objectID();
            }
        }
        if (!id || id->isTemporaryID() || id->storeIdentifier() != *store_.identifier()) {
            return std::nullopt;
        }
        return Value(id->primaryKey());
    }

private:
    const PropertyDescription* findProperty(std::string_view entityName, std::string_view key) const
    {
        const EntityDescription* entity = store_.model().entityNamed(entityName);
        return entity != nullptr ? entity->propertyNamed(key) : nullptr;
    }

    const SQLiteStore& store_;
};

SQLiteStore::EntityWriter::~EntityWriter() = default;

std::shared_ptr<SQLiteStore> SQLiteStore::create(Configuration configuration)
{
    return makeObject<SQLiteStore>(std::move(configuration));
}

SQLiteStore::SQLiteStore(Configuration configuration) : PersistentStore(std::move(configuration)) {}

SQLiteStore::~SQLiteStore()
{
    statements_.clear();
    writers_.clear();
    if (database_ != nullptr) {
        sqlite3_close_v2(database_);
    }
}

std::string SQLiteStore::quoted(std::string_view identifier)
{
    // Model names are identifiers (checked when the model is made); quoting
    // keeps SQL keywords usable as names all the same.
    std::string text = "\"";
    for (char c : identifier) {
        text += c;
        if (c == '"') {
            text += '"';
        }
    }
    return text + "\"";
}

std::string SQLiteStore::linkTableName(const RelationshipDescription& relationship)
{
    return quoted("Z_" + relationship.entity().name() + "_" + relationship.name());
}

bool SQLiteStore::isStoredByInverse(const RelationshipDescription& relationship)
{
    const RelationshipDescription* inverse = relationship.inverseRelationship();
    return relationship.isToMany() && !relationship.isOrdered() && inverse != nullptr && !inverse->isToMany();
}

SQLiteStore::Statement& SQLiteStore::statement(const std::string& sql)
{
    if (statements_.size() >= kMaximumCachedStatements && statements_.find(sql) == statements_.end()) {
        queries_.clear();
        statements_.clear();
    }
    auto& slot = statements_[sql];
    if (!slot) {
        slot = std::make_unique<Statement>(database_, sql);
    }
    return *slot;
}

ErrorRef SQLiteStore::sqliteError(std::int64_t code, std::string description) const
{
    const int result = database_ != nullptr ? sqlite3_extended_errcode(database_) : SQLITE_CANTOPEN;
    const std::string message = database_ != nullptr ? sqlite3_errmsg(database_) : sqlite3_errstr(result);
    auto underlying = Error::create("NSSQLiteErrorDomain", result, Dictionary{{NSLocalizedDescriptionKey, message}});
    return objectgraph::makeError(code, std::move(description), message, underlying,
                                  Dictionary{{NSStoreFilePathErrorKey, Value(url()->path())}});
}

bool SQLiteStore::execute(const char* sql, ErrorRef* error)
{
    if (sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be written."));
        return false;
    }
    return true;
}

bool SQLiteStore::load(ErrorRef* error)
{
    const std::string path = url()->path();
    const bool exists = FileManager::fileExistsAtPath(path);
    if (!exists) {
        for (const char* suffix : {"-wal", "-shm", "-journal"}) {
            ::unlink((path + suffix).c_str());
        }
    }
    const int opened = sqlite3_open_v2(path.c_str(), &database_,
                                       SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (opened != SQLITE_OK) {
        setError(error, sqliteError(NSPersistentStoreOpenError, "The store file could not be opened."));
        return false;
    }
    double timeout = kDefaultBusyTimeout;
    if (const auto seconds = options().get(NSSQLiteBusyTimeoutOption).doubleValue(); seconds && *seconds >= 0) {
        timeout = *seconds;
    }
    sqlite3_busy_timeout(database_, static_cast<int>(std::min(timeout, 86400.0) * 1000));
    sqlite3_extended_result_codes(database_, 1);
    if (!registerPredicateFunctions(database_)) {
        setError(error, sqliteError(NSPersistentStoreOpenError, "The store file could not be opened."));
        return false;
    }

    // The first read tells an SQLite file from anything else.
    if (sqlite3_exec(database_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr) != SQLITE_OK ||
        sqlite3_exec(database_, "PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr) != SQLITE_OK) {
        const int code = sqlite3_errcode(database_);
        setError(error, sqliteError(code == SQLITE_NOTADB ? NSPersistentStoreTypeMismatchError : NSPersistentStoreOpenError,
                                    code == SQLITE_NOTADB ? "The file is not a store." : "The store file could not be opened."));
        return false;
    }
    auto& tables = statement("SELECT count(*) FROM sqlite_master");
    StatementUse use(tables);
    if (tables.step() != SQLITE_ROW) {
        const int code = sqlite3_errcode(database_);
        setError(error, sqliteError(code == SQLITE_NOTADB ? NSPersistentStoreTypeMismatchError : NSPersistentStoreOpenError,
                                    code == SQLITE_NOTADB ? "The file is not a store." : "The store file could not be read."));
        return false;
    }
    const bool empty = tables.integer(0) == 0;
    tables.reset();
    return empty ? createSchema(error) : checkMetadata(error);
}

bool SQLiteStore::createSchema(ErrorRef* error)
{
    std::string sql = "BEGIN IMMEDIATE;"
                      "CREATE TABLE Z_METADATA (Z_KEY TEXT PRIMARY KEY, Z_VALUE TEXT NOT NULL);"
                      "CREATE TABLE Z_PRIMARYKEY (Z_ENTITY TEXT PRIMARY KEY, Z_MAX INTEGER NOT NULL);";
    for (const auto& entity : model().entities()) {
        const std::string table = quoted(entity->name());
        sql += "CREATE TABLE " + table + " (Z_PK INTEGER PRIMARY KEY, Z_OPT INTEGER NOT NULL";
        for (const auto& attribute : entity->attributes()) {
            sql += ", " + quoted(attribute->name()) + " " + std::string(columnType(attribute->attributeType()));
        }
        for (const auto& relationship : entity->relationships()) {
            if (!relationship->isToMany()) {
                sql += ", " + quoted(relationship->name()) + " INTEGER REFERENCES " +
                       quoted(relationship->destinationEntityName()) + "(Z_PK)";
            }
        }
        sql += ");";
        for (const auto& attribute : entity->attributes()) {
            if (attribute->isIndexed()) {
                sql += "CREATE INDEX " + quoted("Z_" + entity->name() + "_" + attribute->name() + "_INDEX") + " ON " +
                       table + " (" + quoted(attribute->name()) + ");";
            }
        }
        for (const auto& relationship : entity->relationships()) {
            if (!relationship->isToMany()) {
                sql += "CREATE INDEX " + quoted("Z_" + entity->name() + "_" + relationship->name() + "_INDEX") +
                       " ON " + table + " (" + quoted(relationship->name()) + ");";
            } else if (!isStoredByInverse(*relationship)) {
                const std::string link = linkTableName(*relationship);
                sql += "CREATE TABLE " + link +
                       " (Z_SOURCE INTEGER NOT NULL, Z_TARGET INTEGER NOT NULL, Z_ORDER INTEGER NOT NULL);"
                       "CREATE INDEX " +
                       quoted("Z_" + entity->name() + "_" + relationship->name() + "_SOURCE") + " ON " + link +
                       " (Z_SOURCE, Z_ORDER);";
            }
        }
    }
    sql += "COMMIT;";
    if (sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        setError(error, sqliteError(NSPersistentStoreOpenError, "The store could not be made."));
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }
    setIdentifier(makeStoreIdentifier());
    auto& insert = statement("INSERT INTO Z_METADATA (Z_KEY, Z_VALUE) VALUES (?, ?)");
    for (const auto& [key, value] : std::initializer_list<std::pair<std::string_view, std::string>>{
             {NSStoreUUIDKey, *identifier()},
             {NSStoreModelVersionHashKey, model().versionHash()},
             {"ZLayout", std::string(kLayoutVersion)}}) {
        StatementUse use(insert);
        insert.bind(1, key);
        insert.bind(2, std::string_view(value));
        if (insert.step() != SQLITE_DONE) {
            setError(error, sqliteError(NSPersistentStoreOpenError, "The store could not be made."));
            return false;
        }
    }
    return true;
}

bool SQLiteStore::checkMetadata(ErrorRef* error)
{
    auto& read = statement("SELECT Z_KEY, Z_VALUE FROM Z_METADATA");
    if (!read.prepared()) {
        setError(error, sqliteError(NSPersistentStoreTypeMismatchError, "The file is not a store."));
        return false;
    }
    Dictionary metadata;
    {
        StatementUse use(read);
        int result;
        while ((result = read.step()) == SQLITE_ROW) {
            metadata.set(read.text(0), read.text(1));
        }
        if (result != SQLITE_DONE) {
            setError(error, sqliteError(NSPersistentStoreOpenError, "The store file could not be read."));
            return false;
        }
    }
    const auto* layout = metadata.find("ZLayout");
    const auto* uuid = metadata.find(NSStoreUUIDKey);
    const auto* hash = metadata.find(NSStoreModelVersionHashKey);
    if (layout == nullptr || *layout != Value(kLayoutVersion) || uuid == nullptr || hash == nullptr) {
        setError(error, objectgraph::makeError(NSPersistentStoreTypeMismatchError, "The file is not a store.",
                                               url()->path() + " holds no store metadata of ours."));
        return false;
    }
    if (*hash != Value(model().versionHash())) {
        setError(error, objectgraph::makeError(
                            NSPersistentStoreIncompatibleVersionHashError,
                            "The model used to open the store is incompatible with the one used to create the store.",
                            url()->path(), nullptr,
                            Dictionary{{NSStoreModelVersionHashKey, *hash},
                                       {"NSManagedObjectModelVersionHash", Value(model().versionHash())}}));
        return false;
    }
    setIdentifier(*uuid->string());
    return true;
}

std::optional<std::int64_t> SQLiteStore::storedVersion(const ManagedObjectID& objectID, ErrorRef* error)
{
    auto& read = statement("SELECT Z_OPT FROM " + quoted(objectID.entity().name()) + " WHERE Z_PK = ?");
    StatementUse use(read);
    read.bind(1, objectID.primaryKey());
    const int result = read.step();
    if (result == SQLITE_ROW) {
        return read.integer(0);
    }
    if (result != SQLITE_DONE) {
        setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be read."));
    }
    return std::nullopt;
}

SQLiteStore::EntityWriter& SQLiteStore::writerFor(const EntityDescription& entity)
{
    // Made once per entity: saves write many rows of few entities, and
    // building and looking up the statements' text per row would cost more
    // than SQLite's work on it.
    auto& writer = writers_[&entity];
    if (!writer) {
        writer = std::make_unique<EntityWriter>();
        const std::string table = quoted(entity.name());
        for (const auto* property : entity.properties()) {
            if (!property->isRelationship() || !static_cast<const RelationshipDescription*>(property)->isToMany()) {
                writer->columns.push_back(property);
            }
        }
        std::string insert = "INSERT INTO " + table + " (Z_PK, Z_OPT";
        std::string placeholders = "?, ?";
        std::string update = "UPDATE " + table + " SET Z_OPT = ?";
        for (const auto* property : writer->columns) {
            insert += ", " + quoted(property->name());
            placeholders += ", ?";
            update += ", " + quoted(property->name()) + " = ?";
        }
        writer->insert = std::make_unique<Statement>(database_, insert + ") VALUES (" + placeholders + ")");
        writer->update = std::make_unique<Statement>(database_, update + " WHERE Z_PK = ?");
    }
    return *writer;
}

namespace {

// A property's value in a change's snapshot; nil past its end.
const Value& snapshotValue(const ObjectSnapshot& snapshot, const PropertyDescription& property)
{
    static const Value nil;
    return property.index() < snapshot.values.size() ? snapshot.values[property.index()] : nil;
}

}  // namespace

bool SQLiteStore::writeObject(const SaveChanges::Change& change, bool insert, ErrorRef* error)
{
    if (!writeRow(change, insert, error)) {
        return false;
    }
    for (const auto& relationship : change.objectID->entity().relationships()) {
        if (relationship->isToMany() && !isStoredByInverse(*relationship) &&
            !writeLinks(change, *relationship, insert, error)) {
            return false;
        }
    }
    return true;
}

// The entity's row: its attributes and to-one columns, and its version.
bool SQLiteStore::writeRow(const SaveChanges::Change& change, bool insert, ErrorRef* error)
{
    EntityWriter& writer = writerFor(change.objectID->entity());
    auto& write = insert ? *writer.insert : *writer.update;
    StatementUse use(write);
    int index = 1;
    if (insert) {
        write.bind(index++, change.objectID->primaryKey());
        write.bind(index++, std::int64_t{1});
    } else {
        write.bind(index++, std::int64_t{0});  // replaced below
    }
    for (const auto* property : writer.columns) {
        const Value& value = snapshotValue(change.snapshot, *property);
        if (property->isRelationship()) {
            const auto target = value.objectAs<ManagedObjectID>();
            write.bind(index++, target ? Value(target->primaryKey()) : Value());
        } else {
            write.bindInPlace(index++, value);
        }
    }
    if (!insert) {
        // The version goes up by one from what the store holds, whatever
        // the change was based on (an overwrite is based on nothing).
        const auto current = storedVersion(*change.objectID, error);
        if (!current) {
            if (error != nullptr && !*error) {
                setError(error, objectgraph::makeError(NSManagedObjectMergeError, "The object is gone.",
                                                       change.objectID->description()));
            }
            return false;
        }
        write.bind(1, *current + 1);
        write.bind(index, change.objectID->primaryKey());
    }
    if (write.step() != SQLITE_DONE) {
        setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be written."));
        return false;
    }
    return true;
}

// A to-many relationship's link table rows of the object, in order; an
// update replaces the ones it had.
bool SQLiteStore::writeLinks(const SaveChanges::Change& change, const RelationshipDescription& relationship,
                             bool insert, ErrorRef* error)
{
    const std::string link = linkTableName(relationship);
    if (!insert) {
        auto& clear = statement("DELETE FROM " + link + " WHERE Z_SOURCE = ?");
        StatementUse use(clear);
        clear.bind(1, change.objectID->primaryKey());
        if (clear.step() != SQLITE_DONE) {
            setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be written."));
            return false;
        }
    }
    const Array* targets = snapshotValue(change.snapshot, relationship).array();
    if (targets == nullptr) {
        return true;
    }
    auto& add = statement("INSERT INTO " + link + " (Z_SOURCE, Z_TARGET, Z_ORDER) VALUES (?, ?, ?)");
    std::int64_t order = 0;
    for (const auto& target : *targets) {
        const auto id = target.objectAs<ManagedObjectID>();
        if (!id) {
            continue;
        }
        StatementUse use(add);
        add.bind(1, change.objectID->primaryKey());
        add.bind(2, id->primaryKey());
        add.bind(3, order++);
        if (add.step() != SQLITE_DONE) {
            setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be written."));
            return false;
        }
    }
    return true;
}

bool SQLiteStore::deleteObject(const ManagedObjectID& objectID, ErrorRef* error)
{
    const EntityDescription& entity = objectID.entity();
    std::vector<std::string> statements{"DELETE FROM " + quoted(entity.name()) + " WHERE Z_PK = ?"};
    for (const auto& relationship : entity.relationships()) {
        if (relationship->isToMany() && !isStoredByInverse(*relationship)) {
            statements.push_back("DELETE FROM " + linkTableName(*relationship) + " WHERE Z_SOURCE = ?");
        }
    }
    for (const auto& sql : statements) {
        auto& remove = statement(sql);
        StatementUse use(remove);
        remove.bind(1, objectID.primaryKey());
        if (remove.step() != SQLITE_DONE) {
            setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be written."));
            return false;
        }
    }
    return true;
}

bool SQLiteStore::save(const SaveChanges& changes, std::vector<ManagedObjectIDRef>* conflicts, ErrorRef* error)
{
    if (changes.empty()) {
        return true;
    }
    if (options().get(NSReadOnlyPersistentStoreOption).boolValue().value_or(false)) {
        setError(error, objectgraph::makeError(NSPersistentStoreSaveError, "The store is read only."));
        return false;
    }
    // IMMEDIATE takes the write lock first, so the versions checked below
    // cannot change before the writes that depend on them.
    if (!execute("BEGIN IMMEDIATE", error)) {
        return false;
    }
    auto rollback = [&] {
        sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    };
    std::vector<ManagedObjectIDRef> conflicting;
    for (const auto* list : {&changes.updated, &changes.deleted}) {
        for (const auto& change : *list) {
            if (!change.basedOnVersion) {
                continue;
            }
            ErrorRef readError;
            const auto version = storedVersion(*change.objectID, &readError);
            if (readError) {
                setError(error, readError);
                return rollback();
            }
            if (!version || *version != *change.basedOnVersion) {
                conflicting.push_back(change.objectID);
            }
        }
    }
    if (!conflicting.empty()) {
        if (conflicts != nullptr) {
            *conflicts = conflicting;
        }
        setError(error, objectgraph::makeError(NSManagedObjectMergeError,
                                               "The objects were changed in the store since they were read.",
                                               std::to_string(conflicting.size()) + " conflicting objects."));
        return rollback();
    }
    for (const auto& change : changes.inserted) {
        if (!writeObject(change, true, error)) {
            return rollback();
        }
    }
    for (const auto& change : changes.updated) {
        if (!writeObject(change, false, error)) {
            return rollback();
        }
    }
    for (const auto& change : changes.deleted) {
        if (!deleteObject(*change.objectID, error)) {
            return rollback();
        }
    }
    if (!execute("COMMIT", error)) {
        return rollback();
    }
    return true;
}

std::optional<SQLiteStore::Query> SQLiteStore::query(const FetchRequest& request, bool counting, ErrorRef* error)
{
    const EntityDescription* entity = model().entityNamed(request.entityName());
    if (entity == nullptr) {
        setError(error, objectgraph::unknownEntityError(request.entityName()));
        return std::nullopt;
    }
    Query query;
    query.entity = entity;
    const bool limited = request.fetchLimit() != 0 || request.fetchOffset() != 0;
    auto appendLimit = [&] {
        if (limited) {
            query.bindings.push_back(Value(request.fetchLimit() != 0 ? static_cast<std::int64_t>(request.fetchLimit())
                                                                     : std::int64_t{-1}));
            query.bindings.push_back(Value(static_cast<std::int64_t>(request.fetchOffset())));
        }
    };

    // Translating costs more than running a fetch by an index, and programs
    // fetch with few shapes of predicate: the statement is kept per shape.
    std::optional<PredicateSQLShape> shape =
        request.predicate() ? predicateSQLShape(*request.predicate()) : PredicateSQLShape{};
    std::string key;
    if (shape) {
        key = std::string(counting ? "c" : "f") + (limited ? "l" : "a") + std::to_string(entity->name().size()) + ":" +
              entity->name() + sortSQLShape(request.sortDescriptors()) + shape->key;
        if (const auto found = queries_.find(key); found != queries_.end()) {
            query.statement = found->second;
            query.bindings = std::move(shape->constants);
            appendLimit();
            return query;
        }
    }

    const Mapping mapping(*this);
    PredicateSQLTranslator translator(mapping, entity->name());
    std::string where;
    std::string order;
    try {
        where = request.predicate() ? translator.where(*request.predicate()) : std::string();
        order = counting ? std::string() : translator.orderBy(request.sortDescriptors());
    } catch (const Exception&) {
        // What the translator refuses, the in-memory evaluator answers (or
        // refuses with an error of its own, as for a key the entity lacks).
        query.inMemory = true;
        return query;
    }
    std::string sql = "SELECT t0.Z_PK FROM " + quoted(entity->name()) + " AS t0" + translator.joins();
    if (!where.empty()) {
        sql += " WHERE " + where;
    }
    if (!counting || limited) {
        // Z_PK last, so that equal sort keys come back in one order on every run.
        sql += " ORDER BY " + (order.empty() ? std::string() : order + ", ") + "t0.Z_PK";
    }
    if (limited) {
        sql += " LIMIT ? OFFSET ?";
    }
    query.bindings = translator.bindings();
    appendLimit();
    query.statement = &statement(counting ? "SELECT count(*) FROM (" + sql + ")" : sql);
    // Kept only when the translation bound exactly the shape's constants,
    // so that a predicate of the same shape can bind its own in their place.
    if (shape && query.statement->prepared() && translator.bindings() == shape->constants) {
        queries_.emplace(std::move(key), query.statement);
    }
    return query;
}

// The rows of one in-memory evaluation, loaded as it reaches them (a key path
// reads related rows) and kept until it ends. A row that is gone reads as no
// object, as a dangling reference does in the other stores; any other read
// failure is kept for the fetch to report.
class SQLiteStore::LoadedRows final : public objectgraph::StoredObjectSource {
public:
    explicit LoadedRows(SQLiteStore& store) : StoredObjectSource(store), store_(store) {}

    std::shared_ptr<objectgraph::StoredObject> storedObject(const ManagedObjectID& objectID) const override
    {
        if (objectID.isTemporaryID() || objectID.storeIdentifier() != *store_.identifier()) {
            return nullptr;
        }
        const auto key = std::make_pair(&objectID.entity(), objectID.primaryKey());
        if (const auto found = loaded_.find(key); found != loaded_.end()) {
            return found->second;
        }
        ErrorRef error;
        auto snapshot = store_.snapshotForObjectWithID(objectID, &error);
        std::shared_ptr<objectgraph::StoredObject> object;
        if (snapshot) {
            object = makeObject<objectgraph::StoredObject>(*this, objectID.entity(), objectID.primaryKey(),
                                                           std::move(*snapshot));
        } else if (error && error->code() != NSManagedObjectReferentialIntegrityError && !failure_) {
            failure_ = error;
        }
        loaded_.emplace(key, object);
        return object;
    }

    const ErrorRef& failure() const { return failure_; }

private:
    SQLiteStore& store_;
    mutable std::map<std::pair<const EntityDescription*, std::int64_t>, std::shared_ptr<objectgraph::StoredObject>>
        loaded_;
    mutable ErrorRef failure_;
};

std::optional<std::vector<ManagedObjectIDRef>> SQLiteStore::fetchInMemory(const EntityDescription& entity,
                                                                          const FetchRequest& request, ErrorRef* error)
{
    // Every row of the entity is a candidate, in primary key order (the
    // order SQL gives equal sort keys).
    std::vector<std::int64_t> keys;
    {
        auto& select = statement("SELECT Z_PK FROM " + quoted(entity.name()) + " ORDER BY Z_PK");
        StatementUse use(select);
        int result;
        while ((result = select.step()) == SQLITE_ROW) {
            keys.push_back(select.integer(0));
        }
        if (result != SQLITE_DONE) {
            setError(error, sqliteError(NSCoreDataError, "The store could not be read."));
            return std::nullopt;
        }
    }
    const LoadedRows rows(*this);
    std::vector<std::shared_ptr<objectgraph::StoredObject>> candidates;
    candidates.reserve(keys.size());
    for (const auto key : keys) {
        if (auto row = rows.storedObject(*objectIDFor(entity, key))) {
            candidates.push_back(std::move(row));
        }
    }
    auto selected = rows.select(std::move(candidates), request, error);
    if (selected && rows.failure()) {
        setError(error, rows.failure());
        return std::nullopt;
    }
    if (!selected) {
        return std::nullopt;
    }
    return objectgraph::objectIDsOf(*selected);
}

std::optional<std::vector<ManagedObjectIDRef>> SQLiteStore::fetchObjectIDs(const FetchRequest& request,
                                                                           ErrorRef* error)
{
    const auto plan = query(request, false, error);
    if (!plan) {
        return std::nullopt;
    }
    if (plan->inMemory) {
        return fetchInMemory(*plan->entity, request, error);
    }
    auto& select = *plan->statement;
    StatementUse use(select);
    select.bindAll(plan->bindings);
    std::vector<ManagedObjectIDRef> ids;
    int result;
    while ((result = select.step()) == SQLITE_ROW) {
        ids.push_back(objectIDFor(*plan->entity, select.integer(0)));
    }
    if (result != SQLITE_DONE) {
        setError(error, sqliteError(NSCoreDataError, "The store could not be read."));
        return std::nullopt;
    }
    return ids;
}

std::optional<std::size_t> SQLiteStore::count(const FetchRequest& request, ErrorRef* error)
{
    const auto plan = query(request, true, error);
    if (!plan) {
        return std::nullopt;
    }
    if (plan->inMemory) {
        const auto ids = fetchInMemory(*plan->entity, request, error);
        return ids ? std::optional<std::size_t>(ids->size()) : std::nullopt;
    }
    auto& select = *plan->statement;
    StatementUse use(select);
    select.bindAll(plan->bindings);
    if (select.step() != SQLITE_ROW) {
        setError(error, sqliteError(NSCoreDataError, "The store could not be read."));
        return std::nullopt;
    }
    return static_cast<std::size_t>(select.integer(0));
}

std::optional<ObjectSnapshot> SQLiteStore::snapshotForObjectWithID(const ManagedObjectID& objectID, ErrorRef* error)
{
    const EntityDescription& entity = objectID.entity();
    if (objectID.isTemporaryID() || objectID.storeIdentifier() != *identifier()) {
        setError(error, objectgraph::makeError(NSManagedObjectReferentialIntegrityError,
                                               "The object does not exist in the store.", objectID.description()));
        return std::nullopt;
    }
    std::string sql = "SELECT Z_OPT";
    std::vector<const PropertyDescription*> columns;
    for (const auto* property : entity.properties()) {
        if (!property->isRelationship() || !static_cast<const RelationshipDescription*>(property)->isToMany()) {
            sql += ", " + quoted(property->name());
            columns.push_back(property);
        }
    }
    sql += " FROM " + quoted(entity.name()) + " WHERE Z_PK = ?";
    ObjectSnapshot snapshot;
    snapshot.values.resize(entity.properties().size());
    {
        auto& select = statement(sql);
        StatementUse use(select);
        select.bind(1, objectID.primaryKey());
        const int result = select.step();
        if (result == SQLITE_DONE) {
            setError(error, objectgraph::makeError(NSManagedObjectReferentialIntegrityError,
                                                   "The object does not exist in the store.", objectID.description()));
            return std::nullopt;
        }
        if (result != SQLITE_ROW) {
            setError(error, sqliteError(NSCoreDataError, "The store could not be read."));
            return std::nullopt;
        }
        snapshot.version = select.integer(0);
        int column = 1;
        for (const auto* property : columns) {
            if (property->isRelationship()) {
                if (!select.isNull(column)) {
                    const auto& relationship = static_cast<const RelationshipDescription&>(*property);
                    snapshot.values[property->index()] =
                        Value(objectIDFor(relationship.destinationEntity(), select.integer(column)));
                }
            } else {
                snapshot.values[property->index()] =
                    select.value(column, static_cast<const AttributeDescription*>(property)->attributeType());
            }
            ++column;
        }
    }
    for (const auto& relationship : entity.relationships()) {
        if (!relationship->isToMany()) {
            continue;
        }
        const std::string query =
            isStoredByInverse(*relationship)
                ? "SELECT Z_PK FROM " + quoted(relationship->destinationEntityName()) + " WHERE " +
                      quoted(relationship->inverseName()) + " = ? ORDER BY Z_PK"
                : "SELECT Z_TARGET FROM " + linkTableName(*relationship) + " WHERE Z_SOURCE = ? ORDER BY Z_ORDER";
        auto& select = statement(query);
        StatementUse use(select);
        select.bind(1, objectID.primaryKey());
        Array targets;
        int result;
        while ((result = select.step()) == SQLITE_ROW) {
            targets.push_back(Value(objectIDFor(relationship->destinationEntity(), select.integer(0))));
        }
        if (result != SQLITE_DONE) {
            setError(error, sqliteError(NSCoreDataError, "The store could not be read."));
            return std::nullopt;
        }
        snapshot.values[relationship->index()] = Value(std::move(targets));
    }
    return snapshot;
}

std::optional<std::vector<std::int64_t>> SQLiteStore::newPrimaryKeys(const EntityDescription& entity,
                                                                    std::size_t count, ErrorRef* error)
{
    if (!execute("BEGIN IMMEDIATE", error)) {
        return std::nullopt;
    }
    std::int64_t last = 0;
    {
        auto& read = statement("SELECT Z_MAX FROM Z_PRIMARYKEY WHERE Z_ENTITY = ?");
        StatementUse use(read);
        read.bind(1, std::string_view(entity.name()));
        const int result = read.step();
        if (result == SQLITE_ROW) {
            last = read.integer(0);
        } else if (result != SQLITE_DONE) {
            setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be read."));
            sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
            return std::nullopt;
        }
    }
    {
        auto& write = statement("INSERT OR REPLACE INTO Z_PRIMARYKEY (Z_ENTITY, Z_MAX) VALUES (?, ?)");
        StatementUse use(write);
        write.bind(1, std::string_view(entity.name()));
        write.bind(2, last + static_cast<std::int64_t>(count));
        if (write.step() != SQLITE_DONE || !execute("COMMIT", error)) {
            setError(error, sqliteError(NSPersistentStoreSaveError, "The store could not be written."));
            sqlite3_exec(database_, "ROLLBACK", nullptr, nullptr, nullptr);
            return std::nullopt;
        }
    }
    std::vector<std::int64_t> keys;
    keys.reserve(count);
    for (std::size_t index = 1; index <= count; ++index) {
        keys.push_back(last + static_cast<std::int64_t>(index));
    }
    return keys;
}

}  // namespace platform
