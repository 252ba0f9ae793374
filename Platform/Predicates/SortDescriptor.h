// SortDescriptor: one sort key of a fetch or an array sort: a key path, a
// direction and how strings compare.
//
//   auto sorted = SortDescriptor::sortedArray(people, {SortDescriptor("lastName", true, SortDescriptor::CaseInsensitive),
//                                                      SortDescriptor("age", false)});
//
// Values order as predicates order them (Platform/Predicates/Predicate.h), so
// a store that sorts in SQL and one that sorts in memory agree. Values that
// predicates do not order among themselves still sort, by kind: nil first,
// then numbers, strings, dates, and everything else last, in the order found.
// Sorting is stable: elements that compare equal keep their order.
#pragma once

#include "Platform/Foundation/ComparisonResult.h"
#include "Platform/Foundation/Value.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class SortDescriptor {
public:
    enum Comparison { Compare, CaseInsensitive };

    // An empty key raises "NSInvalidArgumentException".
    explicit SortDescriptor(std::string_view key, bool ascending = true, Comparison comparison = Compare);
    // Shared and immutable, as fetch requests hold them.
    static std::shared_ptr<const SortDescriptor> create(std::string_view key, bool ascending = true,
                                                        Comparison comparison = Compare)
    {
        return std::make_shared<const SortDescriptor>(key, ascending, comparison);
    }
    static SortDescriptor sortDescriptorWithKey(std::string_view key, bool ascending = true,
                                                Comparison comparison = Compare)
    {
        return SortDescriptor(key, ascending, comparison);
    }

    const std::string& key() const { return key_; }
    bool ascending() const { return ascending_; }
    Comparison comparison() const { return comparison_; }
    SortDescriptor reversedSortDescriptor() const { return SortDescriptor(key_, !ascending_, comparison_); }

    // Compares the values of the key path of two objects, in this descriptor's direction.
    ComparisonResult compareObject(const Value& first, const Value& second) const;

    static Array sortedArray(const Array& array, const std::vector<SortDescriptor>& descriptors);
    static Array sortedArray(const Array& array, const std::vector<std::shared_ptr<const SortDescriptor>>& descriptors);

    friend bool operator==(const SortDescriptor& left, const SortDescriptor& right) = default;

private:
    std::string key_;
    bool ascending_;
    Comparison comparison_;
};

}  // namespace platform
