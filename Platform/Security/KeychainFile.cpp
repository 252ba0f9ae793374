#include "Platform/Security/KeychainFile.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
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
constexpr int kDefaultBusyWaitMilliseconds = 30000;
// A wait this long is worth telling a person about.
constexpr std::chrono::seconds kBusyNoticeAfter{1};
// The progress handler runs every this many SQLite instructions.
constexpr int kInstructionsPerWorkUnit = 1000;
constexpr std::string_view kAllowReadableVariable = "ZARVO_KEYCHAIN_ALLOW_READABLE";
// Files being made by create() are called ".keychain-XXXXXX.incomplete":
// six random characters between, and a name no one would give a file of
// their own, since a stale one is deleted.
constexpr std::string_view kStagingPrefix = ".keychain-";
constexpr std::string_view kStagingSuffix = ".incomplete";

// The schema, entry by entry as sqlite_schema holds it. A file is opened
// only when its schema is exactly this, so the text is part of the file
// format: files made since the first version hold these very words, and a
// change here needs a new format version that still accepts the old text.
struct SchemaEntry {
    std::string_view type;
    std::string_view name;
    std::string_view table;
    std::string_view sql;
    bool madeBySQLite;  // for AUTOINCREMENT; comes with the items table
};
constexpr SchemaEntry kSchema[] = {
    {"table", "keychain_meta", "keychain_meta",
     "CREATE TABLE keychain_meta (name TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID", false},
    {"table", "items", "items", R"sql(CREATE TABLE items (
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
))sql",
     false},
    {"table", "sqlite_sequence", "sqlite_sequence", "CREATE TABLE sqlite_sequence(name,seq)", true},
    {"index", "items_primary_key", "items", R"sql(CREATE UNIQUE INDEX items_primary_key
    ON items (class, "srvr", "acct", "ptcl", "port", "path", "sdmn", "atyp", "svce"))sql",
     false},
    {"index", "items_service", "items", R"sql(CREATE INDEX items_service ON items (class, "svce", "acct"))sql", false},
};

std::atomic<int> busyWaitMilliseconds{kDefaultBusyWaitMilliseconds};
std::atomic<NoticeHandler> noticeHandler{nullptr};
std::atomic<bool> busyNoticeGiven{false};
std::atomic<std::uint32_t> stepWorkLimit{kDefaultStepWorkLimit};
// The work units the current step of this thread has used. A connection is
// used by one thread at a time, and each step starts the count again.
thread_local std::uint32_t stepWorkUsed = 0;
thread_local std::string refusalReason;

int limitStepWork(void*)
{
    return ++stepWorkUsed > stepWorkLimit.load(std::memory_order_relaxed) ? 1 : 0;
}

void notify(const std::string& line)
{
    if (const auto handler = noticeHandler.load()) {
        handler(line);
    }
}

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
    stepWorkUsed = 0;
    return sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

// A path as one line of text: control characters become "?".
std::string printable(std::string_view path)
{
    std::string text(path);
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}

std::string modeText(mode_t mode)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

OSStatus refuse(const std::string& path, const std::string& why)
{
    refusalReason = "refusing the keychain " + printable(path) + ": " + why;
    return errSecUnprotectedKeychain;
}

bool isOwnedByUserOrRoot(const struct stat& information)
{
    return information.st_uid == ::geteuid() || information.st_uid == 0;
}

