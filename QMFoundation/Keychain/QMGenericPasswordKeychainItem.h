// QMGenericPasswordKeychainItem: a password for an application-defined
// service and account.
#pragma once

#include "QMFoundation/Keychain/QMKeychainItemClassOperations.h"
#include "QMFoundation/Keychain/QMPasswordKeychainItem.h"

#include <optional>
#include <string>
#include <vector>

class QMGenericPasswordKeychainItem;
using QMGenericPasswordKeychainItemRef = std::shared_ptr<QMGenericPasswordKeychainItem>;

class QMGenericPasswordKeychainItem
    : public QMKeychainItemClassOperations<QMGenericPasswordKeychainItem, QMPasswordKeychainItem> {
public:
    static QMGenericPasswordKeychainItemRef create(QMKeychainRef keychain = nullptr,
                                                   const std::optional<platform::Dictionary>& attributes = std::nullopt);

    // kSecClassGenericPassword; the inherited class operations search for
    // this class.
    static platform::Value keychainItemTypeRef();

    // One entry; a missing account or service only widens the search, so
    // with neither the first generic password of the searched keychains
    // comes back.
    [[nodiscard]] static QMGenericPasswordKeychainItemRef findGenericPasswordItemForAccount(
        const std::optional<std::string>& account, const std::optional<std::string>& service,
        platform::ErrorRef* error = nullptr);
    [[nodiscard]] static QMGenericPasswordKeychainItemRef findGenericPasswordItemForAccount(
        const std::optional<std::string>& account, const std::optional<std::string>& service,
        const QMKeychainRef& keychain, platform::ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<std::vector<QMGenericPasswordKeychainItemRef>> findAllGenericPasswordItemsInKeychain(
        const QMKeychainRef& keychain, platform::ErrorRef* error = nullptr);

    // A new, unsaved entry; a missing account is skipped, a missing service or
    // password raises "NSInvalidArgumentException".
    static QMGenericPasswordKeychainItemRef genericPasswordItemWithKeychain(
        const QMKeychainRef& keychain, const std::optional<std::string>& account,
        const std::optional<std::string>& service, const std::optional<std::string>& password);
    [[nodiscard]] static QMGenericPasswordKeychainItemRef addGenericPasswordToKeychain(
        const QMKeychainRef& keychain, const std::optional<std::string>& account,
        const std::optional<std::string>& service, const std::optional<std::string>& password,
        platform::ErrorRef* error = nullptr);

    std::optional<std::string> service() const;
    void setService(const std::optional<std::string>& service);
    std::optional<platform::Data> genericData() const;
    void setGenericData(const std::optional<platform::Data>& genericData);

    // The printable descriptions of label, dates, account and service.
    platform::Dictionary dictionaryRepresentation() const;
    // Includes the password in clear text: for debugging output only.
    std::string description() const override;
    std::string className() const override { return "QMGenericPasswordKeychainItem"; }
    const platform::PropertyTable& propertyTable() const override;

private:
    using QMKeychainItemClassOperations::QMKeychainItemClassOperations;
};
