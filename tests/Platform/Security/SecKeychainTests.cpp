#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

#include "tests/Platform/Security/KeychainSandbox.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>

using namespace platform;

namespace {

using testsupport::contentsOf;
using testsupport::modeOf;
using testsupport::tamper;

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

// Puts a new file in place, as restoring a copy would.
void writeFile(const std::string& path, std::string_view contents)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    const std::string written = path + ".new";
    std::ofstream(written, std::ios::binary | std::ios::trunc)
        .write(contents.data(), static_cast<std::streamsize>(contents.size()));
    std::filesystem::rename(written, path);
}

Dictionary genericIn(const SecKeychainRef& keychain, std::string_view service, std::string_view secret)
{
    return Dictionary{{kSecClass, kSecClassGenericPassword},
                      {kSecAttrAccount, "jo"},
                      {kSecAttrService, service},
                      {kSecValueData, bytes(secret)},
                      {kSecUseKeychain, Value(keychain)}};
}

Dictionary searchIn(const SecKeychainRef& keychain, std::string_view service)
{
    return Dictionary{{kSecClass, kSecClassGenericPassword},
                      {kSecAttrService, service},
                      {kSecMatchSearchList, Array{Value(keychain)}}};
}

OSStatus readSecret(const SecKeychainRef& keychain, std::string_view service, std::string* secret = nullptr)
{
    Dictionary query = searchIn(keychain, service);
    query.set(kSecReturnData, true);
    Value result;
    const OSStatus status = SecItemCopyMatching(query, &result);
    if (status == errSecSuccess && secret != nullptr) {
        *secret = std::string(result.data()->begin(), result.data()->end());
    }
    return status;
}

class SecKeychainTest : public testsupport::KeychainSandbox {};

TEST_F(SecKeychainTest, TheDefaultKeychainFollowsXdgDataHome)
{
    EXPECT_EQ(SecKeychainDefaultPath(), defaultKeychainPath());
    ::setenv("XDG_DATA_HOME", "relative/is/ignored", 1);
    const char* home = std::getenv("HOME");
    ASSERT_NE(home, nullptr);
    EXPECT_EQ(SecKeychainDefaultPath(), std::string(home) + "/.local/share/keychains/login.keychain-db");
}

TEST_F(SecKeychainTest, TheFirstWriteCreatesAPrivateDefaultKeychainWhateverTheUmask)
{
    const mode_t previous = ::umask(0);
    ASSERT_EQ(SecItemAdd({{kSecClass, kSecClassGenericPassword}, {kSecAttrService, "first"}}, nullptr), errSecSuccess);
    // A write caught before its commit shows the journal, which holds the
    // pages it replaces and so must be as private as the file.
    sqlite3* writer = nullptr;
    ASSERT_EQ(sqlite3_open(defaultKeychainPath().c_str(), &writer), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(writer, "BEGIN; UPDATE items SET labl = 'changed'", nullptr, nullptr, nullptr), SQLITE_OK);
    ::umask(previous);

    EXPECT_EQ(modeOf(dataHome() + "/keychains"), 0700u);
    EXPECT_EQ(modeOf(defaultKeychainPath()), 0600u);
    EXPECT_EQ(modeOf(defaultKeychainPath() + "-journal"), 0600u);
    sqlite3_exec(writer, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(writer);
    // Nothing else is left beside it: no half-made keychain, no journal.
    for (const auto& entry : std::filesystem::directory_iterator(dataHome() + "/keychains")) {
        EXPECT_EQ(entry.path().filename().string(), "login.keychain-db");
        EXPECT_EQ(modeOf(entry.path().string()), 0600u);
    }
}

TEST_F(SecKeychainTest, CreateReportPathAndDelete)
{
    const std::string path = sandboxPath("nested/dir/work.keychain");
    SecKeychainRef keychain;
    ASSERT_EQ(SecKeychainCreate(path.c_str(), 0, nullptr, true, nullptr, &keychain), errSecSuccess);
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(sandboxPath("nested/dir")), 0700u);

    char buffer[1024];
    std::uint32_t length = sizeof buffer;
    ASSERT_EQ(SecKeychainGetPath(keychain, &length, buffer), errSecSuccess);
    EXPECT_EQ(std::string(buffer), path);
    EXPECT_EQ(length, path.size());
    length = static_cast<std::uint32_t>(path.size());  // no room for the NUL
    EXPECT_EQ(SecKeychainGetPath(keychain, &length, buffer), errSecParam);

    EXPECT_EQ(SecKeychainCreate(path.c_str(), 0, nullptr, true, nullptr, nullptr), errSecDuplicateKeychain);
    ASSERT_EQ(SecItemAdd(genericIn(keychain, "svc", "secret"), nullptr), errSecSuccess);

    ASSERT_EQ(SecKeychainDelete(keychain), errSecSuccess);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(std::filesystem::exists(path + "-journal"));
    EXPECT_EQ(SecKeychainDelete(keychain), errSecNoSuchKeychain);
    EXPECT_EQ(readSecret(keychain, "svc"), errSecNoSuchKeychain);
}

