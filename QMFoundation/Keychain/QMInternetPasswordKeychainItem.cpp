#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecItem.h"

using namespace platform;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMInternetPasswordKeychainItem";

struct ProtocolEntry {
    std::string_view name;
    std::uint32_t type;
};

// Names compare exactly: "HTTPS" is not in the table.
constexpr ProtocolEntry kProtocolTable[] = {
    {"ftp", kSecAttrProtocolFTP},   {"ftps", kSecAttrProtocolFTPS}, {"http", kSecAttrProtocolHTTP},
    {"https", kSecAttrProtocolHTTPS}, {"ssh", kSecAttrProtocolSSH},
};

}  // namespace

QMInternetPasswordKeychainItemRef QMInternetPasswordKeychainItem::create(QMKeychainRef keychain,
                                                                         const std::optional<Dictionary>& attributes)
{
    return platform::makeObject<QMInternetPasswordKeychainItem>(std::move(keychain), attributes);
}

Value QMInternetPasswordKeychainItem::keychainItemTypeRef()
{
    return Value(kSecClassInternetPassword);
}

std::optional<std::uint32_t> QMInternetPasswordKeychainItem::secProtocolTypeForProtocol(
    const std::optional<std::string>& protocol)
{
    if (protocol) {
        for (const auto& entry : kProtocolTable) {
            if (entry.name == *protocol) {
                return entry.type;
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> QMInternetPasswordKeychainItem::protocolForSecProtocolType(
    std::optional<std::int64_t> protocolType)
{
    if (protocolType) {
        for (const auto& entry : kProtocolTable) {
            if (entry.type == *protocolType) {
                return std::string(entry.name);
            }
        }
    }
    return std::nullopt;
}

Dictionary QMInternetPasswordKeychainItem::attributesForURL(const std::optional<URL>& url)
{
    Dictionary attributes;
    if (url && url->user()) {
        attributes.set(kSecAttrAccount, *url->user());
    }
    if (url && url->host()) {
        attributes.set(kSecAttrServer, *url->host());
    }
    if (url && url->scheme()) {
        if (const auto protocolType = secProtocolTypeForProtocol(url->scheme())) {
            attributes.set(kSecAttrProtocol, *protocolType);
        }
    }
    // Always present, so a URL without a port matches only entries stored
    // without one.
    const auto port = url ? url->port() : std::nullopt;
    attributes.set(kSecAttrPort, port && *port > 0 ? *port : 0);
    if (url && !url->path().empty()) {
        attributes.set(kSecAttrPath, url->path());
    }
    return attributes;
}

QMInternetPasswordKeychainItemRef QMInternetPasswordKeychainItem::findInternetPasswordForURL(
    const std::optional<URL>& url, ErrorRef* error)
{
    return findInternetPasswordForURL(url, nullptr, error);
}

QMInternetPasswordKeychainItemRef QMInternetPasswordKeychainItem::findInternetPasswordForURL(
    const std::optional<URL>& url, const QMKeychainRef& keychain, ErrorRef* error)
{
    PLATFORM_PARAMETER_ASSERT(url.has_value(), "URL != nil");
    // A URL without a host cannot say which site a password belongs to. Its
    // query would leave the server open and the first stored site would
    // answer, so a look-up by such a URL finds nothing.
    if (!url->hasHost()) {
        setError(error, nullptr);
        return nullptr;
    }
    const auto attributes = findKeychainItemWithAttributes(attributesForURL(url), keychain, error);
    return attributes ? create(keychain, attributes) : nullptr;
}

std::optional<std::vector<QMInternetPasswordKeychainItemRef>> QMInternetPasswordKeychainItem::findAllInternetPasswords(
    ErrorRef* error)
{
    return findAllInternetPasswordsForURL(std::nullopt, nullptr, error);
}

std::optional<std::vector<QMInternetPasswordKeychainItemRef>>
QMInternetPasswordKeychainItem::findAllInternetPasswordsInKeychain(const QMKeychainRef& keychain, ErrorRef* error)
{
    return findAllInternetPasswordsForURL(std::nullopt, keychain, error);
}

std::optional<std::vector<QMInternetPasswordKeychainItemRef>>
QMInternetPasswordKeychainItem::findAllInternetPasswordsForURL(const std::optional<URL>& url, ErrorRef* error)
{
    return findAllInternetPasswordsForURL(url, nullptr, error);
}

std::optional<std::vector<QMInternetPasswordKeychainItemRef>>
QMInternetPasswordKeychainItem::findAllInternetPasswordsForURL(const std::optional<URL>& url,
                                                               const QMKeychainRef& keychain, ErrorRef* error)
{
    if (url && !url->hasHost()) {
        return std::vector<QMInternetPasswordKeychainItemRef>();
    }
    return itemsWithAttributes(findAllKeychainItemsWithAttributes(attributesForURL(url), keychain, error), keychain);
}

QMInternetPasswordKeychainItemRef QMInternetPasswordKeychainItem::internetPasswordWithKeychain(
    const QMKeychainRef& keychain, const URL& url, const std::optional<std::string>& password)
{
    auto item = create(keychain);
    item->setAccount(url.user());
    item->setProtocol(url.scheme());
    item->setHost(url.host());
    item->setPort(url.port());
    item->setPath(url.path());
    item->setPassword(password);
    return item;
}

QMInternetPasswordKeychainItemRef QMInternetPasswordKeychainItem::addInternetPasswordToKeychain(
    const QMKeychainRef& keychain, const URL& url, const std::optional<std::string>& password, ErrorRef* error)
{
    auto item = internetPasswordWithKeychain(keychain, url, password);
    return item->save(error) ? item : nullptr;
}

std::optional<std::string> QMInternetPasswordKeychainItem::securityDomain() const
{
    return stringForKey(kSecAttrSecurityDomain);
}

void QMInternetPasswordKeychainItem::setSecurityDomain(const std::optional<std::string>& securityDomain)
{
    setStringForKey(securityDomain, kSecAttrSecurityDomain);
}

std::optional<std::string> QMInternetPasswordKeychainItem::host() const
{
    return stringForKey(kSecAttrServer);
}

void QMInternetPasswordKeychainItem::setHost(const std::optional<std::string>& host)
{
    setStringForKey(host, kSecAttrServer);
}

std::optional<std::string> QMInternetPasswordKeychainItem::protocol() const
{
    return protocolForSecProtocolType(objectForKey(kSecAttrProtocol).integerValue());
}

void QMInternetPasswordKeychainItem::setProtocol(const std::optional<std::string>& protocol)
{
    setObject(Value(secProtocolTypeForProtocol(protocol)), kSecAttrProtocol);
}

std::optional<std::int64_t> QMInternetPasswordKeychainItem::port() const
{
    const auto port = objectForKey(kSecAttrPort).integerValue();
    return port && *port != 0 ? port : std::nullopt;
}

void QMInternetPasswordKeychainItem::setPort(std::optional<std::int64_t> port)
{
    if (port && *port != 0) {
        setObject(Value(*port), kSecAttrPort);
    }
}

std::optional<std::string> QMInternetPasswordKeychainItem::path() const
{
    return stringForKey(kSecAttrPath);
}

void QMInternetPasswordKeychainItem::setPath(const std::optional<std::string>& path)
{
    if (path && !path->empty()) {
        setObject(Value(*path), kSecAttrPath);
    }
}

Dictionary QMInternetPasswordKeychainItem::dictionaryRepresentation() const
{
    return describedValuesForKeys(
        {"label", "creationDate", "modificationDate", "account", "protocol", "host", "path", "port"});
}

std::string QMInternetPasswordKeychainItem::description() const
{
    return describeWithKeys({"label", "creationDate", "modificationDate", "userDescription", "comment",
                             "isInvisible", "isNegative", "account", "password", "securityDomain", "host",
                             "protocol", "port", "path"});
}

const PropertyTable& QMInternetPasswordKeychainItem::propertyTable() const
{
    using Item = QMInternetPasswordKeychainItem;
    static const auto table = PropertyTable::extending<Item>(QMPasswordKeychainItem::propertyTable(), {
        {"securityDomain", [](const Item& item) { return Value(item.securityDomain()); },
         [](Item& item, const Value& value) { item.setSecurityDomain(optionalString(value)); }},
        {"host", [](const Item& item) { return Value(item.host()); },
         [](Item& item, const Value& value) { item.setHost(optionalString(value)); }},
        {"protocol", [](const Item& item) { return Value(item.protocol()); },
         [](Item& item, const Value& value) { item.setProtocol(optionalString(value)); }},
        {"port", [](const Item& item) { return Value(item.port()); },
         [](Item& item, const Value& value) { item.setPort(value.integerValue()); }},
        {"path", [](const Item& item) { return Value(item.path()); },
         [](Item& item, const Value& value) { item.setPath(optionalString(value)); }},
    });
    return table;
}
