// KeychainFile: one open connection to a keychain database. Private to
// Platform/Security.
//
// The file is an SQLite database with a rollback journal: readers and
// writers queue behind one another through a busy time-out (a write holds
// the file for the moment of its commit only), and a process killed in the
// middle of a write leaves a journal from which the next opener restores
// every committed item. A connection serves one operation at a time; between
// operations it waits in a per-file pool of this process, and it never
// crosses a fork.
//
// Opening for reading begins a read transaction and runs no statement but
// the one that reads the few rows of metadata; the settings that only writes
// need are made by the first write on a connection. Opening for writing
// creates the file and its tables when asked to.
#pragma once

#include "Platform/Foundation/Value.h"
#include "Platform/Security/KeychainCrypto.h"
#include "Platform/Security/SecBase.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace platform::security {

class KeychainFile;

// Gives a borrowed connection back to the pool (or closes it).
struct KeychainFileRelease {
    void operator()(KeychainFile* file) const;
};
using KeychainFileRef = std::unique_ptr<KeychainFile, KeychainFileRelease>;

enum class OpenMode {
    Read,            // a missing file answers errSecNoSuchKeychain
    Write,           // likewise; an empty file is given its tables
    WriteCreating,   // a missing file is created, with its directory
};

class KeychainFile {
public:
    ~KeychainFile();
    KeychainFile(const KeychainFile&) = delete;
    KeychainFile& operator=(const KeychainFile&) = delete;

    static OSStatus open(const std::string& path, OpenMode mode, KeychainFileRef* file);
    // Creates a new file, failing with errSecDuplicateKeychain when one is
    // there; with a derivation, a password-protected one whose key is given.
    static OSStatus create(const std::string& path, const std::optional<KeyDerivation>& derivation,
                           const SecretKey* key, KeychainFileRef* file);
    // Closes the idle connections to a file that is about to be deleted.
    static void closeIdleConnections(const std::string& path);

    const std::string& path() const { return path_; }
    // A file that exists but was never given its tables: it holds nothing.
    bool isUninitialised() const { return identity_.empty(); }
    const std::string& identity() const { return identity_; }
    const std::optional<KeyDerivation>& derivation() const { return derivation_; }
    bool hasPassword() const { return derivation_.has_value(); }
    // Whether `key` is this file's key (checked against a sealed constant).
    bool verifiesKey(const SecretKey& key) const;

    sqlite3* database() const { return database_; }

    OSStatus beginWrite();
    OSStatus commit();
    void rollback();

private:
    friend struct KeychainFileRelease;

    KeychainFile(std::string path, sqlite3* database) : path_(std::move(path)), database_(database) {}
    static KeychainFileRef takeIdleConnection(const std::string& path, std::uint64_t device, std::uint64_t inode);
    static OSStatus connect(const std::string& path, std::uint64_t device, std::uint64_t inode, KeychainFileRef* file);
    OSStatus configure();
    OSStatus configureForWriting();
    OSStatus readHeaderAndMetadata();
    OSStatus initialise(const std::optional<KeyDerivation>& derivation, const SecretKey* key);

    std::string path_;
    sqlite3* database_;
    // The file this connection has open, to tell a replaced file.
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
    bool configuredForWriting_ = false;
    std::string identity_;
    std::optional<KeyDerivation> derivation_;
    Data verifier_;
};

// The keychain status for an SQLite result code.
OSStatus statusForSQLite(int resultCode);

// Removes the journal files SQLite may keep beside a keychain file: a
// rollback journal, or the log and index of a file made in WAL mode.
void removeJournalFiles(const std::string& path);

// A prepared statement that finalises itself.
class Statement {
public:
    Statement(sqlite3* database, std::string_view sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    int prepareResult() const { return prepareResult_; }
    sqlite3_stmt* get() const { return statement_; }

    void bindText(int index, std::string_view text);
    void bindInteger(int index, std::int64_t value);
    void bindDouble(int index, double value);
    void bindBlob(int index, const Data& data);
    void bindNull(int index);

    int step();  // SQLITE_ROW, SQLITE_DONE or an error

    bool isNull(int column) const;
    std::string text(int column) const;
    std::int64_t integer(int column) const;
    double real(int column) const;
    Data blob(int column) const;

private:
    sqlite3_stmt* statement_ = nullptr;
    int prepareResult_;
};

}  // namespace platform::security
