#include "Platform/Foundation/WakeableEpoll.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <ctime>
#include <system_error>

namespace platform::internal {
namespace {

int waitForEpollEvents(int epoll, epoll_event* events, int capacity, double seconds)
{
    if (seconds <= 0) {
        return ::epoll_wait(epoll, events, capacity, 0);
    }
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(seconds);
    timeout.tv_nsec = static_cast<long>((seconds - static_cast<double>(timeout.tv_sec)) * 1e9);
    static std::atomic<bool> precise{true};
    if (precise.load(std::memory_order_relaxed)) {
        const int count = ::epoll_pwait2(epoll, events, capacity, &timeout, nullptr);
        if (count >= 0 || errno != ENOSYS) {
            return count;
        }
        precise.store(false, std::memory_order_relaxed);
    }
    return ::epoll_wait(epoll, events, capacity, static_cast<int>(std::ceil(seconds * 1000)));
}

}  // namespace

WakeableEpoll::WakeableEpoll()
    : epoll_(::epoll_create1(EPOLL_CLOEXEC)), wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (epoll_ < 0 || wakeFd_ < 0) {
        const int error = errno;
        ::close(epoll_);
        ::close(wakeFd_);
        throw std::system_error(error, std::generic_category(), "epoll");
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeTag;
    ::epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeFd_, &event);
}

WakeableEpoll::~WakeableEpoll()
{
    ::close(wakeFd_);
    ::close(epoll_);
}

int WakeableEpoll::wait(epoll_event* events, int capacity, std::optional<double> seconds)
{
    const int count = seconds ? waitForEpollEvents(epoll_, events, capacity, *seconds)
                              : ::epoll_wait(epoll_, events, capacity, -1);
    int kept = 0;
    for (int index = 0; index < count; ++index) {
        if (events[index].data.u64 == kWakeTag) {
            std::uint64_t drained = 0;
            [[maybe_unused]] const auto read = ::read(wakeFd_, &drained, sizeof drained);
            continue;
        }
        events[kept++] = events[index];
    }
    return kept;
}

void WakeableEpoll::wake() const
{
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wakeFd_, &one, sizeof one);
}

}  // namespace platform::internal
