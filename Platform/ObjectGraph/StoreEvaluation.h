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
class Predicate;
}

namespace platform::objectgraph {

// Whether `object` satisfies `predicate` (every object does when there is
// none). Nothing, with NSPersistentStoreOperationError, when the predicate
// cannot be evaluated on it (a key the object does not have, a bad pattern).
[[nodiscard]] std::optional<bool> matchesPredicate(const Predicate* predicate, const Object& object, ErrorRef* error);
// The same with the request's predicate.
[[nodiscard]] std::optional<bool> matchesPredicate(const FetchRequest& request, const Object& object,
                                                   ErrorRef* error);

// Sorts `objects` by the request's sort descriptors (stable; kept as given
// without any). False with an error when the request cannot be evaluated.
[[nodiscard]] bool sortObjects(std::vector<ObjectRef>& objects, const FetchRequest& request, ErrorRef* error);

// The objects that match `predicate` (a store passes the request's, with the
// objects it names replaced by the store's own stand-ins), sorted by the
// request's sort descriptors, with its offset and limit applied.
[[nodiscard]] std::optional<std::vector<ObjectRef>> filterSortAndLimit(
    std::vector<ObjectRef> objects, const FetchRequest& request, const std::shared_ptr<const Predicate>& predicate,
    ErrorRef* error);

// Applies offset and limit to objects already filtered and sorted.
void applyOffsetAndLimit(std::vector<ObjectRef>& objects, const FetchRequest& request);

}  // namespace platform::objectgraph
