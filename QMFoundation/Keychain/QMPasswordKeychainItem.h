// QMPasswordKeychainItem: the attributes shared by password entries, the
// password itself among them.
#pragma once

#include "QMFoundation/Keychain/QMKeychainItem.h"

#include <optional>
#include <string>

class QMPasswordKeychainItem : public QMKeychainItem {
public:
    // The stored secret decoded as UTF-8; nothing when there is none or the
    // bytes are not valid UTF-8.
    std::optional<std::string> password() const;

protected:
    using QMKeychainItem::QMKeychainItem;
};
