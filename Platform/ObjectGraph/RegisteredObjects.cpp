#include "Platform/ObjectGraph/RegisteredObjects.h"

#include <utility>

namespace platform::objectgraph {
namespace {

constexpr std::size_t kFirstCapacity = 16;
constexpr std::uint32_t kTaken = 0x80000000U;

// Grow before more than four slots in five are taken: linear probing stays
// short up to there, and a registration stays at 25 to 50 bytes.
bool overLoaded(std::size_t size, std::size_t capacity)
{
    return size * 5 > capacity * 4;
}

// What a slot keeps of a hash; the home slot is its low bits (tables stay
// far below 2^31 slots, so the mark never reaches them).
std::uint32_t tagOf(std::size_t hash)
{
    return static_cast<std::uint32_t>(hash) | kTaken;
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
    const std::size_t mask = slots_.size() - 1;
    const std::uint32_t tag = tagOf(hash);
    std::size_t index = hash & mask;
    while (hashes_[index] != 0 && !(hashes_[index] == tag && slots_[index]->idKey() == key)) {
        index = (index + 1) & mask;
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
    const std::size_t mask = slots_.size() - 1;
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
    for (std::size_t next = (hole + 1) & mask; hashes_[next] != 0; next = (next + 1) & mask) {
        const std::size_t wanted = hashes_[next] & mask;
        const bool reachable = hole <= next ? (hole < wanted && wanted <= next) : (hole < wanted || wanted <= next);
        if (!reachable) {
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

void RegisteredObjects::grow()
{
    auto old = std::move(slots_);
    const auto oldHashes = std::move(hashes_);
    const std::size_t capacity = old.empty() ? kFirstCapacity : old.size() * 2;
    const std::size_t mask = capacity - 1;
    slots_ = std::vector<ManagedObjectRef>(capacity);
    hashes_ = std::vector<std::uint32_t>(capacity, 0);
    for (std::size_t index = 0; index < old.size(); ++index) {
        if (oldHashes[index] != 0) {
            // The objects are distinct: the first empty slot from home is theirs.
            std::size_t slot = oldHashes[index] & mask;
            while (hashes_[slot] != 0) {
                slot = (slot + 1) & mask;
            }
            hashes_[slot] = oldHashes[index];
            slots_[slot] = std::move(old[index]);
        }
    }
}

}  // namespace platform::objectgraph
