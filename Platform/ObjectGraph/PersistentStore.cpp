#include "Platform/ObjectGraph/PersistentStore.h"

#include <sodium.h>

#include <map>
#include <mutex>

namespace platform {

const PersistentStore::Factory* PersistentStore::factoryForType(std::string_view type)
{
    static const auto factories = [] {
        std::map<std::string, Factory, std::less<>> table;
        objectgraph::registerBuiltInStoreTypes(
            [&](std::string_view name, Factory factory) { table.emplace(std::string(name), std::move(factory)); });
        return table;
    }();
    const auto found = factories.find(type);
    return found != factories.end() ? &found->second : nullptr;
}

Dictionary PersistentStore::metadata() const
{
    Dictionary metadata;
    metadata.set(NSStoreTypeKey, type());
    if (identifier_) {
        metadata.set(NSStoreUUIDKey, *identifier_);
    }
    metadata.set(NSStoreModelVersionHashKey, model().versionHash());
    return metadata;
}

ManagedObjectIDRef PersistentStore::objectIDFor(const EntityDescription& entity, std::int64_t primaryKey) const
{
    return ManagedObjectID::permanentID(entity, internedIdentifier_, primaryKey);
}

void PersistentStore::setIdentifier(std::string identifier)
{
    identifier_ = std::make_shared<const std::string>(std::move(identifier));
    internedIdentifier_ = InternedStoreIdentifier(*identifier_);
}

std::string PersistentStore::makeStoreIdentifier()
{
    static const bool initialised = sodium_init() >= 0;
    (void)initialised;
    unsigned char bytes[16];
    randombytes_buf(bytes, sizeof bytes);
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned char byte : bytes) {
        text.push_back(kDigits[byte >> 4]);
        text.push_back(kDigits[byte & 0xf]);
    }
    return text;
}

}  // namespace platform
