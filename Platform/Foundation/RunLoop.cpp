#include "Platform/Foundation/RunLoop.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/Thread.h"
#include "Platform/Foundation/WakeableEpoll.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <deque>
#include <map>

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/Foundation/RunLoop";

// A repeating timer never fires more often than this.
constexpr double kMinimumInterval = 0.0001;

// A mode by its number in the loop's table of the mode names it has met (a
// loop meets a handful, and the table only grows). Items and runs refer to
// modes by number, so that adding a source or running the loop once copies
// no name and compares no text.
using ModeId = std::size_t;
constexpr ModeId kCommonModesId = 0;
constexpr ModeId kDefaultModeId = 1;
constexpr ModeId kUnknownMode = static_cast<ModeId>(-1);

struct PendingBlock {
    std::vector<ModeId> modes;
    std::function<void()> block;
};

template <typename Entry>
struct Scheduled {
    std::shared_ptr<Entry> item;
    ModeId mode;
};

}  // namespace

struct RunLoop::State {
    internal::WakeableEpoll poll;

    mutable std::mutex mutex;  // guards everything below
    std::vector<std::string> modeNames{std::string(NSRunLoopCommonModes), std::string(NSDefaultRunLoopMode)};
    std::vector<bool> common{false, true};  // by mode: marked common (the default mode is from the start)
    std::deque<PendingBlock> blocks;
    std::vector<Scheduled<Timer>> timers;
    std::vector<Scheduled<RunLoopSource>> sources;
    std::vector<Scheduled<FileDescriptorSource>> descriptors;
    std::map<int, std::uint32_t> armed;  // what epoll watches per descriptor
    ModeId armedMode = kDefaultModeId;
    std::vector<ModeId> modeStack;  // the runs in progress, innermost last
    bool sleeping = false;
    int stopRequests = 0;

    // A mode that nothing was ever added to, run or marked common is unknown:
    // nothing can be in it.
    ModeId findModeLocked(std::string_view name) const
    {
        const auto found = std::find(modeNames.begin(), modeNames.end(), name);
        return found != modeNames.end() ? static_cast<ModeId>(found - modeNames.begin()) : kUnknownMode;
    }

    ModeId internModeLocked(std::string_view name)
    {
        if (const ModeId known = findModeLocked(name); known != kUnknownMode) {
            return known;
        }
        modeNames.emplace_back(name);
        common.push_back(false);
        return modeNames.size() - 1;
    }

    bool inMode(ModeId itemMode, ModeId mode) const
    {
        return itemMode == mode || (itemMode == kCommonModesId && common[mode]);
    }

    bool blockPendingLocked(ModeId mode) const
    {
        return std::any_of(blocks.begin(), blocks.end(), [&](const PendingBlock& pending) {
            return std::any_of(pending.modes.begin(), pending.modes.end(),
                               [&](ModeId blockMode) { return inMode(blockMode, mode); });
        });
    }

    // Whether a valid item of `mode` keeps a run of it going. Timers and
    // descriptor sources may be told not to (asked first: it is an atomic
    // load, where a timer's validity takes its lock); plain sources always do.
    template <typename Entry>
    bool anyKeepingRunning(const std::vector<Scheduled<Entry>>& entries, ModeId mode) const
    {
        return std::any_of(entries.begin(), entries.end(), [&](const Scheduled<Entry>& entry) {
            if constexpr (requires { entry.item->keepsLoopRunning(); }) {
                if (!entry.item->keepsLoopRunning()) {
                    return false;
                }
            }
            return inMode(entry.mode, mode) && entry.item->isValid();
        });
    }

    bool hasAnythingLocked(ModeId mode) const
    {
        return blockPendingLocked(mode) || anyKeepingRunning(sources, mode) || anyKeepingRunning(timers, mode)
            || anyKeepingRunning(descriptors, mode);
    }

