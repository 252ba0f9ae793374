#include "GitCredentialZarvo/CredentialHelper.h"

#include "GitCredentialZarvo/CredentialRequest.h"
#include "GitCredentialZarvo/KeptAttributes.h"

#include "QMFoundation/Keychain/NSError+QMKeychain.h"
#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"
#include "QMFoundation/Strings/NSString+QMURLTranscoding.h"

#include "Platform/Foundation/URL.h"
#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"
#include "Platform/Security/Wipe.h"

#include <filesystem>
#include <optional>
#include <string_view>

using namespace platform;
using gitcredential::keptAttributesAccount;
using gitcredential::kKeptAttributesMark;
using gitcredential::kKeptAttributesService;

namespace {

constexpr std::string_view kProgram = "git-credential-zarvo";

// Attributes newer versions of git send with a password and want back with
// it (see KeptAttributes.h for where they are kept).
constexpr std::string_view kKeptAttributes[] = {"password_expiry_utc", "oauth_refresh_token"};

constexpr std::string_view kUsage =
    "usage: git-credential-zarvo [-k keychain | --keychain keychain] (get | store | erase)\n"
    "\n"
    "git's credential helper on the keychain zarvo-askpass answers from. Wire it with\n"
    "    git config --global credential.helper \"$(command -v git-credential-zarvo)\"\n"
    "The short form credential.helper zarvo works too while the helper is on PATH,\n"
    "but git then starts a second git to find it. git runs it with the operation and\n"
    "the credential's attributes on standard input. Without -k the default keychain\n"
    "is used.\n";

enum Exit : int {
    kExitDone = 0,
    kExitFailed = 1,
};

struct Invocation {
    std::optional<std::string> keychainPath;
    std::optional<std::string> operation;
    bool help = false;
};

std::optional<std::string> parseArguments(const std::vector<std::string>& arguments, Invocation* invocation)
{
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string& argument = arguments[index];
        if (argument == "--help" || argument == "-h") {
            invocation->help = true;
        } else if (argument == "-k" || argument == "--keychain") {
            if (++index == arguments.size()) {
                return argument + " needs the path of a keychain";
            }
            invocation->keychainPath = arguments[index];
        } else if (argument.rfind("--keychain=", 0) == 0) {
            if (argument.size() == 11) {
                return "--keychain needs the path of a keychain";
            }
            invocation->keychainPath = argument.substr(11);
        } else if (!argument.empty() && argument[0] == '-') {
            return "unknown option " + argument;
        } else if (invocation->operation) {
            return "one operation only, got " + *invocation->operation + " and " + argument;
        } else {
            invocation->operation = argument;
        }
    }
    return std::nullopt;
}

// A value that is there and not empty; git leaves out what it does not know,
// and an empty user name names nobody.
std::optional<std::string> given(const CredentialRequest& request, std::string_view key)
{
    const auto value = request.value(key);
    return value && !value->empty() ? std::optional<std::string>(*value) : std::nullopt;
}

// Our copies of secrets (a password, the kept attributes with their refresh
// token) are wiped when the scope that made them ends. They stay in
// std::optional<std::string> because the keychain classes take them so:
// anything else would make them a temporary copy that nothing wipes.
using security::WipedWhenDone;

