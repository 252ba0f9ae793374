#include "ZarvoKeychain/KeychainCommands.h"

#include "Platform/Security/Wipe.h"
#include "ZarvoKeychain/CommandOptions.h"
#include "ZarvoKeychain/KeychainAccess.h"
#include "ZarvoKeychain/KeychainTool.h"
#include "ZarvoKeychain/PasswordInput.h"
#include "ZarvoKeychain/ToolOutput.h"

#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

using namespace platform;

namespace keychaintool {

int createKeychain(const Command& command, const Options& options)
{
    if (options.operands.size() != 1) {
        return usageError(command, "give the path of the keychain to create");
    }
    const std::string& path = options.operands.front();
    if (options.noPassword) {
        return report(command, SecKeychainCreate(path.c_str(), 0, nullptr, true, nullptr, nullptr));
    }
    PasswordInput input;
    bool mismatch = false;
    auto password = input.newKeychainPassword("password for the new keychain", &mismatch);
    platform::security::WipedWhenDone passwordWiped(password);
    if (!password || password->empty()) {
        return usageError(command, mismatch ? "the passwords do not match"
                                            : "no password given; use --no-password for a keychain protected only "
                                              "by its file permissions");
    }
    const OSStatus status =
        SecKeychainCreate(path.c_str(), static_cast<std::uint32_t>(password->size()), password->data(), false, nullptr,
                          nullptr);
    return report(command, status);
}

int deleteKeychain(const Command& command, const Options& options)
{
    if (options.operands.size() != 1) {
        return usageError(command, "give the path of the keychain to delete");
    }
    SecKeychainRef keychain;
    if (const OSStatus status = SecKeychainOpen(options.operands.front().c_str(), &keychain); status != errSecSuccess) {
        return report(command, status);
    }
    return report(command, SecKeychainDelete(keychain));
}

int unlockKeychain(const Command& command, const Options& options)
{
    bool isExplicit = false;
    const auto keychain = targetKeychain(options, &isExplicit);
    SecKeychainStatus state;
    if (const OSStatus status = SecKeychainGetStatus(keychain, &state); status != errSecSuccess) {
        return report(command, status);
    }
    if (!state.hasPassword) {
        print(stderr, std::string(kProgram) + ": " + keychain->path() +
                          " has no password; its file permissions protect it\n");
        return kExitSuccess;
    }
    PasswordInput input;
    return ensureUnlocked(command, keychain, input);
}

int dumpKeychain(const Command& command, const Options& options)
{
    bool isExplicit = false;
    const auto keychain = targetKeychain(options, &isExplicit);
    if (options.showSecrets) {
        PasswordInput input;
        if (const int unlocked = ensureUnlocked(command, keychain, input); unlocked != kExitSuccess) {
            return unlocked;
        }
    }
    bool first = true;
    for (const auto itemClass : {kSecClassInternetPassword, kSecClassGenericPassword}) {
        Dictionary query{{kSecClass, itemClass},
                         {kSecMatchLimit, kSecMatchLimitAll},
                         {kSecReturnAttributes, true},
                         {kSecReturnRef, true}};
        if (options.showSecrets) {
            query.set(kSecReturnData, true);
        }
        restrictTo(query, keychain, isExplicit);
        Value result;
        const OSStatus status = SecItemCopyMatching(query, &result);
        if (status == errSecItemNotFound) {
            continue;
        }
        if (status != errSecSuccess) {
            return report(command, status);
        }
        for (const auto& item : *result.array()) {
            print(stdout, first ? "" : "\n");
            first = false;
            printItem(*item.dictionary(), options.showSecrets);
        }
    }
    return kExitSuccess;
}

}  // namespace keychaintool
