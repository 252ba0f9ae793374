// QMKeychainItemClassOperations: the class operations that answer for the
// receiving class, given once for every concrete entry class.
//
// Declaring a class as
//
//   class QMGenericPasswordKeychainItem
//       : public QMKeychainItemClassOperations<QMGenericPasswordKeychainItem, QMPasswordKeychainItem>
//
// makes QMGenericPasswordKeychainItem::findKeychainItemWithAttributes(...)
// and the other static members below search with that class's
// keychainItemTypeRef(), as a class method sent to a subclass would.
#pragma once

#include "QMFoundation/Keychain/QMKeychainItem.h"

#include <memory>
#include <optional>
#include <vector>

template <typename Item, typename Base>
class QMKeychainItemClassOperations : public Base {
public:
    // The instance form, for the entry's own class and keychain.
    using Base::queryAttributesWithAttributes;

    static platform::Dictionary queryAttributesWithAttributes(const platform::Dictionary& attributes,
                                                              const QMKeychainRef& keychain)
    {
        return QMKeychainItem::queryAttributesForItemType(Item::keychainItemTypeRef(), attributes, keychain);
    }
    [[nodiscard]] static std::optional<platform::Dictionary> findKeychainItemWithAttributes(const platform::Dictionary& attributes,
                                                                             platform::ErrorRef* error = nullptr)
    {
        return QMKeychainItem::findKeychainItemForItemType(Item::keychainItemTypeRef(), attributes, nullptr, error);
    }
    [[nodiscard]] static std::optional<platform::Dictionary> findKeychainItemWithAttributes(const platform::Dictionary& attributes,
                                                                             const QMKeychainRef& keychain,
                                                                             platform::ErrorRef* error = nullptr)
    {
        return QMKeychainItem::findKeychainItemForItemType(Item::keychainItemTypeRef(), attributes, keychain, error);
    }
    [[nodiscard]] static std::optional<std::vector<platform::Dictionary>> findAllKeychainItemsWithAttributes(
        const platform::Dictionary& attributes, const QMKeychainRef& keychain, platform::ErrorRef* error = nullptr)
    {
        return QMKeychainItem::findAllKeychainItemsForItemType(Item::keychainItemTypeRef(), attributes, keychain,
                                                               error);
    }

    platform::Value itemTypeRef() const override { return Item::keychainItemTypeRef(); }

protected:
    using Base::Base;

    // One entry of this class per attribute dictionary found, for the
    // find-all operations; nothing when the find failed.
    static std::optional<std::vector<std::shared_ptr<Item>>> itemsWithAttributes(
        const std::optional<std::vector<platform::Dictionary>>& found, const QMKeychainRef& keychain)
    {
        if (!found) {
            return std::nullopt;
        }
        std::vector<std::shared_ptr<Item>> items;
        for (const auto& attributes : *found) {
            items.push_back(Item::create(keychain, attributes));
        }
        return items;
    }
};
