#include "ZarvoKeychain/KeychainTool.h"

#include "ZarvoKeychain/PasswordInput.h"

#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Foundation/URL.h"
#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"

#include <sodium.h>

#include <charconv>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <unistd.h>

using namespace platform;

namespace {

constexpr std::string_view kProgram = "zarvo-keychain";

struct Options {
    std::optional<std::string> account;
    std::optional<std::string> serverOrService;
    std::optional<std::string> protocol;
    std::optional<std::string> port;
    std::optional<std::string> path;
    std::optional<std::string> label;
    std::optional<std::string> keychain;
    std::optional<std::string> url;
    bool passwordOnly = false;
    bool update = false;
    bool showSecrets = false;
    bool noPassword = false;
    bool help = false;
    std::vector<std::string> operands;
};

struct Command;
using Handler = std::function<int(const Command&, const Options&)>;

struct Command {
    std::string_view name;
    // The single-letter options it takes ("a" takes a value, "w" is a flag),
    // and whether it takes --url and --no-password.
    std::string_view letters;
    bool takesURL;
    bool takesNoPassword;
    int maximumOperands;
    std::string_view synopsis;
    std::string_view summary;
    Handler run;
};

constexpr std::string_view kValueLetters = "asrPplk";

void print(FILE* stream, std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stream);
}

void fail(const Command& command, std::string_view message)
{
    print(stderr, std::string(kProgram) + ": " + std::string(command.name) + ": " + std::string(message) + "\n");
}

int usageError(const Command& command, std::string_view message)
{
    fail(command, message);
    print(stderr, "Try '" + std::string(kProgram) + " " + std::string(command.name) + " --help'.\n");
    return kExitUsage;
}

int exitForStatus(OSStatus status)
{
    switch (status) {
    case errSecSuccess:
        return kExitSuccess;
    case errSecItemNotFound:
        return kExitNotFound;
    case errSecDuplicateItem:
    case errSecDuplicateKeychain:
        return kExitDuplicate;
    case errSecInteractionNotAllowed:
        return kExitLocked;
    case errSecAuthFailed:
        return kExitWrongPassword;
    case errSecNoSuchKeychain:
        return kExitNoSuchKeychain;
    default:
        return kExitFailure;
    }
}

int report(const Command& command, OSStatus status)
{
    if (status != errSecSuccess) {
        // A refused keychain is named, with what is wrong with it.
        fail(command, status == errSecUnprotectedKeychain
                          ? SecKeychainCopyRefusalReason()
                          : SecCopyErrorMessageString(status).value_or("keychain error " + std::to_string(status)));
    }
    return exitForStatus(status);
}

void wipe(std::string& secret)
{
    sodium_memzero(secret.data(), secret.size());
    secret.clear();
}

// ---- Options ---------------------------------------------------------------

std::optional<std::string>* valueSlot(Options& options, char letter)
{
    switch (letter) {
    case 'a': return &options.account;
    case 's': return &options.serverOrService;
    case 'r': return &options.protocol;
    case 'P': return &options.port;
    case 'p': return &options.path;
    case 'l': return &options.label;
    case 'k': return &options.keychain;
    default: return nullptr;
    }
}

// Nothing when the arguments parse; else the complaint.
std::optional<std::string> parseOptions(const Command& command, const std::vector<std::string>& arguments,
                                        Options* options)
{
    bool operandsOnly = false;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& argument = arguments[index];
        if (operandsOnly || argument.empty() || argument[0] != '-' || argument == "-") {
            options->operands.push_back(argument);
            continue;
        }
        if (argument == "--") {
            operandsOnly = true;
        } else if (argument == "--help" || argument == "-h") {
            options->help = true;
        } else if (command.takesURL && (argument == "--url" || argument.rfind("--url=", 0) == 0)) {
            if (argument == "--url") {
                if (++index == arguments.size()) {
                    return "--url needs a URL";
                }
                options->url = arguments[index];
            } else {
                options->url = argument.substr(6);
            }
        } else if (command.takesNoPassword && argument == "--no-password") {
            options->noPassword = true;
        } else if (argument.size() == 2 && command.letters.find(argument[1]) != std::string_view::npos) {
            const char letter = argument[1];
            if (auto* slot = valueSlot(*options, letter)) {
                if (++index == arguments.size()) {
                    return argument + " needs a value";
                }
                *slot = arguments[index];
            } else if (letter == 'w') {
                options->passwordOnly = true;
            } else if (letter == 'U') {
                options->update = true;
            } else if (letter == 'd') {
                options->showSecrets = true;
            }
        } else {
            return "unknown option " + argument;
        }
    }
    if (static_cast<int>(options->operands.size()) > command.maximumOperands) {
        return "unexpected argument " + options->operands[static_cast<std::size_t>(command.maximumOperands)];
    }
    return std::nullopt;
}

