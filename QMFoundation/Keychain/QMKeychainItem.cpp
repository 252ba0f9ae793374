#include "QMFoundation/Keychain/QMKeychainItem.h"

QMKeychainItem::QMKeychainItem(QMKeychainRef keychain, const platform::Dictionary* attributes)
    : keychain_(std::move(keychain))
{
    if (attributes != nullptr) {
        itemAttributes_ = *attributes;
    }
}

platform::Value QMKeychainItem::objectForKey(std::string_view key) const
{
    if (const auto* value = modifiedItemAttributes_.find(key)) {
        return *value;
    }
    return itemAttributes_.get(key);
}