// Why another user could replace a file in `directory`, the keychain's own
// directory when `ownDirectory`, or nothing when no one else can: it must
// belong to this user or root and be writable by no one else, unless its
// sticky bit keeps others from renaming entries they do not own. The
// keychain's own directory gets no such leave: a sticky bit does not stop
// others creating the keychain's journal there, which SQLite would then read
// or write. Group-writable counts as writable by others, as for the file
// itself.
std::optional<std::string> directoryFault(const std::string& directory, const struct stat& information,
                                          bool ownDirectory)
{
    if (!isOwnedByUserOrRoot(information)) {
        return "its directory " + printable(directory) + " belongs to user " + std::to_string(information.st_uid) +
               ", who could replace it";
    }
    const bool sharedWithOthers = (information.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    if (sharedWithOthers && ownDirectory) {
        return "other users can add files to its directory " + printable(directory) + " (mode " +
               modeText(information.st_mode) + ")";
    }
    if (sharedWithOthers && (information.st_mode & S_ISVTX) == 0) {
        return "other users can change its directory " + printable(directory) + " (mode " +
               modeText(information.st_mode) + ", no sticky bit)";
    }
    return std::nullopt;
}

// Calls `visit(directory, ownDirectory)` for the keychain's own directory and
// then each one above it, up to "/", while it returns true; true when it did
// for all of them.
template <typename Visit>
bool everyDirectoryUpward(std::string directory, const Visit& visit)
{
    for (bool ownDirectory = true;; ownDirectory = false) {
        if (!visit(directory, ownDirectory)) {
            return false;
        }
        if (directory == "/") {
            return true;
        }
        directory = directoryOf(directory);
    }
}

// Whether another user could replace a file in `directory` or anything
// above it, up to "/" (see directoryFault).
OSStatus checkDirectories(const std::string& keychainPath, std::string directory)
{
    OSStatus status = errSecSuccess;
    everyDirectoryUpward(std::move(directory), [&](const std::string& each, bool ownDirectory) {
        struct stat information {};
        if (::stat(each.c_str(), &information) != 0) {
            status = statusForErrno(errno);
        } else if (const auto fault = directoryFault(each, information, ownDirectory)) {
            status = refuse(keychainPath, *fault);
        }
        return status == errSecSuccess;
    });
    return status;
}

// An absolute path without "." or ".." parts, empty parts or a final "/":
// one that names its file's real place if none of its parts is a link.
bool isPlainAbsolutePath(std::string_view path)
{
    if (path.size() < 2 || path.front() != '/' || path.back() == '/') {
        return false;
    }
    for (std::size_t start = 1; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const auto part = path.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") {
            return false;
        }
        start = end + 1;
    }
    return true;
}

// Whether `path` is already the real path of the file `file` describes, and
// every directory above it safe: no part of it is a link (lstat on each
// entry, from the file up), its last entry is that very file, and no
// directory has a fault. Costs the lstat calls that the directory check makes
// anyway, where asking the kernel for the descriptor's name (/proc) is a
// path walk through procfs of its own. Anything else is left to the full
// check, which also words any refusal.
bool isSafeRealPath(const std::string& path, const struct stat& file)
{
    if (!isPlainAbsolutePath(path)) {
        return false;
    }
    struct stat information {};
    if (::lstat(path.c_str(), &information) != 0 || !S_ISREG(information.st_mode) ||
        information.st_dev != file.st_dev || information.st_ino != file.st_ino) {
        return false;
    }
    return everyDirectoryUpward(directoryOf(path), [&information](const std::string& directory, bool ownDirectory) {
        return ::lstat(directory.c_str(), &information) == 0 && S_ISDIR(information.st_mode) &&
               !directoryFault(directory, information, ownDirectory);
    });
}

// The canonical path of an open file, from the kernel's view of it.
std::string realPathOf(int descriptor, const std::string& path)
{
    char link[PATH_MAX];
    const std::string procPath = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = ::readlink(procPath.c_str(), link, sizeof link);
    if (length > 0 && static_cast<std::size_t>(length) < sizeof link && link[0] == '/') {
        return std::string(link, static_cast<std::size_t>(length));
    }
    // Without /proc: resolved again by name, which the directory check then
    // covers.
    char* resolved = ::realpath(path.c_str(), nullptr);
    std::string real = resolved != nullptr ? resolved : path;
    std::free(resolved);
    return real;
}

bool readableByOthersAllowed()
{
    const char* allowed = std::getenv(kAllowReadableVariable.data());
    return allowed != nullptr && std::string_view(allowed) == "1";
}

// What open() learns about a keychain file before SQLite sees it.
struct FileFacts {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::string realPath;
};

