// OrderedSet: distinct values in a fixed order, reachable by index.
//
// Membership is value equality, as in Set (so 1, 1.0 and true are one
// member); the order is the order of first insertion unless a value is
// inserted at an index. Wrapped in a Value it is a kind of its own,
// Value::Kind::OrderedSet: never equal to an array or a set holding the same
// elements, and not a JSON value.
//
//   auto ordered = OrderedSet::withArray({"b", "a", "b"});   // b, a
//   ordered.array();                                           // ("b", "a")
//   Value(ordered).orderedSet()->indexOf("a");                 // 1
//
// Look-ups compare with every member in turn, as Set does: meant for the
// relationship lists and transformer values the store and the REST mapping
// pass around, not for large collections.
#pragma once

#include "Platform/Foundation/Value.h"

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <vector>

namespace platform {

class OrderedSet {
public:
    OrderedSet() = default;
    OrderedSet(std::initializer_list<Value> values);

    // The distinct elements of `array` in the order of their first occurrence.
    static OrderedSet withArray(const Array& array);
    // The members of `set` in the set's enumeration order.
    static OrderedSet withSet(const Set& set);

    // Appends `value` unless an equal value is present (then its place is
    // kept); false when it was present.
    bool insert(Value value);
    // Inserts `value` before position `index` (size() appends) unless an equal
    // value is present; false when present. An index beyond size() raises
    // "NSRangeException".
    bool insert(Value value, std::size_t index);
    bool remove(const Value& value);
    // Removes the element at `index`; beyond the end raises "NSRangeException".
    void removeAt(std::size_t index);

    bool contains(const Value& value) const { return indexOf(value).has_value(); }
    std::optional<std::size_t> indexOf(const Value& value) const;
    // The element at `index`; beyond the end raises "NSRangeException".
    const Value& at(std::size_t index) const;
    const Value& operator[](std::size_t index) const { return at(index); }

    std::size_t size() const { return values_.size(); }
    bool empty() const { return values_.empty(); }
    auto begin() const { return values_.begin(); }
    auto end() const { return values_.end(); }

    const Array& array() const { return values_; }
    Set set() const;

    // Equal ordered sets hold equal elements in the same order.
    friend bool operator==(const OrderedSet& left, const OrderedSet& right) { return left.values_ == right.values_; }

private:
    Array values_;
};

}  // namespace platform
