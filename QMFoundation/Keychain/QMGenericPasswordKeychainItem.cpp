#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"

// First cut: no keychain store yet, so nothing is ever found.
QMGenericPasswordKeychainItemRef QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(
    const std::optional<std::string>&, const std::optional<std::string>&, const QMKeychainRef&,
    platform::ErrorRef* error)
{
    platform::setError(error, nullptr);
    return nullptr;
}
