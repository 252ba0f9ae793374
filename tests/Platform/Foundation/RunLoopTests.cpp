#include "Platform/Foundation/RunLoop.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace platform;
using testsupport::Signal;

namespace {

Date secondsFromNow(double seconds)
{
    return Date::now().dateByAddingTimeInterval(seconds);
}

// Runs the body on a thread of its own, so that each test has a fresh run loop.
template <typename Body>
void onFreshThread(Body body)
{
    std::thread(body).join();
}

struct PipeEnds {
    int read = -1;
    int write = -1;
    PipeEnds()
    {
        int fds[2];
        EXPECT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        read = fds[0];
        write = fds[1];
    }
    ~PipeEnds()
    {
        ::close(read);
        ::close(write);
    }
};

TEST(RunLoop, OneLoopPerThread)
{
    const auto here = RunLoop::currentRunLoop();
    EXPECT_EQ(RunLoop::currentRunLoop(), here);
    RunLoopRef there;
    onFreshThread([&] { there = RunLoop::currentRunLoop(); });
    EXPECT_NE(there, here);
    EXPECT_EQ(RunLoop::mainRunLoop(), here) << "tests run on the main thread";
}

TEST(RunLoop, AnEmptyModeCannotBeRunAndReturnsAtOnce)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        const Date before = Date::now();
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(30)));
        EXPECT_LT(Date::now().timeIntervalSinceDate(before), 5.0);
        EXPECT_FALSE(loop->currentMode());
    });
}

TEST(RunLoop, BlocksPerformedFromAnotherThreadWakeTheLoopAndRunInOrder)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        const auto self = std::this_thread::get_id();
        std::vector<int> order;
        bool allOnLoopThread = true;
        // Something to keep the mode non-empty while the loop waits.
        const auto keeper = RunLoopSource::create([] {});
        loop->addSource(keeper, NSDefaultRunLoopMode);
        std::thread performer([&] {
            for (int index = 0; index < 100; ++index) {
                loop->performBlock([&, index] {
                    order.push_back(index);
                    allOnLoopThread = allOnLoopThread && std::this_thread::get_id() == self;
                });
            }
        });
        while (order.size() < 100 && loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(20))) {
        }
        performer.join();
        ASSERT_EQ(order.size(), 100U);
        for (int index = 0; index < 100; ++index) {
            EXPECT_EQ(order[static_cast<std::size_t>(index)], index);
        }
        EXPECT_TRUE(allOnLoopThread);
    });
}

TEST(RunLoop, ModesKeepTheirItemsApart)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        std::vector<std::string> ran;
        loop->performBlock({"private"}, [&] { ran.push_back("private"); });
        loop->performBlock({std::string(NSDefaultRunLoopMode)}, [&] { ran.push_back("default"); });
        loop->performBlock([&] { ran.push_back("common"); });
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_EQ(ran, (std::vector<std::string>{"default", "common"}));
        // The private-mode block is still pending; only its own mode runs it.
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_TRUE(loop->runModeBeforeDate("private", secondsFromNow(5)));
        EXPECT_EQ(ran.back(), "private");
        // A mode marked common takes the common-mode items too.
        loop->addCommonMode("tracking");
        loop->performBlock([&] { ran.push_back("common again"); });
        EXPECT_TRUE(loop->runModeBeforeDate("tracking", secondsFromNow(5)));
        EXPECT_EQ(ran.back(), "common again");
        // Removing a source from a mode it is not in, one the loop never met
        // included, leaves it where it is.
        const auto source = RunLoopSource::create([&] { ran.push_back("source"); });
        loop->addSource(source, "private");
        loop->removeSource(source, "never met");
        loop->removeSource(source, NSDefaultRunLoopMode);
        source->signal();
        EXPECT_TRUE(loop->runModeBeforeDate("private", secondsFromNow(5)));
        EXPECT_EQ(ran.back(), "source");
    });
}

TEST(RunLoop, ABlockSeesTheModeAndMayRunTheLoopAgain)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        std::optional<std::string> outerMode;
        std::optional<std::string> innerMode;
        bool innerRan = false;
        loop->performBlock([&] {
            outerMode = loop->currentMode();
            loop->performBlock({"nested"}, [&] {
                innerRan = true;
                innerMode = loop->currentMode();
            });
            EXPECT_TRUE(loop->runModeBeforeDate("nested", secondsFromNow(5)));
        });
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_TRUE(innerRan);
        EXPECT_EQ(outerMode, std::string(NSDefaultRunLoopMode));
        EXPECT_EQ(innerMode, "nested");
        EXPECT_FALSE(loop->currentMode());
    });
}

