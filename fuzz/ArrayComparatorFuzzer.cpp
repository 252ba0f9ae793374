// Two arrays of arbitrary small values (duplicates, mixed kinds, NaN): the
// comparison either raises one of its documented exceptions or yields results
// that turn the old array into the new one. It must never hang or crash.
#include "QMFoundation/Comparison/NSMutableArray+QMMoving.h"
#include "QMFoundation/Comparison/QMArrayComparator.h"

#include "Platform/Foundation/Exception.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

namespace {

platform::Value valueFor(std::uint8_t byte)
{
    switch (byte % 8) {
    case 0:
        return platform::Value(static_cast<int>(byte / 8 % 4));
    case 1:
        return platform::Value(static_cast<double>(byte / 8 % 4));  // equal to the integers
    case 2:
        return platform::Value(std::nan(""));  // equal to nothing, itself included
    case 3:
        return platform::Value::null();
    default:
        return platform::Value(std::string(1, static_cast<char>('A' + byte / 8 % 6)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    if (size < 2) {
        return 0;
    }
    const bool useComparator = (bytes[0] & 1) != 0;
    const std::size_t concurrency = 1 + (bytes[0] >> 1) % 3;
    const std::size_t leftCount = bytes[1] % (size - 1);
    platform::Array left;
    platform::Array right;
    for (std::size_t index = 2; index < size; ++index) {
        (index - 2 < leftCount ? left : right).push_back(valueFor(bytes[index]));
    }
    QMArrayComparator::Comparator comparator;
    if (useComparator) {
        // Agrees with equality, except that it calls every NaN the same.
        comparator = [](const platform::Value& a, const platform::Value& b) {
            const auto same = a == b || (a.description() == b.description());
            return same ? platform::ComparisonResult::OrderedSame : platform::ComparisonResult::OrderedAscending;
        };
    }
    try {
        const auto arrayComparator = QMArrayComparator::create(left, right, comparator);
        arrayComparator->setConcurrency(concurrency);
        arrayComparator->compareWithCompletionHandler(
            [&](platform::IndexSet removed, platform::IndexSet inserted, std::vector<QMArrayMove> moves) {
                auto array = left;
                for (auto index = removed.rbegin(); index != removed.rend(); ++index) {
                    array.erase(array.begin() + static_cast<std::ptrdiff_t>(*index));
                }
                for (const auto index : inserted) {
                    insertObject(array, right[index], index);
                }
                for (const auto& move : moves) {
                    moveObjectAtIndex(array, move.from, move.to);
                }
                if (array != right) {
                    std::abort();
                }
            });
    } catch (const platform::Exception& exception) {
        if (exception.name() != platform::NSInternalInconsistencyException && exception.name() != platform::NSRangeException) {
            std::abort();
        }
    }
    return 0;
}
