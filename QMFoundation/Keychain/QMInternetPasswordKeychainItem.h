// QMInternetPasswordKeychainItem: a password for a network location, and the
// mapping between a URL and the keychain's account, server, protocol, port
// and path attributes.
//
// A URL becomes a query like this: its user is the account, its host the
// server, its scheme (one of "ftp", "ftps", "http", "https", "ssh", exactly
// so; anything else leaves the protocol open) the protocol, its port or else
// 0 the port, and a non-empty path the path. So a URL without a port finds
// only entries stored without one: the scheme's default port is not filled in.
#pragma once

#include "QMFoundation/Keychain/QMKeychainItemClassOperations.h"
#include "QMFoundation/Keychain/QMPasswordKeychainItem.h"

#include "Platform/Foundation/URL.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

class QMInternetPasswordKeychainItem;
using QMInternetPasswordKeychainItemRef = std::shared_ptr<QMInternetPasswordKeychainItem>;

class QMInternetPasswordKeychainItem
    : public QMKeychainItemClassOperations<QMInternetPasswordKeychainItem, QMPasswordKeychainItem> {
public:
    static QMInternetPasswordKeychainItemRef create(QMKeychainRef keychain = nullptr,
                                                    const std::optional<platform::Dictionary>& attributes = std::nullopt);

    // kSecClassInternetPassword. The inherited class operations
    // (queryAttributesWithAttributes, findKeychainItemWithAttributes,
    // findAllKeychainItemsWithAttributes) search for this class.
    static platform::Value keychainItemTypeRef();

    // Between protocol names and keychain protocol values; nothing for a name
    // or value outside the table.
    static std::optional<std::uint32_t> secProtocolTypeForProtocol(const std::optional<std::string>& protocol);
    static std::optional<std::string> protocolForSecProtocolType(std::optional<std::int64_t> protocolType);

    // The query attributes a URL maps to (see above); nothing but the port
    // for no URL.
    static platform::Dictionary attributesForURL(const std::optional<platform::URL>& url);

    // One entry for the URL, searching the keychain (or, with none, the
    // default search list). A missing URL is a programming error.
    [[nodiscard]] static QMInternetPasswordKeychainItemRef findInternetPasswordForURL(const std::optional<platform::URL>& url,
                                                                        platform::ErrorRef* error = nullptr);
    [[nodiscard]] static QMInternetPasswordKeychainItemRef findInternetPasswordForURL(const std::optional<platform::URL>& url,
                                                                        const QMKeychainRef& keychain,
                                                                        platform::ErrorRef* error = nullptr);
    // Every entry for the URL. Without a URL only the port is constrained, to
    // 0: the entries stored without a port, not every internet password.
    [[nodiscard]] static std::optional<std::vector<QMInternetPasswordKeychainItemRef>> findAllInternetPasswords(
        platform::ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<std::vector<QMInternetPasswordKeychainItemRef>> findAllInternetPasswordsInKeychain(
        const QMKeychainRef& keychain, platform::ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<std::vector<QMInternetPasswordKeychainItemRef>> findAllInternetPasswordsForURL(
        const std::optional<platform::URL>& url, platform::ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<std::vector<QMInternetPasswordKeychainItemRef>> findAllInternetPasswordsForURL(
        const std::optional<platform::URL>& url, const QMKeychainRef& keychain, platform::ErrorRef* error = nullptr);

    // A new, unsaved entry for the URL. A scheme outside the protocol table,
    // a URL without a host or a missing password raises
    // "NSInvalidArgumentException".
    static QMInternetPasswordKeychainItemRef internetPasswordWithKeychain(const QMKeychainRef& keychain,
                                                                          const platform::URL& url,
                                                                          const std::optional<std::string>& password);
    [[nodiscard]] static QMInternetPasswordKeychainItemRef addInternetPasswordToKeychain(const QMKeychainRef& keychain,
                                                                           const platform::URL& url,
                                                                           const std::optional<std::string>& password,
                                                                           platform::ErrorRef* error = nullptr);

    std::optional<std::string> securityDomain() const;
    void setSecurityDomain(const std::optional<std::string>& securityDomain);
    std::optional<std::string> host() const;
    void setHost(const std::optional<std::string>& host);
    // The protocol name for the stored protocol value; nothing for a value
    // outside the table.
    std::optional<std::string> protocol() const;
    // A name outside the table raises "NSInvalidArgumentException".
    void setProtocol(const std::optional<std::string>& protocol);
    // Nothing when absent or 0.
    std::optional<std::int64_t> port() const;
    // Ignores nothing and 0.
    void setPort(std::optional<std::int64_t> port);
    std::optional<std::string> path() const;
    // Ignores nothing and the empty string.
    void setPath(const std::optional<std::string>& path);

    // The printable descriptions of label, dates, account, protocol, host,
    // path and port.
    platform::Dictionary dictionaryRepresentation() const;
    // Includes the password in clear text: for debugging output only.
    std::string description() const override;
    std::string className() const override { return "QMInternetPasswordKeychainItem"; }
    const platform::PropertyTable& propertyTable() const override;

private:
    using QMKeychainItemClassOperations::QMKeychainItemClassOperations;
};
