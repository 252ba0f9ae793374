#include "QMFoundation/Keychain/QMKeychain.h"

#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"

QMKeychainRef QMKeychain::defaultKeychain()
{
    static const QMKeychainRef keychain(new QMKeychain());
    return keychain;
}

std::shared_ptr<QMInternetPasswordKeychainItem> QMKeychain::findInternetPasswordForURL(const platform::URL& url,
                                                                                       platform::ErrorRef* error)
{
    return QMInternetPasswordKeychainItem::findInternetPasswordForURL(url, std::static_pointer_cast<QMKeychain>(shared_from_this()), error);
}

std::shared_ptr<QMGenericPasswordKeychainItem> QMKeychain::findGenericPasswordItemForAccount(
    const std::optional<std::string>& account, const std::optional<std::string>& service, platform::ErrorRef* error)
{
    return QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(
        account, service, std::static_pointer_cast<QMKeychain>(shared_from_this()), error);
}
