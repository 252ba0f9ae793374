#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"

// First cut: no keychain store yet, so nothing is ever found.
QMInternetPasswordKeychainItemRef QMInternetPasswordKeychainItem::findInternetPasswordForURL(
    const platform::URL&, const QMKeychainRef&, platform::ErrorRef* error)
{
    platform::setError(error, nullptr);
    return nullptr;
}
