// The store types the coordinator can add, one line each.
#include "Platform/ObjectGraph/PersistentStore.h"
#include "Platform/ObjectGraph/XMLStore.h"

namespace platform::objectgraph {

void registerBuiltInStoreTypes(const std::function<void(std::string_view, PersistentStore::Factory)>& add)
{
    add(NSXMLStoreType, [](PersistentStore::Configuration configuration) -> PersistentStoreRef {
        return XMLStore::create(std::move(configuration));
    });
}

}  // namespace platform::objectgraph