TEST(RunLoop, ANestedRunLeavesTheOuterPassItsWorkAndAPassLetsGoOfWhatItTook)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        std::vector<std::string> ran;
        auto held = std::make_shared<int>(0);
        const std::weak_ptr<int> watched = held;
        // One pass takes both blocks; the first runs the loop again before the
        // second has run.
        loop->performBlock([&] {
            ran.push_back("outer first");
            loop->performBlock({"nested"}, [&] { ran.push_back("nested"); });
            EXPECT_TRUE(loop->runModeBeforeDate("nested", secondsFromNow(5)));
        });
        loop->performBlock([&ran, held = std::move(held)] { ran.push_back("outer second"); });
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_EQ(ran, (std::vector<std::string>{"outer first", "nested", "outer second"}));
        EXPECT_TRUE(watched.expired()) << "a block that has run is not kept by the loop";

        // A block that throws ends the run; the loop is left as it was.
        auto kept = std::make_shared<int>(0);
        const std::weak_ptr<int> watchedAfterThrow = kept;
        loop->performBlock([] { throw std::runtime_error("thrown from a block"); });
        loop->performBlock([kept = std::move(kept)] {});
        EXPECT_THROW(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)), std::runtime_error);
        EXPECT_FALSE(loop->currentMode());
        EXPECT_TRUE(watchedAfterThrow.expired()) << "what the pass took goes with it";
        loop->performBlock([&] { ran.push_back("after"); });
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_EQ(ran.back(), "after");
    });
}

TEST(RunLoop, ATimerFiresNoEarlierThanItsDateThenGoesAway)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        const Date scheduled = Date::now();
        std::optional<Date> firedAt;
        const auto timer = Timer::scheduledTimer(0.05, false, [&](Timer&) { firedAt = Date::now(); });
        EXPECT_TRUE(timer->isValid());
        while (!firedAt && loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(20))) {
        }
        ASSERT_TRUE(firedAt);
        EXPECT_GE(firedAt->timeIntervalSinceDate(scheduled), 0.05);
        EXPECT_FALSE(timer->isValid());
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5))) << "a fired one-shot timer leaves the loop empty";
    });
}

TEST(RunLoop, ARepeatingTimerFiresUntilInvalidated)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        int fired = 0;
        const auto timer = Timer::scheduledTimer(0.001, true, [&](Timer& self) {
            if (++fired == 5) {
                self.invalidate();
            }
        });
        while (loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(20))) {
        }
        EXPECT_EQ(fired, 5);
        EXPECT_FALSE(timer->isValid());
    });
}

// Timers due in one pass fire by their dates, not by when they were added;
// one that does not keep the loop running fires only while something else
// does, and a repeating one keeps a date its own block gives it.
TEST(RunLoop, DueTimersFireByDateAndATimerThatKeepsNothingRunningFiresOnlyBesideOthers)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        std::vector<int> order;
        std::vector<TimerRef> timers;
        const Date base = Date::now();
        for (int index = 0; index < 4; ++index) {
            timers.push_back(Timer::scheduledTimer(3600, false, [&order, index](Timer&) { order.push_back(index); }));
        }
        // Dates in the opposite order of adding, all past by the next pass.
        for (int index = 0; index < 4; ++index) {
            timers[static_cast<std::size_t>(index)]->setFireDate(base.dateByAddingTimeInterval(-0.001 * index));
        }
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_EQ(order, (std::vector<int>{3, 2, 1, 0}));

        int fired = 0;
        const auto idle = Timer::create(3600, true, [&](Timer& self) {
            if (++fired == 1) {
                self.setFireDate(Date::now());  // again at once, not an hour on
            }
        });
        idle->setKeepsLoopRunning(false);
        loop->addTimer(idle, NSDefaultRunLoopMode);
        idle->setFireDate(Date::now());
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5))) << "alone, it keeps nothing running";
        EXPECT_EQ(fired, 0);

        const auto keeper = RunLoopSource::create([] {});
        loop->addSource(keeper, NSDefaultRunLoopMode);
        while (fired < 2 && loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5))) {
        }
        EXPECT_EQ(fired, 2);
        EXPECT_TRUE(idle->isValid());
        EXPECT_GT(idle->fireDate().timeIntervalSinceDate(Date::now()), 3000.0);
        loop->removeSource(keeper, NSDefaultRunLoopMode);
        idle->invalidate();
    });
}

TEST(RunLoop, MovingATimerEarlierFromAnotherThreadWakesTheLoop)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        bool fired = false;
        const auto timer = Timer::scheduledTimer(3600, false, [&](Timer&) { fired = true; });
        std::thread mover([&] { timer->setFireDate(Date::now()); });
        const Date before = Date::now();
        while (!fired && loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(20))) {
        }
        mover.join();
        EXPECT_TRUE(fired);
        EXPECT_LT(Date::now().timeIntervalSinceDate(before), 20.0);
    });
}

