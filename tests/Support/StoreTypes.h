// The store types that tests run one behaviour against: every type the
// object-graph store registers, so a new type joins every such suite.
#pragma once

#include "Platform/ObjectGraph/PersistentStore.h"

#include <string>
#include <string_view>
#include <vector>

namespace testsupport {

inline std::vector<std::string> storeTypes()
{
    std::vector<std::string> types;
    platform::objectgraph::registerBuiltInStoreTypes(
        [&](std::string_view type, const platform::PersistentStore::Factory&) { types.emplace_back(type); });
    return types;
}

}  // namespace testsupport
