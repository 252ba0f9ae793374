// QMGenericPasswordKeychainItem: a password for an application-defined
// service and account.
#pragma once

#include "QMFoundation/Keychain/QMPasswordKeychainItem.h"

#include "Platform/Foundation/Error.h"

#include <optional>
#include <string>

class QMGenericPasswordKeychainItem;
using QMGenericPasswordKeychainItemRef = std::shared_ptr<QMGenericPasswordKeychainItem>;

class QMGenericPasswordKeychainItem : public QMPasswordKeychainItem {
public:
    static QMGenericPasswordKeychainItemRef findGenericPasswordItemForAccount(
        const std::optional<std::string>& account, const std::optional<std::string>& service,
        const QMKeychainRef& keychain, platform::ErrorRef* error = nullptr);

private:
    using QMPasswordKeychainItem::QMPasswordKeychainItem;
};
