#include "QMFoundation/Keychain/QMGenericPasswordKeychainItem.h"

#include "Platform/Security/SecItem.h"

using namespace platform;

QMGenericPasswordKeychainItemRef QMGenericPasswordKeychainItem::create(QMKeychainRef keychain,
                                                                       const std::optional<Dictionary>& attributes)
{
    return platform::makeObject<QMGenericPasswordKeychainItem>(std::move(keychain), attributes);
}

Value QMGenericPasswordKeychainItem::keychainItemTypeRef()
{
    return Value(kSecClassGenericPassword);
}

QMGenericPasswordKeychainItemRef QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(
    const std::optional<std::string>& account, const std::optional<std::string>& service, ErrorRef* error)
{
    return findGenericPasswordItemForAccount(account, service, nullptr, error);
}

QMGenericPasswordKeychainItemRef QMGenericPasswordKeychainItem::findGenericPasswordItemForAccount(
    const std::optional<std::string>& account, const std::optional<std::string>& service,
    const QMKeychainRef& keychain, ErrorRef* error)
{
    Dictionary attributes{{kSecClass, keychainItemTypeRef()}};
    if (account) {
        attributes.set(kSecAttrAccount, *account);
    }
    if (service) {
        attributes.set(kSecAttrService, *service);
    }
    const auto found = findKeychainItemWithAttributes(attributes, keychain, error);
    return found ? create(keychain, found) : nullptr;
}

std::optional<std::vector<QMGenericPasswordKeychainItemRef>>
QMGenericPasswordKeychainItem::findAllGenericPasswordItemsInKeychain(const QMKeychainRef& keychain, ErrorRef* error)
{
    return itemsWithAttributes(
        findAllKeychainItemsWithAttributes(Dictionary{{kSecClass, keychainItemTypeRef()}}, keychain, error), keychain);
}

QMGenericPasswordKeychainItemRef QMGenericPasswordKeychainItem::genericPasswordItemWithKeychain(
    const QMKeychainRef& keychain, const std::optional<std::string>& account,
    const std::optional<std::string>& service, const std::optional<std::string>& password)
{
    auto item = create(keychain);
    item->setAccount(account);
    item->setService(service);
    item->setPassword(password);
    return item;
}

QMGenericPasswordKeychainItemRef QMGenericPasswordKeychainItem::addGenericPasswordToKeychain(
    const QMKeychainRef& keychain, const std::optional<std::string>& account,
    const std::optional<std::string>& service, const std::optional<std::string>& password, ErrorRef* error)
{
    auto item = genericPasswordItemWithKeychain(keychain, account, service, password);
    return item->save(error) ? item : nullptr;
}

std::optional<std::string> QMGenericPasswordKeychainItem::service() const
{
    return stringForKey(kSecAttrService);
}

void QMGenericPasswordKeychainItem::setService(const std::optional<std::string>& service)
{
    setStringForKey(service, kSecAttrService);
}

std::optional<Data> QMGenericPasswordKeychainItem::genericData() const
{
    const Value value = objectForKey(kSecAttrGeneric);
    return value.data() != nullptr ? std::optional<Data>(*value.data()) : std::nullopt;
}

void QMGenericPasswordKeychainItem::setGenericData(const std::optional<Data>& genericData)
{
    setObject(Value(genericData), kSecAttrGeneric);
}

Dictionary QMGenericPasswordKeychainItem::dictionaryRepresentation() const
{
    return describedValuesForKeys({"label", "creationDate", "modificationDate", "account", "service"});
}

std::string QMGenericPasswordKeychainItem::description() const
{
    return describeWithKeys({"label", "creationDate", "modificationDate", "userDescription", "comment", "isInvisible",
                             "isNegative", "account", "password", "service"});
}

const PropertyTable& QMGenericPasswordKeychainItem::propertyTable() const
{
    using Item = QMGenericPasswordKeychainItem;
    static const auto table = PropertyTable::extending<Item>(QMPasswordKeychainItem::propertyTable(), {
        {"service", [](const Item& item) { return Value(item.service()); },
         [](Item& item, const Value& value) {
             item.setService(optionalString(value));
         }},
        {"genericData", [](const Item& item) { return Value(item.genericData()); },
         [](Item& item, const Value& value) {
             item.setGenericData(value.data() != nullptr ? std::optional<Data>(*value.data()) : std::nullopt);
         }},
    });
    return table;
}
