// RunLoop: the event loop of one thread: performed blocks, timers, signalled
// sources and file-descriptor sources, in named modes.
//
// Every thread has one run loop, made on first use; the main thread's is also
// reachable from other threads as `mainRunLoop()`. A run loop does nothing
// until its thread runs it:
//
//   auto loop = RunLoop::currentRunLoop();
//   while (!done && loop->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(0.01))) {}
//
// Contract:
// - Everything a run loop calls (blocks, timer blocks, source callbacks) runs
//   on the thread that is running it, one at a time, and only while it runs
//   in a mode the item was added for. `NSRunLoopCommonModes` stands for every
//   mode marked common; the default mode is common from the start.
// - Blocks performed from one thread run in the order they were performed.
//   Due timers fire in the order of their fire dates. Nothing else is ordered.
// - Anything may be added, removed, signalled or performed from any thread;
//   the loop wakes up for it. Waiting is a single epoll wait with a deadline
//   (the nearest timer or the limit date): an idle loop costs no CPU.
// - Running is re-entrant: a callback may run the same loop again (a nested
//   wait); the nested run sees the same items.
// - Not promised: a timer fires no earlier than its fire date, and no later
//   than fire date plus tolerance only if the thread is free to run the loop.
//   A repeating timer that missed several fire dates fires once for them.
#pragma once

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Object.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

inline constexpr std::string_view NSDefaultRunLoopMode = "kCFRunLoopDefaultMode";
inline constexpr std::string_view NSRunLoopCommonModes = "kCFRunLoopCommonModes";

class RunLoop;
class Timer;
class RunLoopSource;
class FileDescriptorSource;
using RunLoopRef = std::shared_ptr<RunLoop>;
using TimerRef = std::shared_ptr<Timer>;
using RunLoopSourceRef = std::shared_ptr<RunLoopSource>;
using FileDescriptorSourceRef = std::shared_ptr<FileDescriptorSource>;

// A timer: fires its block at its fire date, then every `timeInterval`
// seconds when it repeats. A timer belongs to at most one run loop (in one or
// more modes); it stays there until it is invalidated, which a non-repeating
// timer does itself when it has fired.
class Timer final : public Object {
public:
    using Block = std::function<void(Timer&)>;

    // A timer that first fires `interval` seconds from now.
    static TimerRef create(double interval, bool repeats, Block block);
    // The same, added to the current thread's run loop in the default mode.
    static TimerRef scheduledTimer(double interval, bool repeats, Block block);

    Date fireDate() const;
    // Moves the next firing, from any thread; the run loop re-plans its wait.
    void setFireDate(Date date);
    double timeInterval() const { return interval_; }
    double tolerance() const;
    void setTolerance(double seconds);
    // True from the start. A timer that does not keep its loop running still
    // fires, but a loop that holds nothing else returns, as if it were empty:
    // for a timer kept for good and armed only now and then.
    bool keepsLoopRunning() const { return keepsLoopRunning_.load(); }
    void setKeepsLoopRunning(bool keeps);
    bool isValid() const;
    // Stops the timer for good and takes it out of its run loop. A block
    // already running finishes.
    void invalidate();
    // Runs the block now, on the calling thread; a non-repeating timer is
    // then invalidated, a repeating one keeps its schedule.
    void fire();

private:
    friend class RunLoop;
    template <class> friend struct ObjectAllocator;
    Timer(double interval, bool repeats, Block block);
    // Called by the run loop: fires when due and plans the next date.
    bool fireIfDue(Date now);

    const double interval_;
    const bool repeats_;
    mutable std::mutex mutex_;  // guards the fields below
    Date fireDate_;
    double tolerance_ = 0;
    bool valid_ = true;
    Block block_;
    std::atomic<bool> keepsLoopRunning_{true};
    std::weak_ptr<RunLoop> runLoop_;
};

// A source that another thread signals; the run loop then calls `perform` on
// its own thread. Signals that arrive before `perform` runs are merged.
class RunLoopSource final : public Object {
public:
    static RunLoopSourceRef create(std::function<void()> perform);

