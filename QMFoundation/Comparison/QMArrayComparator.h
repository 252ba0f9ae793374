// QMArrayComparator: how an old array ("left") turns into a new one ("right"),
// as removed indexes, inserted indexes and a list of single-element moves.
//
//   auto comparator = QMArrayComparator::arrayComparatorWithLeftArray(oldItems, newItems);
//   comparator->compareWithCompletionHandler([&](auto removed, auto inserted, auto moves) { ... });
//
// A consumer rebuilds `right` from `left` by deleting `removed` (indexes of
// the old array), inserting at `inserted` (indexes of the new array) in
// ascending order, then replaying `moves` in order with moveObjectAtIndex
// (NSMutableArray+QMMoving.h).
//
// Removal and insertion are judged by equality of the elements; identity
// during the moves by the block comparator when one is set (it returns
// OrderedSame for two objects that denote the same item), by equality
// otherwise. Each move takes the element that is furthest from its final
// index first and puts it there; passes repeat until the working copy equals
// the new array. Among elements equally far away, the one at the lower index
// of the working copy moves first. Index searches return the lowest matching
// index, with or without a block comparator. So the results are a function of
// the two arrays (and the comparator) alone.
//
// Threads: a comparison runs on the calling thread and calls the handler
// there, once, before it returns. Its linear scans (membership, selection of
// misplaced elements, their distances, index searches in large arrays) are
// shared out to worker threads, so the elements' equality and the block
// comparator must be safe to call from several threads at once. One instance
// must not run two comparisons at the same time.
//
// Misuse raises: missing arrays or handler (parameter assertions), arrays
// whose duplicates do not pair up one to one ("Expected same size of current
// array (%lu) and final array (%lu)", or "NSRangeException" when an insertion
// index lies beyond the working copy), and moves that cannot reach the new
// array: duplicates in an order no move list fixes, or a comparator that
// calls unequal objects the same. Instead of passing through the same state
// again, forever, the comparison raises "NSInternalInconsistencyException".
#pragma once

#include "Platform/Foundation/ComparisonResult.h"
#include "Platform/Foundation/Indexes.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

// One entry of the move list: take the element at `from` out, insert it at `to`.
struct QMArrayMove {
    std::size_t from;
    std::size_t to;
    friend bool operator==(const QMArrayMove&, const QMArrayMove&) = default;
};

class QMArrayComparator;
using QMArrayComparatorRef = std::shared_ptr<QMArrayComparator>;

class QMArrayComparator : public platform::Object {
public:
    using Comparator = std::function<platform::ComparisonResult(const platform::Value& a, const platform::Value& b)>;
    using CompletionHandler = std::function<void(platform::IndexSet removedIndexes, platform::IndexSet insertedIndexes,
                                                 std::vector<QMArrayMove> movedIndexes)>;

    static QMArrayComparatorRef arrayComparatorWithLeftArray(std::optional<platform::Array> leftArray,
                                                             std::optional<platform::Array> rightArray);
    // Missing arrays are programming errors ("leftArray", "rightArray").
    static QMArrayComparatorRef create(std::optional<platform::Array> leftArray,
                                       std::optional<platform::Array> rightArray, Comparator comparator = nullptr);

    const platform::Array& leftArray() const { return leftArray_; }
    const platform::Array& rightArray() const { return rightArray_; }
    const Comparator& comparator() const { return comparator_; }

    // The accumulated results. They are never reset: a second comparison on
    // the same instance adds to the sets and appends to the move list.
    const platform::IndexSet& removedIndexes() const { return removedIndexes_; }
    const platform::IndexSet& insertedIndexes() const { return insertedIndexes_; }
    const std::vector<QMArrayMove>& movedIndexes() const { return movedIndexes_; }

    // How many threads the scans may use; 1 keeps them on the calling thread.
    // The results do not depend on it. Default: the number of processors.
    std::size_t concurrency() const { return concurrency_; }
    void setConcurrency(std::size_t concurrency) { concurrency_ = concurrency == 0 ? 1 : concurrency; }

    // Runs the comparison and calls `completionHandler` (required:
    // "completionHandler") with copies of the three results.
    void compareWithCompletionHandler(const CompletionHandler& completionHandler);

    // The lowest index of `array` whose element denotes `object` (by the block
    // comparator when set, by equality otherwise), or platform::NSNotFound.
    std::size_t indexOfObject(const platform::Value& object, const platform::Array& array) const;

    // One record {"object": element, "distance": |index in current - index
    // in final|} per index of `current` whose element's index there differs
    // from its index in `final`; furthest first, equal distances in
    // ascending index of `current`.
    platform::Array movedObjectInfosSortedByDistanceForArray(const platform::Array& current,
                                                            const platform::Array& final) const;

    std::string className() const override { return "QMArrayComparator"; }

private:
    // An array with the equality fingerprints of its elements, so that scans
    // by equality compare 64-bit numbers first (QMEqualityFingerprint.h).
    struct Fingerprinted {
        const platform::Array& values;
        const std::vector<std::uint64_t>& fingerprints;
    };

    struct MoveRecord {
        platform::Value object;
        std::uint64_t fingerprint;
        std::uint64_t distance;
        std::size_t finalIndex;
    };

    template <class> friend struct platform::ObjectAllocator;
    QMArrayComparator(platform::Array leftArray, platform::Array rightArray, Comparator comparator);

    // The lowest index of `array` whose element denotes `object`, searched by
    // `concurrency` threads; `array.size()` when none does.
    std::size_t indexIn(const platform::Value& object, std::uint64_t fingerprint, const Fingerprinted& array,
                        std::size_t concurrency) const;
    std::vector<MoveRecord> moveRecords(const Fingerprinted& current, const Fingerprinted& final) const;
    // Per element of `elements`: whether `among` holds an equal one.
    std::vector<char> membership(const Fingerprinted& elements, const Fingerprinted& among) const;

    platform::Array leftArray_;
    platform::Array rightArray_;
    Comparator comparator_;
    platform::IndexSet removedIndexes_;
    platform::IndexSet insertedIndexes_;
    std::vector<QMArrayMove> movedIndexes_;
    std::size_t concurrency_;
};
