#include "Platform/ObjectGraph/ObjectSet.h"
#include "tests/Platform/ObjectGraph/ObjectGraphFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace platform;
using objectgraph::ObjectSet;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(ObjectSetTest, MembersJoinOnceAndLeaveOnce)
{
    const auto objects = objectgraphtest::looseObjects(3);
    ObjectSet set;
    EXPECT_FALSE(set.erase(objects[0].get()));
    EXPECT_FALSE(set.contains(objects[0].get()));
    EXPECT_TRUE(set.insert(objects[1]));
    EXPECT_TRUE(set.insert(objects[0]));
    EXPECT_FALSE(set.insert(objects[1]));
    EXPECT_EQ(set.size(), 2u);
    EXPECT_THAT(set.ordered(), ElementsAre(objects[1], objects[0]));

    EXPECT_TRUE(set.erase(objects[1].get()));
    EXPECT_FALSE(set.erase(objects[1].get()));
    EXPECT_FALSE(set.contains(objects[1].get()));
    // Back in, it joins at the end.
    EXPECT_TRUE(set.insert(objects[1]));
    EXPECT_THAT(set.ordered(), ElementsAre(objects[0], objects[1]));

    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_THAT(set.ordered(), IsEmpty());
    EXPECT_TRUE(set.insert(objects[2]));
    EXPECT_THAT(set.ordered(), ElementsAre(objects[2]));
}

// Against a plain list, through growth, removals that shift later members
// back and the compactions of the order that many removals cause: a member
// filed at the wrong place, or with a stale place in the order, shows up as
// a wrong answer here.
TEST(ObjectSetTest, AgreesWithAPlainListThroughGrowthRemovalsAndCompaction)
{
    const auto objects = objectgraphtest::looseObjects(800);
    ObjectSet set;
    set.reserve(100);
    std::vector<ManagedObjectRef> expected;
    std::mt19937 random(11);
    for (int round = 0; round < 10000; ++round) {
        const auto& object = objects[random() % objects.size()];
        const bool member = std::find(expected.begin(), expected.end(), object) != expected.end();
        // Mostly joining early on, mostly leaving later, so that the set
        // both grows large and shrinks far enough to compact.
        const bool join = random() % 10000 > static_cast<unsigned>(round);
        if (join) {
            ASSERT_EQ(set.insert(object), !member);
            if (!member) {
                expected.push_back(object);
            }
        } else {
            ASSERT_EQ(set.erase(object.get()), member);
            expected.erase(std::remove(expected.begin(), expected.end(), object), expected.end());
        }
        ASSERT_EQ(set.size(), expected.size());
        if (round % 1000 == 0) {
            ASSERT_EQ(set.ordered(), expected) << "after round " << round;
        }
    }
    ASSERT_EQ(set.ordered(), expected);
    std::size_t wrong = 0;
    for (const auto& object : objects) {
        wrong += set.contains(object.get()) != (std::find(expected.begin(), expected.end(), object) != expected.end());
    }
    EXPECT_EQ(wrong, 0u);
    // Every member leaves by the place the set keeps for it.
    for (const auto& object : expected) {
        ASSERT_TRUE(set.erase(object.get()));
    }
    EXPECT_TRUE(set.empty());
    EXPECT_THAT(set.ordered(), IsEmpty());
}

}  // namespace
