#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Operation.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Thread.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/ChangeRecorder.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

using namespace platform;
using testsupport::Signal;

namespace {

// A concurrent operation in the usual shape: `start` hands the work to a
// thread of its own and returns; the work ends later and says so.
class DetachedOperation final : public Operation {
public:
    static std::shared_ptr<DetachedOperation> create() { return platform::makeObject<DetachedOperation>(); }

    bool isConcurrent() const override { return true; }
    bool isExecuting() const override { return executing_.load(); }
    bool isFinished() const override { return finished_.load(); }

    void start() override
    {
        executing_.store(true);
        started.raise();
        std::thread([self = std::static_pointer_cast<DetachedOperation>(shared_from_this())] {
            self->release.wait();
            self->executing_.store(false);
            self->finished_.store(true);
            self->operationStateDidChange();
        }).detach();
    }

    Signal started;
    Signal release;

private:
    template <class> friend struct platform::ObjectAllocator;
    DetachedOperation() = default;
    std::atomic<bool> executing_{false};
    std::atomic<bool> finished_{false};
};

TEST(Operation, StartRunsMainOnTheCallingThreadThroughTheLifeCycle)
{
    bool executingInside = false;
    OperationRef currentInside;
    std::thread::id ranOn;
    std::shared_ptr<BlockOperation> operation;
    operation = BlockOperation::create([&] {
        executingInside = operation->isExecuting();
        currentInside = Operation::currentOperation();
        ranOn = std::this_thread::get_id();
    });
    EXPECT_TRUE(operation->isReady());
    operation->start();
    EXPECT_TRUE(executingInside);
    EXPECT_EQ(currentInside, operation);
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(Operation::currentOperation(), nullptr);
    EXPECT_TRUE(operation->valueForKey("isFinished").boolValue().value_or(false));
    // A second start of a finished operation does nothing.
    operation->start();
}

TEST(Operation, AnnouncesEachStateChangeToKeyValueObservers)
{
    auto operation = BlockOperation::create([] {});
    auto recorder = testsupport::ChangeRecorder::create();
    for (const char* key : {"isCancelled", "isExecuting", "isFinished"}) {
        operation->addObserver(recorder, key, NSKeyValueObservingOptionNew);
    }
    operation->start();
    EXPECT_EQ(recorder->seen(), (std::vector<std::string>{"isExecuting=1", "isFinished=1", "isExecuting=0"}));
    operation->cancel();
    EXPECT_EQ(recorder->seen().back(), "isCancelled=1");
    for (const char* key : {"isCancelled", "isExecuting", "isFinished"}) {
        operation->removeObserver(*recorder, key);
    }
}

TEST(Operation, CancelledBeforeStartSkipsMainButStillFinishesAndCompletes)
{
    int ran = 0;
    int completed = 0;
    auto operation = BlockOperation::create([&] { ++ran; });
    operation->setCompletionBlock([&] { ++completed; });
    operation->cancel();
    operation->cancel();
    EXPECT_TRUE(operation->isCancelled());
    operation->start();
    operation->waitUntilFinished();
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(completed, 1);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->completionBlock()) << "the block is released once it has run";
}

TEST(Operation, StartingTooEarlyOrTwiceRaisesInvalidArgument)
{
    auto first = BlockOperation::create([] {});
    auto second = BlockOperation::create([] {});
    second->addDependency(first);
    EXPECT_FALSE(second->isReady());
    try {
        second->start();
        FAIL() << "an operation with unfinished dependencies started";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInvalidArgumentException);
    }

    std::shared_ptr<BlockOperation> reentrant;
    bool raised = false;
    reentrant = BlockOperation::create([&] {
        try {
            reentrant->start();
        } catch (const Exception& exception) {
            raised = exception.name() == NSInvalidArgumentException;
        }
    });
    reentrant->start();
    EXPECT_TRUE(raised);
}