// ---- Keychains and attributes ----------------------------------------------

// The keychain a command works on: -k (or the operand) or the default one.
SecKeychainRef targetKeychain(const Options& options, bool* isExplicit)
{
    SecKeychainRef keychain;
    const auto& path = options.keychain ? options.keychain
                       : options.operands.empty() ? std::optional<std::string>() : options.operands.front();
    *isExplicit = path.has_value();
    if (path) {
        SecKeychainOpen(path->c_str(), &keychain);
    } else {
        SecKeychainCopyDefault(&keychain);
    }
    return keychain;
}

void restrictTo(Dictionary& query, const SecKeychainRef& keychain, bool isExplicit)
{
    if (isExplicit) {
        query.set(kSecUseKeychain, Value(keychain));
        query.set(kSecMatchSearchList, Array{Value(keychain)});
    }
}

// Opens a password-protected keychain for this process when a command needs
// its secrets. A missing keychain needs nothing; the command reports it.
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
    if (!password) {
        fail(command, "the keychain " + keychain->path() +
                          " is locked; give its password on the first line of standard input");
        return kExitLocked;
    }
    const OSStatus unlocked =
        SecKeychainUnlock(keychain, static_cast<std::uint32_t>(password->size()), password->data(), true);
    wipe(*password);
    return report(command, unlocked);
}

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
std::optional<std::string> internetAttributes(const Options& options, bool forAdding, Dictionary* attributes)
{
    if (options.url) {
        const auto url = URL::fromString(*options.url);
        if (!url) {
            return "not a URL: " + *options.url;
        }
        if (forAdding && (!QMKeychain::supportsProtocol(url->scheme()) || !url->host())) {
            return "a URL to store needs one of the schemes ftp, ftps, http, https, ssh and a host";
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
            return "unknown protocol " + *options.protocol + " (use ftp, ftps, http, https, ssh or a four-letter code)";
        }
        attributes->set(kSecAttrProtocol, *protocol);
    }
    if (options.port) {
        const auto port = parsePort(*options.port);
        if (!port) {
            return "not a port number: " + *options.port;
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
        return "a server is needed (-s or --url)";
    }
    attributes->set(kSecClass, kSecClassInternetPassword);
    return std::nullopt;
}

std::optional<std::string> genericAttributes(const Options& options, bool forAdding, Dictionary* attributes)
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
        return "a service is needed (-s)";
    }
    attributes->set(kSecClass, kSecClassGenericPassword);
    return std::nullopt;
}

bool isInternet(const Command& command)
{
    return command.name.find("internet") != std::string_view::npos;
}

std::optional<std::string> attributesFor(const Command& command, const Options& options, bool forAdding,
                                         Dictionary* attributes)
{
    return isInternet(command) ? internetAttributes(options, forAdding, attributes)
                               : genericAttributes(options, forAdding, attributes);
}

// The query that names exactly the stored item with the same primary key as
// `attributes`: every key attribute, with the store's "" or 0 where unset.
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

// ---- Printing --------------------------------------------------------------

std::string quoted(std::string_view text)
{
    std::string out = "\"";
    for (const unsigned char character : text) {
        if (character == '"' || character == '\\') {
            out += '\\';
            out += static_cast<char>(character);
        } else if (character < 0x20 || character == 0x7f) {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\x%02x", character);
            out += escape;
        } else {
            out += static_cast<char>(character);
        }
    }
    return out + "\"";
}

std::string codeText(std::int64_t code)
{
    const auto text = fourCharCodeString(static_cast<std::uint32_t>(code));
    return text ? "'" + *text + "'" : std::to_string(code);
}

std::string valueText(std::string_view key, const Value& value)
{
    if (const auto* text = value.string()) {
        return quoted(*text);
    }
    if (const auto* date = value.date()) {
        return date->description();
    }
    if (const auto* data = value.data()) {
        return "<" + std::to_string(data->size()) + " bytes>";
    }
    if (value.isBoolean()) {
        return *value.boolValue() ? "yes" : "no";
    }
    const auto number = value.integerValue().value_or(0);
    if (key == kSecAttrProtocol) {
        const auto name = QMInternetPasswordKeychainItem::protocolForSecProtocolType(number);
        return number == 0 ? "none" : name ? *name + " (" + codeText(number) + ")" : codeText(number);
    }
    if (key == kSecAttrAuthenticationType || key == kSecAttrCreator || key == kSecAttrType) {
        return number == 0 ? "none" : codeText(number);
    }
    return std::to_string(number);
}

