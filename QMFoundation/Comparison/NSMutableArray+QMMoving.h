// NSMutableArray(QMMoving): moving one element, the primitive that the array
// comparator's move list is written in.
#pragma once

#include "Platform/Foundation/Value.h"

#include <algorithm>
#include <cstddef>
#include <vector>

// Raises "NSRangeException" unless `from` and `to` are both indexes of an
// array of `count` elements.
void checkMoveIndexes(std::size_t count, std::size_t from, std::size_t to);

// Takes the element at `from` out and inserts it at `to` of the shortened
// array, so `to` is its final index: moving 1 to 3 in [a, b, c, d] gives
// [a, c, d, b]. An index out of range raises "NSRangeException" and leaves the
// array as it was.
template <typename T>
void moveObjectAtIndex(std::vector<T>& array, std::size_t from, std::size_t to)
{
    checkMoveIndexes(array.size(), from, to);
    const auto at = [&](std::size_t index) { return array.begin() + static_cast<std::ptrdiff_t>(index); };
    if (from < to) {
        std::rotate(at(from), at(from + 1), at(to + 1));
    } else if (to < from) {
        std::rotate(at(to), at(from), at(from + 1));
    }
}

// Inserts `object` before `index` (at the end for index == count); beyond that
// raises "NSRangeException".
void insertObject(platform::Array& array, platform::Value object, std::size_t index);