TEST(Operation, AnExceptionFromMainLeavesTheOperationFinished)
{
    auto operation = BlockOperation::create([] { throw std::runtime_error("boom"); });
    EXPECT_THROW(operation->start(), std::runtime_error);
    EXPECT_TRUE(operation->isFinished());
    operation->waitUntilFinished();  // returns: the waiters were released
}

TEST(Operation, WaitingFromInsideItselfIsRaisedNotDeadlocked)
{
    std::shared_ptr<BlockOperation> operation;
    std::optional<AssertionFailure> failure;
    operation = BlockOperation::create([&] { failure = testsupport::captureAssertion([&] { operation->waitUntilFinished(); }); });
    operation->start();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->description, "waitUntilFinished called from inside the operation itself");
}

TEST(Operation, BlockOperationRunsEveryBlockInOrderAndRefusesLateOnes)
{
    std::vector<int> order;
    auto operation = BlockOperation::create([&] { order.push_back(1); });
    operation->addExecutionBlock([&] { order.push_back(2); });
    EXPECT_EQ(operation->executionBlocks().size(), 2U);
    operation->start();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_THROW(operation->addExecutionBlock([] {}), Exception);
}

TEST(OperationQueue, DependenciesHoldBackAnOperationUntilTheyFinish)
{
    auto queue = OperationQueue::create();
    Signal releaseFirst;
    std::atomic<bool> firstDone{false};
    bool firstWasDoneWhenSecondRan = false;
    auto first = BlockOperation::create([&] {
        ASSERT_TRUE(releaseFirst.wait());
        firstDone.store(true);
    });
    auto second = BlockOperation::create([&] { firstWasDoneWhenSecondRan = firstDone.load(); });
    second->addDependency(first);
    // Added dependent first, on a wide queue: only the dependency can hold it back.
    queue->addOperation(second);
    queue->addOperation(first);
    EXPECT_FALSE(second->isReady());
    releaseFirst.raise();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(firstWasDoneWhenSecondRan);
    EXPECT_EQ(queue->operationCount(), 0U);
}

TEST(OperationQueue, DependencyOnAnOperationOfAnotherQueue)
{
    auto one = OperationQueue::create();
    auto other = OperationQueue::create();
    other->setSuspended(true);
    std::atomic<int> step{0};
    auto first = BlockOperation::create([&] { step.store(1); });
    int seen = -1;
    auto second = BlockOperation::create([&] { seen = step.load(); });
    second->addDependency(first);
    one->addOperation(second);
    other->addOperation(first);
    EXPECT_EQ(one->operationCount(), 1U);
    other->setSuspended(false);
    one->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(seen, 1);
}

TEST(OperationQueue, CancellingAnOperationThatWaitsOnADependencyFinishesItWithoutRunning)
{
    auto queue = OperationQueue::create();
    auto never = BlockOperation::create([] {});
    bool ran = false;
    auto waiting = BlockOperation::create([&] { ran = true; });
    waiting->addDependency(never);
    queue->addOperation(waiting);
    waiting->cancel();
    waiting->waitUntilFinished();
    EXPECT_FALSE(ran);
    EXPECT_TRUE(waiting->isFinished());
}