// Looks at the file without opening it for reading (O_PATH: a device or a
// FIFO at the path is never opened), and checks, on that very descriptor,
// who could read or replace it.
OSStatus examineFile(const std::string& path, OpenMode mode, FileFacts* facts)
{
    const int descriptor = ::open(path.c_str(), O_PATH | O_CLOEXEC);
    if (descriptor < 0) {
        return statusForErrno(errno);
    }
    struct stat information {};
    OSStatus status = ::fstat(descriptor, &information) == 0 ? errSecSuccess : statusForErrno(errno);
    if (status == errSecSuccess && !S_ISREG(information.st_mode)) {
        status = errSecInvalidKeychain;
    }
    bool directoriesSafe = false;
    if (status == errSecSuccess) {
        facts->device = information.st_dev;
        facts->inode = information.st_ino;
        directoriesSafe = isSafeRealPath(path, information);
        facts->realPath = directoriesSafe ? path : realPathOf(descriptor, path);
    }
    ::close(descriptor);
    if (status != errSecSuccess) {
        return status;
    }
    if (!isOwnedByUserOrRoot(information)) {
        return refuse(path, "it belongs to user " + std::to_string(information.st_uid) + ", not to you");
    }
    if (!directoriesSafe) {
        if (status = checkDirectories(path, directoryOf(facts->realPath)); status != errSecSuccess) {
            return status;
        }
    }
    const bool writableByOthers = (information.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    const bool readableByOthers = (information.st_mode & (S_IRGRP | S_IROTH)) != 0;
    if (!writableByOthers && (!readableByOthers || readableByOthersAllowed())) {
        return errSecSuccess;
    }
    const bool ownFile = information.st_uid == ::geteuid();
    if (ownFile && mode == OpenMode::Examine) {
        return errSecSuccess;
    }
    if (ownFile && (mode == OpenMode::Write || mode == OpenMode::WriteCreating)) {
        // The directories are safe, so the real path still names this file.
        if (::chmod(facts->realPath.c_str(), 0600) != 0) {
            return refuse(path, "its mode " + modeText(information.st_mode) + " could not be made 0600");
        }
        notify("made the keychain " + printable(path) + " private (mode 0600; it was " +
               modeText(information.st_mode) + ")");
        return errSecSuccess;
    }
    if (writableByOthers) {
        return refuse(path, "other users can change it (mode " + modeText(information.st_mode) +
                                "); make it private with chmod 600");
    }
    return refuse(path, "other users can read it (mode " + modeText(information.st_mode) +
                            "); make it private with chmod 600, or set " + std::string(kAllowReadableVariable) +
                            "=1 to allow that");
}

// Takes the lock that says "a live process is making this staging file":
// an open-file-description lock on byte 0, which SQLite's own locks (far
// beyond the first page) never overlap. Held until the descriptor closes.
bool lockStagingFile(int descriptor, short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 1;
    return ::fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

// Whether `name` is one of our staging files (`*suffix` empty) or one of
// their journals (`*suffix` is "-journal", "-wal" or "-shm").
bool isStagingName(std::string_view name, std::string_view* suffix)
{
    constexpr std::size_t kRandomLength = 6;
    const std::size_t fixedLength = kStagingPrefix.size() + kRandomLength + kStagingSuffix.size();
    if (name.size() < fixedLength || !name.starts_with(kStagingPrefix) ||
        name.substr(kStagingPrefix.size() + kRandomLength, kStagingSuffix.size()) != kStagingSuffix) {
        return false;
    }
    const auto random = name.substr(kStagingPrefix.size(), kRandomLength);
    if (!std::all_of(random.begin(), random.end(), [](char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        })) {
        return false;
    }
    *suffix = name.substr(fixedLength);
    return suffix->empty() || *suffix == "-journal" || *suffix == "-wal" || *suffix == "-shm";
}

// The staging files this process is making. Another thread's cleaner must
// not so much as open one: closing any descriptor of a file drops every
// POSIX lock this process holds on it, SQLite's among them.
struct StagingFiles {
    std::mutex mutex;  // guards paths
    std::set<std::string> paths;
};

StagingFiles& stagingFiles()
{
    static StagingFiles files;
    return files;
}

bool isBeingMadeHere(const std::string& path)
{
    auto& files = stagingFiles();
    std::lock_guard lock(files.mutex);
    return files.paths.contains(path);
}

void markBeingMadeHere(const std::string& path, bool making)
{
    auto& files = stagingFiles();
    std::lock_guard lock(files.mutex);
    if (making) {
        files.paths.insert(path);
    } else {
        files.paths.erase(path);
    }
}

OSStatus resolvedDirectoryOf(const std::string& path, std::string* directory)
{
    char* resolved = ::realpath(directoryOf(path).c_str(), nullptr);
    if (resolved == nullptr) {
        return statusForErrno(errno);
    }
    *directory = resolved;
    std::free(resolved);
    return errSecSuccess;
}

// A new staging file in `directory`, mode 0600, locked for as long as it is
// open, so that cleaners in other processes leave it alone.
OSStatus openStagingFile(const std::string& directory, std::string* temporary, int* descriptor)
{
    for (int attempt = 0; attempt < 8; ++attempt) {
        *temporary = directory + "/" + std::string(kStagingPrefix) + "XXXXXX" + std::string(kStagingSuffix);
        *descriptor = ::mkostemps(temporary->data(), static_cast<int>(kStagingSuffix.size()), O_CLOEXEC);
        if (*descriptor < 0) {
            return statusForErrno(errno);
        }
        // A cleaner may have taken it for stale before the lock was on.
        struct stat information {};
        if (lockStagingFile(*descriptor, F_WRLCK) && ::fstat(*descriptor, &information) == 0 && information.st_nlink > 0) {
            ::fchmod(*descriptor, 0600);
            return errSecSuccess;
        }
        ::close(*descriptor);
    }
    *descriptor = -1;
    return errSecIO;
}

// Removes what a create() killed midway left in `directory`: staging files
// of this user that no live creator holds locked, and journals whose
// staging file is gone. A creator still at work keeps its lock, so its file
// stays.
void removeStaleStagingFiles(const std::string& directory)
{
    DIR* listing = ::opendir(directory.c_str());
    if (listing == nullptr) {
        return;
    }
    const int directoryDescriptor = ::dirfd(listing);
    std::vector<std::string> orphanJournals;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string_view name = entry->d_name;
        std::string_view suffix;
        if (!isStagingName(name, &suffix)) {
            continue;
        }
        if (!suffix.empty()) {
            orphanJournals.emplace_back(name);
            continue;
        }
        if (isBeingMadeHere(directory + "/" + std::string(name))) {
            continue;
        }
        const int descriptor =
            ::openat(directoryDescriptor, entry->d_name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (descriptor < 0) {
            continue;
        }
        struct stat information {};
        if (::fstat(descriptor, &information) == 0 && S_ISREG(information.st_mode) &&
            information.st_uid == ::geteuid() && lockStagingFile(descriptor, F_RDLCK)) {
            ::unlinkat(directoryDescriptor, entry->d_name, 0);
        }
        ::close(descriptor);
    }
    for (const auto& journal : orphanJournals) {
        const std::string stagingName = journal.substr(0, journal.rfind('-'));
        struct stat information {};
        const bool stagingFileGone =
            ::fstatat(directoryDescriptor, stagingName.c_str(), &information, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
        if (stagingFileGone &&
            ::fstatat(directoryDescriptor, journal.c_str(), &information, AT_SYMLINK_NOFOLLOW) == 0 &&
            information.st_uid == ::geteuid()) {
            ::unlinkat(directoryDescriptor, journal.c_str(), 0);
        }
    }
    ::closedir(listing);
}

}  // namespace

void setBusyWait(std::chrono::milliseconds limit)
{
    busyWaitMilliseconds.store(static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(limit.count(), 0, INT_MAX)));
}

void setNoticeHandler(NoticeHandler handler)
{
    noticeHandler.store(handler);
}

std::string lastRefusalReason()
{
    return refusalReason;
}

void setStepWorkLimit(std::uint32_t thousandsOfInstructions)
{
    stepWorkLimit.store(thousandsOfInstructions);
}

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

void Statement::bindSecret(int index, const Data& secret)
{
    sqlite3_bind_blob64(statement_, index, secret.empty() ? "" : static_cast<const void*>(secret.data()), secret.size(),
                        SQLITE_STATIC);
}

void Statement::bindNull(int index)
{
    sqlite3_bind_null(statement_, index);
}

int Statement::step()
{
    stepWorkUsed = 0;
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

std::string_view Statement::textView(int column) const
{
    const auto* bytes = sqlite3_column_text(statement_, column);
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
    return bytes == nullptr ? std::string_view() : std::string_view(reinterpret_cast<const char*>(bytes), size);
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

OSStatus KeychainFile::connect(const std::string& path, const std::string& realPath, std::uint64_t device,
                               std::uint64_t inode, KeychainFileRef* file)
{
    sqlite3* database = nullptr;
    // Read-write even for reading: a reader that finds the journal of a
    // writer that died must roll it back. SQLite falls back to read-only
    // when the file is write-protected.
    const int result = openConnection(realPath, &database);
    std::unique_ptr<KeychainFile> connection(new KeychainFile(path, database));
    connection->device_ = device;
    connection->inode_ = inode;
    if (result != SQLITE_OK) {
        // Not given to the pool: this connection is of no use.
        return result == SQLITE_CANTOPEN && ::access(realPath.c_str(), R_OK) != 0 ? statusForErrno(errno)
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
    FileFacts facts;
    OSStatus status = examineFile(path, mode, &facts);
    if (status == errSecNoSuchKeychain && mode == OpenMode::WriteCreating) {
        KeychainFileRef created;
        status = create(path, std::nullopt, nullptr, &created);
        if (status == errSecSuccess) {
            *file = std::move(created);
            return status;
        }
        // Another process created it first: use theirs.
        if (status == errSecDuplicateKeychain) {
            status = examineFile(path, mode, &facts);
        }
    }
    if (status != errSecSuccess) {
        return status;
    }

    KeychainFileRef opened = takeIdleConnection(path, facts.device, facts.inode);
    status = opened ? errSecSuccess : connect(path, facts.realPath, facts.device, facts.inode, &opened);
    if (status != errSecSuccess) {
        return status;
    }
    // A read sees the file through one snapshot, taken under one shared
    // lock with its first page. The schema and the metadata are read each
    // time: another process may have given an empty file its tables since.
    // Reading the header's schema version first takes that lock before
    // anything needs the schema, so SQLite parses it inside this snapshot;
    // otherwise the first prepare would take and drop a lock of its own to
    // parse it (looking for a hot journal each time) and the first step
    // would take another. The version touches no table.
    if (mode == OpenMode::Read || mode == OpenMode::Examine) {
        status = statusForSQLite(execute(opened->database_, "BEGIN; PRAGMA schema_version"));
    }
    if (status == errSecSuccess) {
        status = opened->readHeaderAndMetadata();
    }
    if (status == errSecSuccess && opened->isUninitialised() &&
        (mode == OpenMode::Write || mode == OpenMode::WriteCreating)) {
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
    // Everything below happens in the directory as checked: its resolved
    // path, so a link on the way cannot be turned elsewhere in between.
    std::string directory;
    if (const OSStatus status = resolvedDirectoryOf(path, &directory); status != errSecSuccess) {
        return status;
    }
    if (const OSStatus status = checkDirectories(path, directory); status != errSecSuccess) {
        return status;
    }
    const std::string target = directory + "/" + path.substr(path.rfind('/') + 1);
    removeStaleStagingFiles(directory);
    // The file is made complete under a temporary name and then linked into
    // place, so no other process ever sees it half made (and, say, takes an
    // empty password-protected keychain for one without a password). The
    // lock on it tells a later create() in this directory that its maker
    // is alive; one that finds it unlocked removes it.
    std::string temporary;
    int descriptor = -1;
    if (const OSStatus status = openStagingFile(directory, &temporary, &descriptor); status != errSecSuccess) {
        return status;
    }
    markBeingMadeHere(temporary, true);

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
    if (status == errSecSuccess && ::link(temporary.c_str(), target.c_str()) != 0) {
        status = statusForErrno(errno);
    }
    ::unlink(temporary.c_str());
    removeJournalFiles(temporary);
    markBeingMadeHere(temporary, false);
    // Closed only now: SQLite has let go of the file, and closing drops the
    // lock.
    ::close(descriptor);
    if (status != errSecSuccess) {
        return status;
    }
    return open(path, OpenMode::Write, file);
}

OSStatus KeychainFile::configure()
{
    sqlite3_extended_result_codes(database_, 1);
    sqlite3_busy_handler(database_, waitWhileBusy, this);
    // A keychain file may come from anywhere: never let its schema run code,
    // and never let one step of a statement run on without end.
    sqlite3_db_config(database_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_progress_handler(database_, kInstructionsPerWorkUnit, limitStepWork, nullptr);
    return errSecSuccess;
}

int KeychainFile::waitWhileBusy(void* connection, int attempt)
{
    auto* file = static_cast<KeychainFile*>(connection);
    const auto now = std::chrono::steady_clock::now();
    if (attempt == 0) {
        file->busySince_ = now;
    }
    const auto waited = now - file->busySince_;
    const auto limit = std::chrono::milliseconds(busyWaitMilliseconds.load(std::memory_order_relaxed));
    if (waited >= limit) {
        return 0;
    }
    if (waited >= kBusyNoticeAfter && !busyNoticeGiven.exchange(true)) {
        notify("waiting for another program to finish with the keychain " + printable(file->path_));
    }
    // Short sleeps first: most waits are for a commit, which takes
    // milliseconds.
    static constexpr int kDelays[] = {1, 2, 5, 10, 15, 20, 25, 25, 25, 50, 50, 100};
    constexpr int kLastDelay = static_cast<int>(std::size(kDelays)) - 1;
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
        std::chrono::milliseconds(kDelays[std::min(attempt, kLastDelay)]), limit - waited));
    return 1;
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

OSStatus KeychainFile::checkSchema(bool* isEmpty)
{
    // The first statement of an open that reads a table (a read has only
    // read the header before), so any statement that follows touches only
    // tables known to be ours: an items "table" that is really an endless
    // view never runs.
    Statement schema(database_, "SELECT type, name, tbl_name, sql FROM sqlite_schema");
    std::array<bool, std::size(kSchema)> seen{};
    std::size_t rows = 0;
    int result;
    while ((result = schema.step()) == SQLITE_ROW) {
        ++rows;
        const auto matches = [&schema](const SchemaEntry& entry) {
            return schema.textView(0) == entry.type && schema.textView(1) == entry.name &&
                   schema.textView(2) == entry.table && schema.textView(3) == entry.sql;
        };
        const auto* found = std::find_if(std::begin(kSchema), std::end(kSchema), matches);
        const auto index = static_cast<std::size_t>(found - std::begin(kSchema));
        if (found == std::end(kSchema) || seen[index]) {
            return errSecInvalidKeychain;
        }
        seen[index] = true;
    }
    if (result != SQLITE_DONE) {
        return statusForSQLite(result);
    }
    *isEmpty = rows == 0;
    return rows == 0 || rows == std::size(kSchema) ? errSecSuccess : errSecInvalidKeychain;
}

OSStatus KeychainFile::readHeaderAndMetadata()
{
    identity_.clear();
    derivation_.reset();
    verifier_.clear();
    // A database without tables is a keychain not yet initialised.
    bool isEmpty = false;
    if (const OSStatus status = checkSchema(&isEmpty); status != errSecSuccess || isEmpty) {
        return status;
    }
    Statement metadata(database_, "SELECT name, value FROM keychain_meta");
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
    int result = SQLITE_OK;
    for (const auto& entry : kSchema) {
        if (!entry.madeBySQLite && result == SQLITE_OK) {
            result = execute(database_, std::string(entry.sql).c_str());
        }
    }
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
