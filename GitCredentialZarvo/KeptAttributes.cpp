#include "GitCredentialZarvo/KeptAttributes.h"

#include "QMFoundation/Strings/NSString+QMURLTranscoding.h"

#include "Platform/Security/SecItem.h"

namespace gitcredential {

std::string keptAttributesAccount(const QMInternetPasswordKeychainItem& item)
{
    std::string account = item.protocol().value_or("") + "://" + stringByURLEncodingString(item.account().value_or("")) +
                          "@" + item.host().value_or("");
    if (const auto port = item.port()) {
        account += ":" + std::to_string(*port);
    }
    return account + item.path().value_or("");
}

bool hasKeptAttributes(const QMInternetPasswordKeychainItem& item)
{
    return item.comment() == kKeptAttributesMark;
}

QMGenericPasswordKeychainItemRef keptAttributesItem(const QMInternetPasswordKeychainItem& item, const QMKeychainRef& keychain)
{
    if (!hasKeptAttributes(item)) {
        return nullptr;
    }
    return QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(keptAttributesAccount(item),
                                                                            std::string(kKeptAttributesService), keychain);
}

platform::OSStatus deleteKeptAttributes(const QMInternetPasswordKeychainItem& item)
{
    if (!hasKeptAttributes(item)) {
        return platform::errSecSuccess;
    }
    platform::Dictionary query{{platform::kSecClass, platform::kSecClassGenericPassword},
                               {platform::kSecAttrService, std::string(kKeptAttributesService)},
                               {platform::kSecAttrAccount, keptAttributesAccount(item)}};
    if (const auto& keychain = item.keychain(); keychain && keychain->keychainRef()) {
        query.set(platform::kSecMatchSearchList, platform::Array{platform::Value(keychain->keychainRef())});
    }
    const auto status = platform::SecItemDelete(query);
    return status == platform::errSecItemNotFound ? platform::errSecSuccess : status;
}

}  // namespace gitcredential
