#include "Platform/Security/SecItem.h"

#include "Platform/Security/KeychainCrypto.h"
#include "Platform/Security/KeychainFile.h"
#include "Platform/Security/SecKeychain.h"
#include "Platform/Security/Wipe.h"

#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

namespace platform {
namespace {

using security::KeychainFile;
using security::KeychainFileRef;
using security::OpenMode;
using security::Statement;
using security::statusForSQLite;

enum class AttributeType { Text, Integer, Boolean, Blob, Date };

enum ClassBits : unsigned { kInternet = 1, kGeneric = 2, kBothClasses = 3 };

struct Attribute {
    std::string_view key;
    AttributeType type;
    unsigned classes;
    bool primaryKey;
};

// Every attribute a keychain item can hold; each is a column named after its
// key. The primary-key columns are never NULL ("" or 0 when not given), so
// the unique index sees two items without a path as equal.
constexpr Attribute kAttributes[] = {
    {kSecAttrAccount, AttributeType::Text, kBothClasses, true},
    {kSecAttrSecurityDomain, AttributeType::Text, kInternet, true},
    {kSecAttrServer, AttributeType::Text, kInternet, true},
    {kSecAttrProtocol, AttributeType::Integer, kInternet, true},
    {kSecAttrAuthenticationType, AttributeType::Integer, kInternet, true},
    {kSecAttrPort, AttributeType::Integer, kInternet, true},
    {kSecAttrPath, AttributeType::Text, kInternet, true},
    {kSecAttrService, AttributeType::Text, kGeneric, true},
    {kSecAttrGeneric, AttributeType::Blob, kGeneric, false},
    {kSecAttrLabel, AttributeType::Text, kBothClasses, false},
    {kSecAttrDescription, AttributeType::Text, kBothClasses, false},
    {kSecAttrComment, AttributeType::Text, kBothClasses, false},
    {kSecAttrCreator, AttributeType::Integer, kBothClasses, false},
    {kSecAttrType, AttributeType::Integer, kBothClasses, false},
    {kSecAttrIsInvisible, AttributeType::Boolean, kBothClasses, false},
    {kSecAttrIsNegative, AttributeType::Boolean, kBothClasses, false},
    {kSecAttrCreationDate, AttributeType::Date, kBothClasses, false},
    {kSecAttrModificationDate, AttributeType::Date, kBothClasses, false},
};

bool isStoreManaged(const Attribute& attribute)
{
    return attribute.key == kSecAttrCreationDate || attribute.key == kSecAttrModificationDate;
}

const Attribute* findAttribute(std::string_view key)
{
    for (const auto& attribute : kAttributes) {
        if (attribute.key == key) {
            return &attribute;
        }
    }
    return nullptr;
}

std::string column(const Attribute& attribute)
{
    return "\"" + std::string(attribute.key) + "\"";
}

bool hasType(const Value& value, AttributeType type)
{
    switch (type) {
    case AttributeType::Text:
        return value.isString();
    case AttributeType::Integer:
        return value.isNumber() && !value.isBoolean();
    case AttributeType::Boolean:
        return value.isNumber();
    case AttributeType::Blob:
        return value.data() != nullptr;
    case AttributeType::Date:
        return value.date() != nullptr;
    }
    return false;
}

void bindValue(Statement& statement, int index, const Value& value, AttributeType type)
{
    switch (type) {
    case AttributeType::Text:
        statement.bindText(index, *value.string());
        break;
    case AttributeType::Integer:
        statement.bindInteger(index, value.integerValue().value_or(0));
        break;
    case AttributeType::Boolean:
        statement.bindInteger(index, value.boolValue().value_or(false) ? 1 : 0);
        break;
    case AttributeType::Blob:
        statement.bindBlob(index, *value.data());
        break;
    case AttributeType::Date:
        statement.bindDouble(index, value.date()->timeIntervalSince1970());
        break;
    }
}

Value columnValue(const Statement& statement, int index, AttributeType type)
{
    if (statement.isNull(index)) {
        return Value();
    }
    switch (type) {
    case AttributeType::Text:
        return Value(statement.text(index));
    case AttributeType::Integer:
        return Value(statement.integer(index));
    case AttributeType::Boolean:
        return Value(statement.integer(index) != 0);
    case AttributeType::Blob:
        return Value(statement.blob(index));
    case AttributeType::Date:
        return Value(Date(statement.real(index)));
    }
    return Value();
}

Value defaultValue(const Attribute& attribute)
{
    return attribute.type == AttributeType::Text ? Value(std::string()) : Value(0);
}

// The identity a sealed secret is bound to: its class and primary key, each
// field length-prefixed so no two identities encode alike.
std::string associatedData(std::string_view className, unsigned classBits, const Dictionary& attributes)
{
    std::string encoded;
    auto append = [&encoded](std::string_view field) {
        encoded += std::to_string(field.size());
        encoded += ':';
        encoded += field;
    };
    append(className);
    for (const auto& attribute : kAttributes) {
        if (!attribute.primaryKey || (attribute.classes & classBits) == 0) {
            continue;
        }
        Value value = attributes.get(attribute.key);
        if (value.isNothing()) {
            value = defaultValue(attribute);
        }
        append(attribute.key);
        append(attribute.type == AttributeType::Text ? *value.string()
                                                     : std::to_string(value.integerValue().value_or(0)));
    }
    return encoded;
}

enum class Purpose { Search, Add, Changes };

struct Query {
    Query() = default;
    Query(const Query&) = default;
    Query& operator=(const Query&) = default;
    Query(Query&&) = default;
    Query& operator=(Query&&) = default;
    // The copy of the secret to store.
    ~Query()
    {
        if (data) {
            security::wipe(*data);
        }
    }

