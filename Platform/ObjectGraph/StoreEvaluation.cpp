#include "Platform/ObjectGraph/StoreEvaluation.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/ObjectGraph/FetchRequest.h"
#include "Platform/ObjectGraph/ObjectGraphError.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/SortDescriptor.h"

#include <algorithm>

namespace platform::objectgraph {

namespace {

void setEvaluationError(ErrorRef* error, const Exception& exception)
{
    setError(error, makeError(NSPersistentStoreOperationError, "The fetch request cannot be evaluated.",
                              exception.reason()));
}

}  // namespace

std::optional<bool> matchesPredicate(const Predicate* predicate, const Object& object, ErrorRef* error)
{
    if (predicate == nullptr) {
        return true;
    }
    try {
        return predicate->evaluateWithObject(Value(std::const_pointer_cast<Object>(object.shared_from_this())));
    } catch (const Exception& exception) {
        setEvaluationError(error, exception);
        return std::nullopt;
    }
}

std::optional<bool> matchesPredicate(const FetchRequest& request, const Object& object, ErrorRef* error)
{
    return matchesPredicate(request.predicate().get(), object, error);
}

bool sortObjects(std::vector<ObjectRef>& objects, const FetchRequest& request, ErrorRef* error)
{
    if (request.sortDescriptors().empty()) {
        return true;
    }
    Array values;
    values.reserve(objects.size());
    for (const auto& object : objects) {
        values.push_back(Value(object));
    }
    Array sorted;
    try {
        sorted = SortDescriptor::sortedArray(values, request.sortDescriptors());
    } catch (const Exception& exception) {
        setEvaluationError(error, exception);
        return false;
    }
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
                                                         const std::shared_ptr<const Predicate>& predicate,
                                                         ErrorRef* error)
{
    std::vector<ObjectRef> selected;
    selected.reserve(objects.size());
    for (auto& object : objects) {
        const auto matches = matchesPredicate(predicate.get(), *object, error);
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
