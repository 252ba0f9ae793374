// WakeableEpoll: an epoll set whose waits other threads can interrupt, for
// the threads that wait on kernel events: the event monitor and the run loops.
#pragma once

#include <cstdint>
#include <optional>
#include <sys/epoll.h>

namespace platform::internal {

// Descriptors are added with `epoll_ctl` on `descriptor()`, their `data.u64`
// any value but `kWakeTag`, which marks the set's own eventfd.
class WakeableEpoll {
public:
    static constexpr std::uint64_t kWakeTag = ~std::uint64_t{0};

    WakeableEpoll();  // raises std::system_error when the kernel refuses
    ~WakeableEpoll();
    WakeableEpoll(const WakeableEpoll&) = delete;
    WakeableEpoll& operator=(const WakeableEpoll&) = delete;

    int descriptor() const { return epoll_; }
    // Waits up to `seconds` (nothing: without limit; zero or less: not at
    // all), with nanosecond precision where the kernel offers it. Returns the
    // number of events stored, wake-ups left out.
    int wait(epoll_event* events, int capacity, std::optional<double> seconds);
    // Ends a wait in progress, or the next one.
    void wake() const;

private:
    int epoll_;
    int wakeFd_;
};

}  // namespace platform::internal
