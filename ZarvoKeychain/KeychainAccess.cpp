#include "ZarvoKeychain/KeychainAccess.h"

#include "Platform/Security/Wipe.h"
#include "ZarvoKeychain/CommandOptions.h"
#include "ZarvoKeychain/KeychainTool.h"
#include "ZarvoKeychain/PasswordInput.h"
#include "ZarvoKeychain/ToolOutput.h"

#include "Platform/Security/SecItem.h"

using namespace platform;

namespace keychaintool {

SecKeychainRef targetKeychain(const Options& options, bool* isExplicit)
{
    SecKeychainRef keychain;
    const auto& path = options.keychain ? options.keychain
                       : options.operands.empty() ? std::optional<std::string>() : options.operands.front();
    *isExplicit = path.has_value();
    // Unchecked: only an empty path fails, and the reference then stays
    // null, which every keychain call refuses with errSecParam.
    if (path) {
        static_cast<void>(SecKeychainOpen(path->c_str(), &keychain));
    } else {
        static_cast<void>(SecKeychainCopyDefault(&keychain));
    }
    return keychain;
}

Dictionary primaryKeyQuery(const Dictionary& attributes)
{
    const bool internet = attributes.get(kSecClass) == Value(kSecClassInternetPassword);
    Dictionary query{{kSecClass, attributes.get(kSecClass)}};
    const std::vector<std::pair<std::string_view, Value>> keys =
        internet ? std::vector<std::pair<std::string_view, Value>>{{kSecAttrAccount, ""}, {kSecAttrSecurityDomain, ""},
                                                                   {kSecAttrServer, ""}, {kSecAttrProtocol, 0},
                                                                   {kSecAttrAuthenticationType, 0},
                                                                   {kSecAttrPort, 0}, {kSecAttrPath, ""}}
                 : std::vector<std::pair<std::string_view, Value>>{{kSecAttrAccount, ""}, {kSecAttrService, ""}};
    for (const auto& [key, unset] : keys) {
        const Value given = attributes.get(key);
        query.set(key, given.isNothing() ? unset : given);
    }
    return query;
}

void restrictTo(Dictionary& query, const SecKeychainRef& keychain, bool isExplicit)
{
    if (isExplicit) {
        query.set(kSecUseKeychain, Value(keychain));
        query.set(kSecMatchSearchList, Array{Value(keychain)});
    }
}

int ensureUnlocked(const Command& command, const SecKeychainRef& keychain, PasswordInput& input)
{
    SecKeychainStatus state;
    const OSStatus status = SecKeychainGetStatus(keychain, &state);
    if (status == errSecNoSuchKeychain) {
        return kExitSuccess;
    }
    if (status != errSecSuccess) {
        return report(command, status);
    }
    if (!state.hasPassword || state.isUnlocked) {
        return kExitSuccess;
    }
    auto password = input.keychainPassword(keychain->path());
    platform::security::WipedWhenDone passwordWiped(password);
    if (!password) {
        fail(command, "the keychain " + keychain->path() +
                          " is locked; give its password on the first line of standard input");
        return kExitLocked;
    }
    const OSStatus unlocked =
        SecKeychainUnlock(keychain, static_cast<std::uint32_t>(password->size()), password->data(), true);
    return report(command, unlocked);
}

}  // namespace keychaintool