TEST(OperationQueue, ASerialQueueRunsOneAtATimeInTheOrderAdded)
{
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    std::mutex mutex;
    std::vector<int> order;
    std::atomic<int> running{0};
    std::atomic<int> mostAtOnce{0};
    constexpr int kCount = 200;
    for (int index = 0; index < kCount; ++index) {
        queue->addOperationWithBlock([&, index] {
            const int now = ++running;
            int seen = mostAtOnce.load();
            while (now > seen && !mostAtOnce.compare_exchange_weak(seen, now)) {
            }
            {
                std::lock_guard lock(mutex);
                order.push_back(index);
            }
            --running;
        });
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(mostAtOnce.load(), 1);
    ASSERT_EQ(order.size(), static_cast<std::size_t>(kCount));
    for (int index = 0; index < kCount; ++index) {
        EXPECT_EQ(order[static_cast<std::size_t>(index)], index);
    }
}

TEST(OperationQueue, AWideQueueRunsOperationsAtTheSameTimeUpToItsMaximum)
{
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(2);
    Signal arrived;
    Signal release;
    std::atomic<int> running{0};
    std::atomic<int> mostAtOnce{0};
    for (int index = 0; index < 6; ++index) {
        queue->addOperationWithBlock([&] {
            const int now = ++running;
            int seen = mostAtOnce.load();
            while (now > seen && !mostAtOnce.compare_exchange_weak(seen, now)) {
            }
            arrived.raise();
            EXPECT_TRUE(release.wait());
            --running;
        });
    }
    // Two must be able to run together: each waits for the other to arrive.
    ASSERT_TRUE(arrived.wait(2));
    EXPECT_EQ(queue->operationCount(), 6U);
    release.raise();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(mostAtOnce.load(), 2);
}

TEST(OperationQueue, ASuspendedQueueStartsNothingUntilResumed)
{
    auto queue = OperationQueue::create();
    queue->setSuspended(true);
    std::atomic<bool> ran{false};
    auto operation = BlockOperation::create([&] { ran.store(true); });
    queue->addOperation(operation);
    EXPECT_TRUE(queue->isSuspended());
    EXPECT_FALSE(operation->isExecuting() || operation->isFinished());
    EXPECT_EQ(queue->operations(), std::vector<OperationRef>{operation});
    queue->setSuspended(false);
    operation->waitUntilFinished();
    EXPECT_TRUE(ran.load());
}

TEST(OperationQueue, RefusesOperationsThatAreQueuedOrDone)
{
    auto queue = OperationQueue::create();
    queue->setSuspended(true);
    auto queued = BlockOperation::create([] {});
    queue->addOperation(queued);
    EXPECT_THROW(queue->addOperation(queued), Exception);
    EXPECT_THROW(OperationQueue::create()->addOperation(queued), Exception);
    auto done = BlockOperation::create([] {});
    done->start();
    try {
        queue->addOperation(done);
        FAIL() << "a finished operation was enqueued";
    } catch (const Exception& exception) {
        EXPECT_EQ(exception.name(), NSInvalidArgumentException);
        EXPECT_EQ(exception.reason(), "*** -[NSOperationQueue addOperation:]: operation is finished and cannot be enqueued");
    }
    queue->cancelAllOperations();
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(queued->isCancelled());
}

TEST(OperationQueue, CompletionBlocksRunBeforeTheWaitsReturn)
{
    auto queue = OperationQueue::create();
    std::atomic<int> completions{0};
    std::vector<OperationRef> operations;
    for (int index = 0; index < 20; ++index) {
        auto operation = BlockOperation::create([] {});
        operation->setCompletionBlock([&] { ++completions; });
        operations.push_back(operation);
    }
    queue->addOperations(operations, true);
    EXPECT_EQ(completions.load(), 20);
}

TEST(OperationQueue, KnowsItsCurrentQueueInsideItsOperations)
{
    auto queue = OperationQueue::create();
    OperationQueueRef seen;
    queue->addOperationWithBlock([&] { seen = OperationQueue::currentQueue(); });
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(seen, queue);
    OperationQueueRef offQueue = queue;
    std::thread([&] { offQueue = OperationQueue::currentQueue(); }).join();
    EXPECT_EQ(offQueue, nullptr);
}

TEST(OperationQueue, WaitingForAllFromOneOfItsOperationsIsRaised)
{
    auto queue = OperationQueue::create();
    std::optional<AssertionFailure> failure;
    queue->addOperationWithBlock([&] { failure = testsupport::captureAssertion([&] { queue->waitUntilAllOperationsAreFinished(); }); });
    queue->waitUntilAllOperationsAreFinished();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->description, "waitUntilAllOperationsAreFinished called from an operation of the same queue");
}

