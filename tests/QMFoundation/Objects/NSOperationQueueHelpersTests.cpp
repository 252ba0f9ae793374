#include "QMFoundation/Objects/NSOperationQueue+QMFoundation.h"
#include "QMFoundation/Objects/NSOperationQueue+QMPerformBlock.h"

#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

TEST(NSOperationQueueQMFoundation, SerialQueueRunsOneAtATimeInOrder)
{
    const auto queue = serialQueue();
    EXPECT_EQ(queue->maxConcurrentOperationCount(), 1);
    EXPECT_NE(serialQueue(), queue);

    std::atomic<int> running{0};
    std::atomic<int> mostAtOnce{0};
    std::vector<int> order;  // touched only by the queue's one-at-a-time operations
    for (int index = 0; index < 50; ++index) {
        performBlock(*queue, [&, index] {
            const int now = ++running;
            mostAtOnce = std::max(mostAtOnce.load(), now);
            order.push_back(index);
            --running;
        });
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(mostAtOnce.load(), 1);
    ASSERT_EQ(order.size(), 50u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(NSOperationQueueQMFoundation, WiderQueueRunsOperationsSideBySide)
{
    const auto queue = queueWithMaxConcurrentOperationCount(2);
    EXPECT_EQ(queue->maxConcurrentOperationCount(), 2);

    // Each operation waits for the other to start: both finish only if the
    // queue runs them at the same time.
    testsupport::Signal first;
    testsupport::Signal second;
    std::atomic<int> met{0};
    performBlock(*queue, [&] {
        first.raise();
        met += second.wait() ? 1 : 0;
    });
    performBlock(*queue, [&] {
        second.raise();
        met += first.wait() ? 1 : 0;
    });
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(met.load(), 2);
}

TEST(NSOperationQueueQMPerformBlock, PerformBlockReturnsBeforeTheBlockRuns)
{
    const auto queue = serialQueue();
    testsupport::Signal released;
    testsupport::Signal ran;
    performBlock(*queue, [&] {
        if (released.wait()) {
            ran.raise();
        }
    });
    EXPECT_EQ(ran.count(), 0);
    released.raise();
    EXPECT_TRUE(ran.wait());
}

TEST(NSOperationQueueQMPerformBlock, PerformBlockAndWaitReturnsAfterTheBlockRanOnTheQueue)
{
    const auto queue = serialQueue();
    std::vector<int> order;
    std::mutex orderMutex;  // guards `order`, written by the queue and this thread
    const auto note = [&](int step) {
        std::lock_guard lock(orderMutex);
        order.push_back(step);
    };
    testsupport::Signal released;
    performBlock(*queue, [&] {
        released.wait();
        note(1);
    });
    std::thread::id blockThread;
    // The first block is let go only once the second is queued behind it:
    // a thread that waits for an operation nobody has taken yet may run it
    // itself, and the case is about a queue that is busy when the wait begins.
    std::thread releaser([&] {
        while (queue->operationCount() < 2) {
            std::this_thread::yield();
        }
        released.raise();
    });
    performBlockAndWait(*queue, [&] {
        blockThread = std::this_thread::get_id();
        note(2);
    });
    note(3);
    releaser.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
    EXPECT_NE(blockThread, std::this_thread::get_id());
}

}  // namespace