    // Makes epoll watch `fd` for what its valid sources in the armed mode want.
    void syncDescriptorLocked(int fd)
    {
        std::uint32_t wanted = 0;
        bool registeredAnywhere = false;
        for (const auto& entry : descriptors) {
            if (entry.item->fileDescriptor() != fd || !entry.item->isValid()) {
                continue;
            }
            registeredAnywhere = true;
            if (inMode(entry.mode, armedMode)) {
                const unsigned events = entry.item->events();
                wanted |= ((events & FileDescriptorSource::Readable) != 0 ? EPOLLIN : 0U)
                    | ((events & FileDescriptorSource::Writable) != 0 ? EPOLLOUT : 0U);
            }
        }
        const auto existing = armed.find(fd);
        if (!registeredAnywhere) {
            if (existing != armed.end()) {
                ::epoll_ctl(poll.descriptor(), EPOLL_CTL_DEL, fd, nullptr);  // fails harmlessly if already closed
                armed.erase(existing);
            }
            return;
        }
        if (existing != armed.end() && existing->second == wanted) {
            return;
        }
        epoll_event event{};
        event.events = wanted;
        event.data.u64 = static_cast<std::uint64_t>(fd);
        if (existing == armed.end()) {
            if (::epoll_ctl(poll.descriptor(), EPOLL_CTL_ADD, fd, &event) != 0 && errno == EEXIST) {
                ::epoll_ctl(poll.descriptor(), EPOLL_CTL_MOD, fd, &event);
            }
        } else if (::epoll_ctl(poll.descriptor(), EPOLL_CTL_MOD, fd, &event) != 0 && errno == ENOENT) {
            ::epoll_ctl(poll.descriptor(), EPOLL_CTL_ADD, fd, &event);
        }
        armed[fd] = wanted;
    }

    void armModeLocked(ModeId mode)
    {
        if (armedMode == mode) {
            return;
        }
        armedMode = mode;
        std::vector<int> fds;
        for (const auto& entry : descriptors) {
            fds.push_back(entry.item->fileDescriptor());
        }
        for (const auto& [fd, events] : armed) {
            fds.push_back(fd);
        }
        std::sort(fds.begin(), fds.end());
        fds.erase(std::unique(fds.begin(), fds.end()), fds.end());
        for (int fd : fds) {
            syncDescriptorLocked(fd);
        }
    }

    template <typename Entry>
    void dropInvalidLocked(std::vector<Scheduled<Entry>>& entries)
    {
        std::erase_if(entries, [](const Scheduled<Entry>& entry) { return !entry.item->isValid(); });
    }

    void wakeLocked()
    {
        if (sleeping) {
            poll.wake();
        }
    }

    // The latest moment the next timer in `mode` may fire, if there is one.
    std::optional<Date> timerDeadlineLocked(ModeId mode) const
    {
        std::optional<Date> deadline;
        for (const auto& entry : timers) {
            if (!inMode(entry.mode, mode) || !entry.item->isValid()) {
                continue;
            }
            const Date latest = entry.item->fireDate().dateByAddingTimeInterval(entry.item->tolerance());
            if (!deadline || latest < *deadline) {
                deadline = latest;
            }
        }
        return deadline;
    }

    // --- The steps of one pass of a run in `mode`

    struct Work;
    struct Run {
        ModeId mode = kUnknownMode;
        Work* work = nullptr;
    };

    // Starts a run: the mode's number and the run's lists, or no mode
    // (`kUnknownMode`) when the mode has nothing in it to run.
    [[nodiscard]] Run enterMode(std::string_view name);

    // Ends a run; an outer run still in progress gets its mode's descriptors back.
    void leaveMode()
    {
        std::lock_guard lock(mutex);
        modeStack.pop_back();
        if (!modeStack.empty()) {
            armModeLocked(modeStack.back());
        }
    }

    using ReadySource = std::pair<FileDescriptorSourceRef, unsigned>;

    // What one pass runs, taken in one locked section before any of it runs:
    // what a block adds or signals waits for the next pass. Then the sources
    // that the wait found ready.
    struct Work {
        std::vector<std::function<void()>> blocks;
        std::vector<TimerRef> timers;  // every valid timer of the mode, due or not
        std::vector<RunLoopSourceRef> signalled;
        std::vector<ReadySource> ready;

        void clear()
        {
            blocks.clear();
            timers.clear();
            signalled.clear();
            ready.clear();
        }
    };
    // One `Work` per run in progress, by depth, kept between runs so that a
    // pass allocates nothing once the lists have grown; emptied after every
    // pass, so nothing taken is held longer than the pass. Touched only by
    // the thread running the loop; a deque, so that a nested run's growth
    // leaves the outer runs' lists where they are.
    std::deque<Work> scratch;

    void takeWork(ModeId mode, Work& work)
    {
        std::lock_guard lock(mutex);
        takeQueuedBlocksLocked(mode, work.blocks);
        timersLocked(mode, work.timers);
        takeSignalledSourcesLocked(mode, work.signalled);
    }

