// Many writers and readers on one keychain, in separate processes as the
// askpass responder and the keychain tool are, and a writer that dies in the
// middle of its work.
#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

#include "tests/Platform/Security/KeychainSandbox.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace platform;

namespace {

Data bytes(std::string_view text)
{
    return Data(text.begin(), text.end());
}

std::string secretFor(const std::string& account)
{
    // Large enough that a write spans several pages.
    return account + ":" + std::string(3000, 'x');
}

Dictionary itemFor(const std::string& account)
{
    return Dictionary{{kSecClass, kSecClassInternetPassword},
                      {kSecAttrAccount, account},
                      {kSecAttrServer, "git.example.com"},
                      {kSecAttrProtocol, kSecAttrProtocolHTTPS},
                      {kSecValueData, bytes(secretFor(account))}};
}

OSStatus readBack(const std::string& account, std::string* secret)
{
    Value result;
    const OSStatus status = SecItemCopyMatching({{kSecClass, kSecClassInternetPassword},
                                                 {kSecAttrAccount, account},
                                                 {kSecAttrServer, "git.example.com"},
                                                 {kSecReturnData, true}},
                                                &result);
    if (status == errSecSuccess) {
        *secret = std::string(result.data()->begin(), result.data()->end());
    }
    return status;
}

std::size_t countAll()
{
    Value result;
    if (SecItemCopyMatching({{kSecClass, kSecClassInternetPassword}, {kSecMatchLimit, kSecMatchLimitAll}}, &result) !=
        errSecSuccess) {
        return 0;
    }
    return result.array()->size();
}

// Adds and reads back `count` items; the exit code is 0 or the first
// failing status's low byte (never 0).
[[noreturn]] void writeAndReadItems(int writer, int count)
{
    for (int index = 0; index < count; ++index) {
        const std::string account = "writer" + std::to_string(writer) + "-" + std::to_string(index);
        std::string secret;
        OSStatus status = SecItemAdd(itemFor(account), nullptr);
        if (status == errSecSuccess) {
            status = readBack(account, &secret);
        }
        if (status == errSecSuccess && secret != secretFor(account)) {
            status = errSecDecode;
        }
        if (status != errSecSuccess) {
            std::fprintf(stderr, "writer %d item %d: status %d\n", writer, index, status);
            ::_exit(100 + (writer % 100));
        }
    }
    ::_exit(0);
}

class SecItemConcurrencyTest : public testsupport::KeychainSandbox {};

TEST_F(SecItemConcurrencyTest, ProcessesWritingAtOnceLoseNothing)
{
    constexpr int kWriters = 6;
    constexpr int kItemsEach = 40;
    // All writers start together on a keychain that does not exist yet, so
    // they also race to create it.
    int start[2];
    ASSERT_EQ(::pipe(start), 0);
    std::vector<pid_t> writers;
    for (int writer = 0; writer < kWriters; ++writer) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(start[1]);
            char ignored;
            [[maybe_unused]] const auto got = ::read(start[0], &ignored, 1);  // returns at end of file
            writeAndReadItems(writer, kItemsEach);
        }
        writers.push_back(child);
    }
    ::close(start[0]);
    ::close(start[1]);
    for (const pid_t writer : writers) {
        int status = 0;
        ASSERT_EQ(::waitpid(writer, &status, 0), writer);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "writer exit status " << status;
    }

    EXPECT_EQ(countAll(), static_cast<std::size_t>(kWriters * kItemsEach));
    for (int writer = 0; writer < kWriters; ++writer) {
        const std::string account = "writer" + std::to_string(writer) + "-" + std::to_string(kItemsEach - 1);
        std::string secret;
        ASSERT_EQ(readBack(account, &secret), errSecSuccess) << account;
        EXPECT_EQ(secret, secretFor(account));
    }
}

TEST_F(SecItemConcurrencyTest, ThreadsWritingAtOnceLoseNothing)
{
    constexpr int kThreads = 4;
    constexpr int kItemsEach = 25;
    std::vector<std::thread> threads;
    std::vector<OSStatus> failures(kThreads, errSecSuccess);
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([thread, &failures] {
            for (int index = 0; index < kItemsEach && failures[thread] == errSecSuccess; ++index) {
                failures[thread] =
                    SecItemAdd(itemFor("thread" + std::to_string(thread) + "-" + std::to_string(index)), nullptr);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const OSStatus failure : failures) {
        EXPECT_EQ(failure, errSecSuccess);
    }
    EXPECT_EQ(countAll(), static_cast<std::size_t>(kThreads * kItemsEach));
}

TEST_F(SecItemConcurrencyTest, AWriterKilledMidWriteLeavesEveryCommittedItemReadable)
{
    ASSERT_EQ(SecItemAdd(itemFor("before"), nullptr), errSecSuccess);
    int confirmations[2];
    ASSERT_EQ(::pipe(confirmations), 0);
    const pid_t writer = ::fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        ::close(confirmations[0]);
        // Writes until killed, confirming each item only once it is committed.
        for (int index = 0;; ++index) {
            if (SecItemAdd(itemFor("item" + std::to_string(index)), nullptr) != errSecSuccess) {
                ::_exit(1);
            }
            if (::write(confirmations[1], &index, sizeof index) != sizeof index) {
                ::_exit(2);
            }
        }
    }
    ::close(confirmations[1]);
    constexpr int kConfirmationsBeforeKill = 60;
    int confirmed = -1;
    for (int received = 0; received < kConfirmationsBeforeKill; ++received) {
        ASSERT_EQ(::read(confirmations[0], &confirmed, sizeof confirmed), static_cast<ssize_t>(sizeof confirmed));
    }
    // The writer is by now inside its next add (or just past it).
    ASSERT_EQ(::kill(writer, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(writer, &status, 0), writer);
    ASSERT_TRUE(WIFSIGNALED(status));
    ::close(confirmations[0]);

    for (const std::string& account : {std::string("before"), std::string("item0"), "item" + std::to_string(confirmed)}) {
        std::string secret;
        ASSERT_EQ(readBack(account, &secret), errSecSuccess) << account;
        EXPECT_EQ(secret, secretFor(account));
    }
    const std::size_t count = countAll();
    EXPECT_GE(count, static_cast<std::size_t>(confirmed + 2));
    EXPECT_LE(count, static_cast<std::size_t>(confirmed + 3));  // at most the one in flight on top

    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(defaultKeychainPath().c_str(), &database), SQLITE_OK);
    sqlite3_stmt* check = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database, "PRAGMA integrity_check", -1, &check, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(check), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok");
    sqlite3_finalize(check);
    sqlite3_close(database);

    EXPECT_EQ(SecItemAdd(itemFor("after"), nullptr), errSecSuccess);
}

}  // namespace
