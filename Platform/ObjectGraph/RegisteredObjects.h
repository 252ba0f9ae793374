// RegisteredObjects: the objects a context holds registered, found by ID.
// Internal to the object-graph store.
//
// An open-addressing table (linear probing, deletion by shifting back) of the
// strong references alone. Each object carries its ID, so a registration
// costs one slot of 20 bytes (the reference, and 31 bits of the ID's hash, so
// that probes and moves rarely have to look at an object's ID: each look is
// a cache miss or two) at a load of 53% to 80% (it grows by half), where a
// node of an unordered map with the ID beside the object cost about 70 bytes.
//
// An object is found under the ID it had when it was inserted: change an ID
// by erasing, changing and inserting again, or change many and refile. Used on the owning context's
// thread only.
#pragma once

#include "Platform/ObjectGraph/ManagedObject.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace platform::objectgraph {

class RegisteredObjects {
public:
    RegisteredObjects() = default;
    RegisteredObjects(RegisteredObjects&& other) noexcept;
    RegisteredObjects& operator=(RegisteredObjects&& other) noexcept;

    // The object registered under `key`, or null.
    const ManagedObjectRef* find(const ManagedObjectIDKey& key) const;
    // Registers `object` under its ID, in place of any object registered
    // under an equal ID.
    void insert(ManagedObjectRef object);
    // Room for `count` objects in all without growing: for a caller about to
    // register many (a parent taking a child's new objects).
    void reserve(std::size_t count);
    // Takes out the object registered under `key` and returns it (nothing
    // when there is none).
    ManagedObjectRef erase(const ManagedObjectIDKey& key);

    // Files every object again under the ID it has now. When many objects
    // changed their IDs at once (a save's new objects), one pass costs less
    // than an erase and an insert for each; until it runs, the changed ones
    // are not found.
    void refile();

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    void clear();

    // Every registered object, in no particular order. `visit` must not
    // insert or erase.
    template <typename Visit>
    void forEach(Visit&& visit) const
    {
        for (std::size_t index = 0; index < slots_.size(); ++index) {
            if (hashes_[index] != 0) {
                visit(slots_[index]);
            }
        }
    }

private:
    // The slot holding `key`, or the empty one where it would go.
    std::size_t slotOf(const ManagedObjectIDKey& key, std::size_t hash) const;
    void grow();
    void rehash(std::size_t capacity);

    std::vector<ManagedObjectRef> slots_;  // none until the first insert
    // Per slot: 0 when empty, else the low 31 bits of the hash and the top bit.
    std::vector<std::uint32_t> hashes_;
    std::size_t size_ = 0;
};

}  // namespace platform::objectgraph
