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
    WakeableEpoll poll;

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
        return blockPendingLocked(mode) || anyValid(timers, mode) || anyValid(sources, mode)
            || anyValid(descriptors, mode);
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
    events_.store(events);
    markChanged();
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
    {
        std::lock_guard lock(state.mutex);
        if (!state.hasAnythingLocked(mode)) {
            return false;
        }
        state.modeStack.emplace_back(mode);
        state.armModeLocked(mode);
    }
    struct ModeExit {
        State& state;
        ~ModeExit()
        {
            std::lock_guard lock(state.mutex);
            state.modeStack.pop_back();
            if (!state.modeStack.empty()) {
                state.armModeLocked(state.modeStack.back());
            }
        }
    } modeExit{state};

    constexpr int kCapacity = 32;
    epoll_event events[kCapacity];
    for (;;) {
        bool handled = false;

        std::vector<std::function<void()>> blocks;
        std::vector<std::shared_ptr<Timer>> timers;
        std::vector<std::shared_ptr<RunLoopSource>> signalled;
        {
            std::lock_guard lock(state.mutex);
            for (auto pending = state.blocks.begin(); pending != state.blocks.end();) {
                const bool runsHere = std::any_of(pending->modes.begin(), pending->modes.end(),
                                                  [&](const std::string& blockMode) { return state.inMode(blockMode, mode); });
                if (runsHere) {
                    blocks.push_back(std::move(pending->block));
                    pending = state.blocks.erase(pending);
                } else {
                    ++pending;
                }
            }
            state.dropInvalidLocked(state.timers);
            for (const auto& entry : state.timers) {
                if (state.inMode(entry.mode, mode)) {
                    timers.push_back(entry.item);
                }
            }
            state.dropInvalidLocked(state.sources);
            for (const auto& entry : state.sources) {
                if (state.inMode(entry.mode, mode) && entry.item->signalled_.exchange(false)) {
                    signalled.push_back(entry.item);
                }
            }
        }
        for (auto& block : blocks) {
            block();
            handled = true;
        }
        std::sort(timers.begin(), timers.end(), [](const TimerRef& a, const TimerRef& b) { return a->fireDate() < b->fireDate(); });
        const Date now = Date::now();
        for (const auto& timer : timers) {
            handled = timer->fireIfDue(now) || handled;
        }
        for (const auto& source : signalled) {
            if (source->isValid()) {
                source->perform_();
                handled = true;
            }
        }

        double timeout = 0;
        {
            std::lock_guard lock(state.mutex);
            if (state.stopRequests > 0) {
                --state.stopRequests;
                return true;
            }
            if (handled || Date::now() >= limitDate) {
                return true;
            }
            if (!state.hasAnythingLocked(mode)) {
                return false;
            }
            const bool readyNow = state.blockPendingLocked(mode)
                || std::any_of(state.sources.begin(), state.sources.end(), [&](const auto& entry) {
                       return state.inMode(entry.mode, mode) && entry.item->signalled_.load();
                   });
            if (!readyNow) {
                Date deadline = limitDate;
                if (const auto timerDeadline = state.timerDeadlineLocked(mode); timerDeadline && *timerDeadline < deadline) {
                    deadline = *timerDeadline;
                }
                timeout = deadline.timeIntervalSinceDate(Date::now());
                state.sleeping = timeout > 0;
            }
        }
        const int count = state.poll.wait(events, kCapacity, timeout);
        std::vector<std::pair<FileDescriptorSourceRef, unsigned>> ready;
        {
            std::lock_guard lock(state.mutex);
            state.sleeping = false;
            for (int index = 0; index < count; ++index) {
                const auto fd = static_cast<int>(events[index].data.u64);
                const std::uint32_t what = events[index].events;
                const bool failed = (what & (EPOLLERR | EPOLLHUP)) != 0;
                for (const auto& entry : state.descriptors) {
                    if (entry.item->fileDescriptor() != fd || !state.inMode(entry.mode, mode)) {
                        continue;
                    }
                    const unsigned watched = entry.item->events();
                    unsigned readyEvents = failed ? watched : 0U;
                    if ((what & EPOLLIN) != 0) {
                        readyEvents |= watched & FileDescriptorSource::Readable;
                    }
                    if ((what & EPOLLOUT) != 0) {
                        readyEvents |= watched & FileDescriptorSource::Writable;
                    }
                    if (readyEvents != 0) {
                        ready.emplace_back(entry.item, readyEvents);
                    }
                }
            }
        }
        for (const auto& [source, readyEvents] : ready) {
            if (source->isValid()) {
                source->callback_(source->fileDescriptor(), readyEvents);
            }
        }
        if (!ready.empty()) {
            return true;
        }
    }
}

}  // namespace platform
