// Helpers of the reachability tests: a target for a dotted IPv4 address, and
// a recorder of the flags a monitored target reports, in order, that tests
// wait on.
#pragma once

#include "Platform/SystemConfiguration/SCNetworkReachability.h"
#include "tests/Support/Signal.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <condition_variable>
#include <mutex>
#include <vector>

namespace testsupport {

inline platform::SCNetworkReachabilityRef addressTarget(const char* dotted)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, dotted, &address.sin_addr);
    return platform::SCNetworkReachabilityCreateWithAddress(reinterpret_cast<const sockaddr*>(&address));
}

class FlagsRecorder {
public:
    platform::SCNetworkReachabilityCallBack callback()
    {
        return [this](platform::SCNetworkReachabilityFlags flags) {
            std::lock_guard lock(mutex_);
            flags_.push_back(flags);
            changed_.notify_all();
        };
    }
    // Each waits until it holds or the hang time-out passes; false then.
    bool waitForCalls(std::size_t count)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kHangTimeout, [&] { return flags_.size() >= count; });
    }
    // Until the callbacks so far end with `flags`.
    bool waitForLast(platform::SCNetworkReachabilityFlags flags)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kHangTimeout, [&] { return !flags_.empty() && flags_.back() == flags; });
    }
    std::vector<platform::SCNetworkReachabilityFlags> flags() const
    {
        std::lock_guard lock(mutex_);
        return flags_;
    }

private:
    mutable std::mutex mutex_;  // guards `flags_`
    std::condition_variable changed_;
    std::vector<platform::SCNetworkReachabilityFlags> flags_;
};

}  // namespace testsupport
