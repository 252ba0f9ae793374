// QMKeychain: one keychain, either the user's default search list or one
// keychain file, and the look-ups and additions made through it.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URL.h"

#include <memory>
#include <optional>
#include <string>

class QMKeychain;
class QMInternetPasswordKeychainItem;
class QMGenericPasswordKeychainItem;
using QMKeychainRef = std::shared_ptr<QMKeychain>;

class QMKeychain : public platform::Object {
public:
    // The process-wide keychain standing for the default search list.
    static QMKeychainRef defaultKeychain();

    std::shared_ptr<QMInternetPasswordKeychainItem> findInternetPasswordForURL(const platform::URL& url,
                                                                               platform::ErrorRef* error = nullptr);
    std::shared_ptr<QMGenericPasswordKeychainItem> findGenericPasswordItemForAccount(
        const std::optional<std::string>& account, const std::optional<std::string>& service,
        platform::ErrorRef* error = nullptr);

    bool isDefaultKeychain() const { return true; }
    std::string className() const override { return "QMKeychain"; }

private:
    QMKeychain() = default;
};
