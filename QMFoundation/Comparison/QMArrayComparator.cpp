#include "QMFoundation/Comparison/QMArrayComparator.h"

#include "QMFoundation/Comparison/NSMutableArray+QMMoving.h"
#include "QMFoundation/Comparison/QMConcurrentEnumeration.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/StringFormat.h"

#include <algorithm>
#include <set>

using platform::Array;
using platform::ComparisonResult;
using platform::Value;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMArrayComparator";

// Element comparisons worth one chunk of a concurrent scan: enough that
// handing the chunk to another thread costs little beside it.
constexpr std::size_t kComparisonsPerChunk = 32768;

std::size_t grainForScansOf(std::size_t length)
{
    return std::max<std::size_t>(1, kComparisonsPerChunk / std::max<std::size_t>(1, length));
}

// The difference is taken as a 32-bit signed value, then made absolute: exact
// below 2^31 elements, and defined (if meaningless) for a not-found index.
std::uint64_t distanceBetween(std::size_t index, std::size_t otherIndex)
{
    const auto difference = static_cast<std::int32_t>(static_cast<std::uint32_t>(index - otherIndex));
    return static_cast<std::uint64_t>(std::abs(static_cast<std::int64_t>(difference)));
}

constexpr const char* kMovesCannotConverge =
    "Moves cannot turn the current array into the final array: its duplicates do not pair up, "
    "or the comparator calls unequal objects the same";

}  // namespace

QMArrayComparator::QMArrayComparator(Array leftArray, Array rightArray, Comparator comparator)
    : leftArray_(std::move(leftArray)),
      rightArray_(std::move(rightArray)),
      comparator_(std::move(comparator)),
      concurrency_(processorCount())
{
}

QMArrayComparatorRef QMArrayComparator::arrayComparatorWithLeftArray(std::optional<Array> leftArray,
                                                                     std::optional<Array> rightArray)
{
    return create(std::move(leftArray), std::move(rightArray));
}

QMArrayComparatorRef QMArrayComparator::create(std::optional<Array> leftArray, std::optional<Array> rightArray,
                                               Comparator comparator)
{
    PLATFORM_PARAMETER_ASSERT(leftArray.has_value(), "leftArray");
    PLATFORM_PARAMETER_ASSERT(rightArray.has_value(), "rightArray");
    return QMArrayComparatorRef(new QMArrayComparator(std::move(*leftArray), std::move(*rightArray), std::move(comparator)));
}

std::size_t QMArrayComparator::indexOfObject(const Value& object, const Array& array) const
{
    return indexIn(object, array, concurrency_);
}

std::size_t QMArrayComparator::indexIn(const Value& object, const Array& array, std::size_t concurrency) const
{
    const auto matches = [&](std::size_t index) {
        return comparator_ ? comparator_(array[index], object) == ComparisonResult::OrderedSame : array[index] == object;
    };
    constexpr std::size_t grain = kComparisonsPerChunk / 4;
    std::size_t found = 0;
    if (concurrency > 1 && array.size() >= 2 * grain) {
        found = concurrentlyFindFirst(array.size(), grain, concurrency, matches);
    } else {
        while (found < array.size() && !matches(found)) {
            ++found;
        }
    }
    return found == array.size() ? platform::NSNotFound : found;
}

std::vector<char> QMArrayComparator::membership(const Array& elements, const Array& among) const
{
    std::vector<char> contained(elements.size());
    concurrentlyEnumerate(elements.size(), grainForScansOf(among.size()), concurrency_,
                          [&](std::size_t begin, std::size_t end) {
                              for (auto index = begin; index < end; ++index) {
                                  contained[index] = std::find(among.begin(), among.end(), elements[index]) != among.end();
                              }
                          });
    return contained;
}

std::vector<QMArrayComparator::MoveRecord> QMArrayComparator::moveRecords(const Array& current, const Array& final) const
{
    std::vector<std::optional<MoveRecord>> slots(current.size());
    concurrentlyEnumerate(current.size(), grainForScansOf(current.size() + final.size()), concurrency_,
                          [&](std::size_t begin, std::size_t end) {
                              for (auto index = begin; index < end; ++index) {
                                  // Each chunk searches serially: the chunks already keep every thread busy.
                                  const auto here = indexIn(current[index], current, 1);
                                  const auto there = indexIn(current[index], final, 1);
                                  if (here != there) {
                                      slots[index] = MoveRecord{current[index], distanceBetween(here, there), there};
                                  }
                              }
                          });
    std::vector<MoveRecord> records;
    for (auto& slot : slots) {
        if (slot) {
            records.push_back(std::move(*slot));
        }
    }
    std::stable_sort(records.begin(), records.end(),
                     [](const MoveRecord& a, const MoveRecord& b) { return a.distance > b.distance; });
    return records;
}

Array QMArrayComparator::movedObjectInfosSortedByDistanceForArray(const Array& current, const Array& final) const
{
    Array infos;
    for (const auto& record : moveRecords(current, final)) {
        infos.emplace_back(platform::Dictionary{{"object", record.object}, {"distance", record.distance}});
    }
    return infos;
}

void QMArrayComparator::compareWithCompletionHandler(const CompletionHandler& completionHandler)
{
    PLATFORM_PARAMETER_ASSERT(static_cast<bool>(completionHandler), "completionHandler");

    // Which element came from where: left indexes, then right indexes offset
    // by the left count. Moves permute these along with the elements, so a
    // state seen before is recognised exactly, whatever the elements' equality.
    std::vector<std::size_t> origins;
    Array current;
    const auto keptOnTheLeft = membership(leftArray_, rightArray_);
    for (std::size_t index = 0; index < leftArray_.size(); ++index) {
        if (!keptOnTheLeft[index]) {
            removedIndexes_.insert(index);
        }
    }
    for (std::size_t index = 0; index < leftArray_.size(); ++index) {
        if (!removedIndexes_.contains(index)) {
            current.push_back(leftArray_[index]);
            origins.push_back(index);
        }
    }

    const auto foundOnTheLeft = membership(rightArray_, leftArray_);
    for (std::size_t index = 0; index < rightArray_.size(); ++index) {
        if (!foundOnTheLeft[index]) {
            insertedIndexes_.insert(index);
        }
    }
    for (const auto index : insertedIndexes_) {
        insertObject(current, rightArray_[index], index);
        origins.insert(origins.begin() + static_cast<std::ptrdiff_t>(index), leftArray_.size() + index);
    }

    PLATFORM_ASSERT(current.size() == rightArray_.size(),
                    "Expected same size of current array (" + std::to_string(current.size()) + ") and final array ("
                        + std::to_string(rightArray_.size()) + ")");

    std::set<std::vector<std::size_t>> statesSeen;
    while (current != rightArray_) {
        // A pass is a function of the state alone, so a state seen before
        // would repeat forever; a pass without a move repeats its own state.
        const bool firstVisit = statesSeen.insert(origins).second;
        PLATFORM_ASSERT(firstVisit, kMovesCannotConverge);
        for (const auto& record : moveRecords(current, rightArray_)) {
            const auto from = indexOfObject(record.object, current);
            const auto to = record.finalIndex;
            if (from == to) {
                continue;  // an earlier move of this pass put it in place
            }
            moveObjectAtIndex(current, from, to);
            moveObjectAtIndex(origins, from, to);
            movedIndexes_.push_back({from, to});
        }
    }

    completionHandler(removedIndexes_, insertedIndexes_, movedIndexes_);
}
