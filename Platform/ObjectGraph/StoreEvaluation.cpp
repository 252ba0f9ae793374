#include "Platform/ObjectGraph/StoreEvaluation.h"

#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"

#include <algorithm>

namespace platform::objectgraph {

std::optional<bool> matchesPredicate(const FetchRequest& request, const Object& object, ErrorRef*)
{
    if (!request.predicate()) {
        return true;
    }
    return request.predicate()->evaluateWithObject(Value(std::const_pointer_cast<Object>(object.shared_from_this())));
}

bool sortObjects(std::vector<ObjectRef>& objects, const FetchRequest& request, ErrorRef*)
{
    if (request.sortDescriptors().empty()) {
        return true;
    }
    Array values;
    values.reserve(objects.size());
    for (auto& object : objects) {
        values.push_back(Value(std::move(object)));
    }
    const Array sorted = SortDescriptor::sortedArray(values, request.sortDescriptors());
    objects.clear();
    for (const auto& value : sorted) {
        objects.push_back(value.object());
    }
    return true;
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
