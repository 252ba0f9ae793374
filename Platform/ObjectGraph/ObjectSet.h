// ObjectSet: one of a context's change sets (inserted, updated, deleted
// objects). Internal to the object-graph store.
//
// The objects in the order they joined, with membership by address in
// constant time. The order is kept as the set grows rather than sorted when
// asked for: a save reads it several times per level of a context chain.
// Membership is an open-addressing table (linear probing, deletion by
// shifting back) of address and place in the order, so that joining costs no
// allocation of its own: a save through a chain of contexts puts every object
// into a set once per level. Used on the owning context's thread only.
#pragma once

#include "Platform/ObjectGraph/ManagedObject.h"

#include <cstddef>
#include <vector>

namespace platform::objectgraph {

class ObjectSet {
public:
    // False when the object is a member already.
    bool insert(const ManagedObjectRef& object);
    // False when the object is not a member.
    bool erase(const ManagedObject* object);
    bool contains(const ManagedObject* object) const;
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    void clear();
    // Room for `count` members in all without growing.
    void reserve(std::size_t count);

    // The members in the order they joined.
    std::vector<ManagedObjectRef> ordered() const;
    // The members in the order they joined, with an empty place for each
    // member that left meanwhile (skip those): for loops that stop early
    // and would rather not copy the set. Valid until the set changes.
    const std::vector<ManagedObjectRef>& places() const { return order_; }

private:
    struct Slot {
        const ManagedObject* object = nullptr;  // null: empty
        std::size_t place = 0;                  // in order_
    };
    std::size_t homeOf(const ManagedObject* object) const;
    // The slot holding `object`, or the empty one where it would go.
    std::size_t slotOf(const ManagedObject* object) const;
    void rehash(std::size_t capacity);
    void compact();

    std::vector<ManagedObjectRef> order_;  // a member that left leaves an empty place
    std::vector<Slot> slots_;              // a power of two of them, none until the first insert
    std::size_t size_ = 0;
};

}  // namespace platform::objectgraph
