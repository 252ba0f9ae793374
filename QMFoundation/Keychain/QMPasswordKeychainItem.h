// QMPasswordKeychainItem: the attributes shared by password entries, the
// password itself among them. Each property reads through objectForKey() and
// writes through setObject() under its keychain attribute key.
#pragma once

#include "QMFoundation/Keychain/QMKeychainItem.h"

#include "Platform/Foundation/Date.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

// Names of the entry kinds, published for users of the library; the keychain
// classes themselves never read them.
inline constexpr std::string_view QMKeychainItemTypeInternetPassword = "QMKeychainItemTypeInternetPassword";
inline constexpr std::string_view QMKeychainItemTypeGeneric = "QMKeychainItemTypeGeneric";

class QMPasswordKeychainItem;
using QMPasswordKeychainItemRef = std::shared_ptr<QMPasswordKeychainItem>;

class QMPasswordKeychainItem : public QMKeychainItem {
public:
    std::optional<platform::Date> creationDate() const;
    std::optional<platform::Date> modificationDate() const;

    std::optional<std::string> userDescription() const;
    void setUserDescription(const std::optional<std::string>& userDescription);
    std::optional<std::string> comment() const;
    void setComment(const std::optional<std::string>& comment);

    // The stored creator code. setCreator() keeps its argument in a field of
    // its own and leaves the attribute alone, so a creator set here is never
    // saved and never read back; callers depend on that, so it stays.
    std::optional<std::uint32_t> creator() const;
    void setCreator(std::optional<std::uint32_t> creator) { creator_ = creator; }

    bool isInvisible() const;
    void setInvisible(bool invisible);
    bool isNegative() const;
    void setNegative(bool negative);

    std::optional<std::string> account() const;
    // A missing account is ignored.
    void setAccount(const std::optional<std::string>& account);

    // The stored secret decoded as UTF-8; nothing when there is none or the
    // bytes are not valid UTF-8.
    std::optional<std::string> password() const;
    // Stores the UTF-8 bytes; a missing password raises
    // "NSInvalidArgumentException".
    void setPassword(const std::optional<std::string>& password);

    std::string className() const override { return "QMPasswordKeychainItem"; }
    const platform::PropertyTable& propertyTable() const override;

protected:
    using QMKeychainItem::QMKeychainItem;

    // A plain setter: the value, or nothing, which setObject() refuses.
    void setStringForKey(const std::optional<std::string>& value, std::string_view key);
    // The printable descriptions of the properties, under their names, in
    // order: the concrete classes' dictionaryRepresentation.
    platform::Dictionary describedValuesForKeys(std::initializer_list<std::string_view> keys) const;
    // The standard description over the properties, in order.
    std::string describeWithKeys(std::initializer_list<std::string_view> keys) const;

private:
    std::optional<std::uint32_t> creator_;
};
