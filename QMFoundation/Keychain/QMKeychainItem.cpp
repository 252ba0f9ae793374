#include "QMFoundation/Keychain/QMKeychainItem.h"

#include "QMFoundation/Keychain/NSError+QMKeychain.h"
#include "QMFoundation/Keychain/QMKeychain.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Security/SecItem.h"

#include <cstdint>

using namespace platform;

QMKeychainItemRef QMKeychainItem::create(QMKeychainRef keychain, const std::optional<Dictionary>& attributes)
{
    return platform::makeObject<QMKeychainItem>(std::move(keychain), attributes);
}

QMKeychainItem::QMKeychainItem(QMKeychainRef keychain, const std::optional<Dictionary>& attributes)
{
    if (keychain) {
        keychain_ = std::move(keychain);
    } else if (const auto reference = attributes ? attributes->get(kSecValueRef).objectAs<SecKeychainItem>() : nullptr) {
        // The status goes unchecked: a failure leaves a null reference,
        // which stands for the default search list.
        SecKeychainRef holder;
        static_cast<void>(SecKeychainItemCopyKeychain(reference, &holder));
        keychain_ = QMKeychain::keychainWithKeychainRef(std::move(holder));
    } else {
        keychain_ = QMKeychain::defaultKeychain();
    }
    if (attributes) {
        for (const auto& [key, value] : *attributes) {
            itemAttributes_.set(key, value);
        }
    }
}

Dictionary QMKeychainItem::queryAttributesWithAttributes(const Dictionary& attributes, const QMKeychainRef& keychain)
{
    return queryAttributesForItemType(keychainItemTypeRef(), attributes, keychain);
}

std::optional<Dictionary> QMKeychainItem::findKeychainItemWithAttributes(const Dictionary& attributes, ErrorRef* error)
{
    return findKeychainItemForItemType(keychainItemTypeRef(), attributes, nullptr, error);
}

std::optional<Dictionary> QMKeychainItem::findKeychainItemWithAttributes(const Dictionary& attributes,
                                                                        const QMKeychainRef& keychain, ErrorRef* error)
{
    return findKeychainItemForItemType(keychainItemTypeRef(), attributes, keychain, error);
}

std::optional<std::vector<Dictionary>> QMKeychainItem::findAllKeychainItemsWithAttributes(
    const Dictionary& attributes, const QMKeychainRef& keychain, ErrorRef* error)
{
    return findAllKeychainItemsForItemType(keychainItemTypeRef(), attributes, keychain, error);
}

Dictionary QMKeychainItem::queryAttributesForItemType(const Value& itemType, const Dictionary& attributes,
                                                      const QMKeychainRef& keychain)
{
    Dictionary query = attributes;
    if (!itemType.isNothing()) {
        query.set(kSecClass, itemType);
    }
    query.set(kSecMatchLimit, kSecMatchLimitOne);
    query.set(kSecReturnData, true);
    query.set(kSecReturnAttributes, true);
    query.set(kSecReturnRef, true);
    if (keychain && keychain->keychainRef()) {
        query.set(kSecUseKeychain, Value(keychain->keychainRef()));
        query.set(kSecMatchSearchList, Array{Value(keychain->keychainRef())});
    }
    // The store keeps the dates; an entry's copies of them must not narrow
    // the search to the moment it was read.
    query.remove(kSecAttrCreationDate);
    query.remove(kSecAttrModificationDate);
    return query;
}

std::optional<Dictionary> QMKeychainItem::findKeychainItemForItemType(const Value& itemType,
                                                                     const Dictionary& attributes,
                                                                     const QMKeychainRef& keychain, ErrorRef* error)
{
    Value result;
    const OSStatus status = SecItemCopyMatching(queryAttributesForItemType(itemType, attributes, keychain), &result);
    if (status == errSecSuccess && result.dictionary() != nullptr) {
        return *result.dictionary();
    }
    const auto keychainError = keychainErrorFromOSStatus(status == errSecSuccess ? errSecDecode : status);
    setError(error, keychainError->code() == errSecItemNotFound ? nullptr : keychainError);
    return std::nullopt;
}

std::optional<std::vector<Dictionary>> QMKeychainItem::findAllKeychainItemsForItemType(const Value& itemType,
                                                                                      const Dictionary& attributes,
                                                                                      const QMKeychainRef& keychain,
                                                                                      ErrorRef* error)
{
    Dictionary query = queryAttributesForItemType(itemType, attributes, keychain);
    query.set(kSecMatchLimit, kSecMatchLimitAll);
    query.remove(kSecReturnData);
    Value result;
    const OSStatus status = SecItemCopyMatching(query, &result);
    if (status == errSecItemNotFound) {
        return std::vector<Dictionary>();
    }
    if (status != errSecSuccess) {
        setError(error, keychainErrorFromOSStatus(status));
        return std::nullopt;
    }
    std::vector<Dictionary> found;
    if (const auto* items = result.array()) {
        for (const auto& item : *items) {
            if (const auto* attributesOfItem = item.dictionary()) {
                found.push_back(*attributesOfItem);
            }
        }
    }
    return found;
}