// What the request is about, as a URL the responder could have been asked
// about. Nothing with `problem` empty when there is nothing to do here (no
// host, or a protocol the keychain has no code for, such as "cert"); nothing
// with `problem` set for attributes that make no URL.
std::optional<URL> urlForRequest(const CredentialRequest& request, std::string* problem)
{
    const auto protocol = given(request, "protocol");
    const auto host = given(request, "host");
    if (!protocol || !host || !QMKeychain::supportsProtocol(*protocol)) {
        return std::nullopt;
    }
    // The host goes into the URL as it is ("[::1]:8080" keeps its brackets),
    // so nothing in it may end the authority early.
    for (const unsigned char character : *host) {
        if (character <= 0x20 || character == 0x7f || std::string_view("/?#@\\%").find(static_cast<char>(character)) !=
                                                            std::string_view::npos) {
            *problem = "the host attribute is not a host name";
            return std::nullopt;
        }
    }
    std::string text = *protocol + "://";
    if (const auto username = given(request, "username")) {
        text += stringByURLEncodingString(*username) + "@";
    }
    text += *host;
    if (const auto path = given(request, "path")) {
        // git sends the path without its leading slash, and decoded.
        text += "/" + stringByURLEncodingStringLeavingCharactersInStringUntoched(*path, "/", "?#[]");
    }
    auto url = URL::fromString(text);
    if (!url || !url->host() || url->host()->empty()) {
        *problem = "the protocol, host and path attributes make no URL";
        return std::nullopt;
    }
    return url;
}

// The kept attributes of the request, one "key=value" line each, in a fixed
// order so that equal sets compare equal. A secret for the caller to wipe.
std::optional<std::string> keptAttributesOf(const CredentialRequest& request)
{
    std::string text;
    for (const auto key : kKeptAttributes) {
        if (const auto value = request.value(key)) {
            security::appendToSecret(text, key);
            security::appendToSecret(text, "=");
            security::appendToSecret(text, *value);
            security::appendToSecret(text, "\n");
        }
    }
    return text;
}

class Helper {
public:
    Helper(QMKeychainRef keychain, std::string* output, std::string* errors)
        : keychain_(std::move(keychain)), output_(output), errors_(errors)
    {
    }

    int get(const URL& url)
    {
        ErrorRef error;
        const auto item = QMInternetPasswordKeychainItem::findInternetPasswordForURL(url, keychain_, &error);
        if (!item) {
            return outcome(error);
        }
        auto password = item->password();
        WipedWhenDone passwordWiped(password);
        const auto account = item->account().value_or("");
        // A value with a line break cannot be said in git's protocol: the
        // rest would be read as further attributes.
        if (!password || holdsLineBreakOrNul(*password) || holdsLineBreakOrNul(account)) {
            return kExitDone;
        }
        auto kept = keptAttributesText(*item);
        WipedWhenDone keptWiped(kept);
        // Written straight into the output, whose room is made first: a
        // string that grows frees its old buffer with the password in it.
        constexpr std::size_t kLabelsLength = 32;
        output_->reserve(output_->size() + account.size() + password->size() + kept->size() + kLabelsLength);
        if (!account.empty()) {
            output_->append("username=").append(account).append("\n");
        }
        output_->append("password=").append(*password).append("\n");
        std::string_view rest = *kept;
        while (!rest.empty()) {
            const auto end = rest.find('\n');
            const auto line = rest.substr(0, end);
            rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
            for (const auto key : kKeptAttributes) {
                if (line.size() > key.size() && line.substr(0, key.size()) == key && line[key.size()] == '=') {
                    output_->append(line).append("\n");
                }
            }
        }
        return kExitDone;
    }

    int store(const URL& url, const CredentialRequest& request)
    {
        const auto givenPassword = request.value("password");
        if (!given(request, "username") || !givenPassword) {
            return kExitDone;  // git stores only a complete credential
        }
        // The one copy of the password that goes to the keychain.
        std::optional<std::string> password(std::in_place, *givenPassword);
        WipedWhenDone passwordWiped(password);
        auto kept = keptAttributesOf(request);
        WipedWhenDone keptWiped(kept);
        // Two helpers storing the same new item at once: the one that loses
        // the race finds the other's item and updates it.
        for (int attempt = 0; attempt < 2; ++attempt) {
            ErrorRef error;
            auto item = storedItem(url, &error);
            if (!item && error) {
                return outcome(error);
            }
            if (item) {
                auto stored = item->password();
                WipedWhenDone storedWiped(stored);
                auto storedKept = keptAttributesText(*item);
                WipedWhenDone storedKeptWiped(storedKept);
                if (stored == password && storedKept == kept) {
                    return kExitDone;  // git stores after every success; most change nothing
                }
                if (stored != password) {
                    item->setPassword(password);
                    if (!item->save(&error)) {
                        return outcome(error);
                    }
                }
            } else {
                item = QMInternetPasswordKeychainItem::internetPasswordWithKeychain(keychain_, url, password);
                if (!item->save(&error)) {
                    if (error && error->code() == errSecDuplicateItem) {
                        continue;
                    }
                    return outcome(error);
                }
            }
            return storeKeptAttributes(*item, kept);
        }
        return kExitDone;
    }

