#include "QMFoundation/Logging/internal/MessageBound.h"

namespace qmlogging::internal {

void MessageBound::take()
{
    long taken = taken_.load(std::memory_order_relaxed);
    for (;;) {
        while (taken < limit_) {
            if (taken_.compare_exchange_weak(taken, taken + 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
        }
        std::unique_lock lock(mutex_);
        // Counted as a sleeper before the last look: the giveBack that brings
        // the count down to `wakeAt` after this look then sees the sleeper
        // (both sides are sequentially consistent) and wakes it under the
        // lock, which it can only get once this thread waits.
        sleepers_.fetch_add(1, std::memory_order_seq_cst);
        drained_.wait(lock, [this] { return taken_.load(std::memory_order_seq_cst) < limit_; });
        sleepers_.fetch_sub(1, std::memory_order_relaxed);
        taken = taken_.load(std::memory_order_relaxed);
    }
}

void MessageBound::giveBack()
{
    // Every message taken is given back, so a full count passes through
    // `wakeAt` on its way down, one step at a time.
    const long taken = taken_.fetch_sub(1, std::memory_order_seq_cst) - 1;
    if (taken == wakeAt_ && sleepers_.load(std::memory_order_seq_cst) > 0) {
        std::lock_guard lock(mutex_);
        drained_.notify_all();
    }
}

}  // namespace qmlogging::internal
