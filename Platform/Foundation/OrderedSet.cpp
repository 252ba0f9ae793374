#include "Platform/Foundation/OrderedSet.h"

#include "Platform/Foundation/Exception.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace platform {
namespace {

// The reason names only the index and the bounds, never an element: ordered
// sets may hold values that do not belong in a log.
[[noreturn]] void raiseBeyondBounds(const char* method, std::size_t index, std::size_t size)
{
    std::string reason = std::string("*** ") + method + ": index " + std::to_string(index);
    reason += size == 0 ? " beyond bounds for empty ordered set" : " beyond bounds [0 .. " + std::to_string(size - 1) + "]";
    Exception::raise(NSRangeException, std::move(reason));
}

}  // namespace

OrderedSet::OrderedSet(std::initializer_list<Value> values)
{
    for (const auto& value : values) {
        insert(value);
    }
}

OrderedSet OrderedSet::withArray(const Array& array)
{
    OrderedSet ordered;
    for (const auto& value : array) {
        ordered.insert(value);
    }
    return ordered;
}

OrderedSet OrderedSet::withSet(const Set& set)
{
    // A set's members are distinct already, so nothing needs comparing.
    OrderedSet ordered;
    ordered.values_.assign(set.begin(), set.end());
    return ordered;
}

bool OrderedSet::insert(Value value)
{
    return insert(std::move(value), values_.size());
}

bool OrderedSet::insert(Value value, std::size_t index)
{
    if (index > values_.size()) {
        raiseBeyondBounds("-[NSMutableOrderedSet insertObject:atIndex:]", index, values_.size());
    }
    if (contains(value)) {
        return false;
    }
    values_.insert(values_.begin() + static_cast<std::ptrdiff_t>(index), std::move(value));
    return true;
}

bool OrderedSet::remove(const Value& value)
{
    const auto index = indexOf(value);
    if (!index) {
        return false;
    }
    values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(*index));
    return true;
}

void OrderedSet::removeAt(std::size_t index)
{
    if (index >= values_.size()) {
        raiseBeyondBounds("-[NSMutableOrderedSet removeObjectAtIndex:]", index, values_.size());
    }
    values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(index));
}

std::optional<std::size_t> OrderedSet::indexOf(const Value& value) const
{
    const auto found = std::find(values_.begin(), values_.end(), value);
    if (found == values_.end()) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(std::distance(values_.begin(), found));
}

const Value& OrderedSet::at(std::size_t index) const
{
    if (index >= values_.size()) {
        raiseBeyondBounds("-[NSOrderedSet objectAtIndex:]", index, values_.size());
    }
    return values_[index];
}

Set OrderedSet::set() const
{
    Set set;
    for (const auto& value : values_) {
        set.insert(value);
    }
    return set;
}

}  // namespace platform