void printItem(const Dictionary& item, bool withSecret)
{
    static const std::pair<std::string_view, std::string_view> kNames[] = {
        {kSecAttrAccount, "account"},       {kSecAttrService, "service"},
        {kSecAttrServer, "server"},         {kSecAttrProtocol, "protocol"},
        {kSecAttrPort, "port"},             {kSecAttrPath, "path"},
        {kSecAttrSecurityDomain, "security domain"},
        {kSecAttrAuthenticationType, "authentication type"},
        {kSecAttrLabel, "label"},           {kSecAttrDescription, "description"},
        {kSecAttrComment, "comment"},       {kSecAttrCreator, "creator"},
        {kSecAttrType, "type"},             {kSecAttrIsInvisible, "invisible"},
        {kSecAttrIsNegative, "negative"},   {kSecAttrGeneric, "generic data"},
        {kSecAttrCreationDate, "created"},  {kSecAttrModificationDate, "modified"},
    };
    std::string text;
    if (const auto reference = item.get(kSecValueRef).objectAs<SecKeychainItem>()) {
        text += "keychain: " + quoted(reference->keychainPath()) + "\n";
    }
    text += item.get(kSecClass) == Value(kSecClassInternetPassword) ? "class: internet password\n"
                                                                     : "class: generic password\n";
    for (const auto& [key, name] : kNames) {
        if (const auto* value = item.find(key)) {
            text += "    " + std::string(name) + ": " + valueText(key, *value) + "\n";
        }
    }
    if (withSecret) {
        const auto* secret = item.get(kSecValueData).data();
        text += "    password: " + (secret != nullptr ? quoted(std::string(secret->begin(), secret->end())) : "none") + "\n";
    }
    print(stdout, text);
    sodium_memzero(text.data(), text.size());
}

// ---- Subcommands -----------------------------------------------------------

// What an item command works on: the attributes its options name, in the
// keychain they name.
struct ItemTarget {
    Dictionary attributes;
    SecKeychainRef keychain;
    bool isExplicit = false;
};

// Nothing when the options make a target; else the exit status of the
// complaint already written.
std::optional<int> itemTarget(const Command& command, const Options& options, bool forAdding, ItemTarget* target)
{
    if (const auto problem = attributesFor(command, options, forAdding, &target->attributes)) {
        return usageError(command, *problem);
    }
    target->keychain = targetKeychain(options, &target->isExplicit);
    return std::nullopt;
}

