// QMKeychainItem: the base of every keychain entry, held as two attribute
// dictionaries keyed by the keychain-services attribute names.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <memory>

class QMKeychain;
using QMKeychainRef = std::shared_ptr<QMKeychain>;

class QMKeychainItem : public platform::Object {
public:
    // The value of a pending change in preference to the stored one.
    platform::Value objectForKey(std::string_view key) const;

    const platform::Dictionary& itemAttributes() const { return itemAttributes_; }
    const platform::Dictionary& modifiedItemAttributes() const { return modifiedItemAttributes_; }

protected:
    QMKeychainItem(QMKeychainRef keychain, const platform::Dictionary* attributes);

    QMKeychainRef keychain_;
    platform::Dictionary itemAttributes_;
    platform::Dictionary modifiedItemAttributes_;
};
