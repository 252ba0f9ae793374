#include "Platform/Foundation/Operation.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Thread.h"

#include <algorithm>

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/Foundation/Operation";

thread_local Operation* currentOperationOnThread = nullptr;

class CurrentOperationScope {
public:
    explicit CurrentOperationScope(Operation* operation) : previous_(currentOperationOnThread)
    {
        currentOperationOnThread = operation;
    }
    ~CurrentOperationScope() { currentOperationOnThread = previous_; }
    CurrentOperationScope(const CurrentOperationScope&) = delete;
    CurrentOperationScope& operator=(const CurrentOperationScope&) = delete;

private:
    Operation* previous_;
};

[[noreturn]] void raiseInvalidArgument(const Operation& operation, const char* problem)
{
    Exception::raise(NSInvalidArgumentException,
                     "*** -[" + operation.className() + " start]: receiver is " + problem);
}

}  // namespace

Operation::~Operation() = default;

// A subclass that keeps its own state and announces it under its own keys
// turns these off through automaticallyNotifiesObserversForKey.
void Operation::willChangeState(std::string_view key)
{
    if (automaticallyNotifiesObserversForKey(key)) {
        willChangeValueForKey(key);
    }
}

void Operation::didChangeState(std::string_view key)
{
    if (automaticallyNotifiesObserversForKey(key)) {
        didChangeValueForKey(key);
    }
}

void Operation::main() {}

void Operation::start()
{
    {
        std::unique_lock lock(mutex_);
        if (state_ == State::Executing) {
            lock.unlock();
            raiseInvalidArgument(*this, "already executing");
        }
        if (state_ == State::Finished) {
            return;
        }
    }
    if (!isReady()) {
        raiseInvalidArgument(*this, "not yet ready to execute");
    }
    const bool skip = isCancelled();
    if (!skip) {
        willChangeState("isExecuting");
        {
            std::lock_guard lock(mutex_);
            state_ = State::Executing;
        }
        didChangeState("isExecuting");
        CurrentOperationScope scope(this);
        try {
            main();
        } catch (...) {
            finishFromStart();
            throw;
        }
    }
    finishFromStart();
}

void Operation::finishFromStart()
{
    bool wasExecuting = false;
    {
        std::lock_guard lock(mutex_);
        wasExecuting = state_ == State::Executing;
    }
    if (wasExecuting) {
        willChangeState("isExecuting");
    }
    willChangeState("isFinished");
    {
        std::lock_guard lock(mutex_);
        state_ = State::Finished;
    }
    didChangeState("isFinished");
    if (wasExecuting) {
        didChangeState("isExecuting");
    }
    completeIfEnded();
}

bool Operation::isExecuting() const
{
    std::lock_guard lock(mutex_);
    return state_ == State::Executing;
}

bool Operation::isFinished() const
{
    std::lock_guard lock(mutex_);
    return state_ == State::Finished;
}

bool Operation::hasEnded() const
{
    {
        std::lock_guard lock(mutex_);
        if (state_ == State::Finished) {
            return true;
        }
    }
    return isConcurrent() && isFinished();
}

bool Operation::isReady() const
{
    if (isCancelled()) {
        return true;
    }
    std::vector<OperationRef> dependencies;
    {
        std::lock_guard lock(mutex_);
        dependencies = dependencies_;
    }
    return std::all_of(dependencies.begin(), dependencies.end(),
                       [](const OperationRef& dependency) { return dependency->hasEnded(); });
}

void Operation::cancel()
{
    if (cancelRequested_.exchange(true)) {
        return;
    }
    const bool wasReady = isReady();
    willChangeState("isCancelled");
    if (!wasReady) {
        willChangeState("isReady");
    }
    cancelled_.store(true);
    if (!wasReady) {
        didChangeState("isReady");
    }
    didChangeState("isCancelled");
    if (auto owner = queue()) {
        owner->schedule();
    }
}

void Operation::addDependency(const OperationRef& operation)
{
    PLATFORM_PARAMETER_ASSERT(operation != nullptr, "op != nil");
    PLATFORM_PARAMETER_ASSERT(operation.get() != this, "op != self");
    willChangeState("isReady");
    {
        std::lock_guard lock(mutex_);
        dependencies_.push_back(operation);
    }
    {
        std::lock_guard lock(operation->mutex_);
        operation->dependents_.push_back(std::static_pointer_cast<Operation>(shared_from_this()));
    }
    didChangeState("isReady");
    // The dependency may have ended while it was being added; look again.
    if (operation->hasEnded()) {
        dependencyDidEnd();
    }
}

void Operation::removeDependency(const OperationRef& operation)
{
    willChangeState("isReady");
    {
        std::lock_guard lock(mutex_);
        std::erase(dependencies_, operation);
    }
    didChangeState("isReady");
    if (auto owner = queue()) {
        owner->schedule();
    }
}

std::vector<OperationRef> Operation::dependencies() const
{
    std::lock_guard lock(mutex_);
    return dependencies_;
}

