#include "Platform/ObjectGraph/RegisteredObjects.h"
#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>

using namespace platform;
using objectgraph::RegisteredObjects;

namespace {

const ManagedObject* found(const RegisteredObjects& table, const ManagedObjectRef& object)
{
    const ManagedObjectRef* slot = table.find(object->objectID()->key());
    return slot != nullptr ? slot->get() : nullptr;
}

// Enough objects for the table to grow many times and to form long runs of
// taken slots, which is where removals must move later objects back.
TEST(RegisteredObjectsTest, EveryObjectIsFoundThroughGrowthAndRemovalsInAnyOrder)
{
    auto objects = objectgraphtest::looseObjects(3000);
    RegisteredObjects table;
    for (const auto& object : objects) {
        table.insert(object);
    }
    ASSERT_EQ(table.size(), objects.size());

    std::shuffle(objects.begin(), objects.end(), std::mt19937(7));
    const std::size_t half = objects.size() / 2;
    for (std::size_t index = 0; index < half; ++index) {
        EXPECT_EQ(table.erase(objects[index]->objectID()->key()), objects[index]);
    }
    EXPECT_EQ(table.size(), objects.size() - half);
    std::size_t missing = 0;
    for (std::size_t index = 0; index < objects.size(); ++index) {
        const ManagedObject* expected = index < half ? nullptr : objects[index].get();
        missing += found(table, objects[index]) != expected;
    }
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(table.erase(objects.front()->objectID()->key()), nullptr);

    // Taking the rest out one by one, checking the whole table each time
    // for a few, catches a removal that strands a neighbour.
    for (std::size_t index = half; index < objects.size(); ++index) {
        ASSERT_EQ(table.erase(objects[index]->objectID()->key()), objects[index]);
        if (index % 97 == 0) {
            for (std::size_t later = index + 1; later < objects.size(); ++later) {
                ASSERT_EQ(found(table, objects[later]), objects[later].get()) << later;
            }
        }
    }
    EXPECT_TRUE(table.empty());
}

// A table's home slots follow the hash's bits in order, so objects whose
// hashes lie at the top of the range all start at the last slot and their
// run wraps round to the first ones, where objects at the bottom of the range
// start. Removals in any order must keep every other object reachable across
// the wrap.
TEST(RegisteredObjectsTest, RunsThatWrapPastTheLastSlotSurviveRemovals)
{
    // Eleven objects stay within the smallest table (sixteen slots); a
    // sixteenth of the range at either end is one slot there.
    constexpr std::uint32_t kRange = 0x80000000U;
    std::vector<ManagedObjectRef> top;
    std::vector<ManagedObjectRef> bottom;
    for (const auto& object : objectgraphtest::looseObjects(2000)) {
        const auto bits = static_cast<std::uint32_t>(object->objectID()->key().hash()) & (kRange - 1);
        if (bits >= kRange - kRange / 16 && top.size() < 8) {
            top.push_back(object);
        } else if (bits < kRange / 16 && bottom.size() < 3) {
            bottom.push_back(object);
        }
    }
    ASSERT_EQ(top.size(), 8u);
    ASSERT_EQ(bottom.size(), 3u);

    std::mt19937 random(11);
    for (int round = 0; round < 20; ++round) {
        std::vector<ManagedObjectRef> objects = top;
        objects.insert(round % 2 == 0 ? objects.end() : objects.begin(), bottom.begin(), bottom.end());
        RegisteredObjects table;
        for (const auto& object : objects) {
            table.insert(object);
        }
        std::shuffle(objects.begin(), objects.end(), random);
        for (std::size_t index = 0; index < objects.size(); ++index) {
            ASSERT_EQ(table.erase(objects[index]->objectID()->key()), objects[index]) << round << " " << index;
            for (std::size_t later = index + 1; later < objects.size(); ++later) {
                ASSERT_EQ(found(table, objects[later]), objects[later].get()) << round << " " << later;
            }
        }
    }
}

TEST(RegisteredObjectsTest, HoldsItsObjectsUntilErasedOrCleared)
{
    auto objects = objectgraphtest::looseObjects(40);
    std::vector<std::weak_ptr<ManagedObject>> watched(objects.begin(), objects.end());
    std::vector<ManagedObjectIDRef> ids;
    RegisteredObjects table;
    for (auto& object : objects) {
        ids.push_back(object->objectID());
        table.insert(std::move(object));
    }
    objects.clear();
    std::size_t visited = 0;
    table.forEach([&](const ManagedObjectRef& object) { visited += object != nullptr; });
    EXPECT_EQ(visited, 40u);
    EXPECT_FALSE(watched[0].expired());

    auto taken = table.erase(ids[0]->key());
    EXPECT_FALSE(watched[0].expired());
    taken = nullptr;
    EXPECT_TRUE(watched[0].expired());

    RegisteredObjects moved = std::move(table);
    EXPECT_EQ(moved.size(), 39u);
    EXPECT_NE(moved.find(ids[1]->key()), nullptr);
    moved.clear();
    EXPECT_TRUE(std::all_of(watched.begin(), watched.end(), [](const auto& weak) { return weak.expired(); }));
    EXPECT_EQ(moved.find(ids[1]->key()), nullptr);
}

}  // namespace
