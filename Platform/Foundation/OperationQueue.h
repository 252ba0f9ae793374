// OperationQueue: runs operations on the worker threads of the process, at
// most `maxConcurrentOperationCount` at a time, each when it is ready.
//
//   auto queue = OperationQueue::create();
//   queue->setMaxConcurrentOperationCount(1);  // a serial queue
//   queue->addOperationWithBlock([] { work(); });
//   queue->waitUntilAllOperationsAreFinished();
//
// Contract:
// - Ready operations start in the order they were added. With a maximum of 1
//   the queue is serial: each operation starts after the previous one has
//   finished, so the queue orders its work without locks.
// - An operation stays in the queue from `addOperation` until it has finished
//   and its completion block has run; a cancelled one still passes through
//   `start`, which finishes it at once.
// - The queue keeps itself alive while it holds operations, so dropping the
//   last reference does not lose submitted work.
// - The main queue runs its operations one at a time on the main thread,
//   from blocks performed on the main run loop (common modes): nothing runs
//   there unless the main thread runs its run loop.
// - Not promised: the thread an operation runs on (other than for the main
//   queue); the order in which operations of a concurrent queue end.
// - Waiting for the queue from one of its own operations is a programming
//   error, raised rather than left to deadlock.
// - A thread that waits for the queue (or for one of its operations) may run
//   an operation that is due but not yet begun itself, instead of sleeping
//   until a worker thread gets to it.
#pragma once

#include "Platform/Foundation/Guarded.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Operation.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform {

using OperationQueueRef = std::shared_ptr<OperationQueue>;

class OperationQueue final : public Object {
public:
    // As many at once as there is work (up to a ceiling of 64).
    static constexpr std::int64_t NSOperationQueueDefaultMaxConcurrentOperationCount = -1;

    static OperationQueueRef create();
    static OperationQueueRef mainQueue();
    // The queue running the calling thread's operation; on the main thread
    // outside any operation, the main queue; otherwise nothing.
    static OperationQueueRef currentQueue();

    // Adding an operation that is already in a queue, executing or finished
    // raises "NSInvalidArgumentException".
    void addOperation(const OperationRef& operation);
    void addOperations(const std::vector<OperationRef>& operations, bool waitUntilFinished);
    void addOperationWithBlock(std::function<void()> block);

    std::vector<OperationRef> operations() const;
    std::size_t operationCount() const;

    std::int64_t maxConcurrentOperationCount() const;
    void setMaxConcurrentOperationCount(std::int64_t count);
    bool isSuspended() const;
    // A suspended queue starts nothing new; running operations go on.
    void setSuspended(bool suspended);
    std::string name() const;
    void setName(std::string name);

    void cancelAllOperations();
    // Blocks until the queue holds no operation. On the main thread, for the
    // main queue, the main run loop is run meanwhile.
    void waitUntilAllOperationsAreFinished();

    bool isMainQueue() const { return isMain_; }

    // Runs on the calling thread the queue's next operation that is due but
    // not yet begun by a worker thread; false when there is none (always for
    // the main queue). For a thread that waits on the queue's work anyway.
    bool runPendingOperationOnCurrentThread();
    // While set, operations that come due are not handed to worker threads:
    // `waker` is called instead (on the thread that made them due) and the
    // thread it wakes runs them with runPendingOperationOnCurrentThread.
    // Setting nothing hands whatever is left to the workers. For a thread
    // that blocks until the queue's next operation has run anyway. Not for
    // the main queue.
    void setServicingWaker(std::function<void()> waker);

private:
    friend class Operation;
    template <class> friend struct ObjectAllocator;
    explicit OperationQueue(bool isMain);

    // Starts every operation that may start now.
    void schedule();
    // The job of a worker thread: runs the operation unless a waiting
    // thread has taken it on meanwhile.
    void run(const OperationRef& operation);
    // Runs `operation` on the calling thread if it is handed out to a worker
    // that has not begun it; false otherwise.
    bool runIfStillDispatched(const Operation& operation);
    // Under `mutex_`: takes `operation` off the handed-out list and returns
    // it; nothing when it is not there (a thread has begun it).
    OperationRef takeDispatchedLocked(const Operation* operation);
    void execute(const OperationRef& operation);
    void operationDidEnd(const Operation& operation);
    // Waits on the main thread for the main queue by running the main run loop.
    static void pumpMainRunLoopUntil(const std::function<bool()>& done);

    const bool isMain_;
    Guarded<std::string> name_;  // tied to nothing else; never touched while `mutex_` is held
    mutable std::mutex mutex_;  // guards the fields below
    std::condition_variable changed_;  // an operation ended or was handed out
    // In the order they were added. Operations mostly end near the front, which
    // a deque gives up without moving the rest (thousands, when a batch is queued).
    std::deque<OperationRef> operations_;
    std::vector<const Operation*> started_;
    std::vector<const Operation*> dispatched_;  // due, not begun yet, in order
    std::function<void()> servicingWaker_;
    std::int64_t maxConcurrent_;
    bool suspended_ = false;
    std::shared_ptr<OperationQueue> keepAlive_;  // set while `operations_` is not empty
};

}  // namespace platform
