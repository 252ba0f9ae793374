#include "Platform/Security/KeychainFile.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace platform::security {
namespace {

// "ZKC1" in the database header marks a file as ours for tools that look
// (file(1) among them); the keychain itself goes by its metadata rows.
constexpr std::int64_t kApplicationId = 0x5A4B4331;
constexpr std::string_view kFormatName = "zarvo-keychain";
constexpr std::int64_t kFormatVersion = 1;
constexpr std::string_view kVerifierText = "zarvo-keychain key check";
constexpr std::string_view kVerifierAssociatedData = "verifier";
// Long enough for any queue of writers to drain; a caller sees the keychain
// as unavailable only when one holds it far longer than a write takes.
constexpr int kBusyTimeoutMilliseconds = 30000;

constexpr const char* kSchema = R"sql(
CREATE TABLE keychain_meta (name TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID;
CREATE TABLE items (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    class TEXT NOT NULL,
    "acct" TEXT NOT NULL DEFAULT '',
    "sdmn" TEXT NOT NULL DEFAULT '',
    "srvr" TEXT NOT NULL DEFAULT '',
    "ptcl" INTEGER NOT NULL DEFAULT 0,
    "atyp" INTEGER NOT NULL DEFAULT 0,
    "port" INTEGER NOT NULL DEFAULT 0,
    "path" TEXT NOT NULL DEFAULT '',
    "svce" TEXT NOT NULL DEFAULT '',
    "gena" BLOB,
    "labl" TEXT,
    "desc" TEXT,
    "icmt" TEXT,
    "crtr" INTEGER,
    "type" INTEGER,
    "invi" INTEGER,
    "nega" INTEGER,
    "cdat" REAL NOT NULL,
    "mdat" REAL NOT NULL,
    secret BLOB
);
CREATE UNIQUE INDEX items_primary_key
    ON items (class, "srvr", "acct", "ptcl", "port", "path", "sdmn", "atyp", "svce");
CREATE INDEX items_service ON items (class, "svce", "acct");
)sql";

Data bytesOf(std::string_view text)
{
    return Data(text.begin(), text.end());
}

OSStatus statusForErrno(int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return errSecNoSuchKeychain;
    case EACCES:
    case EPERM:
        return errSecWrPerm;
    case EROFS:
        return errSecReadOnly;
    case ENOSPC:
    case EDQUOT:
        return errSecDiskFull;
    case EEXIST:
        return errSecDuplicateKeychain;
    default:
        return errSecIO;
    }
}

// Makes every missing directory above `path` with mode 0700.
OSStatus makeParentDirectories(const std::string& path)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string directory = path.substr(0, slash);
        if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
            return statusForErrno(errno);
        }
    }
    return errSecSuccess;
}

std::string directoryOf(const std::string& path)
{
    const auto slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? std::string("/") : path.substr(0, slash);
}

int openConnection(const std::string& path, sqlite3** database)
{
    return sqlite3_open_v2(path.c_str(), database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
}

int execute(sqlite3* database, const char* sql)
{
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

}  // namespace

OSStatus statusForSQLite(int resultCode)
{
    switch (resultCode & 0xff) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
        return errSecSuccess;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return errSecNotAvailable;
    case SQLITE_NOMEM:
        return errSecAllocate;
    case SQLITE_READONLY:
        return errSecReadOnly;
    case SQLITE_PERM:
    case SQLITE_AUTH:
        return errSecWrPerm;
    case SQLITE_FULL:
        return errSecDiskFull;
    case SQLITE_CONSTRAINT:
        return errSecDuplicateItem;
    case SQLITE_CANTOPEN:
        return errSecNoSuchKeychain;
    case SQLITE_IOERR:
        return errSecIO;
    default:
        // Our own statements are right for our own schema, so anything else
        // (not a database, damaged pages, tables that are not ours) means the
        // file is not a usable keychain.
        return errSecInvalidKeychain;
    }
}

void removeJournalFiles(const std::string& path)
{
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        ::unlink((path + suffix).c_str());
    }
}

Statement::Statement(sqlite3* database, std::string_view sql)
    : prepareResult_(sqlite3_prepare_v2(database, sql.data(), static_cast<int>(sql.size()), &statement_, nullptr))
{
}

Statement::~Statement()
{
    sqlite3_finalize(statement_);
}

