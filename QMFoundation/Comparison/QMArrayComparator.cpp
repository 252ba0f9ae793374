#include "QMFoundation/Comparison/QMArrayComparator.h"

#include "QMFoundation/Comparison/NSMutableArray+QMMoving.h"
#include "QMFoundation/Comparison/QMConcurrentEnumeration.h"
#include "QMFoundation/Comparison/QMEqualityFingerprint.h"

#include "Platform/Foundation/Exception.h"

#include <algorithm>
#include <cstdlib>
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
    return platform::makeObject<QMArrayComparator>(std::move(*leftArray), std::move(*rightArray), std::move(comparator));
}

std::size_t QMArrayComparator::indexOfObject(const Value& object, const Array& array) const
{
    const auto fingerprints = comparator_ ? std::vector<std::uint64_t>(array.size()) : equalityFingerprints(array);
    const auto found = indexIn(object, equalityFingerprint(object), {array, fingerprints}, concurrency_);
    return found == array.size() ? platform::NSNotFound : found;
}

std::size_t QMArrayComparator::indexIn(const Value& object, std::uint64_t fingerprint, const Fingerprinted& array,
                                       std::size_t concurrency) const
{
    const auto matches = [&](std::size_t index) {
        if (comparator_) {
            return comparator_(array.values[index], object) == ComparisonResult::OrderedSame;
        }
        return array.fingerprints[index] == fingerprint && array.values[index] == object;
    };
    // Comparing fingerprints is cheap, so only long searches are worth
    // sharing; a block comparator may cost anything, so those are shared
    // sooner.
    const std::size_t grain = comparator_ ? kComparisonsPerChunk / 4 : kComparisonsPerChunk;
    if (concurrency > 1 && array.values.size() >= 2 * grain) {
        return concurrentlyFindFirst(array.values.size(), grain, concurrency, matches);
    }
    std::size_t index = 0;
    while (index < array.values.size() && !matches(index)) {
        ++index;
    }
    return index;
}

std::vector<char> QMArrayComparator::membership(const Fingerprinted& elements, const Fingerprinted& among) const
{
    std::vector<char> contained(elements.values.size());
    concurrentlyEnumerate(elements.values.size(), grainForScansOf(among.values.size()), concurrency_,
                          [&](std::size_t begin, std::size_t end) {
                              for (auto index = begin; index < end; ++index) {
                                  const auto fingerprint = elements.fingerprints[index];
                                  const auto& element = elements.values[index];
                                  for (std::size_t other = 0; other < among.values.size(); ++other) {
                                      if (among.fingerprints[other] == fingerprint && among.values[other] == element) {
                                          contained[index] = 1;
                                          break;
                                      }
                                  }
                              }
                          });
    return contained;
}

std::vector<QMArrayComparator::MoveRecord> QMArrayComparator::moveRecords(const Fingerprinted& current,
                                                                          const Fingerprinted& final) const
{
    const auto count = current.values.size();
    std::vector<std::optional<MoveRecord>> slots(count);
    concurrentlyEnumerate(count, grainForScansOf(count + final.values.size()), concurrency_,
                          [&](std::size_t begin, std::size_t end) {
                              for (auto index = begin; index < end; ++index) {
                                  // Each chunk searches serially: the chunks already keep every thread busy.
                                  const auto& object = current.values[index];
                                  const auto fingerprint = current.fingerprints[index];
                                  auto here = indexIn(object, fingerprint, current, 1);
                                  auto there = indexIn(object, fingerprint, final, 1);
                                  here = here == count ? platform::NSNotFound : here;
                                  there = there == final.values.size() ? platform::NSNotFound : there;
                                  if (here != there) {
                                      slots[index] = MoveRecord{object, fingerprint, distanceBetween(here, there), there};
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
    const auto currentFingerprints = equalityFingerprints(current);
    const auto finalFingerprints = equalityFingerprints(final);
    Array infos;
    for (const auto& record : moveRecords({current, currentFingerprints}, {final, finalFingerprints})) {
        infos.emplace_back(platform::Dictionary{{"object", record.object}, {"distance", record.distance}});
    }
    return infos;
}

void QMArrayComparator::compareWithCompletionHandler(const CompletionHandler& completionHandler)
{
    PLATFORM_PARAMETER_ASSERT(static_cast<bool>(completionHandler), "completionHandler");

    const auto leftFingerprints = equalityFingerprints(leftArray_);
    const auto rightFingerprints = equalityFingerprints(rightArray_);
    const Fingerprinted left{leftArray_, leftFingerprints};
    const Fingerprinted right{rightArray_, rightFingerprints};

    // Which element came from where: left indexes, then right indexes offset
    // by the left count. Moves permute these along with the elements, so a
    // state seen before is recognised exactly, whatever the elements' equality.
    std::vector<std::size_t> origins;
    Array current;
    std::vector<std::uint64_t> currentFingerprints;
    const auto keptOnTheLeft = membership(left, right);
    for (std::size_t index = 0; index < leftArray_.size(); ++index) {
        if (!keptOnTheLeft[index]) {
            removedIndexes_.insert(index);
        }
    }
    for (std::size_t index = 0; index < leftArray_.size(); ++index) {
        if (!removedIndexes_.contains(index)) {
            current.push_back(leftArray_[index]);
            currentFingerprints.push_back(leftFingerprints[index]);
            origins.push_back(index);
        }
    }

    const auto foundOnTheLeft = membership(right, left);
    for (std::size_t index = 0; index < rightArray_.size(); ++index) {
        if (!foundOnTheLeft[index]) {
            insertedIndexes_.insert(index);
        }
    }
    for (const auto index : insertedIndexes_) {
        insertObject(current, rightArray_[index], index);
        const auto at = static_cast<std::ptrdiff_t>(index);
        currentFingerprints.insert(currentFingerprints.begin() + at, rightFingerprints[index]);
        origins.insert(origins.begin() + at, leftArray_.size() + index);
    }

    PLATFORM_ASSERT(current.size() == rightArray_.size(),
                    "Expected same size of current array (" + std::to_string(current.size()) + ") and final array ("
                        + std::to_string(rightArray_.size()) + ")");

    const auto sameAsFinal = [&] {
        return currentFingerprints == rightFingerprints && current == rightArray_;
    };
    std::set<std::vector<std::size_t>> statesSeen;
    while (!sameAsFinal()) {
        // A pass is a function of the state alone, so a state seen before
        // would repeat forever; a pass without a move repeats its own state.
        const bool firstVisit = statesSeen.insert(origins).second;
        PLATFORM_ASSERT(firstVisit, kMovesCannotConverge);
        for (const auto& record : moveRecords({current, currentFingerprints}, right)) {
            auto from = indexIn(record.object, record.fingerprint, {current, currentFingerprints}, concurrency_);
            from = from == current.size() ? platform::NSNotFound : from;
            const auto to = record.finalIndex;
            if (from == to) {
                continue;  // an earlier move of this pass put it in place
            }
            moveObjectAtIndex(current, from, to);
            moveObjectAtIndex(currentFingerprints, from, to);
            moveObjectAtIndex(origins, from, to);
            movedIndexes_.push_back({from, to});
        }
    }

    completionHandler(removedIndexes_, insertedIndexes_, movedIndexes_);
}