TEST(RunLoop, ADescriptorSourceReportsReadabilityUntilTheDataIsRead)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        PipeEnds pipe;
        std::string received;
        int calls = 0;
        const auto source = FileDescriptorSource::create(pipe.read, FileDescriptorSource::Readable, [&](int fd, unsigned ready) {
            ++calls;
            EXPECT_EQ(ready, static_cast<unsigned>(FileDescriptorSource::Readable));
            char buffer[64];
            const auto count = ::read(fd, buffer, sizeof buffer);
            if (count > 0) {
                received.append(buffer, static_cast<std::size_t>(count));
            }
        });
        loop->addFileDescriptorSource(source, NSDefaultRunLoopMode);
        std::thread writer([&] { EXPECT_EQ(::write(pipe.write, "hello", 5), 5); });
        while (received.size() < 5 && loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(20))) {
        }
        writer.join();
        EXPECT_EQ(received, "hello");
        // Drained: a short run sees nothing more and ends at its limit date.
        const int callsBefore = calls;
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(0.02)));
        EXPECT_EQ(calls, callsBefore);
        source->invalidate();
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
    });
}

TEST(RunLoop, AHangUpIsReportedAsTheWatchedEventsAndSourcesOfOtherModesWait)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        PipeEnds pipe;
        unsigned reported = 0;
        const auto source = FileDescriptorSource::create(pipe.read, FileDescriptorSource::Readable, [&](int, unsigned ready) {
            reported = ready;
        });
        loop->addFileDescriptorSource(source, "private");
        const auto keeper = RunLoopSource::create([] {});
        loop->addSource(keeper, NSDefaultRunLoopMode);
        ::close(pipe.write);
        pipe.write = ::open("/dev/null", O_WRONLY | O_CLOEXEC);  // keeps the destructor's close harmless
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(0.02)));
        EXPECT_EQ(reported, 0U) << "a source of another mode fired";
        EXPECT_TRUE(loop->runModeBeforeDate("private", secondsFromNow(5)));
        EXPECT_EQ(reported, static_cast<unsigned>(FileDescriptorSource::Readable));
        source->invalidate();
    });
}

TEST(RunLoop, AWritableSourceFiresAndCanChangeWhatItWatches)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        PipeEnds pipe;
        std::vector<unsigned> reports;
        FileDescriptorSourceRef source;
        source = FileDescriptorSource::create(pipe.write, FileDescriptorSource::Writable, [&](int, unsigned ready) {
            reports.push_back(ready);
            source->setEvents(FileDescriptorSource::None);
        });
        loop->addFileDescriptorSource(source, NSRunLoopCommonModes);
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(0.02)));
        EXPECT_EQ(reports, std::vector<unsigned>{FileDescriptorSource::Writable});
        source->invalidate();
    });
}

TEST(RunLoop, ADescriptorSourceThatDoesNotKeepTheLoopRunningStillFires)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        PipeEnds pipe;
        std::string received;
        const auto source = FileDescriptorSource::create(pipe.read, FileDescriptorSource::Readable, [&](int fd, unsigned) {
            char buffer[16];
            const auto count = ::read(fd, buffer, sizeof buffer);
            if (count > 0) {
                received.append(buffer, static_cast<std::size_t>(count));
            }
        });
        source->setKeepsLoopRunning(false);
        loop->addFileDescriptorSource(source, NSDefaultRunLoopMode);
        ASSERT_EQ(::write(pipe.write, "a", 1), 1);
        // Ready, but alone in the mode: the mode counts as empty.
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_EQ(received, "");

        const auto keeper = RunLoopSource::create([] {});
        loop->addSource(keeper, NSDefaultRunLoopMode);
        while (received.empty() && loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5))) {
        }
        EXPECT_EQ(received, "a");
        loop->removeSource(keeper, NSDefaultRunLoopMode);
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));

        source->setKeepsLoopRunning(true);
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(0.02)));
        source->invalidate();
    });
}

TEST(RunLoop, SignalsToASourceAreMergedAndPerformedOnTheLoopThread)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        int performed = 0;
        const auto source = RunLoopSource::create([&] { ++performed; });
        loop->addSource(source, NSDefaultRunLoopMode);
        std::thread signaller([&] {
            source->signal();
            source->signal();
        });
        signaller.join();
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_EQ(performed, 1);
        source->signal();
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        EXPECT_EQ(performed, 2);
        loop->removeSource(source, NSDefaultRunLoopMode);
        EXPECT_FALSE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
    });
}

TEST(RunLoop, StopFromAnotherThreadEndsTheRunAndALimitDateEndsItToo)
{
    onFreshThread([] {
        const auto loop = RunLoop::currentRunLoop();
        const auto keeper = RunLoopSource::create([] {});
        loop->addSource(keeper, NSDefaultRunLoopMode);
        std::promise<void> running;
        loop->performBlock([&] { running.set_value(); });
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(5)));
        std::thread stopper([&] {
            // Stop can only end a run in progress; keep asking until one is.
            while (!loop->currentMode()) {
                std::this_thread::yield();
            }
            loop->stop();
        });
        const Date before = Date::now();
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(30)));
        stopper.join();
        EXPECT_LT(Date::now().timeIntervalSinceDate(before), 20.0);

        const Date start = Date::now();
        EXPECT_TRUE(loop->runModeBeforeDate(NSDefaultRunLoopMode, secondsFromNow(0.03)));
        EXPECT_GE(Date::now().timeIntervalSinceDate(start), 0.03);
    });
}

}  // namespace
