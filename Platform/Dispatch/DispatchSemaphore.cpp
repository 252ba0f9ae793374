#include "Platform/Dispatch/DispatchSemaphore.h"

#include "Platform/Foundation/Exception.h"

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/Dispatch/DispatchSemaphore";

}  // namespace

DispatchSemaphoreRef DispatchSemaphore::create(long value)
{
    PLATFORM_PARAMETER_ASSERT(value >= 0, "value >= 0");
    return makeObject<DispatchSemaphore>(value);
}

bool DispatchSemaphore::signal()
{
    if (value_.fetch_add(1, std::memory_order_release) >= 0) {
        return false;
    }
    std::lock_guard lock(mutex_);
    ++wakeups_;
    wake_.notify_one();
    return true;
}

bool DispatchSemaphore::waitUntil(DispatchTime deadline)
{
    if (value_.fetch_sub(1, std::memory_order_acquire) > 0) {
        return true;
    }
    std::unique_lock lock(mutex_);
    const auto woken = [this] { return wakeups_ > 0; };
    if (deadline == DISPATCH_TIME_FOREVER || wake_.wait_until(lock, deadline, woken)) {
        wake_.wait(lock, woken);
        --wakeups_;
        return true;
    }
    // Timed out: withdraw this thread's claim, unless a signal has already
    // counted on it, in which case its wake-up is on the way and is taken.
    long current = value_.load();
    while (current < 0) {
        if (value_.compare_exchange_weak(current, current + 1)) {
            return false;
        }
    }
    wake_.wait(lock, woken);
    --wakeups_;
    return true;
}

}  // namespace platform