    int erase(const URL& url, const CredentialRequest& request)
    {
        // Without the key, a stored password cannot be told from the one the
        // server rejected: a locked keychain is left as it is.
        if (isLocked()) {
            return kExitDone;
        }
        ErrorRef error;
        const auto candidates = QMInternetPasswordKeychainItem::findAllInternetPasswordsForURL(url, keychain_, &error);
        if (!candidates) {
            return outcome(error);
        }
        const auto password = request.value("password");
        for (const auto& candidate : *candidates) {
            QMInternetPasswordKeychainItemRef item = candidate;
            if (password) {
                // A find-all returns no secrets: read this one's by its reference.
                const auto withSecret = QMInternetPasswordKeychainItem::findKeychainItemWithAttributes(
                    {{kSecValueRef, Value(candidate->keychainItemRef())}}, keychain_, &error);
                if (!withSecret) {
                    if (error) {
                        return outcome(error);
                    }
                    continue;  // gone meanwhile
                }
                item = QMInternetPasswordKeychainItem::create(keychain_, *withSecret);
                auto stored = item->password();
                WipedWhenDone storedWiped(stored);
                if (stored != *password) {
                    continue;
                }
            }
            if (const OSStatus status = gitcredential::deleteKeptAttributes(*item); status != errSecSuccess) {
                return outcome(keychainErrorFromOSStatus(status));
            }
            if (!item->destroy(&error)) {
                return outcome(error);
            }
            return kExitDone;
        }
        return kExitDone;
    }

private:
    bool isLocked() const
    {
        SecKeychainRef reference = keychain_->keychainRef();
        if (!reference && SecKeychainCopyDefault(&reference) != errSecSuccess) {
            return false;  // no keychain: the look-up will say so
        }
        SecKeychainStatus status;
        return SecKeychainGetStatus(reference, &status) == errSecSuccess && !status.isUnlocked;  // never without a password
    }

    // Locked keychains and missing items are nothing to say; any other
    // failure gets one line.
    int outcome(const ErrorRef& error)
    {
        if (!error || error->code() == errSecItemNotFound || error->code() == errSecInteractionNotAllowed) {
            return kExitDone;
        }
        const auto status = static_cast<OSStatus>(error->code());
        // A keychain refused or missing is named (refused, with its fault and
        // how to mend it): git shows this line at every fetch until then.
        std::string message = status == errSecUnprotectedKeychain
                                  ? SecKeychainCopyRefusalReason()
                                  : SecCopyErrorMessageString(status).value_or("keychain error " + std::to_string(status));
        if (status == errSecNoSuchKeychain && keychain_->path()) {
            message += " (" + *keychain_->path() + ")";
        }
        *errors_ += std::string(kProgram) + ": " + message + "\n";
        return kExitFailed;
    }

    // The item with the same primary key as the URL's new item would have:
    // unlike a look-up, a URL without a path names only the item without one.
    QMInternetPasswordKeychainItemRef storedItem(const URL& url, ErrorRef* error)
    {
        Dictionary attributes = QMInternetPasswordKeychainItem::attributesForURL(url);
        if (!attributes.contains(kSecAttrPath)) {
            attributes.set(kSecAttrPath, "");
        }
        attributes.set(kSecAttrSecurityDomain, "");
        attributes.set(kSecAttrAuthenticationType, 0);
        const auto found = QMInternetPasswordKeychainItem::findKeychainItemWithAttributes(attributes, keychain_, error);
        return found ? QMInternetPasswordKeychainItem::create(keychain_, *found) : nullptr;
    }