    void takeQueuedBlocksLocked(ModeId mode, std::vector<std::function<void()>>& taken)
    {
        for (auto pending = blocks.begin(); pending != blocks.end();) {
            const bool runsHere = std::any_of(pending->modes.begin(), pending->modes.end(),
                                              [&](ModeId blockMode) { return inMode(blockMode, mode); });
            if (runsHere) {
                taken.push_back(std::move(pending->block));
                pending = blocks.erase(pending);
            } else {
                ++pending;
            }
        }
    }

    void timersLocked(ModeId mode, std::vector<TimerRef>& inThisMode)
    {
        dropInvalidLocked(timers);
        for (const auto& entry : timers) {
            if (inMode(entry.mode, mode)) {
                inThisMode.push_back(entry.item);
            }
        }
    }

    // Clears the signal of each source it takes: a signal that comes after
    // this is another run of the source.
    void takeSignalledSourcesLocked(ModeId mode, std::vector<RunLoopSourceRef>& signalled)
    {
        dropInvalidLocked(sources);
        for (const auto& entry : sources) {
            if (inMode(entry.mode, mode) && entry.item->signalled_.exchange(false)) {
                signalled.push_back(entry.item);
            }
        }
    }

    // The running steps of a pass run outside the lock; each says whether
    // it ran anything.

    static bool runQueuedBlocks(std::vector<std::function<void()>>& queued)
    {
        for (auto& block : queued) {
            block();
        }
        return !queued.empty();
    }

    // The due ones in the order of their fire dates; then the others are
    // asked too, as a block may have moved one of them up. Only the due ones
    // are sorted: a pass seldom has more than one.
    static bool fireDueTimers(std::vector<TimerRef>& candidates)
    {
        const Date now = Date::now();
        const auto notDue = std::partition(candidates.begin(), candidates.end(),
                                           [now](const TimerRef& timer) { return !(timer->fireDate() > now); });
        if (notDue - candidates.begin() > 1) {
            std::sort(candidates.begin(), notDue, [](const TimerRef& a, const TimerRef& b) { return a->fireDate() < b->fireDate(); });
        }
        bool fired = false;
        for (const auto& timer : candidates) {
            fired = timer->fireIfDue(now) || fired;
        }
        return fired;
    }

    // A source invalidated since it was taken is left out.
    static bool performSignalledSources(const std::vector<RunLoopSourceRef>& signalled)
    {
        bool performed = false;
        for (const auto& source : signalled) {
            if (source->isValid()) {
                source->perform_();
                performed = true;
            }
        }
        return performed;
    }

    // Whether something of `mode` can run without waiting: a queued block or a signalled source.
    bool readyNowLocked(ModeId mode) const
    {
        return blockPendingLocked(mode) || std::any_of(sources.begin(), sources.end(), [&](const auto& entry) {
                   return inMode(entry.mode, mode) && entry.item->signalled_.load();
               });
    }

    // How a pass goes on after its work: it ends now with `result`, or it
    // waits up to `timeout` seconds (none: only looks) for ready descriptors.
    struct Plan {
        std::optional<bool> result;
        double timeout = 0;
    };

    // Decided in one locked section with `sleeping` set, so that whatever is
    // added after the look for ready work wakes the wait.
    [[nodiscard]] Plan planWait(ModeId mode, Date limitDate, bool handled)
    {
        std::lock_guard lock(mutex);
        if (stopRequests > 0) {
            --stopRequests;
            return {true};
        }
        if (handled || Date::now() >= limitDate) {
            return {true};
        }
        if (!hasAnythingLocked(mode)) {
            return {false};
        }
        if (readyNowLocked(mode)) {
            return {};
        }
        Date deadline = limitDate;
        if (const auto timerDeadline = timerDeadlineLocked(mode); timerDeadline && *timerDeadline < deadline) {
            deadline = *timerDeadline;
        }
        Plan plan;
        plan.timeout = deadline.timeIntervalSinceDate(Date::now());
        sleeping = plan.timeout > 0;
        return plan;
    }

    // The sources of `mode` that the epoll events make ready, with what each may do now.
    void readySourcesLocked(const epoll_event* events, int count, ModeId mode, std::vector<ReadySource>& ready) const
    {
        for (int index = 0; index < count; ++index) {
            const auto fd = static_cast<int>(events[index].data.u64);
            for (const auto& entry : descriptors) {
                if (entry.item->fileDescriptor() != fd || !inMode(entry.mode, mode)) {
                    continue;
                }
                if (const unsigned readyEvents = readyEventsOf(events[index].events, entry.item->events()); readyEvents != 0) {
                    ready.emplace_back(entry.item, readyEvents);
                }
            }
        }
    }

