// Signal: a one-way flag between threads of a test. Waiting has a generous
// time-out so that a concurrency fault fails the test instead of hanging it;
// no test relies on the time-out for its outcome.
//
//   testsupport::Signal started;
//   queue->addOperationWithBlock([&] { started.raise(); });
//   ASSERT_TRUE(started.wait());
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace testsupport {

inline constexpr auto kHangTimeout = std::chrono::seconds(20);

class Signal {
public:
    void raise()
    {
        std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }
    // True once raised `times` times in all; false when the time-out passed first.
    bool wait(int times = 1)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kHangTimeout, [&] { return count_ >= times; });
    }
    int count() const
    {
        std::lock_guard lock(mutex_);
        return count_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

}  // namespace testsupport
