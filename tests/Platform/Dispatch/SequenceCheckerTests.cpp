#include "Platform/Dispatch/SequenceChecker.h"

#include "Platform/Foundation/Exception.h"
#include "tests/Support/AssertionCapture.h"

#include <gtest/gtest.h>

#include <thread>

using namespace platform;

// The checker exists only in debug builds; a Release build has nothing here to test.
#ifndef NDEBUG

namespace {

constexpr const char* kAssertionSourceFile = "tests/SequenceCheckerTests";

// Whether a check passes when made on another, new thread.
bool passesOnAnotherThread(const SequenceChecker& checker)
{
    bool passes = false;
    std::thread([&] { passes = checker.calledOnValidSequence(); }).join();
    return passes;
}

// Whether a check passes in a block run asynchronously, on a worker thread.
bool passesOnWorker(const DispatchQueueRef& queue, const SequenceChecker& checker)
{
    bool passes = false;
    queue->async([&] { passes = checker.calledOnValidSequence(); });
    queue->sync([] {});
    return passes;
}

// Whether a check passes in a block run synchronously (on the calling thread).
bool passesOn(const DispatchQueueRef& queue, const SequenceChecker& checker)
{
    bool passes = false;
    queue->sync([&] { passes = checker.calledOnValidSequence(); });
    return passes;
}

TEST(SequenceChecker, StartsBoundToTheThreadThatMadeIt)
{
    const SequenceChecker checker;
    EXPECT_TRUE(checker.calledOnValidSequence());
    EXPECT_FALSE(passesOnAnotherThread(checker));
    // A queue drained on another thread is not the making thread either.
    EXPECT_FALSE(passesOnWorker(DispatchQueue::create("checker.async"), checker));
}

TEST(SequenceChecker, ABoundQueuePassesWhereverItRunsAndNothingElseDoes)
{
    const auto queue = DispatchQueue::create("checker.bound");
    const auto other = DispatchQueue::create("checker.other");
    SequenceChecker checker;
    checker.bindToQueue(queue);

    EXPECT_TRUE(passesOn(queue, checker));
    EXPECT_TRUE(passesOnWorker(queue, checker));

    EXPECT_FALSE(checker.calledOnValidSequence());  // the binding thread, off the queue
    EXPECT_FALSE(passesOn(other, checker));
    // A synchronous hop from the bound queue into another hides the bound one.
    bool passesInNestedSync = true;
    queue->sync([&] { other->sync([&] { passesInNestedSync = checker.calledOnValidSequence(); }); });
    EXPECT_FALSE(passesInNestedSync);

    // Two checkers on one queue do not see each other's marks.
    SequenceChecker elsewhere;
    elsewhere.bindToQueue(other);
    EXPECT_TRUE(passesOn(queue, checker));
    EXPECT_FALSE(passesOn(queue, elsewhere));
}

TEST(SequenceChecker, RebindingMovesTheCheckAndLeavesTheOldQueueUnmarked)
{
    const auto first = DispatchQueue::create("checker.first");
    const auto second = DispatchQueue::create("checker.second");
    SequenceChecker checker;
    checker.bindToQueue(first);
    checker.bindToQueue(second);
    EXPECT_FALSE(passesOn(first, checker));
    EXPECT_TRUE(passesOn(second, checker));
    checker.bindToCurrentThread();
    EXPECT_FALSE(passesOnWorker(second, checker));
    EXPECT_TRUE(checker.calledOnValidSequence());
    // A synchronous block runs on the calling thread, which is still the bound one.
    EXPECT_TRUE(passesOn(second, checker));
}

TEST(SequenceChecker, ADetachedCheckerTakesTheFirstThreadThatChecks)
{
    SequenceChecker checker;
    checker.detach();
    bool passesOnFirstChecker = false;
    std::thread([&] { passesOnFirstChecker = checker.calledOnValidSequence(); }).join();
    EXPECT_TRUE(passesOnFirstChecker);
    EXPECT_FALSE(checker.calledOnValidSequence());
}

TEST(SequenceChecker, TheMainQueueIsTheMainThreadOutsideOtherQueues)
{
    SequenceChecker checker;
    checker.bindToQueue(DispatchQueue::main());
    EXPECT_TRUE(checker.calledOnValidSequence());  // the test runs on the main thread
    EXPECT_FALSE(passesOnAnotherThread(checker));
}

TEST(SequenceChecker, AFailedCheckRaisesThroughTheAssertionHandler)
{
    const SequenceChecker checker;
    AssertionFailure failure;
    std::thread([&] { failure = testsupport::captureAssertion([&] { PLATFORM_CHECK_SEQUENCE(checker); }); }).join();
    EXPECT_EQ(failure.description, "Called off the queue or thread the object is confined to");
    EXPECT_EQ(failure.file, kAssertionSourceFile);
    EXPECT_GT(failure.line, 0);
    EXPECT_NO_THROW(PLATFORM_CHECK_SEQUENCE(checker));
}

}  // namespace

#endif
