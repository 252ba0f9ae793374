#include "GitCredentialZarvo/KeptAttributes.h"

#include "QMFoundation/Strings/NSString+QMURLTranscoding.h"

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

QMGenericPasswordKeychainItemRef keptAttributesItem(const QMInternetPasswordKeychainItem& item, const QMKeychainRef& keychain)
{
    if (item.comment() != kKeptAttributesMark) {
        return nullptr;
    }
    return QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(keptAttributesAccount(item),
                                                                            std::string(kKeptAttributesService), keychain);
}

}  // namespace gitcredential
