// DispatchGroup: counts work in flight, across queues, and tells when it is
// all done.
//
//   auto group = DispatchGroup::create();
//   group->async(queue, [] { part1(); });
//   group->async(otherQueue, [] { part2(); });
//   group->notify(DispatchQueue::main(), [] { both done });
//
// Contract:
// - The group is empty when every `enter` has been matched by a `leave`.
//   `leave` without a matching `enter` is a programming error (raised).
// - `notify` blocks are submitted (asynchronously, to their queues) each time
//   the group becomes empty, in the order they were registered; a block
//   registered while the group is empty is submitted at once. Each block is
//   submitted once.
// - `wait` returns when the group is empty; the timed form returns false
//   when the time-out came first. A group that never filled does not block.
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"

#include <condition_variable>
#include <mutex>

namespace platform {

class DispatchGroup;
using DispatchGroupRef = std::shared_ptr<DispatchGroup>;

class DispatchGroup final : public Object {
public:
    static DispatchGroupRef create();

    void enter();
    void leave();
    // enter, run `block` on `queue`, leave.
    void async(const DispatchQueueRef& queue, std::function<void()> block);
    void notify(const DispatchQueueRef& queue, std::function<void()> block);

    void wait();
    bool waitUntil(DispatchTime deadline);
    bool waitFor(std::chrono::nanoseconds timeout) { return waitUntil(DispatchClock::now() + timeout); }

private:
    template <class> friend struct ObjectAllocator;
    DispatchGroup() = default;

    std::mutex mutex_;  // guards the fields below
    std::condition_variable emptied_;
    long count_ = 0;
    std::vector<std::pair<DispatchQueueRef, std::function<void()>>> notifications_;
};

}  // namespace platform
