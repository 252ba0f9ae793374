// Operation: one unit of work with a life cycle (ready, executing, finished),
// cancellation, dependencies and a completion block; BlockOperation runs
// closures.
//
//   auto download = BlockOperation::create([] { fetch(); });
//   auto parse = BlockOperation::create([] { parse(); });
//   parse->addDependency(download);
//   queue->addOperation(parse);
//   queue->addOperation(download);
//
// Contract:
// - `start` runs the operation on the calling thread. The base `start` of a
//   non-concurrent operation checks the state, marks it executing, calls
//   `main` (skipped when the operation was cancelled before), then marks it
//   finished. An operation queue calls `start` on one of its threads.
// - A concurrent operation overrides `start` and keeps its own executing and
//   finished state (overriding `isExecuting` and `isFinished`). If it is still
//   unfinished when `start` returns, it must call `operationStateDidChange`
//   once `isFinished` has become true, so that waiters and queues notice.
// - State changes are announced as key-value change notifications under the
//   keys "isCancelled", "isReady", "isExecuting" and "isFinished", sent on the
//   thread that makes the change, never while a lock is held.
// - `cancel` only records the wish; `main` reads `isCancelled` and stops when
//   it likes. A cancelled operation counts as ready whatever its dependencies.
// - The completion block runs once, on the thread that finished the
//   operation, after `isFinished` became true and before `waitUntilFinished`
//   returns. It is cleared afterwards, which breaks the usual cycle of a
//   block that holds its own operation.
// - Not promised: which thread a queue uses; the order between operations of
//   a queue that runs several at once. Dependency cycles are not detected:
//   the operations of a cycle never become ready.
// - An exception that leaves `main` propagates out of `start` after the
//   operation was marked finished; on a queue's thread it ends the process,
//   like any uncaught exception.
#pragma once

#include "Platform/Foundation/Guarded.h"
#include "Platform/Foundation/Object.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

class Operation;
class OperationQueue;
using OperationRef = std::shared_ptr<Operation>;

class Operation : public Object {
public:
    ~Operation() override;

    virtual void start();
    // The work; the base does nothing.
    virtual void main();

    // Virtual so that a queue's cancel-all reaches a subclass's own cancel.
    virtual void cancel();
    bool isCancelled() const { return cancelled_.load(); }
    virtual bool isExecuting() const;
    virtual bool isFinished() const;
    virtual bool isConcurrent() const { return false; }
    bool isAsynchronous() const { return isConcurrent(); }
    // True when every dependency has finished, or when cancelled.
    virtual bool isReady() const;

    void addDependency(const OperationRef& operation);
    void removeDependency(const OperationRef& operation);
    std::vector<OperationRef> dependencies() const;

    std::function<void()> completionBlock() const;
    void setCompletionBlock(std::function<void()> block);

    std::string name() const;
    void setName(std::string name);

    // Blocks until the operation has finished and its completion block has
    // run. On the main thread, for an operation of the main queue, the main
    // run loop is run meanwhile. Waiting from inside the operation itself is
    // a programming error, raised rather than left to deadlock.
    void waitUntilFinished();

    // The operation that the calling thread is running, if any.
    static OperationRef currentOperation();

    const PropertyTable& propertyTable() const override;

protected:
    Operation() = default;

    // For concurrent operations: see the contract above.
    void operationStateDidChange();

    // Change announcements, to key-value observers of the operation; every
    // state change of this class passes through these two. A key for which
    // automaticallyNotifiesObserversForKey answers false is not announced.
    void willChangeState(std::string_view key);
    void didChangeState(std::string_view key);

private:
    friend class OperationQueue;
    enum class State { Ready, Executing, Finished };

    // Finished as far as waiters and queues are concerned: the base life
    // cycle ended, or a concurrent operation reports itself finished.
    bool hasEnded() const;
    void finishFromStart();
    void completeIfEnded();
    void dependencyDidEnd();
    // Set by a queue when it takes the operation; returns false when another
    // queue has it already.
    bool claimForQueue(const std::shared_ptr<OperationQueue>& queue);
    std::shared_ptr<OperationQueue> queue() const;

    std::atomic<bool> cancelled_{false};
    std::atomic<bool> cancelRequested_{false};
    std::atomic<bool> completionStarted_{false};
    std::atomic<bool> completed_{false};  // completion block ran, waiters released
    Guarded<std::string> name_;  // tied to nothing else; never touched while `mutex_` is held

    mutable std::mutex mutex_;  // guards the fields below
    std::condition_variable ended_;
    State state_ = State::Ready;
    bool claimed_ = false;
    std::vector<OperationRef> dependencies_;
    std::vector<std::weak_ptr<Operation>> dependents_;
    std::function<void()> completionBlock_;
    std::weak_ptr<OperationQueue> queue_;
};

// Runs its closures, one after another, on the thread that starts it.
class BlockOperation final : public Operation {
public:
    static std::shared_ptr<BlockOperation> create(std::function<void()> block);
    static std::shared_ptr<BlockOperation> create();

    // Adding a block once the operation executes is a programming error.
    void addExecutionBlock(std::function<void()> block);
    std::vector<std::function<void()>> executionBlocks() const;

    void main() override;

private:
    template <class> friend struct ObjectAllocator;
    BlockOperation() = default;

    mutable std::mutex blocksMutex_;  // guards `blocks_`
    std::vector<std::function<void()>> blocks_;
};

}  // namespace platform