int addPassword(const Command& command, const Options& options)
{
    ItemTarget target;
    if (const auto complaint = itemTarget(command, options, true, &target)) {
        return *complaint;
    }
    auto& [attributes, keychain, isExplicit] = target;
    PasswordInput input;
    if (const int unlocked = ensureUnlocked(command, keychain, input); unlocked != kExitSuccess) {
        return unlocked;
    }
    bool mismatch = false;
    auto password = input.newPassword("password to store", &mismatch);
    if (!password) {
        return usageError(command, mismatch ? "the passwords do not match"
                                            : "no password given: type it at the prompt or pipe it to standard input");
    }
    attributes.set(kSecValueData, Data(password->begin(), password->end()));
    wipe(*password);
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

int findPassword(const Command& command, const Options& options)
{
    ItemTarget target;
    if (const auto complaint = itemTarget(command, options, false, &target)) {
        return *complaint;
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

int deletePassword(const Command& command, const Options& options)
{
    ItemTarget target;
    if (const auto complaint = itemTarget(command, options, false, &target)) {
        return *complaint;
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
    if (status == errSecSuccess) {
        // Exactly the first match goes, never a whole set of them.
        const auto& item = *result.dictionary();
        status = SecItemDelete({{kSecClass, item.get(kSecClass)}, {kSecValueRef, item.get(kSecValueRef)}});
        if (status == errSecSuccess) {
            print(stdout, "deleted:\n");
            printItem(item, false);
        }
    }
    return report(command, status);
}

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
    auto password = input.newPassword("password for the new keychain", &mismatch);
    if (!password || password->empty()) {
        return usageError(command, mismatch ? "the passwords do not match"
                                            : "no password given; use --no-password for a keychain protected only "
                                              "by its file permissions");
    }
    const OSStatus status =
        SecKeychainCreate(path.c_str(), static_cast<std::uint32_t>(password->size()), password->data(), false, nullptr,
                          nullptr);
    wipe(*password);
    return report(command, status);
}

int deleteKeychain(const Command& command, const Options& options)
{
    if (options.operands.size() != 1) {
        return usageError(command, "give the path of the keychain to delete");
    }
    SecKeychainRef keychain;
    SecKeychainOpen(options.operands.front().c_str(), &keychain);
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

// ---- Usage -----------------------------------------------------------------

const std::vector<Command>& commands()
{
    static const std::vector<Command> table = {
        {"add-internet-password", "asrPplkU", true, false, 0,
         "[-a account] (-s server | --url URL) [-r protocol] [-P port] [-p path] [-l label] [-k keychain] [-U]",
         "Stores a password for a server. The password is read from standard input, or asked for\n"
         "twice on a terminal; it is never taken from the command line. --url maps a URL the way\n"
         "zarvo-askpass looks one up (user, host, scheme, port or 0, path). -U replaces the\n"
         "password of an existing item instead of failing.",
         addPassword},
        {"find-internet-password", "asrPplkw", true, false, 0,
         "[-a account] [-s server | --url URL] [-r protocol] [-P port] [-p path] [-l label] [-k keychain] [-w]",
         "Shows the first item that matches every given attribute, without its password.\n"
         "-w prints only the password (ending in a newline only on a terminal).",
         findPassword},
        {"delete-internet-password", "asrPplk", true, false, 0,
         "[-a account] [-s server | --url URL] [-r protocol] [-P port] [-p path] [-l label] [-k keychain]",
         "Deletes the first item that matches every given attribute.", deletePassword},
        {"add-generic-password", "aslkU", false, false, 0, "[-a account] -s service [-l label] [-k keychain] [-U]",
         "Stores a password for a service, read as for add-internet-password.", addPassword},
        {"find-generic-password", "aslkw", false, false, 0, "[-a account] [-s service] [-l label] [-k keychain] [-w]",
         "Shows the first matching item; -w prints only its password.", findPassword},
        {"delete-generic-password", "aslk", false, false, 0, "[-a account] [-s service] [-l label] [-k keychain]",
         "Deletes the first matching item.", deletePassword},
        {"create-keychain", "", false, true, 1, "[--no-password] path",
         "Creates a keychain file. Its password is read like an item's; with --no-password it has\n"
         "none and, like the default keychain, is protected by its file permissions (mode 0600).",
         createKeychain},
        {"delete-keychain", "", false, false, 1, "path", "Deletes a keychain file (only a keychain).",
         deleteKeychain},
        {"unlock-keychain", "k", false, false, 1, "[-k keychain | keychain]",
         "Checks a keychain's password. A keychain is unlocked only inside the process that unlocks\n"
         "it, so commands that need a locked keychain's secrets ask for its password themselves:\n"
         "at a prompt, or as the first line of standard input.",
         unlockKeychain},
        {"dump-keychain", "kd", false, false, 0, "[-k keychain] [-d]",
         "Lists every item of the keychain. Passwords are shown only with -d.", dumpKeychain},
    };
    return table;
}

void printUsage(FILE* stream)
{
    std::string text = "usage: " + std::string(kProgram) + " command [options]\n\n"
                       "Manages the passwords that zarvo-askpass answers git and ssh with. Without -k,\n"
                       "commands use the default keychain, " + SecKeychainDefaultPath() + ",\n"
                       "which has no password: like your SSH keys, it is protected by its file permissions.\n\n"
                       "Commands:\n";
    for (const auto& command : commands()) {
        text += "    " + std::string(command.name) + "\n";
    }
    text += "\nRun '" + std::string(kProgram) + " command --help' for a command's options.\n"
            "Exit status: 0 success, 1 other failure, 2 bad usage, 3 item not found,\n"
            "4 duplicate item or keychain, 5 keychain locked, 6 wrong keychain password,\n"
            "7 no such keychain.\n";
    print(stream, text);
}

void printCommandUsage(const Command& command)
{
    print(stdout, "usage: " + std::string(kProgram) + " " + std::string(command.name) + " " +
                      std::string(command.synopsis) + "\n\n" + std::string(command.summary) + "\n");
}

}  // namespace

int runKeychainTool(const std::vector<std::string>& arguments)
{
    if (arguments.empty()) {
        printUsage(stderr);
        return kExitUsage;
    }
    if (arguments.front() == "--help" || arguments.front() == "-h" || arguments.front() == "help") {
        printUsage(stdout);
        return kExitSuccess;
    }
    for (const auto& command : commands()) {
        if (command.name != arguments.front()) {
            continue;
        }
        Options options;
        const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
        if (const auto problem = parseOptions(command, rest, &options)) {
            return usageError(command, *problem);
        }
        if (options.help) {
            printCommandUsage(command);
            return kExitSuccess;
        }
        return command.run(command, options);
    }
    print(stderr, std::string(kProgram) + ": unknown command " + arguments.front() + "\n");
    printUsage(stderr);
    return kExitUsage;
}
