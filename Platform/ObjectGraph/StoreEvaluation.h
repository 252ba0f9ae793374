// Evaluating a fetch request's predicate, sort descriptors, offset and limit
// on objects in memory: the in-memory and file stores on their rows, and
// contexts on their unsaved objects. Internal to the object-graph store.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"

#include <optional>
#include <vector>

namespace platform {
class FetchRequest;
}

namespace platform::objectgraph {

// Whether `object` satisfies the request's predicate (every object does when
// there is none).
[[nodiscard]] std::optional<bool> matchesPredicate(const FetchRequest& request, const Object& object,
                                                   ErrorRef* error);

// Sorts `objects` by the request's sort descriptors (stable; kept as given
// without any). False with an error when the request cannot be evaluated.
[[nodiscard]] bool sortObjects(std::vector<ObjectRef>& objects, const FetchRequest& request, ErrorRef* error);

// The objects that match, sorted, with the request's offset and limit applied.
[[nodiscard]] std::optional<std::vector<ObjectRef>> filterSortAndLimit(std::vector<ObjectRef> objects,
                                                                       const FetchRequest& request, ErrorRef* error);

// Applies offset and limit to objects already filtered and sorted.
void applyOffsetAndLimit(std::vector<ObjectRef>& objects, const FetchRequest& request);

}  // namespace platform::objectgraph
