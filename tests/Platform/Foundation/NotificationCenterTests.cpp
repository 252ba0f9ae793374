// The notification centre: matching, ordering, removal while posting, and
// delivery on operation queues.
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/OperationQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>

using namespace platform;

namespace {

class Sender : public Object {};

TEST(NotificationCenter, MatchesByNameAndSenderInTheOrderObserversWereAdded)
{
    auto center = NotificationCenter::create();
    auto sender = makeObject<Sender>();
    auto other = makeObject<Sender>();
    std::vector<std::string> heard;
    auto record = [&](std::string who) { return [&heard, who](const Notification&) { heard.push_back(who); }; };
    center->addObserverForName("A", nullptr, nullptr, record("A from anyone"));
    center->addObserverForName(std::nullopt, sender, nullptr, record("anything from sender"));
    center->addObserverForName("A", sender, nullptr, record("A from sender"));
    center->addObserverForName("B", nullptr, nullptr, record("B from anyone"));

    center->postNotificationName("A", sender);
    EXPECT_EQ(heard, (std::vector<std::string>{"A from anyone", "anything from sender", "A from sender"}));
    heard.clear();
    center->postNotificationName("A", other);
    EXPECT_EQ(heard, (std::vector<std::string>{"A from anyone"}));
    heard.clear();
    center->postNotificationName("B");
    EXPECT_EQ(heard, (std::vector<std::string>{"B from anyone"}));
}

TEST(NotificationCenter, HandsTheNotificationOverAsPosted)
{
    auto center = NotificationCenter::create();
    auto sender = makeObject<Sender>();
    std::optional<Notification> received;
    center->addObserverForName("Changed", nullptr, nullptr, [&](const Notification& notification) { received = notification; });
    center->postNotification({"Changed", sender, Dictionary{{"count", 3}}});
    ASSERT_TRUE(received);
    EXPECT_EQ(received->name, "Changed");
    EXPECT_EQ(received->object, sender);
    EXPECT_EQ(received->userInfo, (Dictionary{{"count", 3}}));
}

TEST(NotificationCenter, ObserversMayRemoveAndAddObserversWhileAPostIsDelivered)
{
    auto center = NotificationCenter::create();
    int laterCalls = 0;
    int addedCalls = 0;
    ObjectRef later;
    ObjectRef self;
    self = center->addObserverForName("A", nullptr, nullptr, [&](const Notification&) {
        center->removeObserver(later);
        center->removeObserver(self);
        center->addObserverForName("A", nullptr, nullptr, [&](const Notification&) { ++addedCalls; });
    });
    later = center->addObserverForName("A", nullptr, nullptr, [&](const Notification&) { ++laterCalls; });

    center->postNotificationName("A");
    EXPECT_EQ(laterCalls, 0);  // removed before its turn
    EXPECT_EQ(addedCalls, 0);  // added after the post began
    center->postNotificationName("A");
    EXPECT_EQ(addedCalls, 1);

    center->removeObserver(self);  // twice
    center->removeObserver(makeObject<Sender>());  // not a token
    center->removeObserver(nullptr);
}

TEST(NotificationCenter, AnObserverMayPostAgain)
{
    auto center = NotificationCenter::create();
    std::vector<std::string> heard;
    center->addObserverForName("outer", nullptr, nullptr, [&](const Notification&) {
        heard.push_back("outer");
        center->postNotificationName("inner");
    });
    center->addObserverForName(std::nullopt, nullptr, nullptr,
                               [&](const Notification& notification) { heard.push_back("any " + notification.name); });
    center->postNotificationName("outer");
    EXPECT_EQ(heard, (std::vector<std::string>{"outer", "any inner", "any outer"}));
}

TEST(NotificationCenter, TheSenderIsNotKeptAliveAndNothingMatchesItOnceGone)
{
    auto center = NotificationCenter::create();
    auto sender = makeObject<Sender>();
    std::weak_ptr<Sender> watch = sender;
    int calls = 0;
    center->addObserverForName("A", sender, nullptr, [&](const Notification&) { ++calls; });
    sender.reset();
    EXPECT_TRUE(watch.expired());
    center->postNotificationName("A");
    // Senders made now may reuse the address of the one that went; they are
    // still other senders.
    for (int round = 0; round < 64; ++round) {
        center->postNotificationName("A", makeObject<Sender>());
    }
    EXPECT_EQ(calls, 0);
}

TEST(NotificationCenter, QueuedObserversRunOnTheirQueueInPostingOrder)
{
    auto center = NotificationCenter::create();
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    std::vector<std::int64_t> received;  // touched only on the serial queue until it is drained
    std::atomic<int> offQueue = 0;
    center->addObserverForName("tick", nullptr, queue, [&](const Notification& notification) {
        if (OperationQueue::currentQueue() != queue) {
            ++offQueue;
        }
        received.push_back(notification.userInfo.get("n").integerValue().value_or(-1));
    });
    for (int n = 0; n < 100; ++n) {
        center->postNotificationName("tick", nullptr, Dictionary{{"n", n}});
    }
    queue->waitUntilAllOperationsAreFinished();
    ASSERT_EQ(received.size(), 100u);
    for (std::int64_t n = 0; n < 100; ++n) {
        EXPECT_EQ(received[static_cast<std::size_t>(n)], n);
    }
    EXPECT_EQ(offQueue.load(), 0);
}

TEST(NotificationCenter, AQueuedDeliveryOfARemovedObserverDoesNotRun)
{
    auto center = NotificationCenter::create();
    auto queue = OperationQueue::create();
    queue->setSuspended(true);
    std::atomic<int> calls = 0;
    const auto token = center->addObserverForName("A", nullptr, queue, [&](const Notification&) { ++calls; });
    center->postNotificationName("A");  // returns without waiting for the suspended queue
    EXPECT_EQ(queue->operationCount(), 1u);
    center->removeObserver(token);
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(calls.load(), 0);
}

TEST(NotificationCenterThreads, PostsFromSeveralThreadsWhileObserversComeAndGo)
{
    auto center = NotificationCenter::create();
    std::atomic<int> steadyCalls = 0;
    center->addObserverForName("A", nullptr, nullptr, [&](const Notification&) { ++steadyCalls; });
    constexpr int kPostsPerThread = 500;
    std::latch start(3);
    auto post = [&] {
        start.arrive_and_wait();
        for (int round = 0; round < kPostsPerThread; ++round) {
            center->postNotificationName("A");
        }
    };
    std::thread first(post);
    std::thread second(post);
    start.arrive_and_wait();
    for (int round = 0; round < 300; ++round) {
        auto counter = std::make_shared<std::atomic<int>>(0);
        const auto token = center->addObserverForName("A", nullptr, nullptr, [counter](const Notification&) { ++*counter; });
        center->removeObserver(token);
    }
    first.join();
    second.join();
    EXPECT_EQ(steadyCalls.load(), 2 * kPostsPerThread);
}

}  // namespace
