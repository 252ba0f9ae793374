#include "Platform/ObjectGraph/ObjectSet.h"

#include "Platform/ObjectGraph/LinearProbing.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <utility>

namespace platform::objectgraph {
namespace {

constexpr std::size_t kFirstCapacity = 16;

// At most half the slots taken: the table is small beside the objects, and
// probes stay short.
std::size_t capacityFor(std::size_t count)
{
    return std::bit_ceil(std::max(kFirstCapacity, 2 * count));
}

}  // namespace

std::size_t ObjectSet::homeOf(const ManagedObject* object) const
{
    // Fibonacci hashing: the high bits of the product mix every bit of the
    // address, whose low bits are the same for all objects.
    const auto bits = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(object)) * 0x9e3779b97f4a7c15ULL;
    return static_cast<std::size_t>(bits >> (64 - std::countr_zero(slots_.size())));
}

std::size_t ObjectSet::slotOf(const ManagedObject* object) const
{
    const std::size_t mask = slots_.size() - 1;
    std::size_t index = homeOf(object);
    while (slots_[index].object != nullptr && slots_[index].object != object) {
        index = (index + 1) & mask;
    }
    return index;
}

bool ObjectSet::insert(const ManagedObjectRef& object)
{
    if (2 * (size_ + 1) > slots_.size()) {
        rehash(capacityFor(size_ + 1));
    }
    Slot& slot = slots_[slotOf(object.get())];
    if (slot.object != nullptr) {
        return false;
    }
    slot = {object.get(), order_.size()};
    order_.push_back(object);
    ++size_;
    return true;
}

bool ObjectSet::erase(const ManagedObject* object)
{
    if (size_ == 0) {
        return false;
    }
    const std::size_t mask = slots_.size() - 1;
    std::size_t hole = slotOf(object);
    if (slots_[hole].object == nullptr) {
        return false;
    }
    order_[slots_[hole].place] = nullptr;
    slots_[hole] = {};
    --size_;
    // Move back every later member of the run whose home does not lie
    // between the hole and itself, so that no probe meets a gap first.
    for (std::size_t next = (hole + 1) & mask; slots_[next].object != nullptr; next = (next + 1) & mask) {
        if (!foundPastHole(hole, homeOf(slots_[next].object), next)) {
            slots_[hole] = std::exchange(slots_[next], {});
            hole = next;
        }
    }
    if (order_.size() > 2 * size_ + 16) {
        compact();
    }
    return true;
}

bool ObjectSet::contains(const ManagedObject* object) const
{
    return size_ != 0 && slots_[slotOf(object)].object != nullptr;
}

void ObjectSet::clear()
{
    order_.clear();
    slots_.clear();
    size_ = 0;
}

void ObjectSet::reserve(std::size_t count)
{
    if (2 * count > slots_.size()) {
        rehash(capacityFor(count));
    }
    order_.reserve(count);
}

std::vector<ManagedObjectRef> ObjectSet::ordered() const
{
    std::vector<ManagedObjectRef> objects;
    objects.reserve(size_);
    for (const auto& object : order_) {
        if (object) {
            objects.push_back(object);
        }
    }
    return objects;
}

void ObjectSet::rehash(std::size_t capacity)
{
    auto old = std::exchange(slots_, std::vector<Slot>(capacity));
    for (const Slot& slot : old) {
        if (slot.object != nullptr) {
            slots_[slotOf(slot.object)] = slot;
        }
    }
}

void ObjectSet::compact()
{
    std::size_t next = 0;
    for (std::size_t index = 0; index < order_.size(); ++index) {
        if (order_[index]) {
            slots_[slotOf(order_[index].get())].place = next;
            if (next != index) {
                order_[next] = std::move(order_[index]);
            }
            ++next;
        }
    }
    order_.resize(next);
}

}  // namespace platform::objectgraph
