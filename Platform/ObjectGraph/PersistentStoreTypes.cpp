// The store types the coordinator can add, one line each.
#include "Platform/ObjectGraph/PersistentStore.h"

#include "Platform/ObjectGraph/InMemoryStore.h"
#include "Platform/ObjectGraph/SQLiteStore.h"
#include "Platform/ObjectGraph/XMLStore.h"

namespace platform::objectgraph {

void registerBuiltInStoreTypes(const std::function<void(std::string_view, PersistentStore::Factory)>& add)
{
    add(NSInMemoryStoreType, [](PersistentStore::Configuration configuration) -> PersistentStoreRef {
        return InMemoryStore::create(std::move(configuration));
    });
    add(NSSQLiteStoreType, [](PersistentStore::Configuration configuration) -> PersistentStoreRef {
        return SQLiteStore::create(std::move(configuration));
    });
    add(NSXMLStoreType, [](PersistentStore::Configuration configuration) -> PersistentStoreRef {
        return XMLStore::create(std::move(configuration));
    });
}

}  // namespace platform::objectgraph