    std::string className;
    unsigned classBits = 0;
    Dictionary attributes;  // only keys of kAttributes, type-checked
    SecKeychainItemRef reference;
    std::optional<Data> data;
    bool returnData = false;
    bool returnAttributes = false;
    bool returnRef = false;
    std::optional<std::int64_t> limit;  // nothing for all
    bool hasLimit = false;
    bool singleResult = false;  // kSecMatchLimitOne: the match itself, not an array
    std::optional<std::vector<std::string>> searchList;
    std::optional<std::string> useKeychain;
};

OSStatus keychainPathOf(const Value& value, std::string* path)
{
    const auto keychain = value.objectAs<SecKeychain>();
    if (!keychain) {
        return errSecParam;
    }
    *path = keychain->path();
    return errSecSuccess;
}

// --- Reading a query: each key is an attribute of kAttributes or one of
// kQueryKeys below; any other key is refused.

[[nodiscard]] OSStatus readClass(const Value& value, Query* query)
{
    if (!value.isString()) {
        return errSecParam;
    }
    query->className = *value.string();
    if (query->className == kSecClassInternetPassword) {
        query->classBits = kInternet;
    } else if (query->className == kSecClassGenericPassword) {
        query->classBits = kGeneric;
    } else {
        return errSecNoSuchClass;
    }
    return errSecSuccess;
}

[[nodiscard]] OSStatus readValueData(const Value& value, Query* query)
{
    if (value.data() == nullptr) {
        return errSecParam;
    }
    query->data = *value.data();
    return errSecSuccess;
}

[[nodiscard]] OSStatus readValueReference(const Value& value, Query* query)
{
    query->reference = value.objectAs<SecKeychainItem>();
    return query->reference ? errSecSuccess : errSecParam;
}

template <bool Query::*flag>
[[nodiscard]] OSStatus readReturnFlag(const Value& value, Query* query)
{
    const auto given = value.boolValue();
    if (!given) {
        return errSecParam;
    }
    query->*flag = *given;
    return errSecSuccess;
}

// kSecMatchLimitOne, kSecMatchLimitAll, or a count of at least one.
[[nodiscard]] OSStatus readMatchLimit(const Value& value, Query* query)
{
    query->hasLimit = true;
    if (value.isString() && *value.string() == kSecMatchLimitOne) {
        query->limit = 1;
        query->singleResult = true;
    } else if (value.isString() && *value.string() == kSecMatchLimitAll) {
        query->limit.reset();
    } else if (value.isNumber() && !value.isBoolean() && value.integerValue().value_or(0) >= 1) {
        query->limit = value.integerValue();
    } else {
        return errSecParam;
    }
    return errSecSuccess;
}

[[nodiscard]] OSStatus readSearchList(const Value& value, Query* query)
{
    const auto* keychains = value.array();
    if (keychains == nullptr) {
        return errSecParam;
    }
    std::vector<std::string> paths;
    for (const auto& keychain : *keychains) {
        std::string path;
        if (keychainPathOf(keychain, &path) != errSecSuccess) {
            return errSecParam;
        }
        paths.push_back(std::move(path));
    }
    query->searchList = std::move(paths);
    return errSecSuccess;
}

[[nodiscard]] OSStatus readUseKeychain(const Value& value, Query* query)
{
    std::string path;
    if (keychainPathOf(value, &path) != errSecSuccess) {
        return errSecParam;
    }
    query->useKeychain = std::move(path);
    return errSecSuccess;
}

struct QueryKey {
    std::string_view key;
    OSStatus (*read)(const Value& value, Query* query);
    bool allowedInChanges;  // an update's changes say what to store, not what to find or return
};

constexpr QueryKey kQueryKeys[] = {
    {kSecClass, readClass, true},
    {kSecValueData, readValueData, true},
    {kSecValueRef, readValueReference, false},
    {kSecReturnData, readReturnFlag<&Query::returnData>, false},
    {kSecReturnAttributes, readReturnFlag<&Query::returnAttributes>, false},
    {kSecReturnRef, readReturnFlag<&Query::returnRef>, false},
    {kSecMatchLimit, readMatchLimit, false},
    {kSecMatchSearchList, readSearchList, false},
    {kSecUseKeychain, readUseKeychain, false},
};

const QueryKey* findQueryKey(std::string_view key)
{
    for (const auto& queryKey : kQueryKeys) {
        if (queryKey.key == key) {
            return &queryKey;
        }
    }
    return nullptr;
}

[[nodiscard]] OSStatus readEntry(std::string_view key, const Value& value, Purpose purpose, Query* query)
{
    if (value.isNothing()) {
        return errSecParam;
    }
    if (const auto* attribute = findAttribute(key)) {
        if (!hasType(value, attribute->type)) {
            return errSecParam;
        }
        query->attributes.set(key, value);
        return errSecSuccess;
    }
    const auto* queryKey = findQueryKey(key);
    if (queryKey == nullptr || (purpose == Purpose::Changes && !queryKey->allowedInChanges)) {
        return errSecParam;
    }
    return queryKey->read(value, query);
}

// What only the query as a whole shows: a class where one is needed, no
// item reference to add, and no attribute of the other class.
[[nodiscard]] OSStatus checkQuery(const Query& query, Purpose purpose)
{
    if (purpose != Purpose::Changes && query.classBits == 0) {
        return errSecParam;
    }
    if (purpose == Purpose::Add && query.reference) {
        return errSecParam;
    }
    if (query.classBits != 0) {
        for (const auto& [key, value] : query.attributes) {
            if ((findAttribute(key)->classes & query.classBits) == 0) {
                return errSecNoSuchAttr;
            }
        }
    }
    return errSecSuccess;
}

[[nodiscard]] OSStatus parseQuery(const Dictionary& dictionary, Purpose purpose, Query* query)
{
    for (const auto& [key, value] : dictionary) {
        if (const OSStatus status = readEntry(key, value, purpose, query); status != errSecSuccess) {
            return status;
        }
    }
    return checkQuery(*query, purpose);
}

// The keychains a search, update or delete looks at. The default search list
// is implicit: its keychain may be missing and then holds nothing.
struct SearchScope {
    std::vector<std::string> paths;
    bool implicit = false;
};

SearchScope searchScope(const Query& query)
{
    SearchScope scope;
    if (query.reference) {
        const auto& path = query.reference->keychainPath();
        if (!query.searchList ||
            std::find(query.searchList->begin(), query.searchList->end(), path) != query.searchList->end()) {
            scope.paths.push_back(path);
        }
    } else if (query.searchList) {
        scope.paths = *query.searchList;
    } else if (query.useKeychain) {
        scope.paths.push_back(*query.useKeychain);
    } else {
        scope.paths.push_back(SecKeychainDefaultPath());
        scope.implicit = true;
    }
    return scope;
}

// Opens one keychain of a scope. Success with no file means "holds nothing
// that could match".
OSStatus openForScope(const std::string& path, const SearchScope& scope, const Query& query, OpenMode mode,
                      KeychainFileRef* file)
{
    const OSStatus status = KeychainFile::open(path, mode, file);
    if (status == errSecNoSuchKeychain && scope.implicit) {
        return errSecSuccess;
    }
    if (status != errSecSuccess) {
        return status;
    }
    if ((*file)->isUninitialised() ||
        (query.reference && query.reference->fileIdentity() != (*file)->identity())) {
        file->reset();
    }
    return errSecSuccess;
}

// "class = ?1 AND "acct" = ?2 ..." for the query's attributes and reference;
// the values are bound from `firstIndex` on by bindWhere.
std::string whereClause(const Query& query)
{
    std::string clause = "class = ?";
    for (const auto& [key, value] : query.attributes) {
        clause += " AND " + column(*findAttribute(key)) + " = ?";
    }
    if (query.reference) {
        clause += " AND id = ?";
    }
    return clause;
}

int bindWhere(Statement& statement, int index, const Query& query)
{
    statement.bindText(index++, query.className);
    for (const auto& [key, value] : query.attributes) {
        bindValue(statement, index++, value, findAttribute(key)->type);
    }
    if (query.reference) {
        statement.bindInteger(index++, query.reference->row());
    }
    return index;
}

std::vector<const Attribute*> attributesOfClass(unsigned classBits)
{
    std::vector<const Attribute*> attributes;
    for (const auto& attribute : kAttributes) {
        if ((attribute.classes & classBits) != 0) {
            attributes.push_back(&attribute);
        }
    }
    return attributes;
}

struct Row {
    Row() = default;
    Row(Row&&) = default;
    Row& operator=(Row&&) = default;
    Row(const Row&) = delete;
    Row& operator=(const Row&) = delete;
    // The secret as read is a password in clear in a keychain without one.
    ~Row()
    {
        if (secret) {
            security::wipe(*secret);
        }
    }

