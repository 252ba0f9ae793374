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

struct PendingBlock {
    std::vector<std::string> modes;
    std::function<void()> block;
};

template <typename Entry>
struct Scheduled {
    std::shared_ptr<Entry> item;
    std::string mode;
};

}  // namespace

struct RunLoop::State {
    internal::WakeableEpoll poll;

    mutable std::mutex mutex;  // guards everything below
    std::vector<std::string> commonModes{std::string(NSDefaultRunLoopMode)};
    std::deque<PendingBlock> blocks;
    std::vector<Scheduled<Timer>> timers;
    std::vector<Scheduled<RunLoopSource>> sources;
    std::vector<Scheduled<FileDescriptorSource>> descriptors;
    std::map<int, std::uint32_t> armed;  // what epoll watches per descriptor
    std::string armedMode{NSDefaultRunLoopMode};
    std::vector<std::string> modeStack;  // the runs in progress, innermost last
    bool sleeping = false;
    int stopRequests = 0;

    bool inMode(const std::string& itemMode, std::string_view mode) const
    {
        if (itemMode == mode) {
            return true;
        }
        return itemMode == NSRunLoopCommonModes
            && std::find(commonModes.begin(), commonModes.end(), mode) != commonModes.end();
    }

    bool blockPendingLocked(std::string_view mode) const
    {
        return std::any_of(blocks.begin(), blocks.end(), [&](const PendingBlock& pending) {
            return std::any_of(pending.modes.begin(), pending.modes.end(),
                               [&](const std::string& blockMode) { return inMode(blockMode, mode); });
        });
    }

    template <typename Entry>
    bool anyValid(const std::vector<Scheduled<Entry>>& entries, std::string_view mode) const
    {
        return std::any_of(entries.begin(), entries.end(), [&](const Scheduled<Entry>& entry) {
            return inMode(entry.mode, mode) && entry.item->isValid();
        });
    }

