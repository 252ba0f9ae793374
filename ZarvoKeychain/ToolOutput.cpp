#include "ZarvoKeychain/ToolOutput.h"

#include "ZarvoKeychain/CommandTable.h"
#include "ZarvoKeychain/KeychainTool.h"

#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"

#include "Platform/Security/SecItem.h"
#include "Platform/Security/SecKeychain.h"
#include "Platform/Security/Wipe.h"

#include <utility>

using namespace platform;

namespace keychaintool {

namespace {

// Made in a buffer that never grows (at most four bytes for each of the
// text's and two quotes): the text may be a password, whose pieces a grown
// buffer would leave behind unwiped.
std::string quoted(std::string_view text)
{
    std::string out;
    out.reserve(4 * text.size() + 2);
    out += '"';
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
    out += '"';
    return out;
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

ErrorRef complaint(ToolErrorCode code, std::string message)
{
    return Error::create(std::string(kToolErrorDomain), code, {{NSLocalizedDescriptionKey, Value(std::move(message))}});
}

}  // namespace

bool refuse(std::string message, ErrorRef* error)
{
    setError(error, complaint(kToolErrorUsage, std::move(message)));
    return false;
}

bool refuseValue(std::string message, ErrorRef* error)
{
    setError(error, complaint(kToolErrorBadValue, std::move(message)));
    return false;
}

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

int complain(const Command& command, const ErrorRef& error)
{
    if (error->code() == kToolErrorBadValue) {
        fail(command, error->localizedDescription());
        return kExitUsage;
    }
    return usageError(command, error->localizedDescription());
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
        auto shown = secret != nullptr
                         ? quoted({reinterpret_cast<const char*>(secret->data()), secret->size()})
                         : std::string("none");
        security::WipedWhenDone shownWiped(shown);
        security::appendToSecret(text, "    password: ");
        security::appendToSecret(text, shown);
        security::appendToSecret(text, "\n");
    }
    security::WipedWhenDone textWiped(text);
    print(stdout, text);
}

}  // namespace keychaintool