std::function<void()> Operation::completionBlock() const
{
    std::lock_guard lock(mutex_);
    return completionBlock_;
}

void Operation::setCompletionBlock(std::function<void()> block)
{
    std::function<void()> previous;  // released outside the lock
    std::lock_guard lock(mutex_);
    previous = std::exchange(completionBlock_, std::move(block));
}

std::string Operation::name() const
{
    return name_.get();
}

void Operation::setName(std::string name)
{
    name_.set(std::move(name));
}

void Operation::operationStateDidChange()
{
    completeIfEnded();
}

void Operation::completeIfEnded()
{
    if (!hasEnded() || completionStarted_.exchange(true)) {
        return;
    }
    std::function<void()> completion;
    std::vector<std::weak_ptr<Operation>> dependents;
    {
        std::lock_guard lock(mutex_);
        completion = std::move(completionBlock_);
        completionBlock_ = nullptr;
        dependents = dependents_;
    }
    if (completion) {
        completion();
        completion = nullptr;
    }
    {
        std::lock_guard lock(mutex_);
        completed_.store(true);
    }
    ended_.notify_all();
    if (auto owner = queue()) {
        owner->operationDidEnd(*this);
    }
    for (const auto& weakDependent : dependents) {
        if (auto dependent = weakDependent.lock()) {
            dependent->dependencyDidEnd();
        }
    }
}

void Operation::dependencyDidEnd()
{
    if (!isReady()) {
        return;
    }
    willChangeState("isReady");
    didChangeState("isReady");
    if (auto owner = queue()) {
        owner->schedule();
    }
}

bool Operation::claimForQueue(const std::shared_ptr<OperationQueue>& queue)
{
    std::lock_guard lock(mutex_);
    if (claimed_ || state_ != State::Ready) {
        return false;
    }
    claimed_ = true;
    queue_ = queue;
    return true;
}

std::shared_ptr<OperationQueue> Operation::queue() const
{
    std::lock_guard lock(mutex_);
    return queue_.lock();
}

void Operation::waitUntilFinished()
{
    PLATFORM_ASSERT(currentOperationOnThread != this, "waitUntilFinished called from inside the operation itself");
    if (hasEnded()) {
        completeIfEnded();
    }
    auto owner = queue();
    if (owner && owner->isMainQueue() && Thread::isMainThread()) {
        OperationQueue::pumpMainRunLoopUntil([this] { return completed_.load(); });
        return;
    }
    if (owner && !owner->isMainQueue()) {
        owner->runIfStillDispatched(*this);
    }
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return completed_.load(); });
}

OperationRef Operation::currentOperation()
{
    if (currentOperationOnThread == nullptr) {
        return nullptr;
    }
    return std::static_pointer_cast<Operation>(currentOperationOnThread->shared_from_this());
}

const PropertyTable& Operation::propertyTable() const
{
    static const auto table = PropertyTable::extending<Operation>(Object::propertyTable(), {
        {"isCancelled", [](const Operation& operation) { return Value(operation.isCancelled()); }},
        {"isExecuting", [](const Operation& operation) { return Value(operation.isExecuting()); }},
        {"isFinished", [](const Operation& operation) { return Value(operation.isFinished()); }},
        {"isReady", [](const Operation& operation) { return Value(operation.isReady()); }},
        {"isConcurrent", [](const Operation& operation) { return Value(operation.isConcurrent()); }},
        {"isAsynchronous", [](const Operation& operation) { return Value(operation.isAsynchronous()); }},
        {"name", [](const Operation& operation) { return Value(operation.name()); }},
    });
    return table;
}

// --- BlockOperation

std::shared_ptr<BlockOperation> BlockOperation::create()
{
    return makeObject<BlockOperation>();
}

std::shared_ptr<BlockOperation> BlockOperation::create(std::function<void()> block)
{
    auto operation = create();
    operation->addExecutionBlock(std::move(block));
    return operation;
}

void BlockOperation::addExecutionBlock(std::function<void()> block)
{
    PLATFORM_PARAMETER_ASSERT(block != nullptr, "block != nil");
    if (isExecuting() || isFinished()) {
        Exception::raise(NSInvalidArgumentException,
                         "*** -[NSBlockOperation addExecutionBlock:]: blocks cannot be added after the operation has started executing or finished");
    }
    std::lock_guard lock(blocksMutex_);
    blocks_.push_back(std::move(block));
}

std::vector<std::function<void()>> BlockOperation::executionBlocks() const
{
    std::lock_guard lock(blocksMutex_);
    return blocks_;
}

void BlockOperation::main()
{
    std::vector<std::function<void()>> blocks;
    {
        // Released when the operation has run, so captured objects do not
        // outlive the work.
        std::lock_guard lock(blocksMutex_);
        blocks.swap(blocks_);
    }
    for (auto& block : blocks) {
        block();
    }
}

}  // namespace platform
