// A default keychain and a git credentials file holding the same internet
// passwords, for the benchmarks that compare the responder or the credential
// helper with git's own plain-text store.
//
// Filled stores are kept under $TMPDIR/zarvo-bench-cache, because filling
// 100,000 items takes a while (a synced write each); delete that folder to
// start afresh.
#pragma once

#include "Platform/Security/SecItem.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace bench {

inline std::string credentialAccount(int index) { return "user" + std::to_string(index); }
inline std::string credentialServer(int index) { return "host" + std::to_string(index) + ".example"; }
inline std::string credentialSecret(int index) { return "secret-" + std::to_string(index); }

// A data home whose default keychain holds `items` https passwords without a
// port, and whose "git-credentials" file has the same credentials.
inline std::filesystem::path prepareCredentialStores(int items)
{
    namespace fs = std::filesystem;
    const auto home = fs::temp_directory_path() / "zarvo-bench-cache" / ("items-" + std::to_string(items));
    const auto complete = home / "complete";
    if (fs::exists(complete)) {
        return home;
    }
    fs::remove_all(home);
    fs::create_directories(home);
    setenv("XDG_DATA_HOME", home.c_str(), 1);

    std::ofstream credentials(home / "git-credentials");
    std::fprintf(stderr, "filling a keychain of %d items...\n", items);
    for (int index = 0; index < items; ++index) {
        const std::string password = credentialSecret(index);
        const auto status = platform::SecItemAdd(
            {{platform::kSecClass, platform::kSecClassInternetPassword},
             {platform::kSecAttrAccount, credentialAccount(index)},
             {platform::kSecAttrServer, credentialServer(index)},
             {platform::kSecAttrProtocol, platform::kSecAttrProtocolHTTPS},
             {platform::kSecAttrPort, 0},
             {platform::kSecValueData, platform::Data(password.begin(), password.end())}},
            nullptr);
        if (status != 0) {
            std::fprintf(stderr, "cannot add item %d: status %d\n", index, static_cast<int>(status));
            std::exit(2);
        }
        credentials << "https://" << credentialAccount(index) << ':' << password << '@' << credentialServer(index)
                    << '\n';
    }
    std::ofstream(complete) << "done\n";
    return home;
}

}  // namespace bench
