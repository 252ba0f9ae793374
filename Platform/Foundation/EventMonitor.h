// EventMonitor: the one thread of the process that waits for kernel events
// on behalf of the runtime: descriptor readiness (pipes, process descriptors,
// inotify) and deadlines.
//
// Plumbing shared by the dispatch sources, file handles and tasks; the library
// above never uses it directly. Callbacks run on the monitor thread, one at a
// time, and must be short: they hand the event to a queue and return.
//
// Contract:
// - A watch is one-shot: after its callback has run it stays quiet until
//   `rearm`. This is what lets a consumer run its handler elsewhere and ask
//   for the next event only when it is ready for it.
// - The monitor watches a duplicate of the descriptor, so the owner may close
//   its own descriptor at any time; the duplicate goes with `unwatch`. (A
//   watched pipe write end therefore stays open until the watch ends.)
// - `unwatch` and `cancelTimer` return only once the callback is neither
//   running nor going to run, except when called from that callback itself.
// - A timer fires at or after its deadline and, unless the monitor is busy,
//   before deadline plus leeway; timers whose windows overlap fire together.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <sys/epoll.h>

namespace platform::internal {

class EventMonitor {
public:
    using Clock = std::chrono::steady_clock;
    using Token = std::uint64_t;

    static EventMonitor& shared();

    // Watches `fd` for the epoll `events`; `callback` gets its own token and
    // the events that occurred (it may run before `watch` returns). Raises
    // std::system_error when the descriptor cannot be watched.
    using WatchCallback = std::function<void(Token token, std::uint32_t events)>;
    Token watch(int fd, std::uint32_t events, WatchCallback callback);
    void rearm(Token token);
    void unwatch(Token token);

    Token addTimer(Clock::time_point deadline, Clock::duration leeway, std::function<void()> callback);
    void cancelTimer(Token token);

private:
    EventMonitor();
    void run();
    struct State;
    State* state_;
};

}  // namespace platform::internal
