#include "QMFoundation/Keychain/QMKeychain.h"

#include "QMFoundation/Keychain/NSError+QMKeychain.h"
#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"

#include "Platform/Foundation/Exception.h"

using namespace platform;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMKeychain";

constexpr std::string_view kSupportedProtocols[] = {"ftp", "ftps", "http", "https", "ssh"};

}  // namespace

QMKeychainRef QMKeychain::defaultKeychain()
{
    static const auto keychain = platform::makeObject<QMKeychain>(nullptr);
    return keychain;
}

QMKeychainRef QMKeychain::create()
{
    return platform::makeObject<QMKeychain>(nullptr);
}

QMKeychainRef QMKeychain::keychainWithKeychainRef(SecKeychainRef keychainRef)
{
    return platform::makeObject<QMKeychain>(std::move(keychainRef));
}

QMKeychain::QMKeychain(SecKeychainRef keychainRef) : keychainRef_(std::move(keychainRef))
{
    if (!keychainRef_) {
        return;
    }
    char buffer[1024];
    std::uint32_t length = sizeof buffer;
    if (const OSStatus status = SecKeychainGetPath(keychainRef_, &length, buffer); status != errSecSuccess) {
        Exception::raise(NSInternalInconsistencyException, keychainErrorFromOSStatus(status)->localizedDescription());
    }
    path_ = std::string(buffer);
}

QMKeychainRef QMKeychain::keychainWithPath(const std::optional<std::string>& path,
                                           const std::optional<std::string>& password, ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(path.has_value(), "path != nil");
    SecKeychainRef created;
    const OSStatus status = SecKeychainCreate(path->c_str(), password ? static_cast<std::uint32_t>(password->size()) : 0,
                                              password ? password->data() : nullptr, !password.has_value(), nullptr,
                                              &created);
    if (status != errSecSuccess) {
        setError(error, keychainErrorFromOSStatus(status));
        return nullptr;
    }
    return keychainWithKeychainRef(std::move(created));
}

bool QMKeychain::supportsProtocol(const std::optional<std::string>& protocol)
{
    if (!protocol) {
        return false;
    }
    for (const auto supported : kSupportedProtocols) {
        if (supported == *protocol) {
            return true;
        }
    }
    return false;
}

QMInternetPasswordKeychainItemRef QMKeychain::findInternetPasswordForURLInSearchList(const URL& url, ErrorRef* error)
{
    return QMInternetPasswordKeychainItem::findInternetPasswordForURL(url, error);
}

std::optional<std::vector<QMInternetPasswordKeychainItemRef>> QMKeychain::findAllInternetPasswordsForURLInSearchList(
    const std::optional<URL>& url, ErrorRef* error)
{
    return QMInternetPasswordKeychainItem::findAllInternetPasswordsForURL(url, error);
}

QMGenericPasswordKeychainItemRef QMKeychain::findGenericPasswordItemForAccountInSearchList(
    const std::optional<std::string>& account, const std::optional<std::string>& service, ErrorRef* error)
{
    return QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(account, service, error);
}

QMKeychainRef QMKeychain::self()
{
    return std::static_pointer_cast<QMKeychain>(shared_from_this());
}

QMInternetPasswordKeychainItemRef QMKeychain::findInternetPasswordForURL(const URL& url, ErrorRef* error)
{
    return QMInternetPasswordKeychainItem::findInternetPasswordForURL(url, self(), error);
}

std::optional<std::vector<QMInternetPasswordKeychainItemRef>> QMKeychain::findAllInternetPasswordsForURL(
    const std::optional<URL>& url, ErrorRef* error)
{
    return QMInternetPasswordKeychainItem::findAllInternetPasswordsForURL(url, self(), error);
}

std::optional<std::vector<QMInternetPasswordKeychainItemRef>> QMKeychain::findAllInternetPasswords(ErrorRef* error)
{
    return findAllInternetPasswordsForURL(std::nullopt, error);
}

std::optional<std::vector<QMGenericPasswordKeychainItemRef>> QMKeychain::findAllGenericPasswords(ErrorRef* error)
{
    return QMGenericPasswordKeychainItem::findAllGenericPasswordItemsInKeychain(self(), error);
}

QMGenericPasswordKeychainItemRef QMKeychain::findGenericPasswordItemForAccount(
    const std::optional<std::string>& account, const std::optional<std::string>& service, ErrorRef* error)
{
    return QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(account, service, self(), error);
}

QMInternetPasswordKeychainItemRef QMKeychain::addInternetPasswordWithURL(const URL& url,
                                                                         const std::optional<std::string>& password,
                                                                         ErrorRef* error)
{
    return QMInternetPasswordKeychainItem::addInternetPasswordToKeychain(self(), url, password, error);
}

QMInternetPasswordKeychainItemRef QMKeychain::createOrUpdateInternetPasswordWithURL(
    const URL& url, const std::optional<std::string>& password, ErrorRef* error)
{
    if (auto item = findInternetPasswordForURL(url, error)) {
        item->setPassword(password);
        return item->save(error) ? item : nullptr;
    }
    return addInternetPasswordWithURL(url, password, error);
}

QMGenericPasswordKeychainItemRef QMKeychain::addGenericPasswordWithAccount(const std::optional<std::string>& account,
                                                                           const std::optional<std::string>& service,
                                                                           const std::optional<std::string>& password,
                                                                           ErrorRef* error)
{
    return QMGenericPasswordKeychainItem::addGenericPasswordToKeychain(self(), account, service, password, error);
}

QMGenericPasswordKeychainItemRef QMKeychain::createOrUpdateGenericPasswordWithAccount(
    const std::optional<std::string>& account, const std::optional<std::string>& service,
    const std::optional<std::string>& password, ErrorRef* error)
{
    if (auto item = findGenericPasswordItemForAccount(account, service, error)) {
        item->setPassword(password);
        return item->save(error) ? item : nullptr;
    }
    return addGenericPasswordWithAccount(account, service, password, error);
}

bool QMKeychain::destroy(ErrorRef* error)
{
    if (!keychainRef_) {
        Exception::raise(NSInvalidArgumentException, "The user's default keychain cannot be deleted.");
    }
    if (const OSStatus status = SecKeychainDelete(keychainRef_); status != errSecSuccess) {
        setError(error, keychainErrorFromOSStatus(status));
        return false;
    }
    return true;
}

std::string QMKeychain::description() const
{
    return prettyDescriptionWithItems(*this, Array{"path", "isDefaultKeychain"});
}

const PropertyTable& QMKeychain::propertyTable() const
{
    static const auto table = PropertyTable::extending<QMKeychain>(Object::propertyTable(), {
        {"keychainRef", [](const QMKeychain& keychain) { return Value(keychain.keychainRef()); }},
        {"path", [](const QMKeychain& keychain) { return Value(keychain.path()); },
         [](QMKeychain& keychain, const Value& value) {
             keychain.setPath(value.string() != nullptr ? std::optional<std::string>(*value.string()) : std::nullopt);
         }},
        {"isDefaultKeychain", [](const QMKeychain& keychain) { return Value(keychain.isDefaultKeychain()); }},
    });
    return table;
}
