#include "Platform/ObjectGraph/RegisteredObjects.h"

#include "Platform/ObjectGraph/LinearProbing.h"

#include <algorithm>
#include <utility>

namespace platform::objectgraph {
namespace {

constexpr std::size_t kFirstCapacity = 16;
constexpr std::uint32_t kTaken = 0x80000000U;

// Grow before more than four slots in five are taken: linear probing stays
// short up to there. Growing by half rather than doubling keeps at least
// 53% of the slots taken, so a registration costs 25 to 38 bytes wherever
// the count falls (doubling: up to 50, just past a growth), and a growth
// holds two and a half tables' worth of slots at its peak rather than three.
bool overLoaded(std::size_t size, std::size_t capacity)
{
    return size * 5 > capacity * 4;
}

std::size_t grownCapacity(std::size_t capacity)
{
    return capacity == 0 ? kFirstCapacity : capacity + capacity / 2;
}

// What a slot keeps of a hash: its low 31 bits and the mark of a taken slot.
std::uint32_t tagOf(std::size_t hash)
{
    return static_cast<std::uint32_t>(hash) | kTaken;
}

// The slot where probing for a tag starts: the hash bits scaled to the
// capacity (any capacity, not only powers of two). The order of homes
// follows the order of hashes, which the hash's mixing makes uniform.
std::size_t homeOf(std::uint32_t tag, std::size_t capacity)
{
    return static_cast<std::size_t>((static_cast<std::uint64_t>(tag & ~kTaken) * capacity) >> 31);
}

std::size_t nextSlot(std::size_t index, std::size_t capacity)
{
    return index + 1 == capacity ? 0 : index + 1;
}

}  // namespace

RegisteredObjects::RegisteredObjects(RegisteredObjects&& other) noexcept
    : slots_(std::move(other.slots_)), hashes_(std::move(other.hashes_)), size_(std::exchange(other.size_, 0))
{
    other.slots_.clear();
    other.hashes_.clear();
}

RegisteredObjects& RegisteredObjects::operator=(RegisteredObjects&& other) noexcept
{
    if (this != &other) {
        slots_ = std::move(other.slots_);
        hashes_ = std::move(other.hashes_);
        size_ = std::exchange(other.size_, 0);
        other.slots_.clear();
        other.hashes_.clear();
    }
    return *this;
}

std::size_t RegisteredObjects::slotOf(const ManagedObjectIDKey& key, std::size_t hash) const
{
    const std::size_t capacity = slots_.size();
    const std::uint32_t tag = tagOf(hash);
    std::size_t index = homeOf(tag, capacity);
    while (hashes_[index] != 0 && !(hashes_[index] == tag && slots_[index]->idKey() == key)) {
        index = nextSlot(index, capacity);
    }
    return index;
}

const ManagedObjectRef* RegisteredObjects::find(const ManagedObjectIDKey& key) const
{
    if (size_ == 0) {
        return nullptr;
    }
    const std::size_t index = slotOf(key, key.hash());
    return hashes_[index] != 0 ? &slots_[index] : nullptr;
}

void RegisteredObjects::insert(ManagedObjectRef object)
{
    if (slots_.empty() || overLoaded(size_ + 1, slots_.size())) {
        grow();
    }
    const ManagedObjectIDKey key = object->idKey();
    const std::size_t hash = key.hash();
    const std::size_t index = slotOf(key, hash);
    if (hashes_[index] == 0) {
        hashes_[index] = tagOf(hash);
        ++size_;
    }
    // The object it replaces (if any) is released after the slot holds the
    // new one, so that its destruction sees a consistent table.
    std::swap(slots_[index], object);
}

ManagedObjectRef RegisteredObjects::erase(const ManagedObjectIDKey& key)
{
    if (size_ == 0) {
        return nullptr;
    }
    const std::size_t capacity = slots_.size();
    std::size_t hole = slotOf(key, key.hash());
    if (hashes_[hole] == 0) {
        return nullptr;
    }
    ManagedObjectRef removed = std::move(slots_[hole]);
    hashes_[hole] = 0;
    --size_;
    // Shift back every later object of the run whose home slot does not lie
    // between the hole and itself, so that no lookup meets a gap before it
    // reaches its object.
    for (std::size_t next = nextSlot(hole, capacity); hashes_[next] != 0; next = nextSlot(next, capacity)) {
        if (!foundPastHole(hole, homeOf(hashes_[next], capacity), next)) {
            slots_[hole] = std::move(slots_[next]);
            hashes_[hole] = std::exchange(hashes_[next], 0);
            hole = next;
        }
    }
    return removed;
}

void RegisteredObjects::clear()
{
    // Releasing objects may run code that looks at this table: empty it first.
    auto slots = std::move(slots_);
    slots_.clear();
    hashes_.clear();
    size_ = 0;
}

void RegisteredObjects::refile()
{
    auto old = std::move(slots_);
    const auto oldHashes = std::move(hashes_);
    slots_ = std::vector<ManagedObjectRef>(old.size());
    hashes_ = std::vector<std::uint32_t>(old.size(), 0);
    size_ = 0;
    for (std::size_t index = 0; index < old.size(); ++index) {
        if (oldHashes[index] != 0) {
            insert(std::move(old[index]));
        }
    }
}

void RegisteredObjects::reserve(std::size_t count)
{
    if (overLoaded(count, slots_.size())) {
        // The least capacity that holds `count` within the load limit.
        rehash(std::max(grownCapacity(slots_.size()), (count * 5 + 3) / 4));
    }
}

void RegisteredObjects::grow()
{
    rehash(grownCapacity(slots_.size()));
}

void RegisteredObjects::rehash(std::size_t capacity)
{
    auto old = std::move(slots_);
    const auto oldHashes = std::move(hashes_);
    slots_ = std::vector<ManagedObjectRef>(capacity);
    hashes_ = std::vector<std::uint32_t>(capacity, 0);
    for (std::size_t index = 0; index < old.size(); ++index) {
        if (oldHashes[index] != 0) {
            // The objects are distinct: the first empty slot from home is theirs.
            std::size_t slot = homeOf(oldHashes[index], capacity);
            while (hashes_[slot] != 0) {
                slot = nextSlot(slot, capacity);
            }
            hashes_[slot] = oldHashes[index];
            slots_[slot] = std::move(old[index]);
        }
    }
}

}  // namespace platform::objectgraph
