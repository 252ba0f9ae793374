#include "Platform/Foundation/OperationQueue.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Thread.h"
#include "Platform/Foundation/WorkerPool.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/Foundation/OperationQueue";

// The width of a queue left at the default maximum.
constexpr std::int64_t kDefaultWidth = 64;

thread_local OperationQueue* currentQueueOnThread = nullptr;

class CurrentQueueScope {
public:
    explicit CurrentQueueScope(OperationQueue* queue) : previous_(currentQueueOnThread) { currentQueueOnThread = queue; }
    ~CurrentQueueScope() { currentQueueOnThread = previous_; }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;

private:
    OperationQueue* previous_;
};

// A queue's job on this thread. When one of its operations ends there, the
// queue's next operation is handed back to the job instead of to another
// thread: a serial queue's chain of work then runs without a hand-over.
struct Continuation {
    const OperationQueue* queue;
    OperationRef next;
    bool accepting = false;  // only while the ending operation is being accounted for
};
thread_local Continuation* currentContinuation = nullptr;

[[noreturn]] void raiseNotEnqueued(const char* problem)
{
    Exception::raise(NSInvalidArgumentException, std::string("*** -[NSOperationQueue addOperation:]: operation ") + problem);
}

}  // namespace

OperationQueue::OperationQueue(bool isMain)
    : isMain_(isMain),
      name_(isMain ? "NSOperationQueue Main Queue" : "NSOperationQueue " + addressString()),
      maxConcurrent_(isMain ? 1 : NSOperationQueueDefaultMaxConcurrentOperationCount)
{
}

OperationQueueRef OperationQueue::create()
{
    return makeObject<OperationQueue>(false);
}

OperationQueueRef OperationQueue::mainQueue()
{
    static const auto* main = new OperationQueueRef(makeObject<OperationQueue>(true));
    return *main;
}

OperationQueueRef OperationQueue::currentQueue()
{
    if (currentQueueOnThread != nullptr) {
        return std::static_pointer_cast<OperationQueue>(currentQueueOnThread->shared_from_this());
    }
    return Thread::isMainThread() ? mainQueue() : nullptr;
}

void OperationQueue::addOperation(const OperationRef& operation)
{
    PLATFORM_PARAMETER_ASSERT(operation != nullptr, "op != nil");
    if (operation->isExecuting()) {
        raiseNotEnqueued("is executing and cannot be enqueued");
    }
    if (operation->isFinished()) {
        raiseNotEnqueued("is finished and cannot be enqueued");
    }
    auto self = std::static_pointer_cast<OperationQueue>(shared_from_this());
    if (!operation->claimForQueue(self)) {
        raiseNotEnqueued("is already enqueued on a queue");
    }
    {
        std::lock_guard lock(mutex_);
        operations_.push_back(operation);
        keepAlive_ = self;
    }
    schedule();
}

void OperationQueue::addOperations(const std::vector<OperationRef>& operations, bool waitUntilFinished)
{
    for (const auto& operation : operations) {
        addOperation(operation);
    }
    if (waitUntilFinished) {
        for (const auto& operation : operations) {
            operation->waitUntilFinished();
        }
    }
}

void OperationQueue::addOperationWithBlock(std::function<void()> block)
{
    addOperation(BlockOperation::create(std::move(block)));
}

std::vector<OperationRef> OperationQueue::operations() const
{
    std::lock_guard lock(mutex_);
    return {operations_.begin(), operations_.end()};
}

std::size_t OperationQueue::operationCount() const
{
    std::lock_guard lock(mutex_);
    return operations_.size();
}

std::int64_t OperationQueue::maxConcurrentOperationCount() const
{
    std::lock_guard lock(mutex_);
    return maxConcurrent_;
}

void OperationQueue::setMaxConcurrentOperationCount(std::int64_t count)
{
    if (isMain_) {
        return;  // the main queue is serial by nature
    }
    {
        std::lock_guard lock(mutex_);
        maxConcurrent_ = count;
    }
    schedule();
}