TEST_F(SecKeychainTest, AKeychainKeptInWALModeIsStillReadAndWritten)
{
    const std::string path = sandboxPath("wal.keychain");
    SecKeychainRef keychain;
    ASSERT_EQ(SecKeychainCreate(path.c_str(), 0, nullptr, true, nullptr, &keychain), errSecSuccess);
    ASSERT_EQ(SecItemAdd(genericIn(keychain, "before", "one"), nullptr), errSecSuccess);
    tamper(path, "PRAGMA journal_mode=WAL");

    ASSERT_EQ(SecItemAdd(genericIn(keychain, "after", "two"), nullptr), errSecSuccess);
    std::string secret;
    ASSERT_EQ(readSecret(keychain, "before", &secret), errSecSuccess);
    EXPECT_EQ(secret, "one");
    ASSERT_EQ(readSecret(keychain, "after", &secret), errSecSuccess);
    EXPECT_EQ(secret, "two");
    ASSERT_EQ(SecKeychainDelete(keychain), errSecSuccess);
    EXPECT_FALSE(std::filesystem::exists(path + "-wal"));
    EXPECT_FALSE(std::filesystem::exists(path + "-shm"));
}

TEST_F(SecKeychainTest, ARelativePathIsTakenFromTheWorkingDirectory)
{
    const auto previous = std::filesystem::current_path();
    std::filesystem::current_path(dataHome());
    SecKeychainRef keychain;
    const OSStatus status = SecKeychainCreate("relative.keychain", 0, nullptr, true, nullptr, &keychain);
    std::filesystem::current_path(previous);
    ASSERT_EQ(status, errSecSuccess);
    EXPECT_EQ(keychain->path(), sandboxPath("relative.keychain"));
    EXPECT_EQ(SecItemAdd(genericIn(keychain, "svc", "x"), nullptr), errSecSuccess);
}

TEST_F(SecKeychainTest, DeleteRefusesAFileThatIsNotAKeychain)
{
    struct Case {
        const char* what;
        std::string contents;  // written as is, unless sql is given
        const char* sql;       // run on a new database instead
    };
    const Case cases[] = {
        {"a text file", "my precious notes, nothing like a database\n", nullptr},
        {"an empty file", "", nullptr},
        {"a database without tables", "", "PRAGMA user_version=7"},
        {"another program's database", "", "CREATE TABLE notes (text TEXT); INSERT INTO notes VALUES ('keep me')"},
        {"our metadata table alone", "",
         "CREATE TABLE keychain_meta (name TEXT PRIMARY KEY NOT NULL, value) WITHOUT ROWID;"
         "INSERT INTO keychain_meta VALUES ('format', 'zarvo-keychain'), ('version', 1), ('identity', 'x')"},
    };
    for (const auto& [what, contents, sql] : cases) {
        SCOPED_TRACE(what);
        const std::string path = sandboxPath("victim");
        std::filesystem::remove(path);
        if (sql != nullptr) {
            tamper(path, sql);
        } else {
            writeFile(path, contents);
        }
        const std::string before = contentsOf(path);
        SecKeychainRef keychain;
        ASSERT_EQ(SecKeychainOpen(path.c_str(), &keychain), errSecSuccess);
        EXPECT_EQ(SecKeychainDelete(keychain), errSecInvalidKeychain);
        ASSERT_TRUE(std::filesystem::exists(path));
        EXPECT_EQ(contentsOf(path), before);
    }
}

TEST_F(SecKeychainTest, FilesThatAreNotKeychainsGiveAClearStatus)
{
    const Dictionary search{{kSecClass, kSecClassInternetPassword}, {kSecReturnData, true}};
    const Dictionary add{{kSecClass, kSecClassInternetPassword}, {kSecAttrServer, "h"}, {kSecValueData, bytes("x")}};

    writeFile(defaultKeychainPath(), std::string(4096, 'z'));
    EXPECT_EQ(SecItemCopyMatching(search, nullptr), errSecInvalidKeychain);
    EXPECT_EQ(SecItemAdd(add, nullptr), errSecInvalidKeychain);
    EXPECT_EQ(contentsOf(defaultKeychainPath()), std::string(4096, 'z'));

    // Another program's database is left alone too.
    std::filesystem::remove(defaultKeychainPath());
    tamper(defaultKeychainPath(), "CREATE TABLE notes (text TEXT); INSERT INTO notes VALUES ('keep me');");
    EXPECT_EQ(SecItemCopyMatching(search, nullptr), errSecInvalidKeychain);
    EXPECT_EQ(SecItemAdd(add, nullptr), errSecInvalidKeychain);

    // A directory where the file should be.
    std::filesystem::remove(defaultKeychainPath());
    std::filesystem::create_directory(defaultKeychainPath());
    EXPECT_EQ(SecItemCopyMatching(search, nullptr), errSecInvalidKeychain);
    EXPECT_EQ(SecItemAdd(add, nullptr), errSecInvalidKeychain);
}

