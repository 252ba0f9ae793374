// KeptAttributes: where git-credential-zarvo keeps the attributes that newer
// versions of git send with a password and want back with it (its expiry, an
// OAuth refresh token).
//
// They live in a generic password of the helper's service whose account
// names the internet password, so the refresh token is as well protected as
// the password itself (a comment attribute would not be encrypted). The
// internet password's comment marks that it has some, which spares the many
// passwords without any a second query. Whoever deletes such an internet
// password deletes its kept attributes too: the helper on "erase", and
// zarvo-keychain's delete-internet-password.
#pragma once

#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMInternetPasswordKeychainItem.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Security/SecBase.h"

#include <string>
#include <string_view>

namespace gitcredential {

inline constexpr std::string_view kKeptAttributesService = "git-credential-zarvo";
inline constexpr std::string_view kKeptAttributesMark = "git-credential-zarvo: has kept attributes";

// The account of the kept attributes of `item`: the item's own key
// attributes, so an item found without a user name still finds them.
std::string keptAttributesAccount(const QMInternetPasswordKeychainItem& item);

bool hasKeptAttributes(const QMInternetPasswordKeychainItem& item);

// The kept attributes of `item` in `keychain`, their secret read, or nothing
// when it has none.
QMGenericPasswordKeychainItemRef keptAttributesItem(const QMInternetPasswordKeychainItem& item, const QMKeychainRef& keychain);

// Deletes the kept attributes of `item` from the keychain it is in, without
// reading their secret (so a locked keychain loses them too). Success when
// it has none.
platform::OSStatus deleteKeptAttributes(const QMInternetPasswordKeychainItem& item);

}  // namespace gitcredential