bool OperationQueue::isSuspended() const
{
    std::lock_guard lock(mutex_);
    return suspended_;
}

void OperationQueue::setSuspended(bool suspended)
{
    {
        std::lock_guard lock(mutex_);
        suspended_ = suspended;
    }
    schedule();
}

std::string OperationQueue::name() const
{
    return name_.get();
}

void OperationQueue::setName(std::string name)
{
    name_.set(std::move(name));
}

void OperationQueue::cancelAllOperations()
{
    for (const auto& operation : operations()) {
        operation->cancel();
    }
}

void OperationQueue::schedule()
{
    // Mostly one operation becomes startable at a time (one ended, or one was
    // added): it is kept apart from the rest, so that an ending operation's
    // thread takes its successor without a list being made for it.
    OperationRef first;
    std::vector<OperationRef> more;
    std::shared_ptr<OperationQueue> self;
    std::function<void()> servicing;
    bool handedOut = false;
    {
        std::lock_guard lock(mutex_);
        if (suspended_ || operations_.empty()) {
            return;
        }
        const std::int64_t width = maxConcurrent_ < 0 ? kDefaultWidth : maxConcurrent_;
        auto running = static_cast<std::int64_t>(started_.size());
        for (const auto& operation : operations_) {
            if (running >= width) {
                break;
            }
            if (std::find(started_.begin(), started_.end(), operation.get()) != started_.end() || !operation->isReady()) {
                continue;
            }
            started_.push_back(operation.get());
            if (!first) {
                first = operation;
            } else {
                more.push_back(operation);
            }
            ++running;
        }
        if (!first) {
            return;
        }
        self = keepAlive_;
        Continuation* continuation = currentContinuation;
        if (continuation != nullptr && continuation->queue == this && continuation->accepting && !continuation->next) {
            continuation->next = std::move(first);
            first = nullptr;
        }
        if (!isMain_) {
            if (first) {
                dispatched_.push_back(first.get());
            }
            for (const auto& operation : more) {
                dispatched_.push_back(operation.get());
            }
        }
        handedOut = !isMain_ && (first || !more.empty());
        servicing = servicingWaker_;
    }
    // A thread that waits for the queue may take these on itself. An
    // operation that the ending one's thread goes on with is no news to it.
    if (handedOut) {
        changed_.notify_all();
    }
    if (servicing) {
        servicing();  // the servicing thread runs them; no worker is woken
        return;
    }
    const auto hand = [this, &self](OperationRef operation) {
        auto job = [self, operation = std::move(operation)] { self->run(operation); };
        if (isMain_) {
            RunLoop::mainRunLoop()->performBlock(std::move(job));
        } else {
            internal::WorkerPool::shared().submit(std::move(job));
        }
    };
    if (first) {
        hand(std::move(first));
    }
    for (auto& operation : more) {
        hand(std::move(operation));
    }
}

OperationRef OperationQueue::takeDispatchedLocked(const Operation* operation)
{
    const auto found = std::find(dispatched_.begin(), dispatched_.end(), operation);
    if (found == dispatched_.end()) {
        return nullptr;
    }
    dispatched_.erase(found);
    const auto held = std::find_if(operations_.begin(), operations_.end(),
                                   [operation](const OperationRef& candidate) { return candidate.get() == operation; });
    return held != operations_.end() ? *held : nullptr;
}

void OperationQueue::run(const OperationRef& operation)
{
    if (!isMain_) {
        std::lock_guard lock(mutex_);
        if (!takeDispatchedLocked(operation.get())) {
            return;  // a waiting thread ran it already
        }
    }
    execute(operation);
}

bool OperationQueue::runIfStillDispatched(const Operation& operation)
{
    OperationRef taken;
    {
        std::lock_guard lock(mutex_);
        taken = takeDispatchedLocked(&operation);
    }
    if (!taken) {
        return false;
    }
    execute(taken);
    return true;
}

