// The observation centre when observers, targets and tokens go on one thread
// while another changes values. A delivery to an object that is already gone
// shows up as a use after free under AddressSanitizer or a race under
// ThreadSanitizer, so these tests mostly assert by running clean.
#include "QMFoundation/Observation/XOKVONotificationCenter.h"

#include "ObservationTestModels.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>

using namespace platform;
using namespace observation_tests;

namespace {

XOKVONotificationCenter& center()
{
    return *XOKVONotificationCenter::defaultCenter();
}

// Runs `body` on another thread until `rounds` of `work` have run here and the
// other thread has been round at least `minimum` times.
template <typename Body, typename Work>
void whileAnotherThreadRuns(Body body, int rounds, int minimum, Work work)
{
    std::atomic<bool> stop = false;
    std::atomic<int> done = 0;
    std::thread other([&] {
        while (!stop.load()) {
            body();
            done.fetch_add(1);
        }
    });
    for (int round = 0; round < rounds || done.load() < minimum; ++round) {
        work(round);
    }
    stop.store(true);
    other.join();
}

TEST(XOKVONotificationCenterThreads, ObserversGoWhileAnotherThreadChangesTheTarget)
{
    auto person = makeObject<Person>();
    std::vector<std::shared_ptr<XOKVOObservation>> tokens;
    whileAnotherThreadRuns([&] { person->setValueForKey("x", "name"); }, 200, 2000, [&](int round) {
        auto watcher = makeObject<Watcher>();
        // The block reaches into the watcher through a plain pointer: calling
        // it after the watcher went would touch freed memory.
        auto* raw = watcher.get();
        const auto token = center().addObserver(watcher, person, "name", 0, [raw](const auto&) { ++raw->deliveries; });
        if (round % 3 == 0) {
            center().addObserver(watcher, person, "name", &Watcher::targetDidChange, {}, 0);
        }
        // A delivery under way on the other thread may hold the watcher a
        // little longer; it goes there, when the delivery ends.
        watcher.reset();
        tokens.push_back(token);
    });
    for (const auto& token : tokens) {
        EXPECT_FALSE(token->isValid());
    }
    EXPECT_EQ(person->observationCount(), 0u);
}

TEST(XOKVONotificationCenterThreads, ObserverAndTargetGoAtTheSameTimeOnTwoThreads)
{
    for (int round = 0; round < 200; ++round) {
        auto person = makeObject<Person>();
        auto watcher = makeObject<Watcher>();
        std::weak_ptr<XOKVOObservation> helper = center().addObserver(watcher, person, "name", 0, [](const auto&) {});
        std::weak_ptr<XOKVOObservation> arrayHelper =
            center().addObserver(watcher, Array{person}, "age", &Watcher::targetDidChange, {}, 0);
        std::latch start(2);
        std::thread first([&] {
            start.arrive_and_wait();
            person.reset();
        });
        std::thread second([&] {
            start.arrive_and_wait();
            watcher.reset();
        });
        first.join();
        second.join();
        EXPECT_TRUE(helper.expired());
        EXPECT_TRUE(arrayHelper.expired());
    }
}

TEST(XOKVONotificationCenterThreads, ATokenIsRemovedWhileItsTargetGoesOnAnotherThread)
{
    auto watcher = makeObject<Watcher>();
    for (int round = 0; round < 200; ++round) {
        auto person = makeObject<Person>();
        auto other = makeObject<Person>();
        const auto token = center().addObserver(watcher, Array{person, other}, "name", 0, [](const auto&) {});
        std::latch start(2);
        std::thread remover([&] {
            start.arrive_and_wait();
            if (round % 2 == 0) {
                token->remove();
            } else {
                center().removeObserver(watcher, {});
            }
        });
        start.arrive_and_wait();
        person.reset();
        remover.join();
        EXPECT_FALSE(token->isValid());
        EXPECT_EQ(other->observationCount(), 0u);
    }
}

TEST(XOKVONotificationCenterThreads, ATokenRemovedOnAnotherThreadStopsTheDeliveries)
{
    auto person = makeObject<Person>();
    auto watcher = makeObject<Watcher>();
    for (int round = 0; round < 50; ++round) {
        const auto token = center().addObserver(watcher, person, "name", 0, [&](const auto&) { ++watcher->deliveries; });
        std::latch removed(1);
        std::thread remover([&] {
            token->remove();
            removed.count_down();
        });
        while (!removed.try_wait()) {
            person->setValueForKey("x", "name");
        }
        remover.join();
        const int before = watcher->deliveries.load();
        person->setValueForKey("y", "name");
        EXPECT_EQ(watcher->deliveries.load(), before);
    }
    EXPECT_EQ(person->observationCount(), 0u);
}

TEST(XOKVONotificationCenterThreads, ObservationsComeAndGoFromSeveralThreadsAtOnce)
{
    auto person = makeObject<Person>();
    std::latch start(3);
    auto churn = [&] {
        start.arrive_and_wait();
        for (int round = 0; round < 200; ++round) {
            auto watcher = makeObject<Watcher>();
            center().addObserver(watcher, person, Array{"name", "age"}, NSKeyValueObservingOptionNew,
                                 [](const auto&) {});
            center().addObserver(watcher, person, "name", &Watcher::targetDidChange, {}, 0);
            if (round % 2 == 0) {
                center().removeObserver(watcher, person);
            }
        }
    };
    std::thread left(churn);
    std::thread right(churn);
    start.arrive_and_wait();
    for (int round = 0; round < 400; ++round) {
        person->setValueForKey(round, "age");
    }
    left.join();
    right.join();
    EXPECT_EQ(person->observationCount(), 0u);
}

}  // namespace