TEST_F(SecKeychainTest, AnEmptyFileIsAnEmptyKeychainUntilTheFirstWrite)
{
    writeFile(defaultKeychainPath(), "");
    const Dictionary search{{kSecClass, kSecClassGenericPassword}, {kSecReturnData, true}};
    EXPECT_EQ(SecItemCopyMatching(search, nullptr), errSecItemNotFound);
    ASSERT_EQ(SecItemAdd({{kSecClass, kSecClassGenericPassword}, {kSecValueData, bytes("x")}}, nullptr),
              errSecSuccess);
    Value result;
    ASSERT_EQ(SecItemCopyMatching(search, &result), errSecSuccess);
    EXPECT_EQ(result, Value(bytes("x")));
}

TEST_F(SecKeychainTest, ADamagedKeychainNeverCrashesItsReaders)
{
    for (int index = 0; index < 200; ++index) {
        ASSERT_EQ(SecItemAdd({{kSecClass, kSecClassGenericPassword},
                              {kSecAttrService, "service " + std::to_string(index)},
                              {kSecValueData, bytes(std::string(100, 's'))}},
                             nullptr),
                  errSecSuccess);
    }
    const std::string original = contentsOf(defaultKeychainPath());
    ASSERT_GT(original.size(), 8192u);
    const Dictionary search{{kSecClass, kSecClassGenericPassword},
                            {kSecMatchLimit, kSecMatchLimitAll},
                            {kSecReturnData, true},
                            {kSecReturnAttributes, true}};
    const Dictionary add{{kSecClass, kSecClassGenericPassword}, {kSecAttrService, "new"}};
    // Truncated, then scribbled over past the header.
    for (const std::string& damaged : {original.substr(0, original.size() / 2),
                                       original.substr(0, 4096) + std::string(original.size() - 4096, '\xA5')}) {
        writeFile(defaultKeychainPath(), damaged);
        const OSStatus searched = SecItemCopyMatching(search, nullptr);
        EXPECT_TRUE(searched == errSecInvalidKeychain || searched == errSecSuccess) << searched;
        const OSStatus added = SecItemAdd(add, nullptr);
        EXPECT_TRUE(added == errSecInvalidKeychain || added == errSecSuccess) << added;
    }
}

class PasswordKeychainTest : public SecKeychainTest {
protected:
    void SetUp() override
    {
        SecKeychainTest::SetUp();
        path_ = sandboxPath("protected.keychain");
        ASSERT_EQ(SecKeychainCreate(path_.c_str(), 6, "s3cret", false, nullptr, &keychain_), errSecSuccess);
    }

    std::string path_;
    SecKeychainRef keychain_;
};

TEST_F(PasswordKeychainTest, SecretsAreNeverStoredInClear)
{
    ASSERT_EQ(SecItemAdd(genericIn(keychain_, "svc", "correct horse battery staple"), nullptr), errSecSuccess);
    std::string secret;
    ASSERT_EQ(readSecret(keychain_, "svc", &secret), errSecSuccess);
    EXPECT_EQ(secret, "correct horse battery staple");
    const std::string stored = contentsOf(path_);
    EXPECT_EQ(stored.find("correct horse"), std::string::npos);
    EXPECT_EQ(stored.find("s3cret"), std::string::npos);
}

