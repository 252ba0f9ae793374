// SecItem: keychain items searched, added, updated and deleted through
// attribute dictionaries.
//
// A query is a platform::Dictionary keyed by the constants below. It names
// the item class, the attributes to match (each must be equal), what to
// return and how many matches, and optionally the keychains to search:
//
//   Dictionary query{{kSecClass, kSecClassInternetPassword},
//                    {kSecAttrServer, "example.com"},
//                    {kSecAttrProtocol, kSecAttrProtocolHTTPS},
//                    {kSecReturnData, true}};
//   Value result;
//   if (SecItemCopyMatching(query, &result) == errSecSuccess) ... *result.data()
//
// Without kSecUseKeychain or kSecMatchSearchList the default search list is
// used: the user's default keychain alone (see SecKeychain.h). Matching
// results come back in the order in which the items were first added.
//
// Results: with one return key the value itself (data, attribute dictionary
// or item reference); with several, a dictionary holding the attributes
// asked for plus kSecValueData and kSecValueRef; with kSecMatchLimitAll or a
// numeric limit, an array of those. Attribute dictionaries carry kSecClass
// and every attribute of the item's class that is set; the primary-key
// attributes are always there, "" or 0 when they were never given.
//
// A search returns one match unless kSecMatchLimit says otherwise; update and
// delete act on every match unless it limits them (the first ones added),
// and ignore the return keys. A kSecValueRef in any query narrows it to that
// item, in that item's keychain. The creation and modification dates are the
// store's own: given in an add or an update, they are ignored.
//
// Secrets of a password-protected keychain need it unlocked in this process;
// attributes can be searched while it is locked.
#pragma once

#include "Platform/Foundation/Value.h"
#include "Platform/Security/SecBase.h"

#include <cstdint>
#include <string_view>

namespace platform {

// Keys of a query or an attribute dictionary, with the platform's names and
// values.
inline constexpr std::string_view kSecClass = "class";

inline constexpr std::string_view kSecAttrAccount = "acct";
inline constexpr std::string_view kSecAttrSecurityDomain = "sdmn";
inline constexpr std::string_view kSecAttrServer = "srvr";
inline constexpr std::string_view kSecAttrProtocol = "ptcl";
inline constexpr std::string_view kSecAttrAuthenticationType = "atyp";
inline constexpr std::string_view kSecAttrPort = "port";
inline constexpr std::string_view kSecAttrPath = "path";
inline constexpr std::string_view kSecAttrService = "svce";
inline constexpr std::string_view kSecAttrGeneric = "gena";
inline constexpr std::string_view kSecAttrLabel = "labl";
inline constexpr std::string_view kSecAttrDescription = "desc";
inline constexpr std::string_view kSecAttrComment = "icmt";
inline constexpr std::string_view kSecAttrCreator = "crtr";
inline constexpr std::string_view kSecAttrType = "type";
inline constexpr std::string_view kSecAttrIsInvisible = "invi";
inline constexpr std::string_view kSecAttrIsNegative = "nega";
inline constexpr std::string_view kSecAttrCreationDate = "cdat";
inline constexpr std::string_view kSecAttrModificationDate = "mdat";

inline constexpr std::string_view kSecValueData = "v_Data";
inline constexpr std::string_view kSecValueRef = "v_Ref";

inline constexpr std::string_view kSecMatchLimit = "m_Limit";
inline constexpr std::string_view kSecMatchLimitOne = "m_LimitOne";
inline constexpr std::string_view kSecMatchLimitAll = "m_LimitAll";
inline constexpr std::string_view kSecMatchSearchList = "m_SearchList";

inline constexpr std::string_view kSecReturnData = "r_Data";
inline constexpr std::string_view kSecReturnAttributes = "r_Attributes";
inline constexpr std::string_view kSecReturnRef = "r_Ref";

inline constexpr std::string_view kSecUseKeychain = "u_Keychain";

// Values of kSecClass.
inline constexpr std::string_view kSecClassInternetPassword = "inet";
inline constexpr std::string_view kSecClassGenericPassword = "genp";

// Values of kSecAttrProtocol: four-character codes stored as numbers.
inline constexpr std::uint32_t kSecAttrProtocolFTP = fourCharCode("ftp ");
inline constexpr std::uint32_t kSecAttrProtocolFTPS = fourCharCode("ftps");
inline constexpr std::uint32_t kSecAttrProtocolHTTP = fourCharCode("http");
inline constexpr std::uint32_t kSecAttrProtocolHTTPS = fourCharCode("htps");
inline constexpr std::uint32_t kSecAttrProtocolSSH = fourCharCode("ssh ");

// Values of kSecAttrAuthenticationType.
inline constexpr std::uint32_t kSecAttrAuthenticationTypeDefault = fourCharCode("dflt");

// `result` may be null when only the status matters.
[[nodiscard]] OSStatus SecItemCopyMatching(const Dictionary& query, Value* result);
// kSecUseKeychain names the keychain to add to (else the default keychain,
// created on this first write). An item whose primary key equals a stored
// one's gives errSecDuplicateItem: account, security domain, server,
// protocol, authentication type, port and path for internet passwords;
// account and service for generic passwords.
[[nodiscard]] OSStatus SecItemAdd(const Dictionary& attributes, Value* result);
[[nodiscard]] OSStatus SecItemUpdate(const Dictionary& query, const Dictionary& attributesToUpdate);
[[nodiscard]] OSStatus SecItemDelete(const Dictionary& query);

}  // namespace platform