SecKeychainItemRef QMKeychainItem::keychainItemRef() const
{
    return objectForKey(kSecValueRef).objectAs<SecKeychainItem>();
}

std::optional<std::string> QMKeychainItem::label() const
{
    return stringForKey(kSecAttrLabel);
}

void QMKeychainItem::setLabel(const std::optional<std::string>& label)
{
    setObject(Value(label), kSecAttrLabel);
}

Value QMKeychainItem::objectForKey(std::string_view key) const
{
    if (const auto* value = modifiedItemAttributes_.find(key)) {
        return *value;
    }
    return itemAttributes_.get(key);
}

void QMKeychainItem::setObject(const Value& value, std::string_view key)
{
    if (value.isNothing()) {
        Exception::raise(NSInvalidArgumentException,
                         "-[QMKeychainItem setObject:forKey:]: object cannot be nil (key: " + std::string(key) + ")");
    }
    modifiedItemAttributes_.set(key, value);
}

std::optional<std::string> QMKeychainItem::stringForKey(std::string_view key) const
{
    const Value value = objectForKey(key);
    if (const auto* text = value.string()) {
        return *text;
    }
    return std::nullopt;
}

std::optional<std::string> QMKeychainItem::optionalString(const Value& value)
{
    return value.string() != nullptr ? std::optional<std::string>(*value.string()) : std::nullopt;
}

Dictionary QMKeychainItem::queryAttributesWithAttributes(const Dictionary& attributes) const
{
    return queryAttributesForItemType(itemTypeRef(), attributes, keychain_);
}

bool QMKeychainItem::save(ErrorRef* error)
{
    if (!isModified()) {
        setError(error, nullptr);
        return false;
    }
    OSStatus status;
    if (isNew()) {
        Value added;
        status = SecItemAdd(queryAttributesWithAttributes(modifiedItemAttributes_), &added);
        if (status == errSecSuccess) {
            if (const auto* attributes = added.dictionary()) {
                for (const auto& [key, value] : *attributes) {
                    itemAttributes_.set(key, value);
                }
            }
        }
    } else {
        status = SecItemUpdate(queryAttributesWithAttributes(itemAttributes_), modifiedItemAttributes_);
        if (status == errSecSuccess) {
            for (const auto& [key, value] : modifiedItemAttributes_) {
                itemAttributes_.set(key, value);
            }
        }
    }
    if (status != errSecSuccess) {
        setError(error, keychainErrorFromOSStatus(status));
        return false;
    }
    modifiedItemAttributes_ = Dictionary();
    return true;
}

bool QMKeychainItem::destroy(ErrorRef* error)
{
    // An entry that was never stored names no item: its empty query would
    // match, and delete, the first stored item of its class. It is reported
    // as the item that cannot be found.
    const OSStatus status = isNew() ? errSecItemNotFound : SecItemDelete(queryAttributesWithAttributes(itemAttributes_));
    // Deliberately narrowed to the status's low byte, read as a signed byte.
    const auto lowByte = static_cast<std::int8_t>(static_cast<std::uint8_t>(static_cast<std::uint32_t>(status) & 0xffu));
    if (lowByte == 0) {
        return true;
    }
    setError(error, keychainErrorFromOSStatus(lowByte));
    return false;
}

const PropertyTable& QMKeychainItem::propertyTable() const
{
    static const auto table = PropertyTable::extending<QMKeychainItem>(Object::propertyTable(), {
        {"keychain", [](const QMKeychainItem& item) { return Value(item.keychain()); }},
        {"keychainItemTypeRef", [](const QMKeychainItem& item) { return item.itemTypeRef(); }},
        {"itemAttributes", [](const QMKeychainItem& item) { return Value(item.itemAttributes()); }},
        {"modifiedItemAttributes", [](const QMKeychainItem& item) { return Value(item.modifiedItemAttributes()); }},
        {"keychainItemRef", [](const QMKeychainItem& item) { return Value(item.keychainItemRef()); }},
        {"label", [](const QMKeychainItem& item) { return Value(item.label()); },
         [](QMKeychainItem& item, const Value& value) { item.setObject(value, kSecAttrLabel); }},
        {"isModified", [](const QMKeychainItem& item) { return Value(item.isModified()); }},
        {"isNew", [](const QMKeychainItem& item) { return Value(item.isNew()); }},
    });
    return table;
}
