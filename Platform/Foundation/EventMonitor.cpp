#include "Platform/Foundation/EventMonitor.h"

#include "Platform/Foundation/WakeableEpoll.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

namespace platform::internal {
namespace {

using Callback = std::shared_ptr<EventMonitor::WatchCallback>;

struct Watch {
    int fd;  // the monitor's own duplicate
    std::uint32_t events;
    Callback callback;
};

struct PendingTimer {
    EventMonitor::Clock::time_point deadline;
    EventMonitor::Clock::duration leeway;
    std::shared_ptr<std::function<void()>> callback;
};

}  // namespace

struct EventMonitor::State {
    WakeableEpoll poll;
    std::thread::id thread;

    std::mutex mutex;  // guards everything below
    std::condition_variable callbackDone;
    Token nextToken = 1;
    std::map<Token, Watch> watches;
    std::map<Token, PendingTimer> timers;
    Token running = 0;  // the token whose callback runs now
    bool sleeping = false;

    void wakeLocked() const
    {
        if (sleeping) {
            poll.wake();
        }
    }

    void waitUntilNotRunningLocked(std::unique_lock<std::mutex>& lock, Token token)
    {
        if (std::this_thread::get_id() != thread) {
            callbackDone.wait(lock, [&] { return running != token; });
        }
    }
};

EventMonitor::EventMonitor() : state_(new State)
{
    std::thread thread([this] { run(); });
    state_->thread = thread.get_id();
    thread.detach();
}

EventMonitor& EventMonitor::shared()
{
    // Never destroyed: its thread serves until the process ends.
    static auto* monitor = new EventMonitor;
    return *monitor;
}

EventMonitor::Token EventMonitor::watch(int fd, std::uint32_t events, WatchCallback callback)
{
    const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (duplicate < 0) {
        throw std::system_error(errno, std::generic_category(), "watch");
    }
    std::lock_guard lock(state_->mutex);
    const Token token = state_->nextToken++;
    epoll_event event{};
    event.events = events | EPOLLONESHOT;
    event.data.u64 = token;
    if (::epoll_ctl(state_->poll.descriptor(), EPOLL_CTL_ADD, duplicate, &event) != 0) {
        const int error = errno;
        ::close(duplicate);
        throw std::system_error(error, std::generic_category(), "watch");
    }
    state_->watches.emplace(token, Watch{duplicate, events, std::make_shared<WatchCallback>(std::move(callback))});
    return token;
}

void EventMonitor::rearm(Token token)
{
    std::lock_guard lock(state_->mutex);
    const auto found = state_->watches.find(token);
    if (found == state_->watches.end()) {
        return;
    }
    epoll_event event{};
    event.events = found->second.events | EPOLLONESHOT;
    event.data.u64 = token;
    ::epoll_ctl(state_->poll.descriptor(), EPOLL_CTL_MOD, found->second.fd, &event);
}

void EventMonitor::unwatch(Token token)
{
    Callback released;  // destroyed outside the lock
    std::unique_lock lock(state_->mutex);
    const auto found = state_->watches.find(token);
    if (found != state_->watches.end()) {
        ::epoll_ctl(state_->poll.descriptor(), EPOLL_CTL_DEL, found->second.fd, nullptr);
        ::close(found->second.fd);
        released = std::move(found->second.callback);
        state_->watches.erase(found);
    }
    state_->waitUntilNotRunningLocked(lock, token);
}

EventMonitor::Token EventMonitor::addTimer(Clock::time_point deadline, Clock::duration leeway, std::function<void()> callback)
{
    std::lock_guard lock(state_->mutex);
    const Token token = state_->nextToken++;
    state_->timers.emplace(token, PendingTimer{deadline, leeway, std::make_shared<std::function<void()>>(std::move(callback))});
    state_->wakeLocked();
    return token;
}

void EventMonitor::cancelTimer(Token token)
{
    std::shared_ptr<std::function<void()>> released;
    std::unique_lock lock(state_->mutex);
    const auto found = state_->timers.find(token);
    if (found != state_->timers.end()) {
        released = std::move(found->second.callback);
        state_->timers.erase(found);
    }
    state_->waitUntilNotRunningLocked(lock, token);
}

void EventMonitor::run()
{
    State& state = *state_;
    constexpr int kCapacity = 64;
    epoll_event events[kCapacity];
    for (;;) {
        std::optional<double> timeout;  // nothing: no timer, wait for events only
        {
            std::lock_guard lock(state.mutex);
            std::optional<Clock::time_point> wake;
            for (const auto& [token, timer] : state.timers) {
                const auto latest = timer.deadline + timer.leeway;
                if (!wake || latest < *wake) {
                    wake = latest;
                }
            }
            if (wake) {
                timeout = std::max(0.0, std::chrono::duration<double>(*wake - Clock::now()).count());
            }
            state.sleeping = !timeout || *timeout > 0;
        }
        const int count = state.poll.wait(events, kCapacity, timeout);
        std::unique_lock lock(state.mutex);
        state.sleeping = false;
        for (int index = 0; index < count; ++index) {
            const Token token = events[index].data.u64;
            const auto found = state.watches.find(token);
            if (found == state.watches.end()) {
                continue;  // unwatched after the wait returned
            }
            const Callback callback = found->second.callback;
            state.running = token;
            lock.unlock();
            (*callback)(token, events[index].events);
            lock.lock();
            state.running = 0;
            state.callbackDone.notify_all();
        }
        const auto now = Clock::now();
        std::vector<Token> due;
        for (const auto& [token, timer] : state.timers) {
            if (timer.deadline <= now) {
                due.push_back(token);
            }
        }
        for (const Token token : due) {
            // Looked up again: an earlier callback may have cancelled this one.
            const auto found = state.timers.find(token);
            if (found == state.timers.end()) {
                continue;
            }
            auto callback = std::move(found->second.callback);
            state.timers.erase(found);
            state.running = token;
            lock.unlock();
            (*callback)();
            callback.reset();
            lock.lock();
            state.running = 0;
            state.callbackDone.notify_all();
        }
    }
}

}  // namespace platform::internal
