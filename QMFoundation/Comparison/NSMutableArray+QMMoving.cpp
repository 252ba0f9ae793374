#include "QMFoundation/Comparison/NSMutableArray+QMMoving.h"

#include "Platform/Foundation/Exception.h"

#include <string>

namespace {

[[noreturn]] void raiseBeyondBounds(const char* operation, std::size_t index, std::size_t count)
{
    platform::Exception::raise(platform::NSRangeException,
                               std::string(operation) + ": index " + std::to_string(index) + " beyond bounds "
                                   + (count == 0 ? "for empty array" : "[0 .. " + std::to_string(count - 1) + "]"));
}

}  // namespace

void checkMoveIndexes(std::size_t count, std::size_t from, std::size_t to)
{
    // After the removal the array has one element fewer; `to` may be its end.
    for (const auto index : {from, to}) {
        if (index >= count) {
            raiseBeyondBounds("moveObjectAtIndex", index, count);
        }
    }
}

void insertObject(platform::Array& array, platform::Value object, std::size_t index)
{
    if (index > array.size()) {
        raiseBeyondBounds("insertObject", index, array.size() + 1);
    }
    array.insert(array.begin() + static_cast<std::ptrdiff_t>(index), std::move(object));
}