void OperationQueue::setServicingWaker(std::function<void()> waker)
{
    PLATFORM_PARAMETER_ASSERT(!isMain_ || !waker, "!isMainQueue");
    std::vector<OperationRef> orphaned;
    std::shared_ptr<OperationQueue> self;
    {
        std::lock_guard lock(mutex_);
        servicingWaker_ = std::move(waker);
        if (servicingWaker_) {
            return;
        }
        for (const auto& operation : operations_) {
            if (std::find(dispatched_.begin(), dispatched_.end(), operation.get()) != dispatched_.end()) {
                orphaned.push_back(operation);
            }
        }
        self = keepAlive_;
    }
    // Whatever the servicing thread left goes to the workers after all.
    for (auto& operation : orphaned) {
        internal::WorkerPool::shared().submit([self, operation = std::move(operation)] { self->run(operation); });
    }
}

bool OperationQueue::runPendingOperationOnCurrentThread()
{
    OperationRef taken;
    {
        std::lock_guard lock(mutex_);
        if (!dispatched_.empty()) {
            taken = takeDispatchedLocked(dispatched_.front());
        }
    }
    if (!taken) {
        return false;
    }
    execute(taken);
    return true;
}

void OperationQueue::execute(const OperationRef& operation)
{
    CurrentQueueScope scope(this);
    Continuation continuation{this, operation};
    Continuation* const outer = std::exchange(currentContinuation, &continuation);
    while (continuation.next) {
        const OperationRef current = std::move(continuation.next);
        continuation.next = nullptr;
        current->start();
        // A concurrent operation may have ended inside `start` without saying so.
        current->completeIfEnded();
    }
    currentContinuation = outer;
}

void OperationQueue::operationDidEnd(const Operation& operation)
{
    std::shared_ptr<OperationQueue> released;  // may be the last reference: dropped on the way out
    bool emptied = false;
    {
        std::lock_guard lock(mutex_);
        const auto held = std::find_if(operations_.begin(), operations_.end(),
                                       [&](const OperationRef& candidate) { return candidate.get() == &operation; });
        if (held != operations_.end()) {
            operations_.erase(held);
        }
        std::erase(started_, &operation);
        emptied = operations_.empty();
        if (emptied) {
            released = std::move(keepAlive_);
        }
    }
    // Waiters wait for the queue to empty or for an operation handed out,
    // which `schedule` announces; waking them for every end would cost a
    // thread switch per operation.
    if (emptied) {
        changed_.notify_all();
    }
    Continuation* continuation = currentContinuation;
    const bool inOwnJob = continuation != nullptr && continuation->queue == this;
    if (inOwnJob) {
        continuation->accepting = true;
    }
    schedule();
    if (inOwnJob) {
        continuation->accepting = false;
    }
}

void OperationQueue::pumpMainRunLoopUntil(const std::function<bool()>& done)
{
    const auto loop = RunLoop::mainRunLoop();
    while (!done()) {
        if (!loop->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(0.05))) {
            // The main loop is empty: what we wait for is held up elsewhere (a
            // dependency on another queue). Look again shortly.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void OperationQueue::waitUntilAllOperationsAreFinished()
{
    PLATFORM_ASSERT(currentQueueOnThread != this,
                    "waitUntilAllOperationsAreFinished called from an operation of the same queue");
    if (isMain_ && Thread::isMainThread()) {
        pumpMainRunLoopUntil([this] { return operationCount() == 0; });
        return;
    }
    if (isMain_) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return operations_.empty(); });
        return;
    }
    // Rather than sleep while a worker thread is being woken for it, the
    // waiting thread runs the queue's next operation itself when one is
    // handed out but not begun yet: which thread runs an operation is not
    // promised, and the order is the queue's either way.
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return operations_.empty() || !dispatched_.empty(); });
            if (operations_.empty()) {
                return;
            }
        }
        runPendingOperationOnCurrentThread();
    }
}

}  // namespace platform
