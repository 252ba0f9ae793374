// DispatchSemaphore: a counting semaphore.
//
//   auto inFlight = DispatchSemaphore::create(1000);
//   inFlight->wait();      // producer: blocks while 1000 are in flight
//   ...
//   inFlight->signal();    // consumer: one fewer in flight
//
// Contract: `wait` takes one unit, blocking while there is none; `signal`
// gives one back and wakes one waiter if any (not promised: which one). A
// timed wait that times out takes nothing. Taking and giving back when no
// thread has to wait costs one atomic operation and no lock.
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace platform {

class DispatchSemaphore;
using DispatchSemaphoreRef = std::shared_ptr<DispatchSemaphore>;

class DispatchSemaphore final : public Object {
public:
    // A negative value is a programming error.
    static DispatchSemaphoreRef create(long value);

    void wait() { waitUntil(DISPATCH_TIME_FOREVER); }
    // True when a unit was taken, false when the deadline came first.
    bool waitUntil(DispatchTime deadline);
    bool waitFor(std::chrono::nanoseconds timeout) { return waitUntil(DispatchClock::now() + timeout); }
    // True when it woke a waiting thread.
    bool signal();

private:
    template <class> friend struct ObjectAllocator;
    explicit DispatchSemaphore(long value) : value_(value) {}

    // Units available; below zero, minus the number of waiting threads.
    std::atomic<long> value_;
    std::mutex mutex_;  // guards `wakeups_`
    std::condition_variable wake_;
    long wakeups_ = 0;  // signals handed to waiters and not yet taken
};

}  // namespace platform