    // An error or hang-up makes everything watched ready, so that the
    // source's next read or write meets the condition.
    static unsigned readyEventsOf(std::uint32_t what, unsigned watched)
    {
        unsigned readyEvents = (what & (EPOLLERR | EPOLLHUP)) != 0 ? watched : 0U;
        if ((what & EPOLLIN) != 0) {
            readyEvents |= watched & FileDescriptorSource::Readable;
        }
        if ((what & EPOLLOUT) != 0) {
            readyEvents |= watched & FileDescriptorSource::Writable;
        }
        return readyEvents;
    }

    // Waits as planned and calls every source that is ready; true when any was.
    [[nodiscard]] bool serveReadyDescriptors(ModeId mode, double timeout, std::vector<ReadySource>& ready)
    {
        constexpr int kCapacity = 32;
        epoll_event events[kCapacity];
        const int count = poll.wait(events, kCapacity, timeout);
        {
            std::lock_guard lock(mutex);
            sleeping = false;
            readySourcesLocked(events, count, mode, ready);
        }
        for (const auto& [source, readyEvents] : ready) {
            if (source->isValid()) {
                source->callback_(source->fileDescriptor(), readyEvents);
            }
        }
        return !ready.empty();
    }
};


RunLoop::State::Run RunLoop::State::enterMode(std::string_view name)
{
    std::lock_guard lock(mutex);
    const ModeId mode = findModeLocked(name);
    if (mode == kUnknownMode || !hasAnythingLocked(mode)) {
        return {};
    }
    modeStack.push_back(mode);
    armModeLocked(mode);
    if (scratch.size() < modeStack.size()) {
        scratch.emplace_back();
    }
    return {mode, &scratch[modeStack.size() - 1]};
}

// --- Timer

Timer::Timer(double interval, bool repeats, Block block)
    : interval_(repeats ? std::max(interval, kMinimumInterval) : interval),
      repeats_(repeats),
      fireDate_(Date::now().dateByAddingTimeInterval(std::max(interval, 0.0))),
      block_(std::move(block))
{
}

TimerRef Timer::create(double interval, bool repeats, Block block)
{
    return makeObject<Timer>(interval, repeats, std::move(block));
}

TimerRef Timer::scheduledTimer(double interval, bool repeats, Block block)
{
    auto timer = create(interval, repeats, std::move(block));
    RunLoop::currentRunLoop()->addTimer(timer, NSDefaultRunLoopMode);
    return timer;
}

Date Timer::fireDate() const
{
    std::lock_guard lock(mutex_);
    return fireDate_;
}

void Timer::setFireDate(Date date)
{
    std::shared_ptr<RunLoop> loop;
    {
        std::lock_guard lock(mutex_);
        fireDate_ = date;
        loop = runLoop_.lock();
    }
    if (loop) {
        loop->wakeUp();
    }
}

double Timer::tolerance() const
{
    std::lock_guard lock(mutex_);
    return tolerance_;
}

void Timer::setTolerance(double seconds)
{
    std::lock_guard lock(mutex_);
    tolerance_ = std::max(seconds, 0.0);
}

void Timer::setKeepsLoopRunning(bool keeps)
{
    std::shared_ptr<RunLoop> loop;
    if (keepsLoopRunning_.exchange(keeps) != keeps) {
        std::lock_guard lock(mutex_);
        loop = runLoop_.lock();
    }
    if (loop) {
        loop->wakeUp();  // a loop that now holds nothing looks again
    }
}

bool Timer::isValid() const
{
    std::lock_guard lock(mutex_);
    return valid_;
}

void Timer::invalidate()
{
    Block released;  // destroyed outside the lock: it may own objects whose destruction calls back
    std::shared_ptr<RunLoop> loop;
    {
        std::lock_guard lock(mutex_);
        valid_ = false;
        released = std::move(block_);
        block_ = nullptr;
        loop = runLoop_.lock();
    }
    if (loop) {
        loop->wakeUp();
    }
}

void Timer::fire()
{
    Block block;
    {
        std::lock_guard lock(mutex_);
        if (!valid_) {
            return;
        }
        block = block_;
    }
    if (block) {
        block(*this);
    }
    if (!repeats_) {
        invalidate();
    }
}