    // From any thread; wakes the run loop the source is in.
    void signal();
    void invalidate();
    bool isValid() const { return valid_.load(); }

private:
    friend class RunLoop;
    template <class> friend struct ObjectAllocator;
    explicit RunLoopSource(std::function<void()> perform);

    std::function<void()> perform_;
    std::atomic<bool> signalled_{false};
    std::atomic<bool> valid_{true};
    std::mutex loopMutex_;  // guards `runLoop_`
    std::weak_ptr<RunLoop> runLoop_;
};

// A file descriptor watched for readiness. The callback gets the events that
// are ready; an error or hang-up on the descriptor is reported as every event
// the source watches, so that its next read or write sees the condition.
// Readiness is level-triggered: a callback that neither reads nor stops
// watching keeps being called.
//
// A source that does not keep its loop running is watched and called like
// any other, but does not count as something to run: a mode that holds only
// such sources is empty, and `runModeBeforeDate` returns false for it at once.
// For descriptors kept between uses (an idle keep-alive connection), where
// taking them out of the loop and back would cost two system calls per use.
class FileDescriptorSource final : public Object {
public:
    enum Events : unsigned { None = 0, Readable = 1, Writable = 2 };
    using Callback = std::function<void(int fd, unsigned readyEvents)>;

    // The source does not own `fd`; invalidate it before closing the descriptor.
    static FileDescriptorSourceRef create(int fd, unsigned events, Callback callback);

    int fileDescriptor() const { return fd_; }
    unsigned events() const { return events_.load(); }
    // Changes what is watched, from any thread.
    void setEvents(unsigned events);
    // True from the start; changes from any thread.
    bool keepsLoopRunning() const { return keepsLoopRunning_.load(); }
    void setKeepsLoopRunning(bool keeps);
    void invalidate();
    bool isValid() const { return valid_.load(); }

private:
    friend class RunLoop;
    template <class> friend struct ObjectAllocator;
    FileDescriptorSource(int fd, unsigned events, Callback callback);
    void markChanged();

    const int fd_;
    std::atomic<unsigned> events_;
    std::atomic<bool> keepsLoopRunning_{true};
    Callback callback_;
    std::atomic<bool> valid_{true};
    std::mutex loopMutex_;  // guards `runLoop_`
    std::weak_ptr<RunLoop> runLoop_;
};

class RunLoop final : public Object {
public:
    ~RunLoop() override;

    static RunLoopRef currentRunLoop();
    static RunLoopRef mainRunLoop();

    // The mode of the innermost run in progress on this loop, or nothing.
    // Meaningful on the loop's own thread.
    std::optional<std::string> currentMode() const;
    void addCommonMode(std::string_view mode);

    // Runs the loop once in `mode`: handles what is ready (blocks, due
    // timers, signalled and ready sources), waiting until something is or
    // until `limitDate`, and returns true. Returns false at once, without
    // waiting, when the mode has nothing in it (no blocks, timers or sources):
    // the loop could not be run.
    bool runModeBeforeDate(std::string_view mode, Date limitDate);
    // Runs in the default mode until `limitDate`, or until the mode is empty.
    void runUntilDate(Date limitDate);
    // Makes the innermost run in progress return (from any thread).
    void stop();
    // Interrupts a wait in progress so that the loop looks again (from any thread).
    void wakeUp();

    // Runs `block` on this loop's thread during a run in one of `modes`
    // (common modes by default). A pending block counts as something to run.
    void performBlock(std::function<void()> block);
    void performBlock(std::vector<std::string> modes, std::function<void()> block);

    void addTimer(const TimerRef& timer, std::string_view mode);
    void addSource(const RunLoopSourceRef& source, std::string_view mode);
    void removeSource(const RunLoopSourceRef& source, std::string_view mode);
    void addFileDescriptorSource(const FileDescriptorSourceRef& source, std::string_view mode);
    void removeFileDescriptorSource(const FileDescriptorSourceRef& source, std::string_view mode);

private:
    struct State;
    template <class> friend struct ObjectAllocator;
    RunLoop();
    static RunLoopRef make();
    void sourcesChanged();

    friend class Timer;
    friend class RunLoopSource;
    friend class FileDescriptorSource;
    std::unique_ptr<State> state_;
};

}  // namespace platform