void Statement::bindText(int index, std::string_view text)
{
    sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void Statement::bindInteger(int index, std::int64_t value)
{
    sqlite3_bind_int64(statement_, index, value);
}

void Statement::bindDouble(int index, double value)
{
    sqlite3_bind_double(statement_, index, value);
}

void Statement::bindBlob(int index, const Data& data)
{
    // A zero-length blob, not NULL, for empty data.
    sqlite3_bind_blob64(statement_, index, data.empty() ? "" : static_cast<const void*>(data.data()), data.size(),
                        SQLITE_TRANSIENT);
}

void Statement::bindNull(int index)
{
    sqlite3_bind_null(statement_, index);
}

int Statement::step()
{
    return statement_ == nullptr ? prepareResult_ : sqlite3_step(statement_);
}

bool Statement::isNull(int column) const
{
    return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}

std::string Statement::text(int column) const
{
    const auto* bytes = sqlite3_column_text(statement_, column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
    return bytes == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(bytes), size);
}

std::int64_t Statement::integer(int column) const
{
    return sqlite3_column_int64(statement_, column);
}

double Statement::real(int column) const
{
    return sqlite3_column_double(statement_, column);
}

Data Statement::blob(int column) const
{
    const auto* bytes = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
    return bytes == nullptr ? Data() : Data(bytes, bytes + size);
}

KeychainFile::~KeychainFile()
{
    sqlite3_close_v2(database_);
}

namespace {

// Idle connections of this process, by path. A connection is taken out while
// an operation uses it, so none is ever shared between threads.
struct ConnectionPool {
    static constexpr std::size_t kIdlePerFile = 4;

    std::mutex mutex;  // guards idle
    std::map<std::string, std::vector<std::unique_ptr<KeychainFile>>> idle;
};

ConnectionPool& connectionPool();

// SQLite connections must not cross a fork. The idle ones are closed before
// it, in the parent; posix_spawn does not come here.
void closeIdleBeforeFork()
{
    auto& pool = connectionPool();
    pool.mutex.lock();
    pool.idle.clear();
}

void unlockAfterFork()
{
    connectionPool().mutex.unlock();
}

ConnectionPool& connectionPool()
{
    // Destroyed at exit, which closes the idle connections (the last close
    // of a keychain still in WAL mode folds its log back into the file).
    static ConnectionPool pool;
    static std::once_flag forkHandlers;
    std::call_once(forkHandlers, [] { ::pthread_atfork(closeIdleBeforeFork, unlockAfterFork, unlockAfterFork); });
    return pool;
}

}  // namespace

void KeychainFileRelease::operator()(KeychainFile* file) const
{
    std::unique_ptr<KeychainFile> owned(file);
    if (sqlite3_get_autocommit(owned->database_) == 0) {
        owned->rollback();
    }
    auto& pool = connectionPool();
    std::lock_guard lock(pool.mutex);
    auto& idle = pool.idle[owned->path_];
    if (idle.size() < ConnectionPool::kIdlePerFile) {
        idle.push_back(std::move(owned));
    }
}

void KeychainFile::closeIdleConnections(const std::string& path)
{
    std::vector<std::unique_ptr<KeychainFile>> closing;
    {
        auto& pool = connectionPool();
        std::lock_guard lock(pool.mutex);
        if (const auto found = pool.idle.find(path); found != pool.idle.end()) {
            closing = std::move(found->second);
            pool.idle.erase(found);
        }
    }
}

KeychainFileRef KeychainFile::takeIdleConnection(const std::string& path, std::uint64_t device, std::uint64_t inode)
{
    // An idle connection to this very file, not to one since put in its
    // place; those to a replaced file are closed.
    std::vector<std::unique_ptr<KeychainFile>> stale;
    auto& pool = connectionPool();
    std::lock_guard lock(pool.mutex);
    const auto found = pool.idle.find(path);
    if (found == pool.idle.end()) {
        return nullptr;
    }
    auto& idle = found->second;
    while (!idle.empty()) {
        auto candidate = std::move(idle.back());
        idle.pop_back();
        if (candidate->device_ == device && candidate->inode_ == inode) {
            return KeychainFileRef(candidate.release());
        }
        stale.push_back(std::move(candidate));
    }
    return nullptr;
}

OSStatus KeychainFile::connect(const std::string& path, std::uint64_t device, std::uint64_t inode,
                               KeychainFileRef* file)
{
    sqlite3* database = nullptr;
    // Read-write even for reading: a reader that finds the journal of a
    // writer that died must roll it back. SQLite falls back to read-only
    // when the file is write-protected.
    const int result = openConnection(path, &database);
    std::unique_ptr<KeychainFile> connection(new KeychainFile(path, database));
    connection->device_ = device;
    connection->inode_ = inode;
    if (result != SQLITE_OK) {
        // Not given to the pool: this connection is of no use.
        return result == SQLITE_CANTOPEN && ::access(path.c_str(), R_OK) != 0 ? statusForErrno(errno)
                                                                              : statusForSQLite(result);
    }
    if (const OSStatus status = connection->configure(); status != errSecSuccess) {
        return status;
    }
    file->reset(connection.release());
    return errSecSuccess;
}

OSStatus KeychainFile::open(const std::string& path, OpenMode mode, KeychainFileRef* file)
{
    struct stat information {};
    if (::stat(path.c_str(), &information) != 0) {
        if ((errno != ENOENT && errno != ENOTDIR) || mode != OpenMode::WriteCreating) {
            return statusForErrno(errno);
        }
        KeychainFileRef created;
        const OSStatus status = create(path, std::nullopt, nullptr, &created);
        if (status == errSecSuccess) {
            *file = std::move(created);
            return status;
        }
        // Another process created it first: use theirs.
        if (status != errSecDuplicateKeychain || ::stat(path.c_str(), &information) != 0) {
            return status;
        }
    }
    if (!S_ISREG(information.st_mode)) {
        return errSecInvalidKeychain;
    }

    KeychainFileRef opened = takeIdleConnection(path, information.st_dev, information.st_ino);
    OSStatus status = opened ? errSecSuccess : connect(path, information.st_dev, information.st_ino, &opened);
    if (status != errSecSuccess) {
        return status;
    }
    // A read sees the file through one snapshot, taken under one shared
    // lock with its first page. The metadata is read each time: another
    // process may have given an empty file its tables since.
    if (mode == OpenMode::Read) {
        status = statusForSQLite(execute(opened->database_, "BEGIN"));
    }
    if (status == errSecSuccess) {
        status = opened->readHeaderAndMetadata();
    }
    if (status == errSecSuccess && opened->isUninitialised() && mode != OpenMode::Read) {
        status = opened->initialise(std::nullopt, nullptr);
    }
    if (status != errSecSuccess) {
        // A connection to a file that is not a usable keychain stays out of
        // the pool.
        delete opened.release();
        return status;
    }
    *file = std::move(opened);
    return status;
}

OSStatus KeychainFile::create(const std::string& path, const std::optional<KeyDerivation>& derivation,
                              const SecretKey* key, KeychainFileRef* file)
{
    if (const OSStatus status = makeParentDirectories(path); status != errSecSuccess) {
        return status;
    }
    // The file is made complete under a temporary name and then linked into
    // place, so no other process ever sees it half made (and, say, takes an
    // empty password-protected keychain for one without a password).
    std::string temporary = directoryOf(path) + "/.keychain-XXXXXX";
    const int descriptor = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) {
        return statusForErrno(errno);
    }
    ::fchmod(descriptor, 0600);
    ::close(descriptor);

    OSStatus status = errSecSuccess;
    {
        sqlite3* database = nullptr;
        const int result = openConnection(temporary, &database);
        KeychainFile made(temporary, database);
        status = result == SQLITE_OK ? made.configure() : statusForSQLite(result);
        if (status == errSecSuccess) {
            status = made.initialise(derivation, key);
        }
    }
    if (status == errSecSuccess && ::link(temporary.c_str(), path.c_str()) != 0) {
        status = statusForErrno(errno);
    }
    ::unlink(temporary.c_str());
    removeJournalFiles(temporary);
    if (status != errSecSuccess) {
        return status;
    }
    return open(path, OpenMode::Write, file);
}

