#include "Platform/ObjectGraph/StoreEvaluation.h"

#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"

#include <algorithm>

namespace platform::objectgraph {
namespace {

// Predicates and sort descriptors are evaluated by the predicate library once
// it is linked in; until then a request that needs them is refused, never
// answered wrongly.
ErrorRef unsupported(std::string_view what)
{
    return makeError(NSPersistentStoreOperationError, "The fetch request cannot be evaluated in memory.",
                     std::string(what) + " are not evaluated in memory yet.");
}

}  // namespace

std::optional<bool> matchesPredicate(const FetchRequest& request, const Object&, ErrorRef* error)
{
    if (!request.predicate()) {
        return true;
    }
    setError(error, unsupported("Predicates"));
    return std::nullopt;
}

bool sortObjects(std::vector<ObjectRef>&, const FetchRequest& request, ErrorRef* error)
{
    if (request.sortDescriptors().empty()) {
        return true;
    }
    setError(error, unsupported("Sort descriptors"));
    return false;
}

void applyOffsetAndLimit(std::vector<ObjectRef>& objects, const FetchRequest& request)
{
    const std::size_t offset = std::min(request.fetchOffset(), objects.size());
    objects.erase(objects.begin(), objects.begin() + static_cast<std::ptrdiff_t>(offset));
    if (request.fetchLimit() != 0 && objects.size() > request.fetchLimit()) {
        objects.resize(request.fetchLimit());
    }
}

std::optional<std::vector<ObjectRef>> filterSortAndLimit(std::vector<ObjectRef> objects, const FetchRequest& request,
                                                         ErrorRef* error)
{
    std::vector<ObjectRef> selected;
    selected.reserve(objects.size());
    for (auto& object : objects) {
        const auto matches = matchesPredicate(request, *object, error);
        if (!matches) {
            return std::nullopt;
        }
        if (*matches) {
            selected.push_back(std::move(object));
        }
    }
    if (!sortObjects(selected, request, error)) {
        return std::nullopt;
    }
    applyOffsetAndLimit(selected, request);
    return selected;
}

}  // namespace platform::objectgraph
