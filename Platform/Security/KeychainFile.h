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
// Opening for reading begins a read transaction, reads the header's schema
// version in it (which takes the lock the schema is then parsed under) and
// runs two statements: one that compares the schema with ours, one that
// reads the few rows of metadata; the settings that only writes need are made by the first write
// on a connection. Opening for writing creates the file and its tables when
// asked to. Every open first checks that no other user could read or
// replace the file (see SecKeychain.h); SQLite is then given the file's real
// path, whose directories that check has found safe, so it opens the file
// that was checked.
#pragma once

#include "Platform/Foundation/Value.h"
#include "Platform/Security/KeychainCrypto.h"
#include "Platform/Security/SecBase.h"

#include <chrono>
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
    Examine,         // as Read, but the user's own file may be too open: for what reads no secret
    Write,           // as Read; an empty file is given its tables, a too-open mode is made 0600
    WriteCreating,   // as Write; a missing file is created, with its directory
};

// The process-wide settings behind SecKeychainSetBusyWait and
// SecKeychainSetNoticeHandler, and the reason behind
// SecKeychainCopyRefusalReason.
using NoticeHandler = void (*)(const std::string& line);
void setBusyWait(std::chrono::milliseconds limit);
void setNoticeHandler(NoticeHandler handler);
std::string lastRefusalReason();

// How much work one step of a statement may do, in units of a thousand
// SQLite instructions, before it is interrupted (SQLITE_INTERRUPT, which
// reads as errSecInvalidKeychain). Our statements on our schema stay far
// below the default; tests lower it to see the bound work.
inline constexpr std::uint32_t kDefaultStepWorkLimit = 100000;
void setStepWorkLimit(std::uint32_t thousandsOfInstructions);

class KeychainFile {
public:
    ~KeychainFile();
    KeychainFile(const KeychainFile&) = delete;
    KeychainFile& operator=(const KeychainFile&) = delete;

    [[nodiscard]] static OSStatus open(const std::string& path, OpenMode mode, KeychainFileRef* file);
    // Creates a new file, failing with errSecDuplicateKeychain when one is
    // there; with a derivation, a password-protected one whose key is given.
    [[nodiscard]] static OSStatus create(const std::string& path, const std::optional<KeyDerivation>& derivation,
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

    [[nodiscard]] OSStatus beginWrite();
    [[nodiscard]] OSStatus commit();
    void rollback();

private:
    friend struct KeychainFileRelease;

    KeychainFile(std::string path, sqlite3* database) : path_(std::move(path)), database_(database) {}
    static KeychainFileRef takeIdleConnection(const std::string& path, std::uint64_t device, std::uint64_t inode);
    [[nodiscard]] static OSStatus connect(const std::string& path, const std::string& realPath, std::uint64_t device,
                            std::uint64_t inode, KeychainFileRef* file);
    static int waitWhileBusy(void* connection, int attempt);
    [[nodiscard]] OSStatus configure();
    [[nodiscard]] OSStatus configureForWriting();
    [[nodiscard]] OSStatus checkSchema(bool* isEmpty);
    [[nodiscard]] OSStatus readHeaderAndMetadata();
    [[nodiscard]] OSStatus initialise(const std::optional<KeyDerivation>& derivation, const SecretKey* key);

    std::string path_;
    sqlite3* database_;
    // The file this connection has open, to tell a replaced file.
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
    bool configuredForWriting_ = false;
    // When the current wait for a busy file began.
    std::chrono::steady_clock::time_point busySince_;
    std::string identity_;
    std::optional<KeyDerivation> derivation_;
    Data verifier_;
};

// The keychain status for an SQLite result code.
[[nodiscard]] OSStatus statusForSQLite(int resultCode);

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
    // Binds a secret without SQLite taking a copy of its own, which it would
    // free without wiping: `secret` must stay alive and unchanged until the
    // statement is done with (its last step or its end), and the caller wipes it.
    void bindSecret(int index, const Data& secret);
    void bindNull(int index);

    int step();  // SQLITE_ROW, SQLITE_DONE or an error

    bool isNull(int column) const;
    std::string text(int column) const;
    // Valid until the next step; no copy.
    std::string_view textView(int column) const;
    std::int64_t integer(int column) const;
    double real(int column) const;
    Data blob(int column) const;

private:
    sqlite3_stmt* statement_ = nullptr;
    int prepareResult_;
};

}  // namespace platform::security
