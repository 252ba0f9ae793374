#include "Platform/Predicates/SortDescriptor.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Predicates/Predicate.h"
#include "Platform/Predicates/internal/Comparison.h"

#include <algorithm>

namespace platform {

namespace {

// The rank of a value's kind when predicates cannot order two values.
int kindRank(const Value& value)
{
    if (internal::isNil(value)) {
        return 0;
    }
    if (value.isNumber()) {
        return 1;
    }
    if (value.isString()) {
        return 2;
    }
    if (value.date()) {
        return 3;
    }
    return 4;
}

}  // namespace

SortDescriptor::SortDescriptor(std::string_view key, bool ascending, Comparison comparison)
    : key_(key), ascending_(ascending), comparison_(comparison)
{
    if (key_.empty()) {
        Exception::raise(NSInvalidArgumentException, "A sort descriptor needs a key");
    }
}

ComparisonResult SortDescriptor::compareObject(const Value& first, const Value& second) const
{
    const Expression path = Expression::keyPath(key_);
    const Value left = path.valueWithObject(first);
    const Value right = path.valueWithObject(second);
    const unsigned options = comparison_ == CaseInsensitive ? ComparisonPredicate::CaseInsensitive : 0u;
    int order = internal::compareValues(left, right, options).value_or(0);
    if (order == 0 && !internal::compareValues(left, right, options)) {
        order = kindRank(left) - kindRank(right);
        order = order < 0 ? -1 : (order > 0 ? 1 : 0);
    }
    if (!ascending_) {
        order = -order;
    }
    return static_cast<ComparisonResult>(order);
}

Array SortDescriptor::sortedArray(const Array& array, const std::vector<SortDescriptor>& descriptors)
{
    Array sorted = array;
    std::stable_sort(sorted.begin(), sorted.end(), [&](const Value& first, const Value& second) {
        for (const auto& descriptor : descriptors) {
            const auto result = descriptor.compareObject(first, second);
            if (result != ComparisonResult::OrderedSame) {
                return result == ComparisonResult::OrderedAscending;
            }
        }
        return false;
    });
    return sorted;
}

}  // namespace platform

namespace platform {

Array SortDescriptor::sortedArray(const Array& array, const std::vector<std::shared_ptr<const SortDescriptor>>& descriptors)
{
    std::vector<SortDescriptor> plain;
    plain.reserve(descriptors.size());
    for (const auto& descriptor : descriptors) {
        plain.push_back(*descriptor);
    }
    return sortedArray(array, plain);
}

}  // namespace platform
