// The store types the coordinator can add, one line each.
#include "Platform/ObjectGraph/PersistentStore.h"

namespace platform::objectgraph {

void registerBuiltInStoreTypes(const std::function<void(std::string_view, PersistentStore::Factory)>& add)
{
    (void)add;
}

}  // namespace platform::objectgraph