TEST(OperationQueue, KeepsRunningWhenItsLastReferenceIsDropped)
{
    Signal release;
    Signal done;
    {
        auto queue = OperationQueue::create();
        queue->setMaxConcurrentOperationCount(1);
        queue->addOperationWithBlock([&] { EXPECT_TRUE(release.wait()); });
        queue->addOperationWithBlock([&] { done.raise(); });
    }
    release.raise();
    EXPECT_TRUE(done.wait());
}

TEST(OperationQueue, AConcurrentOperationHoldsItsPlaceUntilItSaysItHasFinished)
{
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    auto detached = DetachedOperation::create();
    std::atomic<bool> detachedFinishedFirst{false};
    auto next = BlockOperation::create([&] { detachedFinishedFirst.store(detached->isFinished()); });
    queue->addOperation(detached);
    queue->addOperation(next);
    ASSERT_TRUE(detached->started.wait());
    EXPECT_FALSE(next->isFinished());
    detached->release.raise();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(detachedFinishedFirst.load());
    detached->waitUntilFinished();
}

TEST(OperationQueue, SubmissionsFromManyThreadsEachRunOnce)
{
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    constexpr int kThreads = 4;
    constexpr int kEach = 250;
    std::vector<int> counts(kThreads * kEach, 0);  // touched only on the serial queue
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int index = 0; index < kEach; ++index) {
                queue->addOperationWithBlock([&counts, slot = thread * kEach + index] { ++counts[static_cast<std::size_t>(slot)]; });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    queue->waitUntilAllOperationsAreFinished();
    for (int count : counts) {
        ASSERT_EQ(count, 1);
    }
}

TEST(OperationQueue, AServicingThreadRunsTheDueOperationsItselfInOrder)
{
    auto queue = OperationQueue::create();
    queue->setMaxConcurrentOperationCount(1);
    std::atomic<int> wakes{0};
    queue->setServicingWaker([&] { ++wakes; });
    std::vector<int> order;
    std::vector<std::thread::id> threads;
    for (int index = 0; index < 3; ++index) {
        queue->addOperationWithBlock([&, index] {
            order.push_back(index);
            threads.push_back(std::this_thread::get_id());
        });
    }
    EXPECT_GE(wakes.load(), 1);
    EXPECT_EQ(queue->operationCount(), 3U) << "no worker thread took them";
    while (queue->runPendingOperationOnCurrentThread()) {
    }
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(threads, std::vector<std::thread::id>(3, std::this_thread::get_id()));
    EXPECT_EQ(queue->operationCount(), 0U);

    // Let go with work left: the workers take it.
    Signal ran;
    queue->addOperationWithBlock([&] { ran.raise(); });
    queue->setServicingWaker(nullptr);
    EXPECT_TRUE(ran.wait());
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_FALSE(queue->runPendingOperationOnCurrentThread());
}

TEST(OperationQueue, TheMainQueueRunsOnTheMainThreadWhenItsRunLoopRuns)
{
    ASSERT_TRUE(Thread::isMainThread()) << "tests run on the main thread";
    auto main = OperationQueue::mainQueue();
    EXPECT_EQ(OperationQueue::currentQueue(), main);
    std::atomic<bool> onMainThread{false};
    OperationQueueRef current;
    // Added from another thread, as the usual hand-over to the main thread is.
    std::thread([&] {
        main->addOperationWithBlock([&] {
            onMainThread.store(Thread::isMainThread());
            current = OperationQueue::currentQueue();
        });
    }).join();
    EXPECT_EQ(main->operationCount(), 1U);
    main->waitUntilAllOperationsAreFinished();  // runs the main run loop meanwhile
    EXPECT_TRUE(onMainThread.load());
    EXPECT_EQ(current, main);
    main->setMaxConcurrentOperationCount(4);
    EXPECT_EQ(main->maxConcurrentOperationCount(), 1);
}

TEST(OperationQueue, AnOperationOfTheMainQueueCanBeAwaitedOnTheMainThread)
{
    auto operation = BlockOperation::create([] {});
    OperationQueue::mainQueue()->addOperation(operation);
    operation->waitUntilFinished();
    EXPECT_TRUE(operation->isFinished());
}

}  // namespace
