// The responder's keychain read path: open the default keychain, find one
// internet password and close it again, as zarvo-askpass does once per run,
// in keychains of 10, 1,000 and 10,000 items (filled through SecItemAdd, a
// synced write each, so larger ones take long to make). The baseline opens
// the same file with SQLite and runs one prepared SELECT: the least any
// SQLite-backed look-up can cost. "Cold" closes the keychain's pooled
// connection after every look-up, as the responder's exit does; "warm" is a
// process that looks up again and again. Variants run in alternating rounds;
// medians are reported.
//
//   keychain_lookup [ROUNDS [ITEMS]]
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Security/KeychainFile.h"
#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

#include "bench/BenchmarkSupport.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <unistd.h>
#include <vector>

using namespace platform;

namespace {

double microsecondsPerCall(int calls, const std::function<void()>& body)
{
    const auto start = std::chrono::steady_clock::now();
    for (int index = 0; index < calls; ++index) {
        body();
    }
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() / calls;
}

std::string accountFor(int index)
{
    return "user" + std::to_string(index);
}

void fill(int items)
{
    const auto start = std::chrono::steady_clock::now();
    for (int index = 0; index < items; ++index) {
        const std::string secret = "secret-" + std::to_string(index);
        const OSStatus status = SecItemAdd({{kSecClass, kSecClassInternetPassword},
                                            {kSecAttrAccount, accountFor(index)},
                                            {kSecAttrServer, "host" + std::to_string(index % 97) + ".example.com"},
                                            {kSecAttrProtocol, kSecAttrProtocolHTTPS},
                                            {kSecValueData, Data(secret.begin(), secret.end())}},
                                           nullptr);
        if (status != errSecSuccess) {
            std::fprintf(stderr, "add %d failed: %d\n", index, status);
            std::exit(1);
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("  filled %d items in %.2f s (%.0f us per add)\n", items, seconds, seconds * 1e6 / items);
}

void baselineLookup(const std::string& path, const std::string& account, const std::string& server)
{
    sqlite3* database = nullptr;
    sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_stmt* select = nullptr;
    sqlite3_prepare_v2(database,
                       "SELECT secret FROM items WHERE class = 'inet' AND \"srvr\" = ?1 AND \"acct\" = ?2 "
                       "AND \"ptcl\" = ?3 AND \"port\" = 0 LIMIT 1",
                       -1, &select, nullptr);
    sqlite3_bind_text(select, 1, server.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(select, 2, account.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(select, 3, kSecAttrProtocolHTTPS);
    if (sqlite3_step(select) != SQLITE_ROW) {
        std::fprintf(stderr, "baseline found nothing\n");
        std::exit(1);
    }
    sqlite3_finalize(select);
    sqlite3_close(database);
}

}  // namespace

int main(int argc, char** argv)
{
    SecKeychainPrepareForShortProcess();  // as the responder does
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    constexpr int kCallsPerRound = 200;
    const auto directory = std::filesystem::temp_directory_path() / ("keychain-lookup-" + std::to_string(::getpid()));
    std::printf("%-8s %12s %14s %17s %17s %12s\n", "items", "baseline us", "cold SecItem", "cold QMKeychain",
                "warm QMKeychain", "cold/base");
    std::vector<int> sizes{10, 1000, 10000};
    if (argc > 2) {
        sizes = {std::atoi(argv[2])};
    }
    for (const int items : sizes) {
        std::filesystem::remove_all(directory);
        ::setenv("XDG_DATA_HOME", directory.c_str(), 1);
        fill(items);
        const std::string path = SecKeychainDefaultPath();
        // The item the responder would look for: one near the end.
        const int target = items - 3;
        const std::string account = accountFor(target);
        const std::string server = "host" + std::to_string(target % 97) + ".example.com";
        const URL url = *URL::fromString("https://" + account + "@" + server);
        const Dictionary query{{kSecClass, kSecClassInternetPassword}, {kSecAttrAccount, account},
                               {kSecAttrServer, server},          {kSecAttrProtocol, kSecAttrProtocolHTTPS},
                               {kSecAttrPort, 0},                 {kSecMatchLimit, kSecMatchLimitOne},
                               {kSecReturnData, true},            {kSecReturnAttributes, true},
                               {kSecReturnRef, true}};

        auto lookUp = [&] {
            const auto item = QMKeychain::defaultKeychain()->findInternetPasswordForURL(url);
            if (!item || !item->password()) {
                std::exit(1);
            }
        };
        std::vector<double> baseline, coldSecItem, coldKeychain, warmKeychain;
        for (int round = 0; round < rounds; ++round) {
            baseline.push_back(microsecondsPerCall(kCallsPerRound, [&] { baselineLookup(path, account, server); }));
            coldSecItem.push_back(microsecondsPerCall(kCallsPerRound, [&] {
                Value result;
                if (SecItemCopyMatching(query, &result) != errSecSuccess) {
                    std::exit(1);
                }
                security::KeychainFile::closeIdleConnections(path);
            }));
            coldKeychain.push_back(microsecondsPerCall(kCallsPerRound, [&] {
                lookUp();
                security::KeychainFile::closeIdleConnections(path);
            }));
            warmKeychain.push_back(microsecondsPerCall(kCallsPerRound, lookUp));
            security::KeychainFile::closeIdleConnections(path);
        }
        const double base = bench::median(baseline);
        const double cold = bench::median(coldKeychain);
        std::printf("%-8d %12.1f %14.1f %17.1f %17.1f %11.2fx\n", items, base, bench::median(coldSecItem), cold,
                    bench::median(warmKeychain), cold / base);
    }
    std::filesystem::remove_all(directory);
    return 0;
}