    QMGenericPasswordKeychainItemRef keptAttributesItem(const QMInternetPasswordKeychainItem& item)
    {
        return gitcredential::keptAttributesItem(item, keychain_);
    }

    // The stored kept attributes: a secret for the caller to wipe.
    std::optional<std::string> keptAttributesText(const QMInternetPasswordKeychainItem& item)
    {
        const auto kept = keptAttributesItem(item);
        auto text = kept ? kept->password() : std::nullopt;
        return text ? std::move(text) : std::optional<std::string>(std::in_place);
    }

    int storeKeptAttributes(QMInternetPasswordKeychainItem& item, const std::optional<std::string>& kept)
    {
        ErrorRef error;
        const bool marked = gitcredential::hasKeptAttributes(item);
        if (kept->empty()) {
            if (!marked) {
                return kExitDone;
            }
            if (const OSStatus status = gitcredential::deleteKeptAttributes(item); status != errSecSuccess) {
                return outcome(keychainErrorFromOSStatus(status));
            }
            item.setComment("");
            return item.save(&error) ? kExitDone : outcome(error);
        }
        if (!keychain_->createOrUpdateGenericPasswordWithAccount(keptAttributesAccount(item),
                                                                 std::string(kKeptAttributesService), kept, &error)) {
            return outcome(error);
        }
        if (!marked) {
            item.setComment(std::string(kKeptAttributesMark));
            if (!item.save(&error)) {
                return outcome(error);
            }
        }
        return kExitDone;
    }

    QMKeychainRef keychain_;
    std::string* output_;
    std::string* errors_;
};

}  // namespace

int runCredentialHelper(const std::vector<std::string>& arguments, const std::function<std::string()>& readInput,
                        std::string* output, std::string* errors)
{
    const auto complain = [errors](const std::string& message) {
        *errors += std::string(kProgram) + ": " + message + "\n";
        return kExitFailed;
    };
    Invocation invocation;
    if (const auto problem = parseArguments(arguments, &invocation)) {
        return complain(*problem + " (try --help)");
    }
    if (invocation.help) {
        *output += kUsage;
        return kExitDone;
    }
    if (!invocation.operation) {
        return complain("no operation given: get, store or erase (try --help)");
    }
    const std::string& operation = *invocation.operation;
    if (operation != "get" && operation != "store" && operation != "erase") {
        // Operations git adds later reach older helpers too; they are to be
        // ignored, not failed.
        *errors += std::string(kProgram) + ": ignoring the unknown operation " + operation + "\n";
        return kExitDone;
    }
    std::string input = readInput();
    std::string problem;
    const auto request = readCredentialRequest(input, &problem);
    // The request may hold a password; what is needed of it is copied out.
    security::wipe(input);
    if (!request) {
        return complain("unreadable request: " + problem + "; nothing done");
    }
    const auto url = urlForRequest(*request, &problem);
    if (!url) {
        return problem.empty() ? kExitDone : complain(problem + "; nothing done");
    }

    QMKeychainRef keychain = QMKeychain::defaultKeychain();
    if (invocation.keychainPath) {
        SecKeychainRef reference;
        // git runs helpers in the repository's folder: a relative path would
        // name another keychain in every repository.
        std::error_code ignored;
        const auto path = std::filesystem::absolute(*invocation.keychainPath, ignored).string();
        if (SecKeychainOpen(path.c_str(), &reference) != errSecSuccess || !reference) {
            return complain("cannot open the keychain " + *invocation.keychainPath);
        }
        keychain = QMKeychain::keychainWithKeychainRef(reference);
    }
    Helper helper(keychain, output, errors);
    if (operation == "get") {
        return helper.get(*url);
    }
    if (operation == "store") {
        return helper.store(*url, *request);
    }
    return helper.erase(*url, *request);
}