    std::int64_t id = 0;
    Dictionary attributes;
    std::optional<Data> secret;  // as stored: sealed in a password-protected keychain
};

OSStatus selectRows(const KeychainFile& file, const Query& query, bool withSecret, std::optional<std::int64_t> limit,
                    std::vector<Row>* rows)
{
    const auto columns = attributesOfClass(query.classBits);
    std::string sql = "SELECT id";
    for (const auto* attribute : columns) {
        sql += ", " + column(*attribute);
    }
    sql += withSecret ? ", secret" : ", NULL";
    sql += " FROM items WHERE " + whereClause(query);
    // Rows come in insertion order. A query that names a server or a service
    // has few matches, which the index finds: they are put in order here,
    // which spares SQLite setting up a sorter, a good part of a one-shot
    // look-up's time. A wider query may match much of the file, where SQLite
    // can walk the rows in order and stop at the limit.
    const bool fewMatches = query.attributes.contains(kSecAttrServer) || query.attributes.contains(kSecAttrService);
    if (!fewMatches) {
        sql += " ORDER BY id";
        if (limit) {
            sql += " LIMIT " + std::to_string(*limit);
        }
    }
    const std::size_t firstRow = rows->size();
    Statement select(file.database(), sql);
    bindWhere(select, 1, query);
    int result;
    while ((result = select.step()) == SQLITE_ROW) {
        Row row;
        row.id = select.integer(0);
        row.attributes.set(kSecClass, query.className);
        int index = 1;
        for (const auto* attribute : columns) {
            if (auto value = columnValue(select, index++, attribute->type); !value.isNothing()) {
                row.attributes.set(attribute->key, std::move(value));
            }
        }
        if (!select.isNull(index)) {
            row.secret = select.blob(index);
        }
        rows->push_back(std::move(row));
    }
    if (fewMatches) {
        const auto first = rows->begin() + static_cast<std::ptrdiff_t>(firstRow);
        std::sort(first, rows->end(), [](const Row& left, const Row& right) { return left.id < right.id; });
        if (limit && rows->end() - first > std::max<std::int64_t>(*limit, 0)) {
            rows->erase(first + std::max<std::int64_t>(*limit, 0), rows->end());
        }
    }
    return statusForSQLite(result);
}

// The secret of a row in clear: errSecInteractionNotAllowed while a
// password-protected keychain is locked in this process.
OSStatus revealSecret(const KeychainFile& file, const Query& query, const Row& row, Data* secret)
{
    if (!row.secret) {
        return errSecSuccess;
    }
    if (!file.hasPassword()) {
        *secret = *row.secret;
        return errSecSuccess;
    }
    const auto key = security::rememberedKey(file.identity());
    if (!key) {
        return errSecInteractionNotAllowed;
    }
    if (!security::openSecret(*key, *row.secret, associatedData(query.className, query.classBits, row.attributes),
                              secret)) {
        return errSecDecode;
    }
    return errSecSuccess;
}

// What the caller asked to get back for one item.
OSStatus shapeResult(const KeychainFile& file, const Query& query, Row& row, Value* result)
{
    const int returns = int(query.returnData) + int(query.returnAttributes) + int(query.returnRef);
    if (returns == 0) {
        *result = Value();
        return errSecSuccess;
    }
    std::optional<Data> secret;
    if (query.returnData && row.secret) {
        Data revealed;
        if (const OSStatus status = revealSecret(file, query, row, &revealed); status != errSecSuccess) {
            return status;
        }
        secret = std::move(revealed);
    }
    auto reference = [&] { return Value(SecKeychainItem::create(file.path(), file.identity(), row.id)); };
    if (returns == 1) {
        *result = query.returnData ? Value(std::move(secret).value_or(Data()))
                  : query.returnAttributes ? Value(std::move(row.attributes))
                                           : reference();
        return errSecSuccess;
    }
    Dictionary shaped = query.returnAttributes ? std::move(row.attributes) : Dictionary();
    if (secret) {
        shaped.set(kSecValueData, std::move(*secret));
    }
    if (query.returnRef) {
        shaped.set(kSecValueRef, reference());
    }
    *result = Value(std::move(shaped));
    return errSecSuccess;
}

OSStatus sealForRow(const KeychainFile& file, const Query& query, const Dictionary& attributes, const Data& secret,
                    Data* stored)
{
    if (!file.hasPassword()) {
        *stored = secret;
        return errSecSuccess;
    }
    const auto key = security::rememberedKey(file.identity());
    if (!key) {
        return errSecInteractionNotAllowed;
    }
    *stored = security::sealSecret(*key, secret, associatedData(query.className, query.classBits, attributes));
    return errSecSuccess;
}

OSStatus stepToCompletion(Statement& statement)
{
    const int result = statement.step();
    return result == SQLITE_DONE ? errSecSuccess : statusForSQLite(result);
}

// Gives the transaction's outcome: commits on success, rolls back otherwise.
OSStatus finishWrite(KeychainFile& file, OSStatus status)
{
    if (status != errSecSuccess) {
        file.rollback();
        return status;
    }
    return file.commit();
}

OSStatus insertItem(KeychainFile& file, const Query& query, std::int64_t* row)
{
    std::optional<Data> stored;
    security::WipedWhenDone storedWiped(stored);  // also when a step throws
    if (query.data) {
        Data sealed;
        if (const OSStatus status = sealForRow(file, query, query.attributes, *query.data, &sealed);
            status != errSecSuccess) {
            return status;
        }
        stored = std::move(sealed);
    }
    std::vector<const Attribute*> given;
    std::string columns = "class";
    std::string placeholders = "?";
    for (const auto& [key, value] : query.attributes) {
        const auto* attribute = findAttribute(key);
        if (!isStoreManaged(*attribute)) {
            given.push_back(attribute);
            columns += ", " + column(*attribute);
            placeholders += ", ?";
        }
    }
    Statement insert(file.database(), "INSERT INTO items (" + columns + ", \"cdat\", \"mdat\", secret) VALUES (" +
                                          placeholders + ", ?, ?, ?)");
    int index = 1;
    insert.bindText(index++, query.className);
    for (const auto* attribute : given) {
        bindValue(insert, index++, query.attributes.get(attribute->key), attribute->type);
    }
    const double now = Date::now().timeIntervalSince1970();
    insert.bindDouble(index++, now);
    insert.bindDouble(index++, now);
    if (stored) {
        insert.bindSecret(index, *stored);
    } else {
        insert.bindNull(index);
    }
    if (const OSStatus status = stepToCompletion(insert); status != errSecSuccess) {
        return status;
    }
    *row = sqlite3_last_insert_rowid(file.database());
    return errSecSuccess;
}

// Rewrites one matched row with the changes; a changed primary key re-seals
// the secret, which is bound to it.
OSStatus updateRow(KeychainFile& file, const Query& query, const Query& changes, const Row& row)
{
    Dictionary merged = row.attributes;
    bool keyChanged = false;
    std::vector<const Attribute*> changed;
    for (const auto& [key, value] : changes.attributes) {
        const auto* attribute = findAttribute(key);
        if (isStoreManaged(*attribute)) {
            continue;
        }
        keyChanged = keyChanged || (attribute->primaryKey && !(merged.get(key) == value));
        merged.set(key, value);
        changed.push_back(attribute);
    }
    std::optional<Data> stored;
    security::WipedWhenDone storedWiped(stored);  // also when a step throws
    bool rewriteSecret = false;
    if (changes.data) {
        Data sealed;
        if (const OSStatus status = sealForRow(file, query, merged, *changes.data, &sealed); status != errSecSuccess) {
            return status;
        }
        stored = std::move(sealed);
        rewriteSecret = true;
    } else if (keyChanged && file.hasPassword() && row.secret) {
        Data secret;
        if (const OSStatus status = revealSecret(file, query, row, &secret); status != errSecSuccess) {
            return status;
        }
        Data sealed;
        const OSStatus status = sealForRow(file, query, merged, secret, &sealed);
        security::wipe(secret);
        if (status != errSecSuccess) {
            return status;
        }
        stored = std::move(sealed);
        rewriteSecret = true;
    }
    std::string assignments = "\"mdat\" = ?";
    for (const auto* attribute : changed) {
        assignments += ", " + column(*attribute) + " = ?";
    }
    if (rewriteSecret) {
        assignments += ", secret = ?";
    }
    Statement update(file.database(), "UPDATE items SET " + assignments + " WHERE id = ?");
    int index = 1;
    update.bindDouble(index++, Date::now().timeIntervalSince1970());
    for (const auto* attribute : changed) {
        bindValue(update, index++, changes.attributes.get(attribute->key), attribute->type);
    }
    if (rewriteSecret) {
        update.bindSecret(index++, *stored);
    }
    update.bindInteger(index, row.id);
    return stepToCompletion(update);
}

// How many more items a query may touch after `touched`; nothing for no limit.
std::optional<std::int64_t> remainingOf(const Query& query, std::int64_t touched)
{
    return query.limit ? std::optional<std::int64_t>(*query.limit - touched) : std::nullopt;
}

// Runs `perKeychain` on every keychain of the query's scope; the count of
// items it touched decides between success and errSecItemNotFound.
template <typename Action>
OSStatus forEachKeychain(const Query& query, OpenMode mode, Action perKeychain)
{
    const auto scope = searchScope(query);
    std::int64_t touched = 0;
    for (const auto& path : scope.paths) {
        KeychainFileRef file;
        if (const OSStatus status = openForScope(path, scope, query, mode, &file); status != errSecSuccess) {
            return status;
        }
        if (!file) {
            continue;
        }
        if (const OSStatus status = perKeychain(*file, &touched); status != errSecSuccess) {
            return status;
        }
        if (query.limit && touched >= *query.limit) {
            break;
        }
    }
    return touched > 0 ? errSecSuccess : errSecItemNotFound;
}

}  // namespace

OSStatus SecItemCopyMatching(const Dictionary& dictionary, Value* result)
{
    Query query;
    if (const OSStatus status = parseQuery(dictionary, Purpose::Search, &query); status != errSecSuccess) {
        return status;
    }
    if (!query.hasLimit) {
        query.limit = 1;
        query.singleResult = true;
    }
    Array found;
    Value first;
    const OSStatus status =
        forEachKeychain(query, OpenMode::Read, [&](KeychainFile& file, std::int64_t* touched) {
            std::vector<Row> rows;
            if (const OSStatus selected = selectRows(file, query, query.returnData, remainingOf(query, *touched), &rows);
                selected != errSecSuccess) {
                return selected;
            }
            for (auto& row : rows) {
                Value shaped;
                if (const OSStatus shapedStatus = shapeResult(file, query, row, &shaped);
                    shapedStatus != errSecSuccess) {
                    return shapedStatus;
                }
                if (*touched == 0) {
                    first = shaped;
                }
                found.push_back(std::move(shaped));
                ++*touched;
            }
            return errSecSuccess;
        });
    if (status == errSecSuccess && result != nullptr) {
        *result = query.singleResult ? std::move(first) : Value(std::move(found));
    }
    return status;
}

OSStatus SecItemAdd(const Dictionary& attributes, Value* result)
{
    Query query;
    if (const OSStatus status = parseQuery(attributes, Purpose::Add, &query); status != errSecSuccess) {
        return status;
    }
    const bool explicitKeychain = query.useKeychain.has_value();
    const std::string path = explicitKeychain ? *query.useKeychain : SecKeychainDefaultPath();
    KeychainFileRef file;
    if (const OSStatus status =
            KeychainFile::open(path, explicitKeychain ? OpenMode::Write : OpenMode::WriteCreating, &file);
        status != errSecSuccess) {
        return status;
    }
    if (const OSStatus status = file->beginWrite(); status != errSecSuccess) {
        return status;
    }
    std::int64_t row = 0;
    OSStatus status = insertItem(*file, query, &row);
    Value shaped;
    if (status == errSecSuccess && result != nullptr) {
        // Read back what was stored, defaults and dates included.
        Query added = query;
        added.attributes = Dictionary();
        added.reference = SecKeychainItem::create(file->path(), file->identity(), row);
        std::vector<Row> rows;
        status = selectRows(*file, added, added.returnData, 1, &rows);
        if (status == errSecSuccess && !rows.empty()) {
            status = shapeResult(*file, added, rows.front(), &shaped);
        }
    }
    status = finishWrite(*file, status);
    if (status == errSecSuccess && result != nullptr) {
        *result = std::move(shaped);
    }
    return status;
}

OSStatus SecItemUpdate(const Dictionary& dictionary, const Dictionary& attributesToUpdate)
{
    Query query;
    Query changes;
    if (const OSStatus status = parseQuery(dictionary, Purpose::Search, &query); status != errSecSuccess) {
        return status;
    }
    if (const OSStatus status = parseQuery(attributesToUpdate, Purpose::Changes, &changes); status != errSecSuccess) {
        return status;
    }
    if (changes.classBits != 0 && changes.className != query.className) {
        return errSecParam;
    }
    for (const auto& [key, value] : changes.attributes) {
        if ((findAttribute(key)->classes & query.classBits) == 0) {
            return errSecNoSuchAttr;
        }
    }
    return forEachKeychain(query, OpenMode::Write, [&](KeychainFile& file, std::int64_t* touched) {
        if (const OSStatus status = file.beginWrite(); status != errSecSuccess) {
            return status;
        }
        std::vector<Row> rows;
        OSStatus status = selectRows(file, query, file.hasPassword(), remainingOf(query, *touched), &rows);
        for (const auto& row : rows) {
            if (status != errSecSuccess) {
                break;
            }
            status = updateRow(file, query, changes, row);
        }
        status = finishWrite(file, status);
        if (status == errSecSuccess) {
            *touched += static_cast<std::int64_t>(rows.size());
        }
        return status;
    });
}

OSStatus SecItemDelete(const Dictionary& dictionary)
{
    Query query;
    if (const OSStatus status = parseQuery(dictionary, Purpose::Search, &query); status != errSecSuccess) {
        return status;
    }
    return forEachKeychain(query, OpenMode::Write, [&](KeychainFile& file, std::int64_t* touched) {
        std::string sql = "DELETE FROM items WHERE id IN (SELECT id FROM items WHERE " + whereClause(query) + " ORDER BY id";
        if (const auto remaining = remainingOf(query, *touched)) {
            sql += " LIMIT " + std::to_string(*remaining);
        }
        Statement remove(file.database(), sql + ")");
        bindWhere(remove, 1, query);
        if (const OSStatus status = stepToCompletion(remove); status != errSecSuccess) {
            return status;
        }
        *touched += sqlite3_changes(file.database());
        return errSecSuccess;
    });
}

}  // namespace platform
