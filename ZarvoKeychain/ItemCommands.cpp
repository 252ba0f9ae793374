#include "ZarvoKeychain/ItemCommands.h"

#include "Platform/Security/Wipe.h"
#include "ZarvoKeychain/CommandOptions.h"
#include "ZarvoKeychain/KeychainAccess.h"
#include "ZarvoKeychain/KeychainTool.h"
#include "ZarvoKeychain/PasswordInput.h"
#include "ZarvoKeychain/ToolOutput.h"

#include "GitCredentialZarvo/KeptAttributes.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Foundation/URL.h"
#include "Platform/Security/SecItem.h"

#include <charconv>
#include <unistd.h>

using namespace platform;

namespace keychaintool {

namespace {

enum class ItemKind { internet, generic };


std::optional<std::uint32_t> parseProtocol(const std::string& text)
{
    if (const auto known = QMInternetPasswordKeychainItem::secProtocolTypeForProtocol(text)) {
        return known;
    }
    if (text.size() == 4) {
        const char code[5] = {text[0], text[1], text[2], text[3], '\0'};
        if (fourCharCodeString(fourCharCode(code))) {
            return fourCharCode(code);
        }
    }
    return std::nullopt;
}

std::optional<std::int64_t> parsePort(const std::string& text)
{
    int port = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port < 0 || port > 65535) {
        return std::nullopt;
    }
    return port;
}

// The attributes the options name. A URL maps exactly as the responder's
// look-up maps it; the single options then add to or override it.
[[nodiscard]] bool internetAttributes(const Options& options, bool forAdding, Dictionary* attributes,
                                      ErrorRef* error)
{
    if (options.url) {
        const auto url = URL::fromString(*options.url);
        if (!url) {
            // Not repeated: the text may hold a password in its user part.
            return refuseValue("the value given with --url is not a URL", error);
        }
        // Such a URL maps to no server at all, and a query without one
        // matches the items of every server: a find would show, and a delete
        // remove, some other site's password. Nor may an item be stored for
        // an empty server.
        if (!url->hasHost()) {
            return refuseValue("the URL given with --url names no host", error);
        }
        if (forAdding && !QMKeychain::supportsProtocol(url->scheme())) {
            return refuseValue("a URL to store needs one of the schemes ftp, ftps, http, https, ssh", error);
        }
        *attributes = QMInternetPasswordKeychainItem::attributesForURL(*url);
    }
    if (options.account) {
        attributes->set(kSecAttrAccount, *options.account);
    }
    if (options.serverOrService) {
        attributes->set(kSecAttrServer, *options.serverOrService);
    }
    if (options.protocol) {
        const auto protocol = parseProtocol(*options.protocol);
        if (!protocol) {
            return refuseValue(
                "unknown protocol " + *options.protocol + " (use ftp, ftps, http, https, ssh or a four-letter code)",
                error);
        }
        attributes->set(kSecAttrProtocol, *protocol);
    }
    if (options.port) {
        const auto port = parsePort(*options.port);
        if (!port) {
            return refuseValue("not a port number: " + *options.port, error);
        }
        attributes->set(kSecAttrPort, *port);
    }
    if (options.path) {
        attributes->set(kSecAttrPath, *options.path);
    }
    if (options.label) {
        attributes->set(kSecAttrLabel, *options.label);
    }
    if (forAdding && !attributes->contains(kSecAttrServer)) {
        return refuse("a server is needed (-s or --url)", error);
    }
    // An empty server is no host either (an -s "" given alone or over a
    // URL's host): no look-up would ever find what was stored for it.
    if (forAdding && attributes->get(kSecAttrServer) == Value("")) {
        return refuseValue("the server given with -s is empty: it names no host", error);
    }
    attributes->set(kSecClass, kSecClassInternetPassword);
    return true;
}

[[nodiscard]] bool genericAttributes(const Options& options, bool forAdding, Dictionary* attributes, ErrorRef* error)
{
    if (options.account) {
        attributes->set(kSecAttrAccount, *options.account);
    }
    if (options.serverOrService) {
        attributes->set(kSecAttrService, *options.serverOrService);
    }
    if (options.label) {
        attributes->set(kSecAttrLabel, *options.label);
    }
    if (forAdding && !options.serverOrService) {
        return refuse("a service is needed (-s)", error);
    }
    attributes->set(kSecClass, kSecClassGenericPassword);
    return true;
}

// What an item command works on: the attributes its options name, in the
// keychain they name.
struct ItemTarget {
    Dictionary attributes;
    SecKeychainRef keychain;
    bool isExplicit = false;
};

[[nodiscard]] bool itemTarget(ItemKind kind, const Options& options, bool forAdding, ItemTarget* target,
                              ErrorRef* error)
{
    const bool named = kind == ItemKind::internet
                           ? internetAttributes(options, forAdding, &target->attributes, error)
                           : genericAttributes(options, forAdding, &target->attributes, error);
    if (!named) {
        return false;
    }
    target->keychain = targetKeychain(options, &target->isExplicit);
    return true;
}

int addPassword(ItemKind kind, const Command& command, const Options& options)
{
    ItemTarget target;
    if (ErrorRef error; !itemTarget(kind, options, true, &target, &error)) {
        return complain(command, error);
    }
    auto& [attributes, keychain, isExplicit] = target;
    PasswordInput input;
    if (const int unlocked = ensureUnlocked(command, keychain, input); unlocked != kExitSuccess) {
        return unlocked;
    }
    bool mismatch = false;
    auto password = input.newPassword("password to store", &mismatch);
    platform::security::WipedWhenDone passwordWiped(password);
    if (!password) {
        return usageError(command, mismatch ? "the passwords do not match"
                                            : "no password given: type it at the prompt or pipe it to standard input");
    }
    attributes.set(kSecValueData, Data(password->begin(), password->end()));
    Dictionary added = attributes;
    restrictTo(added, keychain, isExplicit);
    added.remove(kSecMatchSearchList);
    OSStatus status = SecItemAdd(added, nullptr);
    if (status == errSecDuplicateItem && options.update) {
        Dictionary query = primaryKeyQuery(attributes);
        restrictTo(query, keychain, isExplicit);
        Dictionary changes{{kSecValueData, attributes.get(kSecValueData)}};
        if (options.label) {
            changes.set(kSecAttrLabel, *options.label);
        }
        status = SecItemUpdate(query, changes);
    }
    if (status == errSecDuplicateItem) {
        fail(command, "the keychain already holds this item; add -U to replace its password");
        return kExitDuplicate;
    }
    return report(command, status);
}

int findPassword(ItemKind kind, const Command& command, const Options& options)
{
    ItemTarget target;
    if (ErrorRef error; !itemTarget(kind, options, false, &target, &error)) {
        return complain(command, error);
    }
    auto& [query, keychain, isExplicit] = target;
    restrictTo(query, keychain, isExplicit);
    query.set(kSecReturnAttributes, true);
    query.set(kSecReturnRef, true);
    if (options.passwordOnly) {
        PasswordInput input;
        if (const int unlocked = ensureUnlocked(command, keychain, input); unlocked != kExitSuccess) {
            return unlocked;
        }
        query.set(kSecReturnData, true);
    }
    Value result;
    const OSStatus status = SecItemCopyMatching(query, &result);
    if (status != errSecSuccess) {
        return report(command, status);
    }
    const auto& item = *result.dictionary();
    if (!options.passwordOnly) {
        printItem(item, false);
        return kExitSuccess;
    }
    const auto* secret = item.get(kSecValueData).data();
    if (secret != nullptr) {
        std::fwrite(secret->data(), 1, secret->size(), stdout);
    }
    // A terminal gets a line of its own; a pipe gets the password exactly.
    if (::isatty(STDOUT_FILENO) == 1) {
        print(stdout, "\n");
    }
    return kExitSuccess;
}

int deletePassword(ItemKind kind, const Command& command, const Options& options)
{
    ItemTarget target;
    if (ErrorRef error; !itemTarget(kind, options, false, &target, &error)) {
        return complain(command, error);
    }
    auto& [query, keychain, isExplicit] = target;
    if (query.size() == 1) {
        return usageError(command, "name the item to delete by at least one attribute");
    }
    restrictTo(query, keychain, isExplicit);
    query.set(kSecReturnAttributes, true);
    query.set(kSecReturnRef, true);
    Value result;
    OSStatus status = SecItemCopyMatching(query, &result);
    if (status != errSecSuccess) {
        return report(command, status);
    }
    // Exactly the first match goes, never a whole set of them.
    const auto& item = *result.dictionary();
    status = SecItemDelete({{kSecClass, item.get(kSecClass)}, {kSecValueRef, item.get(kSecValueRef)}});
    if (status != errSecSuccess) {
        return report(command, status);
    }
    print(stdout, "deleted:\n");
    printItem(item, false);
    if (kind == ItemKind::internet) {
        // What git-credential-zarvo kept beside the password (an OAuth
        // refresh token among it) must not outlive it. It is in the keychain
        // the password was found in.
        const auto password = QMInternetPasswordKeychainItem::create(nullptr, item);
        if (gitcredential::hasKeptAttributes(*password)) {
            if (status = gitcredential::deleteKeptAttributes(*password); status != errSecSuccess) {
                return report(command, status);
            }
            print(stdout, "and the attributes git-credential-zarvo kept with it\n");
        }
    }
    return kExitSuccess;
}

}  // namespace

int addInternetPassword(const Command& command, const Options& options)
{
    return addPassword(ItemKind::internet, command, options);
}

int findInternetPassword(const Command& command, const Options& options)
{
    return findPassword(ItemKind::internet, command, options);
}

int deleteInternetPassword(const Command& command, const Options& options)
{
    return deletePassword(ItemKind::internet, command, options);
}

int addGenericPassword(const Command& command, const Options& options)
{
    return addPassword(ItemKind::generic, command, options);
}

int findGenericPassword(const Command& command, const Options& options)
{
    return findPassword(ItemKind::generic, command, options);
}

int deleteGenericPassword(const Command& command, const Options& options)
{
    return deletePassword(ItemKind::generic, command, options);
}

}  // namespace keychaintool
