// QMInternetPasswordKeychainItem: a password for a network location.
#pragma once

#include "QMFoundation/Keychain/QMPasswordKeychainItem.h"

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/URL.h"

class QMInternetPasswordKeychainItem;
using QMInternetPasswordKeychainItemRef = std::shared_ptr<QMInternetPasswordKeychainItem>;

class QMInternetPasswordKeychainItem : public QMPasswordKeychainItem {
public:
    static QMInternetPasswordKeychainItemRef findInternetPasswordForURL(const platform::URL& url,
                                                                        const QMKeychainRef& keychain,
                                                                        platform::ErrorRef* error = nullptr);

private:
    using QMPasswordKeychainItem::QMPasswordKeychainItem;
};