OSStatus KeychainFile::configure()
{
    sqlite3_extended_result_codes(database_, 1);
    sqlite3_busy_timeout(database_, kBusyTimeoutMilliseconds);
    // A keychain file may come from anywhere: never let its schema run code.
    sqlite3_db_config(database_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    return errSecSuccess;
}

OSStatus KeychainFile::configureForWriting()
{
    if (configuredForWriting_) {
        return errSecSuccess;
    }
    // FULL syncs the journal before the file is touched and the file before
    // the journal goes, so not even a power cut loses a committed item;
    // keychain writes are rare enough to afford it. secure_delete overwrites
    // the pages of deleted secrets.
    const int result = execute(database_, "PRAGMA synchronous=FULL; PRAGMA secure_delete=ON;");
    configuredForWriting_ = result == SQLITE_OK;
    return statusForSQLite(result);
}

OSStatus KeychainFile::readHeaderAndMetadata()
{
    identity_.clear();
    derivation_.reset();
    verifier_.clear();
    // One statement on the common path: the metadata says whether the file
    // is ours. Only when there is no metadata table is the file looked at
    // further: a database without tables is a keychain not yet initialised.
    Statement metadata(database_, "SELECT name, value FROM keychain_meta");
    if (metadata.prepareResult() != SQLITE_OK) {
        if ((metadata.prepareResult() & 0xff) != SQLITE_ERROR) {
            return statusForSQLite(metadata.prepareResult());
        }
        Statement tables(database_, "SELECT count(*) FROM sqlite_schema");
        const int counted = tables.step();
        if (counted != SQLITE_ROW) {
            return statusForSQLite(counted);
        }
        return tables.integer(0) == 0 ? errSecSuccess : errSecInvalidKeychain;
    }
    std::string format;
    std::int64_t version = 0;
    KeyDerivation derivation;
    bool hasSalt = false;
    int result;
    while ((result = metadata.step()) == SQLITE_ROW) {
        const std::string name = metadata.text(0);
        if (name == "format") {
            format = metadata.text(1);
        } else if (name == "version") {
            version = metadata.integer(1);
        } else if (name == "identity") {
            identity_ = metadata.text(1);
        } else if (name == "salt") {
            derivation.salt = metadata.blob(1);
            hasSalt = true;
        } else if (name == "opslimit") {
            derivation.opsLimit = static_cast<std::uint64_t>(metadata.integer(1));
        } else if (name == "memlimit") {
            derivation.memLimit = static_cast<std::uint64_t>(metadata.integer(1));
        } else if (name == "verifier") {
            verifier_ = metadata.blob(1);
        }
    }
    if (result != SQLITE_DONE) {
        identity_.clear();
        return statusForSQLite(result);
    }
    if (format != kFormatName || version != kFormatVersion || identity_.empty() ||
        (hasSalt && (!derivation.isPlausible() || verifier_.empty()))) {
        identity_.clear();
        return errSecInvalidKeychain;
    }
    if (hasSalt) {
        derivation_ = std::move(derivation);
    }
    return errSecSuccess;
}

OSStatus KeychainFile::initialise(const std::optional<KeyDerivation>& derivation, const SecretKey* key)
{
    if (const OSStatus status = beginWrite(); status != errSecSuccess) {
        return status;
    }
    // Another process may have initialised it while this one waited.
    OSStatus status = readHeaderAndMetadata();
    if (status != errSecSuccess || !isUninitialised()) {
        rollback();
        return status;
    }
    int result = execute(database_, kSchema);
    const std::string identity = randomIdentity();
    auto setMeta = [this, &result](std::string_view name, auto bind) {
        if (result != SQLITE_OK) {
            return;
        }
        Statement insert(database_, "INSERT INTO keychain_meta (name, value) VALUES (?1, ?2)");
        insert.bindText(1, name);
        bind(insert);
        const int stepped = insert.step();
        result = stepped == SQLITE_DONE ? SQLITE_OK : stepped;
    };
    setMeta("format", [](Statement& insert) { insert.bindText(2, kFormatName); });
    setMeta("version", [](Statement& insert) { insert.bindInteger(2, kFormatVersion); });
    setMeta("identity", [&identity](Statement& insert) { insert.bindText(2, identity); });
    if (derivation && key != nullptr) {
        const Data verifier = sealSecret(*key, bytesOf(kVerifierText), kVerifierAssociatedData);
        setMeta("salt", [&derivation](Statement& insert) { insert.bindBlob(2, derivation->salt); });
        setMeta("opslimit", [&derivation](Statement& insert) {
            insert.bindInteger(2, static_cast<std::int64_t>(derivation->opsLimit));
        });
        setMeta("memlimit", [&derivation](Statement& insert) {
            insert.bindInteger(2, static_cast<std::int64_t>(derivation->memLimit));
        });
        setMeta("verifier", [&verifier](Statement& insert) { insert.bindBlob(2, verifier); });
    }
    if (result == SQLITE_OK) {
        result = execute(database_, ("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
    }
    if (result != SQLITE_OK) {
        rollback();
        return statusForSQLite(result);
    }
    if (status = commit(); status != errSecSuccess) {
        return status;
    }
    return readHeaderAndMetadata();
}

bool KeychainFile::verifiesKey(const SecretKey& key) const
{
    Data opened;
    const bool verified = openSecret(key, verifier_, kVerifierAssociatedData, &opened) && opened == bytesOf(kVerifierText);
    wipe(opened);
    return verified;
}

OSStatus KeychainFile::beginWrite()
{
    if (const OSStatus status = configureForWriting(); status != errSecSuccess) {
        return status;
    }
    // IMMEDIATE takes the write lock up front, through the busy handler; a
    // deferred transaction that upgrades later could fail at once instead.
    return statusForSQLite(execute(database_, "BEGIN IMMEDIATE"));
}

OSStatus KeychainFile::commit()
{
    const int result = execute(database_, "COMMIT");
    if (result != SQLITE_OK) {
        rollback();
    }
    return statusForSQLite(result);
}

void KeychainFile::rollback()
{
    if (sqlite3_get_autocommit(database_) == 0) {
        execute(database_, "ROLLBACK");
    }
}

}  // namespace platform::security