bool Timer::fireIfDue(Date now)
{
    Block block;
    {
        std::lock_guard lock(mutex_);
        if (!valid_ || fireDate_ > now) {
            return false;
        }
        block = block_;
        if (repeats_) {
            // Missed dates are skipped, not made up for.
            const double missed = std::floor(now.timeIntervalSinceDate(fireDate_) / interval_);
            fireDate_ = fireDate_.dateByAddingTimeInterval((missed + 1) * interval_);
        }
    }
    if (block) {
        block(*this);
    }
    if (!repeats_) {
        invalidate();
    }
    return true;
}

// --- RunLoopSource

RunLoopSource::RunLoopSource(std::function<void()> perform) : perform_(std::move(perform)) {}

RunLoopSourceRef RunLoopSource::create(std::function<void()> perform)
{
    return makeObject<RunLoopSource>(std::move(perform));
}

void RunLoopSource::signal()
{
    signalled_.store(true);
    std::shared_ptr<RunLoop> loop;
    {
        std::lock_guard lock(loopMutex_);
        loop = runLoop_.lock();
    }
    if (loop) {
        loop->wakeUp();
    }
}

void RunLoopSource::invalidate()
{
    valid_.store(false);
    std::shared_ptr<RunLoop> loop;
    {
        std::lock_guard lock(loopMutex_);
        loop = runLoop_.lock();
    }
    if (loop) {
        loop->wakeUp();
    }
}

// --- FileDescriptorSource

FileDescriptorSource::FileDescriptorSource(int fd, unsigned events, Callback callback)
    : fd_(fd), events_(events), callback_(std::move(callback))
{
}

FileDescriptorSourceRef FileDescriptorSource::create(int fd, unsigned events, Callback callback)
{
    return makeObject<FileDescriptorSource>(fd, events, std::move(callback));
}

void FileDescriptorSource::markChanged()
{
    std::shared_ptr<RunLoop> loop;
    {
        std::lock_guard lock(loopMutex_);
        loop = runLoop_.lock();
    }
    if (loop) {
        loop->sourcesChanged();
    }
}

void FileDescriptorSource::setEvents(unsigned events)
{
    // Unchanged, there is nothing to re-arm (and a re-arm takes the loop's lock).
    if (events_.exchange(events) != events) {
        markChanged();
    }
}

void FileDescriptorSource::setKeepsLoopRunning(bool keeps)
{
    if (keepsLoopRunning_.exchange(keeps) != keeps) {
        markChanged();  // a loop that now holds nothing looks again
    }
}

void FileDescriptorSource::invalidate()
{
    // Unwatched before this returns, so the caller may close the descriptor next.
    valid_.store(false);
    markChanged();
}

// --- RunLoop

RunLoop::RunLoop() : state_(std::make_unique<State>()) {}

RunLoop::~RunLoop() = default;

RunLoopRef RunLoop::make()
{
    return makeObject<RunLoop>();
}

RunLoopRef RunLoop::mainRunLoop()
{
    // Never destroyed: other threads may still perform on it while the process exits.
    static const auto* main = new RunLoopRef(make());
    return *main;
}

RunLoopRef RunLoop::currentRunLoop()
{
    if (Thread::isMainThread()) {
        return mainRunLoop();
    }
    thread_local const RunLoopRef loop = make();
    return loop;
}

std::optional<std::string> RunLoop::currentMode() const
{
    std::lock_guard lock(state_->mutex);
    if (state_->modeStack.empty()) {
        return std::nullopt;
    }
    return state_->modeNames[state_->modeStack.back()];
}

void RunLoop::addCommonMode(std::string_view mode)
{
    std::lock_guard lock(state_->mutex);
    state_->common[state_->internModeLocked(mode)] = true;
}

void RunLoop::wakeUp()
{
    std::lock_guard lock(state_->mutex);
    state_->wakeLocked();
}

void RunLoop::stop()
{
    std::lock_guard lock(state_->mutex);
    if (!state_->modeStack.empty()) {
        ++state_->stopRequests;
        state_->wakeLocked();
    }
}

void RunLoop::sourcesChanged()
{
    std::lock_guard lock(state_->mutex);
    std::vector<int> fds;
    for (const auto& entry : state_->descriptors) {
        fds.push_back(entry.item->fileDescriptor());
    }
    state_->dropInvalidLocked(state_->descriptors);
    for (int fd : fds) {
        state_->syncDescriptorLocked(fd);
    }
    state_->wakeLocked();
}