TEST_F(PasswordKeychainTest, ALockedKeychainShowsAttributesButNotSecrets)
{
    ASSERT_EQ(SecItemAdd(genericIn(keychain_, "svc", "pw"), nullptr), errSecSuccess);
    SecKeychainStatus status;
    ASSERT_EQ(SecKeychainGetStatus(keychain_, &status), errSecSuccess);
    EXPECT_TRUE(status.hasPassword);
    EXPECT_TRUE(status.isUnlocked);  // its creator may use it at once

    ASSERT_EQ(SecKeychainLock(keychain_), errSecSuccess);
    ASSERT_EQ(SecKeychainGetStatus(keychain_, &status), errSecSuccess);
    EXPECT_FALSE(status.isUnlocked);
    EXPECT_EQ(readSecret(keychain_, "svc"), errSecInteractionNotAllowed);
    EXPECT_EQ(SecItemCopyMatching(searchIn(keychain_, "svc"), nullptr), errSecSuccess);
    EXPECT_EQ(SecItemAdd(genericIn(keychain_, "other", "pw"), nullptr), errSecInteractionNotAllowed);
    EXPECT_EQ(SecItemUpdate(searchIn(keychain_, "svc"), {{kSecValueData, bytes("new")}}),
              errSecInteractionNotAllowed);
    // A change that does not touch the sealed secret needs no key.
    EXPECT_EQ(SecItemUpdate(searchIn(keychain_, "svc"), {{kSecAttrLabel, "labelled"}}), errSecSuccess);
    EXPECT_EQ(SecKeychainUnlock(keychain_, 0, nullptr, false), errSecInteractionNotAllowed);

    EXPECT_EQ(SecKeychainUnlock(keychain_, 5, "wrong", true), errSecAuthFailed);
    EXPECT_EQ(readSecret(keychain_, "svc"), errSecInteractionNotAllowed);
    ASSERT_EQ(SecKeychainUnlock(keychain_, 6, "s3cret", true), errSecSuccess);
    std::string secret;
    ASSERT_EQ(readSecret(keychain_, "svc", &secret), errSecSuccess);
    EXPECT_EQ(secret, "pw");
}

TEST_F(PasswordKeychainTest, ASecretMovedOntoAnotherItemNoLongerOpens)
{
    ASSERT_EQ(SecItemAdd(genericIn(keychain_, "bank", "bank secret"), nullptr), errSecSuccess);
    ASSERT_EQ(SecItemAdd(genericIn(keychain_, "forum", "forum secret"), nullptr), errSecSuccess);
    tamper(path_, "UPDATE items SET secret = (SELECT secret FROM items WHERE \"svce\" = 'bank') "
                  "WHERE \"svce\" = 'forum'");
    EXPECT_EQ(readSecret(keychain_, "forum"), errSecDecode);
    std::string secret;
    ASSERT_EQ(readSecret(keychain_, "bank", &secret), errSecSuccess);
    EXPECT_EQ(secret, "bank secret");
}

TEST_F(PasswordKeychainTest, ChangingAKeyAttributeKeepsTheSecretReadable)
{
    ASSERT_EQ(SecItemAdd(genericIn(keychain_, "old", "kept"), nullptr), errSecSuccess);
    ASSERT_EQ(SecItemUpdate(searchIn(keychain_, "old"), {{kSecAttrService, "new"}}), errSecSuccess);
    std::string secret;
    ASSERT_EQ(readSecret(keychain_, "new", &secret), errSecSuccess);
    EXPECT_EQ(secret, "kept");
}

TEST_F(PasswordKeychainTest, ADeletedKeychainForgetsItsKey)
{
    ASSERT_EQ(SecKeychainDelete(keychain_), errSecSuccess);
    // Same path, no password: a different keychain altogether.
    ASSERT_EQ(SecKeychainCreate(path_.c_str(), 0, nullptr, true, nullptr, &keychain_), errSecSuccess);
    SecKeychainStatus status;
    ASSERT_EQ(SecKeychainGetStatus(keychain_, &status), errSecSuccess);
    EXPECT_FALSE(status.hasPassword);
    EXPECT_EQ(SecKeychainUnlock(keychain_, 5, "whatever", true), errSecSuccess);
}

TEST_F(SecKeychainTest, AnEmptyPasswordStillProtectsTheKeychain)
{
    SecKeychainRef keychain;
    ASSERT_EQ(SecKeychainCreate(sandboxPath("empty.keychain").c_str(), 0, nullptr, false, nullptr, &keychain),
              errSecSuccess);
    ASSERT_EQ(SecKeychainLock(keychain), errSecSuccess);
    EXPECT_EQ(SecKeychainUnlock(keychain, 1, "x", true), errSecAuthFailed);
    EXPECT_EQ(SecKeychainUnlock(keychain, 0, nullptr, true), errSecSuccess);
}

TEST_F(SecKeychainTest, AnImplausibleKeyDerivationCostMakesTheFileInvalid)
{
    SecKeychainRef keychain;
    const std::string path = sandboxPath("hostile.keychain");
    ASSERT_EQ(SecKeychainCreate(path.c_str(), 2, "pw", false, nullptr, &keychain), errSecSuccess);
    tamper(path, "UPDATE keychain_meta SET value = 1099511627776 WHERE name = 'memlimit'");
    EXPECT_EQ(SecKeychainUnlock(keychain, 2, "pw", true), errSecInvalidKeychain);
}

}  // namespace
