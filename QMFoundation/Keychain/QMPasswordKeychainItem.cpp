#include "QMFoundation/Keychain/QMPasswordKeychainItem.h"

#include "QMFoundation/Objects/NSObject+QMObjectDescribing.h"

#include "Platform/Foundation/Unicode.h"
#include "Platform/Security/SecItem.h"

using namespace platform;

namespace {

std::optional<Date> dateOf(const Value& value)
{
    if (const auto* date = value.date()) {
        return *date;
    }
    return std::nullopt;
}

}  // namespace

std::optional<Date> QMPasswordKeychainItem::creationDate() const
{
    return dateOf(objectForKey(kSecAttrCreationDate));
}

std::optional<Date> QMPasswordKeychainItem::modificationDate() const
{
    return dateOf(objectForKey(kSecAttrModificationDate));
}

std::optional<std::string> QMPasswordKeychainItem::userDescription() const
{
    return stringForKey(kSecAttrDescription);
}

void QMPasswordKeychainItem::setUserDescription(const std::optional<std::string>& userDescription)
{
    setStringForKey(userDescription, kSecAttrDescription);
}

std::optional<std::string> QMPasswordKeychainItem::comment() const
{
    return stringForKey(kSecAttrComment);
}

void QMPasswordKeychainItem::setComment(const std::optional<std::string>& comment)
{
    setStringForKey(comment, kSecAttrComment);
}

std::optional<std::uint32_t> QMPasswordKeychainItem::creator() const
{
    const auto code = objectForKey(kSecAttrCreator).integerValue();
    return code ? std::optional<std::uint32_t>(static_cast<std::uint32_t>(*code)) : std::nullopt;
}

bool QMPasswordKeychainItem::isInvisible() const
{
    return objectForKey(kSecAttrIsInvisible).boolValue().value_or(false);
}

void QMPasswordKeychainItem::setInvisible(bool invisible)
{
    setObject(Value(invisible), kSecAttrIsInvisible);
}

bool QMPasswordKeychainItem::isNegative() const
{
    return objectForKey(kSecAttrIsNegative).boolValue().value_or(false);
}

void QMPasswordKeychainItem::setNegative(bool negative)
{
    setObject(Value(negative), kSecAttrIsNegative);
}

std::optional<std::string> QMPasswordKeychainItem::account() const
{
    return stringForKey(kSecAttrAccount);
}

void QMPasswordKeychainItem::setAccount(const std::optional<std::string>& account)
{
    if (account) {
        setObject(Value(*account), kSecAttrAccount);
    }
}

std::optional<std::string> QMPasswordKeychainItem::password() const
{
    const Value value = objectForKey(kSecValueData);
    const auto* data = value.data();
    if (data == nullptr) {
        return std::nullopt;
    }
    std::string text(data->begin(), data->end());
    if (!isValidUTF8(text)) {
        return std::nullopt;
    }
    return text;
}

void QMPasswordKeychainItem::setPassword(const std::optional<std::string>& password)
{
    setObject(password ? Value(Data(password->begin(), password->end())) : Value(), kSecValueData);
}

void QMPasswordKeychainItem::setStringForKey(const std::optional<std::string>& value, std::string_view key)
{
    setObject(Value(value), key);
}

const PropertyTable& QMPasswordKeychainItem::propertyTable() const
{
    static const auto table = PropertyTable::extending<QMPasswordKeychainItem>(QMKeychainItem::propertyTable(), {
        {"creationDate", [](const QMPasswordKeychainItem& item) { return Value(item.creationDate()); }},
        {"modificationDate", [](const QMPasswordKeychainItem& item) { return Value(item.modificationDate()); }},
        {"userDescription", [](const QMPasswordKeychainItem& item) { return Value(item.userDescription()); },
         [](QMPasswordKeychainItem& item, const Value& value) { item.setUserDescription(optionalString(value)); }},
        {"comment", [](const QMPasswordKeychainItem& item) { return Value(item.comment()); },
         [](QMPasswordKeychainItem& item, const Value& value) { item.setComment(optionalString(value)); }},
        {"creator", [](const QMPasswordKeychainItem& item) { return Value(item.creator()); }},
        {"isInvisible", [](const QMPasswordKeychainItem& item) { return Value(item.isInvisible()); }},
        {"invisible", [](const QMPasswordKeychainItem& item) { return Value(item.isInvisible()); },
         [](QMPasswordKeychainItem& item, const Value& value) { item.setInvisible(value.boolValue().value_or(false)); }},
        {"isNegative", [](const QMPasswordKeychainItem& item) { return Value(item.isNegative()); }},
        {"negative", [](const QMPasswordKeychainItem& item) { return Value(item.isNegative()); },
         [](QMPasswordKeychainItem& item, const Value& value) { item.setNegative(value.boolValue().value_or(false)); }},
        {"account", [](const QMPasswordKeychainItem& item) { return Value(item.account()); },
         [](QMPasswordKeychainItem& item, const Value& value) { item.setAccount(optionalString(value)); }},
        {"password", [](const QMPasswordKeychainItem& item) { return Value(item.password()); },
         [](QMPasswordKeychainItem& item, const Value& value) { item.setPassword(optionalString(value)); }},
    });
    return table;
}

Dictionary QMPasswordKeychainItem::describedValuesForKeys(std::initializer_list<std::string_view> keys) const
{
    Dictionary described;
    for (const auto key : keys) {
        described.set(key, prettyDescriptionForObject(*this, valueForKey(key)));
    }
    return described;
}

std::string QMPasswordKeychainItem::describeWithKeys(std::initializer_list<std::string_view> keys) const
{
    Array items;
    for (const auto key : keys) {
        items.emplace_back(key);
    }
    return prettyDescriptionWithItems(*this, items);
}