void RunLoop::performBlock(std::function<void()> block)
{
    std::lock_guard lock(state_->mutex);
    state_->blocks.push_back({{kCommonModesId}, std::move(block)});
    state_->wakeLocked();
}

void RunLoop::performBlock(std::vector<std::string> modes, std::function<void()> block)
{
    std::lock_guard lock(state_->mutex);
    std::vector<ModeId> ids;
    ids.reserve(modes.size());
    for (const auto& mode : modes) {
        ids.push_back(state_->internModeLocked(mode));
    }
    state_->blocks.push_back({std::move(ids), std::move(block)});
    state_->wakeLocked();
}

void RunLoop::addTimer(const TimerRef& timer, std::string_view mode)
{
    PLATFORM_PARAMETER_ASSERT(timer != nullptr, "timer != nil");
    {
        std::lock_guard lock(timer->mutex_);
        timer->runLoop_ = std::static_pointer_cast<RunLoop>(shared_from_this());
    }
    std::lock_guard lock(state_->mutex);
    state_->timers.push_back({timer, state_->internModeLocked(mode)});
    state_->wakeLocked();
}

void RunLoop::addSource(const RunLoopSourceRef& source, std::string_view mode)
{
    PLATFORM_PARAMETER_ASSERT(source != nullptr, "source != nil");
    {
        std::lock_guard lock(source->loopMutex_);
        source->runLoop_ = std::static_pointer_cast<RunLoop>(shared_from_this());
    }
    std::lock_guard lock(state_->mutex);
    state_->sources.push_back({source, state_->internModeLocked(mode)});
    state_->wakeLocked();
}

void RunLoop::removeSource(const RunLoopSourceRef& source, std::string_view mode)
{
    std::lock_guard lock(state_->mutex);
    const ModeId id = state_->findModeLocked(mode);
    std::erase_if(state_->sources, [&](const auto& entry) { return entry.item == source && entry.mode == id; });
    state_->wakeLocked();
}

void RunLoop::addFileDescriptorSource(const FileDescriptorSourceRef& source, std::string_view mode)
{
    PLATFORM_PARAMETER_ASSERT(source != nullptr, "source != nil");
    {
        std::lock_guard lock(source->loopMutex_);
        source->runLoop_ = std::static_pointer_cast<RunLoop>(shared_from_this());
    }
    std::lock_guard lock(state_->mutex);
    state_->descriptors.push_back({source, state_->internModeLocked(mode)});
    state_->syncDescriptorLocked(source->fileDescriptor());
    state_->wakeLocked();
}

void RunLoop::removeFileDescriptorSource(const FileDescriptorSourceRef& source, std::string_view mode)
{
    std::lock_guard lock(state_->mutex);
    const ModeId id = state_->findModeLocked(mode);
    std::erase_if(state_->descriptors, [&](const auto& entry) { return entry.item == source && entry.mode == id; });
    state_->syncDescriptorLocked(source->fileDescriptor());
    state_->wakeLocked();
}

void RunLoop::runUntilDate(Date limitDate)
{
    while (Date::now() < limitDate && runModeBeforeDate(NSDefaultRunLoopMode, limitDate)) {
    }
}

bool RunLoop::runModeBeforeDate(std::string_view modeName, Date limitDate)
{
    State& state = *state_;
    const auto run = state.enterMode(modeName);
    if (run.mode == kUnknownMode) {
        return false;
    }
    struct ModeExit {
        State& state;
        ~ModeExit() { state.leaveMode(); }
    } modeExit{state};
    const ModeId mode = run.mode;
    State::Work& work = *run.work;

    for (;;) {
        // What a pass took is let go at its end, as it would be with lists of
        // its own (a block that throws included).
        struct PassEnd {
            State::Work& work;
            ~PassEnd() { work.clear(); }
        } passEnd{work};
        state.takeWork(mode, work);
        bool handled = State::runQueuedBlocks(work.blocks);
        handled = State::fireDueTimers(work.timers) || handled;
        handled = State::performSignalledSources(work.signalled) || handled;
        const auto plan = state.planWait(mode, limitDate, handled);
        if (plan.result) {
            return *plan.result;
        }
        if (state.serveReadyDescriptors(mode, plan.timeout, work.ready)) {
            return true;
        }
    }
}

}  // namespace platform