    bool hasAnythingLocked(std::string_view mode) const
    {
        return blockPendingLocked(mode) || anyValid(sources, mode)
            || std::any_of(timers.begin(), timers.end(), [&](const Scheduled<Timer>& entry) {
                   return inMode(entry.mode, mode) && entry.item->keepsLoopRunning() && entry.item->isValid();
               })
            || std::any_of(descriptors.begin(), descriptors.end(), [&](const Scheduled<FileDescriptorSource>& entry) {
                   return inMode(entry.mode, mode) && entry.item->isValid() && entry.item->keepsLoopRunning();
               });
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

    void armModeLocked(std::string_view mode)
    {
        if (armedMode == mode) {
            return;
        }
        armedMode = std::string(mode);
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
    std::optional<Date> timerDeadlineLocked(std::string_view mode) const
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

    // Starts a run: false when the mode has nothing in it to run.
    [[nodiscard]] bool enterMode(std::string_view mode)
    {
        std::lock_guard lock(mutex);
        if (!hasAnythingLocked(mode)) {
            return false;
        }
        modeStack.emplace_back(mode);
        armModeLocked(mode);
        return true;
    }

    // Ends a run; an outer run still in progress gets its mode's descriptors back.
    void leaveMode()
    {
        std::lock_guard lock(mutex);
        modeStack.pop_back();
        if (!modeStack.empty()) {
            armModeLocked(modeStack.back());
        }
    }

    // What one pass runs, taken in one locked section before any of it runs:
    // what a block adds or signals waits for the next pass.
    struct Work {
        std::vector<std::function<void()>> blocks;
        std::vector<TimerRef> timers;  // every valid timer of the mode, due or not
        std::vector<RunLoopSourceRef> signalled;
    };

    [[nodiscard]] Work takeWork(std::string_view mode)
    {
        std::lock_guard lock(mutex);
        return {takeQueuedBlocksLocked(mode), timersLocked(mode), takeSignalledSourcesLocked(mode)};
    }

    std::vector<std::function<void()>> takeQueuedBlocksLocked(std::string_view mode)
    {
        std::vector<std::function<void()>> taken;
        for (auto pending = blocks.begin(); pending != blocks.end();) {
            const bool runsHere = std::any_of(pending->modes.begin(), pending->modes.end(),
                                              [&](const std::string& blockMode) { return inMode(blockMode, mode); });
            if (runsHere) {
                taken.push_back(std::move(pending->block));
                pending = blocks.erase(pending);
            } else {
                ++pending;
            }
        }
        return taken;
    }

    std::vector<TimerRef> timersLocked(std::string_view mode)
    {
        dropInvalidLocked(timers);
        std::vector<TimerRef> inThisMode;
        for (const auto& entry : timers) {
            if (inMode(entry.mode, mode)) {
                inThisMode.push_back(entry.item);
            }
        }
        return inThisMode;
    }

    // Clears the signal of each source it takes: a signal that comes after
    // this is another run of the source.
    std::vector<RunLoopSourceRef> takeSignalledSourcesLocked(std::string_view mode)
    {
        dropInvalidLocked(sources);
        std::vector<RunLoopSourceRef> signalled;
        for (const auto& entry : sources) {
            if (inMode(entry.mode, mode) && entry.item->signalled_.exchange(false)) {
                signalled.push_back(entry.item);
            }
        }
        return signalled;
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
    bool readyNowLocked(std::string_view mode) const
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
    [[nodiscard]] Plan planWait(std::string_view mode, Date limitDate, bool handled)
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

    using ReadySource = std::pair<FileDescriptorSourceRef, unsigned>;

    // The sources of `mode` that the epoll events make ready, with what each may do now.
    std::vector<ReadySource> readySourcesLocked(const epoll_event* events, int count, std::string_view mode) const
    {
        std::vector<ReadySource> ready;
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
        return ready;
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
    [[nodiscard]] bool serveReadyDescriptors(std::string_view mode, double timeout)
    {
        constexpr int kCapacity = 32;
        epoll_event events[kCapacity];
        const int count = poll.wait(events, kCapacity, timeout);
        std::vector<ReadySource> ready;
        {
            std::lock_guard lock(mutex);
            sleeping = false;
            ready = readySourcesLocked(events, count, mode);
        }
        for (const auto& [source, readyEvents] : ready) {
            if (source->isValid()) {
                source->callback_(source->fileDescriptor(), readyEvents);
            }
        }
        return !ready.empty();
    }
};


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
    return TimerRef(new Timer(interval, repeats, std::move(block)));
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
    return RunLoopSourceRef(new RunLoopSource(std::move(perform)));
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
    return FileDescriptorSourceRef(new FileDescriptorSource(fd, events, std::move(callback)));
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
    return RunLoopRef(new RunLoop);
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
    return state_->modeStack.back();
}

void RunLoop::addCommonMode(std::string_view mode)
{
    std::lock_guard lock(state_->mutex);
    if (std::find(state_->commonModes.begin(), state_->commonModes.end(), mode) == state_->commonModes.end()) {
        state_->commonModes.emplace_back(mode);
    }
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
    performBlock({std::string(NSRunLoopCommonModes)}, std::move(block));
}

void RunLoop::performBlock(std::vector<std::string> modes, std::function<void()> block)
{
    std::lock_guard lock(state_->mutex);
    state_->blocks.push_back({std::move(modes), std::move(block)});
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
    state_->timers.push_back({timer, std::string(mode)});
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
    state_->sources.push_back({source, std::string(mode)});
    state_->wakeLocked();
}

void RunLoop::removeSource(const RunLoopSourceRef& source, std::string_view mode)
{
    std::lock_guard lock(state_->mutex);
    std::erase_if(state_->sources, [&](const auto& entry) { return entry.item == source && entry.mode == mode; });
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
    state_->descriptors.push_back({source, std::string(mode)});
    state_->syncDescriptorLocked(source->fileDescriptor());
    state_->wakeLocked();
}

void RunLoop::removeFileDescriptorSource(const FileDescriptorSourceRef& source, std::string_view mode)
{
    std::lock_guard lock(state_->mutex);
    std::erase_if(state_->descriptors, [&](const auto& entry) { return entry.item == source && entry.mode == mode; });
    state_->syncDescriptorLocked(source->fileDescriptor());
    state_->wakeLocked();
}

void RunLoop::runUntilDate(Date limitDate)
{
    while (Date::now() < limitDate && runModeBeforeDate(NSDefaultRunLoopMode, limitDate)) {
    }
}

bool RunLoop::runModeBeforeDate(std::string_view mode, Date limitDate)
{
    State& state = *state_;
    if (!state.enterMode(mode)) {
        return false;
    }
    struct ModeExit {
        State& state;
        ~ModeExit() { state.leaveMode(); }
    } modeExit{state};

    for (;;) {
        auto work = state.takeWork(mode);
        bool handled = State::runQueuedBlocks(work.blocks);
        handled = State::fireDueTimers(work.timers) || handled;
        handled = State::performSignalledSources(work.signalled) || handled;
        const auto plan = state.planWait(mode, limitDate, handled);
        if (plan.result) {
            return *plan.result;
        }
        if (state.serveReadyDescriptors(mode, plan.timeout)) {
            return true;
        }
    }
}

}  // namespace platform
