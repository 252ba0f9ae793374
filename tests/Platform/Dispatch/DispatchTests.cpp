#include "Platform/Dispatch/DispatchGroup.h"
#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Dispatch/DispatchSemaphore.h"
#include "Platform/Dispatch/DispatchSource.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Thread.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/RunProgram.h"
#include "tests/Support/Signal.h"
#include "tests/Support/RunLoopWaiting.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

using namespace platform;
using testsupport::runMainLoopUntil;
using namespace std::chrono_literals;
using testsupport::Signal;

namespace {

const char kQueueKey = 0;

TEST(DispatchQueue, RunsBlocksOneAtATimeInSubmissionOrderPerThread)
{
    const auto queue = DispatchQueue::create("test.serial");
    constexpr int kThreads = 4;
    constexpr int kEach = 2000;
    std::vector<std::vector<int>> seen(kThreads);  // touched only on the queue
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::thread> producers;
    for (int producer = 0; producer < kThreads; ++producer) {
        producers.emplace_back([&, producer] {
            for (int index = 0; index < kEach; ++index) {
                queue->async([&, producer, index] {
                    if (++inside != 1) {
                        overlapped.store(true);
                    }
                    seen[static_cast<std::size_t>(producer)].push_back(index);
                    --inside;
                });
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    queue->sync([] {});  // every earlier block has run
    EXPECT_FALSE(overlapped.load());
    for (const auto& order : seen) {
        ASSERT_EQ(order.size(), static_cast<std::size_t>(kEach));
        for (int index = 0; index < kEach; ++index) {
            ASSERT_EQ(order[static_cast<std::size_t>(index)], index);
        }
    }
}

TEST(DispatchQueue, SyncSeesEveryEarlierAsyncOfItsThreadWhileOthersSubmitToo)
{
    const auto queue = DispatchQueue::create("test.mixed");
    constexpr int kThreads = 4;
    constexpr int kEach = 3000;
    std::vector<int> ran(kThreads, 0);  // touched only on the queue
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> stale{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            const auto slot = static_cast<std::size_t>(thread);
            for (int index = 1; index <= kEach; ++index) {
                const auto body = [&, slot, index] {
                    if (++inside != 1) {
                        overlapped.store(true);
                    }
                    if (ran[slot] != index - 1) {
                        stale.fetch_add(1);
                    }
                    ran[slot] = index;
                    --inside;
                };
                // Every seventh submission waits: it must come after all of
                // this thread's earlier ones, whichever way the queue runs it.
                if (index % 7 == 0) {
                    queue->sync(body);
                } else {
                    queue->async(body);
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    queue->sync([] {});
    EXPECT_FALSE(overlapped.load());
    EXPECT_EQ(stale.load(), 0) << "a block ran out of its thread's order";
    EXPECT_EQ(ran, std::vector<int>(kThreads, kEach));
}

TEST(DispatchQueue, SyncOnAnIdleQueueRunsOnTheCallerWithTheQueuesLabelAndValues)
{
    const auto queue = DispatchQueue::create("test.idle");
    int value = 7;
    queue->setSpecific(&kQueueKey, &value);
    std::thread::id ranOn;
    std::string label;
    void* specific = nullptr;
    queue->sync([&] {
        ranOn = std::this_thread::get_id();
        label = DispatchQueue::currentLabel();
        specific = DispatchQueue::getSpecific(&kQueueKey);
    });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_EQ(label, "test.idle");
    EXPECT_EQ(specific, &value);
    EXPECT_EQ(DispatchQueue::getSpecific(&kQueueKey), nullptr);
    EXPECT_EQ(queue->getSpecificValue(&kQueueKey), &value);
}

TEST(DispatchQueue, SyncOnABusyQueueWaitsForEarlierBlocksAndStillRunsOnTheCaller)
{
    const auto queue = DispatchQueue::create("test.busy");
    Signal started;
    Signal release;
    std::vector<std::string> order;  // touched only on the queue
    queue->async([&] {
        started.raise();
        EXPECT_TRUE(release.wait());
        order.push_back("async");
    });
    ASSERT_TRUE(started.wait());
    std::thread::id ranOn;
    std::thread caller([&] {
        queue->sync([&] {
            order.push_back("sync");
            ranOn = std::this_thread::get_id();
        });
    });
    const auto callerId = caller.get_id();
    release.raise();
    caller.join();
    queue->async([&] { order.push_back("after"); });
    queue->sync([] {});
    EXPECT_EQ(order, (std::vector<std::string>{"async", "sync", "after"}));
    EXPECT_EQ(ranOn, callerId);
}

TEST(DispatchQueue, SyncOntoAQueueTheThreadAlreadyRunsIsRaisedNotDeadlocked)
{
    const auto outer = DispatchQueue::create("test.outer");
    const auto inner = DispatchQueue::create("test.inner");
    std::optional<AssertionFailure> direct;
    std::optional<AssertionFailure> nested;
    std::string innerLabel;
    outer->async([&] {
        direct = testsupport::captureAssertion([&] { outer->sync([] {}); });
        inner->sync([&] {
            innerLabel = DispatchQueue::currentLabel();
            nested = testsupport::captureAssertion([&] { outer->sync([] {}); });
        });
    });
    outer->sync([] {});
    ASSERT_TRUE(direct && nested);
    EXPECT_EQ(direct->description, "dispatch_sync called on queue already owned by current thread");
    EXPECT_EQ(nested->description, direct->description);
    EXPECT_EQ(innerLabel, "test.inner");
    // The queues are not left owned by the failed calls.
    int ran = 0;
    outer->sync([&] { ++ran; });
    inner->sync([&] { ++ran; });
    EXPECT_EQ(ran, 2);
}

TEST(DispatchQueue, AnExceptionFromASyncBlockReachesTheCallerAndFreesTheQueue)
{
    const auto queue = DispatchQueue::create("test.throwing");
    EXPECT_THROW(queue->sync([] { throw std::runtime_error("no"); }), std::runtime_error);
    Signal ran;
    queue->async([&] { ran.raise(); });
    EXPECT_TRUE(ran.wait());
}

TEST(DispatchQueue, PendingBlocksKeepTheQueueAlive)
{
    Signal release;
    Signal ran;
    {
        const auto queue = DispatchQueue::create("test.dropped");
        queue->async([&] { EXPECT_TRUE(release.wait()); });
        queue->async([&] { ran.raise(); });
    }
    release.raise();
    EXPECT_TRUE(ran.wait());
}

TEST(DispatchQueue, TheMainQueueRunsOnTheMainThreadThroughItsRunLoop)
{
    ASSERT_TRUE(Thread::isMainThread());
    EXPECT_EQ(DispatchQueue::currentLabel(), "zarvo.main-thread");
    std::string plainThreadLabel = "unset";
    std::thread([&] { plainThreadLabel = DispatchQueue::currentLabel(); }).join();
    EXPECT_EQ(plainThreadLabel, "");

    const auto failure = testsupport::captureAssertion([] { DispatchQueue::main()->sync([] {}); });
    EXPECT_EQ(failure.description, "dispatch_sync called on the main queue from the main thread");

    std::atomic<int> ranOnMain{0};
    std::atomic<bool> syncReturned{false};
    std::thread background([&] {
        DispatchQueue::main()->async([&] { ranOnMain += Thread::isMainThread() ? 1 : 0; });
        DispatchQueue::main()->sync([&] { ranOnMain += Thread::isMainThread() ? 1 : 0; });
        syncReturned.store(true);
    });
    runMainLoopUntil([&] { return syncReturned.load(); });
    background.join();
    EXPECT_EQ(ranOnMain.load(), 2);
}

TEST(DispatchQueue, AsyncAfterWaitsForItsTime)
{
    const auto queue = DispatchQueue::create("test.after");
    const auto submitted = DispatchClock::now();
    std::atomic<DispatchClock::rep> ranAt{0};
    Signal ran;
    queue->asyncAfter(submitted + 30ms, [&] {
        ranAt.store((DispatchClock::now() - submitted).count());
        ran.raise();
    });
    ASSERT_TRUE(ran.wait());
    EXPECT_GE(DispatchClock::duration(ranAt.load()), 30ms);
}

TEST(DispatchGroup, NotifiesOnceWhenEveryMemberHasLeft)
{
    const auto group = DispatchGroup::create();
    const auto one = DispatchQueue::create("test.group.one");
    const auto other = DispatchQueue::create("test.group.other");
    const auto notifyQueue = DispatchQueue::create("test.group.notify");
    std::atomic<int> finished{0};
    std::atomic<int> finishedWhenNotified{-1};
    Signal notified;
    Signal release;
    group->async(one, [&] {
        EXPECT_TRUE(release.wait());
        ++finished;
    });
    group->async(other, [&] { ++finished; });
    group->notify(notifyQueue, [&] {
        finishedWhenNotified.store(finished.load());
        notified.raise();
    });
    EXPECT_FALSE(group->waitFor(1ms)) << "one member is still held";
    release.raise();
    EXPECT_TRUE(group->waitUntil(DISPATCH_TIME_FOREVER));
    ASSERT_TRUE(notified.wait());
    EXPECT_EQ(finishedWhenNotified.load(), 2);
    // Registered on an empty group: submitted at once. The first did not run again.
    group->notify(notifyQueue, [&] { notified.raise(); });
    ASSERT_TRUE(notified.wait(2));
    notifyQueue->sync([] {});
    EXPECT_EQ(notified.count(), 2);
}

TEST(DispatchGroup, AnUnbalancedLeaveIsRaised)
{
    const auto group = DispatchGroup::create();
    group->enter();
    group->leave();
    const auto failure = testsupport::captureAssertion([&] { group->leave(); });
    EXPECT_EQ(failure.description, "Unbalanced call to dispatch_group_leave()");
    group->wait();  // still empty, still usable
}

TEST(DispatchSemaphore, ATimedOutWaitTakesNothing)
{
    const auto semaphore = DispatchSemaphore::create(0);
    EXPECT_FALSE(semaphore->waitFor(1ms));
    EXPECT_FALSE(semaphore->signal()) << "nobody waits any more";
    EXPECT_TRUE(semaphore->waitFor(1ms));
    EXPECT_FALSE(semaphore->waitFor(1ms));
}

TEST(DispatchSemaphore, BoundsWorkInFlightAcrossThreads)
{
    constexpr long kBound = 3;
    const auto slots = DispatchSemaphore::create(kBound);
    const auto queue = DispatchQueue::create("test.consumer");
    std::atomic<long> inFlight{0};
    std::atomic<long> most{0};
    std::vector<std::thread> producers;
    for (int producer = 0; producer < 4; ++producer) {
        producers.emplace_back([&] {
            for (int index = 0; index < 200; ++index) {
                slots->wait();
                const long now = ++inFlight;
                long seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                queue->async([&] {
                    --inFlight;
                    slots->signal();
                });
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    queue->sync([] {});
    EXPECT_LE(most.load(), kBound);
    EXPECT_EQ(inFlight.load(), 0);
    for (long taken = 0; taken < kBound; ++taken) {
        EXPECT_TRUE(slots->waitFor(1ms)) << "a unit went missing";
    }
    EXPECT_FALSE(slots->waitFor(1ms)) << "a unit was made up";
}

TEST(DispatchSemaphore, TimeOutsRacingSignalsLoseNoUnit)
{
    const auto semaphore = DispatchSemaphore::create(0);
    std::atomic<int> taken{0};
    constexpr int kSignals = 300;
    std::vector<std::thread> waiters;
    for (int waiter = 0; waiter < 3; ++waiter) {
        waiters.emplace_back([&] {
            for (int attempt = 0; attempt < 400; ++attempt) {
                if (semaphore->waitFor(50us)) {
                    ++taken;
                }
            }
        });
    }
    std::thread signaller([&] {
        for (int index = 0; index < kSignals; ++index) {
            semaphore->signal();
        }
    });
    signaller.join();
    for (auto& waiter : waiters) {
        waiter.join();
    }
    while (semaphore->waitFor(0ms)) {
        ++taken;
    }
    EXPECT_EQ(taken.load(), kSignals);
}

TEST(DispatchTimerSource, AOneShotTimerFiresOnceOnItsQueueNotBeforeItsDate)
{
    const auto queue = DispatchQueue::create("test.timer");
    const auto timer = DispatchTimerSource::create(queue);
    const auto start = DispatchClock::now() + 20ms;
    std::atomic<bool> early{false};
    std::string label;
    std::uint64_t data = 0;
    Signal fired;
    timer->setTimer(start, DispatchTimerSource::kOnce, 1ns);
    timer->setEventHandler([&] {
        early.store(DispatchClock::now() < start);
        label = DispatchQueue::currentLabel();
        data = timer->data();
        fired.raise();
    });
    timer->resume();
    ASSERT_TRUE(fired.wait());
    // A later timer on the same queue: by the time it fires, a second firing
    // of the first would have been delivered before it.
    const auto later = DispatchTimerSource::create(queue);
    Signal laterFired;
    later->setTimer(DispatchClock::now() + 10ms, DispatchTimerSource::kOnce, 1ns);
    later->setEventHandler([&] { laterFired.raise(); });
    later->resume();
    ASSERT_TRUE(laterFired.wait());
    queue->sync([] {});
    EXPECT_EQ(fired.count(), 1);
    EXPECT_FALSE(early.load());
    EXPECT_EQ(label, "test.timer");
    EXPECT_EQ(data, 1U);
}

TEST(DispatchTimerSource, ARepeatingTimerFiresUntilCancelledThenRunsTheCancelHandlerLast)
{
    const auto queue = DispatchQueue::create("test.repeating");
    const auto timer = DispatchTimerSource::create(queue);
    std::vector<std::string> events;  // touched only on the queue
    std::uint64_t firings = 0;
    Signal cancelled;
    timer->setTimer(DispatchClock::now(), 1ms, 0ns);
    timer->setEventHandler([&] {
        firings += timer->data();
        events.push_back("fire");
        if (firings >= 5) {
            timer->cancel();
        }
    });
    timer->setCancelHandler([&] {
        events.push_back("cancel");
        cancelled.raise();
    });
    timer->resume();
    ASSERT_TRUE(cancelled.wait());
    queue->sync([] {});
    EXPECT_TRUE(timer->isCancelled());
    ASSERT_GE(events.size(), 2U);
    EXPECT_EQ(events.back(), "cancel");
    EXPECT_EQ(std::count(events.begin(), events.end(), "cancel"), 1);
    EXPECT_GE(firings, 5U);
}

TEST(DispatchTimerSource, NothingFiresWhileSuspendedOrAfterTheSourceIsGone)
{
    const auto queue = DispatchQueue::create("test.suspended");
    std::atomic<int> neverResumed{0};
    std::atomic<int> dropped{0};
    const auto idle = DispatchTimerSource::create(queue);
    idle->setTimer(DispatchClock::now(), 1ms, 0ns);
    idle->setEventHandler([&] { ++neverResumed; });
    {
        const auto gone = DispatchTimerSource::create(queue);
        gone->setTimer(DispatchClock::now() + 5ms, 1ms, 0ns);
        gone->setEventHandler([&] { ++dropped; });
        gone->resume();
    }
    const auto witness = DispatchTimerSource::create(queue);
    Signal witnessed;
    witness->setTimer(DispatchClock::now() + 30ms, DispatchTimerSource::kOnce, 0ns);
    witness->setEventHandler([&] { witnessed.raise(); });
    witness->resume();
    ASSERT_TRUE(witnessed.wait());
    queue->sync([] {});
    EXPECT_EQ(neverResumed.load(), 0);
    EXPECT_EQ(dropped.load(), 0);
}

TEST(DispatchTimerSource, CanBeRescheduledFromItsHandler)
{
    const auto queue = DispatchQueue::create("test.reschedule");
    const auto timer = DispatchTimerSource::create(queue);
    Signal fired;
    timer->setTimer(DispatchClock::now(), DispatchTimerSource::kOnce, 0ns);
    timer->setEventHandler([&] {
        fired.raise();
        if (fired.count() < 3) {
            timer->setTimer(DispatchClock::now() + 1ms, DispatchTimerSource::kOnce, 0ns);
        }
    });
    timer->resume();
    EXPECT_TRUE(fired.wait(3));
    timer->cancel();
    queue->sync([] {});  // the last handler may still be running
    EXPECT_EQ(fired.count(), 3);
}

class DispatchFileSourceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        path_ = directory_.path() + "/watched.log";
        fd_ = ::open(path_.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override { ::close(fd_); }

    // Watches the file, does `change`, and returns the event bits delivered
    // by the time a write (always watched) has come through.
    unsigned long eventsAfter(unsigned long mask, const std::function<void()>& change)
    {
        const auto queue = DispatchQueue::create("test.file");
        const auto source = DispatchFileSource::create(fd_, mask | DispatchFileSource::kWrite, queue);
        EXPECT_NE(source, nullptr);
        std::atomic<unsigned long> seen{0};
        Signal wrote;
        source->setEventHandler([&] {
            seen |= static_cast<unsigned long>(source->data());
            if ((source->data() & DispatchFileSource::kWrite) != 0) {
                wrote.raise();
            }
        });
        source->resume();
        change();
        // The marker write: inotify reports in order, so once it arrives every
        // earlier change has too.
        EXPECT_EQ(::write(fd_, "x", 1), 1);
        EXPECT_TRUE(wrote.wait());
        source->cancel();
        queue->sync([] {});
        return seen.load() & ~DispatchFileSource::kWrite;
    }

    testsupport::TemporaryDirectory directory_;
    std::string path_;
    int fd_ = -1;
};

TEST_F(DispatchFileSourceTest, ReportsRenamingOfTheOpenFile)
{
    const auto renamed = directory_.path() + "/rolled.log";
    EXPECT_EQ(eventsAfter(0x21, [&] { ASSERT_EQ(std::rename(path_.c_str(), renamed.c_str()), 0); }),
              DispatchFileSource::kRename);
}

TEST_F(DispatchFileSourceTest, ReportsDeletionWhileTheFileIsStillOpen)
{
    EXPECT_EQ(eventsAfter(0x21, [&] { ASSERT_EQ(::unlink(path_.c_str()), 0); }), DispatchFileSource::kDelete);
}

TEST_F(DispatchFileSourceTest, ReportsOnlyTheEventsOfItsMask)
{
    EXPECT_EQ(eventsAfter(DispatchFileSource::kDelete, [&] { ASSERT_EQ(::fchmod(fd_, 0640), 0); }), 0U);
    EXPECT_EQ(eventsAfter(DispatchFileSource::kAttrib, [&] { ASSERT_EQ(::fchmod(fd_, 0600), 0); }),
              DispatchFileSource::kAttrib);
}

TEST(DispatchFileSource, RefusesADescriptorThatIsNotOpen)
{
    EXPECT_EQ(DispatchFileSource::create(-1, DispatchFileSource::kDelete, DispatchQueue::create()), nullptr);
}

}  // namespace
