// LinearProbing: the rule that the store's open-addressing tables (linear
// probing, deletion by shifting back) share. Internal to the object-graph store.
#pragma once

#include <cstddef>

namespace platform::objectgraph {

// Whether the entry in slot `next`, whose home slot is `home`, is still found
// once slot `hole` (met earlier in the same run, cyclically) is empty: a probe
// from its home reaches it without crossing the hole only when the home lies
// cyclically after the hole and not after `next`. An entry that is not found
// so must move back into the hole.
inline bool foundPastHole(std::size_t hole, std::size_t home, std::size_t next)
{
    return hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
}

}  // namespace platform::objectgraph
