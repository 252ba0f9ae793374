// QMKeychainItem: the base of every keychain entry. It holds the entry's
// attributes as two dictionaries keyed by the keychain-services attribute
// names (platform/Security/SecItem.h): `itemAttributes` as last read from or
// written to the keychain, and `modifiedItemAttributes`, the changes not yet
// saved. Changes show through the getters at once and reach the keychain on
// save().
//
// An entry object is used by one thread at a time.
//
// The operations that depend on the receiving class (its item class value,
// the queries built for it, the finds) are static members that every
// concrete class gets for its own item class from
// QMKeychainItemClassOperations; from an instance, the item class is
// `itemTypeRef()`.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Security/SecKeychain.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QMKeychain;
class QMKeychainItem;
using QMKeychainRef = std::shared_ptr<QMKeychain>;
using QMKeychainItemRef = std::shared_ptr<QMKeychainItem>;

class QMKeychainItem : public platform::Object {
public:
    // `initWithKeychain:attributes:`. Without a keychain, an entry whose
    // attributes carry an item reference belongs to that item's keychain, any
    // other to the shared default keychain.
    static QMKeychainItemRef create(QMKeychainRef keychain = nullptr,
                                    const std::optional<platform::Dictionary>& attributes = std::nullopt);

    // The base class names no item class: nothing.
    static platform::Value keychainItemTypeRef() { return platform::Value(); }
    // The query keychain services get for `attributes`: the item class, one
    // match, data, attributes and reference returned, restricted to the
    // keychain when it has a reference, and without the store's dates.
    static platform::Dictionary queryAttributesWithAttributes(const platform::Dictionary& attributes,
                                                              const QMKeychainRef& keychain);
    // The attribute dictionary of one entry (with its password data and item
    // reference), or nothing. Not finding one clears the error.
    [[nodiscard]] static std::optional<platform::Dictionary> findKeychainItemWithAttributes(const platform::Dictionary& attributes,
                                                                             platform::ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<platform::Dictionary> findKeychainItemWithAttributes(const platform::Dictionary& attributes,
                                                                             const QMKeychainRef& keychain,
                                                                             platform::ErrorRef* error = nullptr);
    // The attribute dictionaries (without password data) of every match; an
    // empty list when there is none, nothing on failure.
    [[nodiscard]] static std::optional<std::vector<platform::Dictionary>> findAllKeychainItemsWithAttributes(
        const platform::Dictionary& attributes, const QMKeychainRef& keychain, platform::ErrorRef* error = nullptr);

    const QMKeychainRef& keychain() const { return keychain_; }
    void setKeychain(QMKeychainRef keychain) { keychain_ = std::move(keychain); }
    // The `keychainItemTypeRef` property: the receiving class's item class.
    virtual platform::Value itemTypeRef() const { return keychainItemTypeRef(); }

    const platform::Dictionary& itemAttributes() const { return itemAttributes_; }
    void setItemAttributes(platform::Dictionary attributes) { itemAttributes_ = std::move(attributes); }
    const platform::Dictionary& modifiedItemAttributes() const { return modifiedItemAttributes_; }
    void setModifiedItemAttributes(platform::Dictionary attributes) { modifiedItemAttributes_ = std::move(attributes); }

    // The item reference under kSecValueRef, if any.
    platform::SecKeychainItemRef keychainItemRef() const;

    std::optional<std::string> label() const;
    // A missing label raises "NSInvalidArgumentException".
    void setLabel(const std::optional<std::string>& label);

    bool isModified() const { return !modifiedItemAttributes_.empty(); }
    bool isNew() const { return itemAttributes_.empty(); }

    // The pending change if there is one, else the stored value, else nothing.
    platform::Value objectForKey(std::string_view key) const;
    // Records a change; a missing value raises "NSInvalidArgumentException".
    void setObject(const platform::Value& value, std::string_view key);

    platform::Dictionary queryAttributesWithAttributes(const platform::Dictionary& attributes) const;

    // Adds a new entry or updates a stored one. An entry without changes is
    // not saved: false, with the error cleared. On failure the changes stay
    // pending.
    [[nodiscard]] bool save(platform::ErrorRef* error = nullptr);
    // Deletes the entry from the keychain. Only the low byte of the status
    // counts, as a signed byte: a status whose low byte is zero is success,
    // and the error's code is that byte (44 for -25300). Both dictionaries
    // are kept.
    [[nodiscard]] bool destroy(platform::ErrorRef* error = nullptr);

    std::string className() const override { return "QMKeychainItem"; }
    const platform::PropertyTable& propertyTable() const override;

protected:
    template <class> friend struct platform::ObjectAllocator;
    QMKeychainItem(QMKeychainRef keychain, const std::optional<platform::Dictionary>& attributes);

    // The class-dependent operations for an explicit item class; the
    // concrete classes' static members forward here with their own.
    static platform::Dictionary queryAttributesForItemType(const platform::Value& itemType,
                                                           const platform::Dictionary& attributes,
                                                           const QMKeychainRef& keychain);
    [[nodiscard]] static std::optional<platform::Dictionary> findKeychainItemForItemType(const platform::Value& itemType,
                                                                          const platform::Dictionary& attributes,
                                                                          const QMKeychainRef& keychain,
                                                                          platform::ErrorRef* error);
    [[nodiscard]] static std::optional<std::vector<platform::Dictionary>> findAllKeychainItemsForItemType(
        const platform::Value& itemType, const platform::Dictionary& attributes, const QMKeychainRef& keychain,
        platform::ErrorRef* error);

    // For getters: the value under `key` as text, when it is text.
    std::optional<std::string> stringForKey(std::string_view key) const;
    // For key-value coding setters: the value's text, or nothing.
    static std::optional<std::string> optionalString(const platform::Value& value);

private:
    QMKeychainRef keychain_;
    platform::Dictionary itemAttributes_;
    platform::Dictionary modifiedItemAttributes_;
};
