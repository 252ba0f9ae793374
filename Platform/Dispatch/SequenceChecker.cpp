#include "Platform/Dispatch/SequenceChecker.h"

#ifndef NDEBUG

#include "Platform/Foundation/Exception.h"

namespace platform {

// A queue-bound checker marks its queue with a queue-specific value whose key
// and value are the checker's own address, so checking is one look-up of the
// calling thread's queue and needs no registry.

SequenceChecker::SequenceChecker() : thread_(std::this_thread::get_id()) {}

SequenceChecker::~SequenceChecker()
{
    unbindQueue();
}

void SequenceChecker::bindToQueue(const DispatchQueueRef& queue)
{
    unbindQueue();
    thread_ = std::thread::id();
    queue_ = queue;
    queue->setSpecific(this, this);
}

void SequenceChecker::bindToCurrentThread()
{
    unbindQueue();
    thread_ = std::this_thread::get_id();
}

void SequenceChecker::detach()
{
    unbindQueue();
    thread_ = std::thread::id();
}

void SequenceChecker::unbindQueue()
{
    if (const auto queue = queue_.lock()) {
        queue->setSpecific(this, nullptr);
    }
    queue_.reset();
}

bool SequenceChecker::calledOnValidSequence() const
{
    if (!queue_.expired()) {
        return DispatchQueue::getSpecific(this) == this;
    }
    const auto caller = std::this_thread::get_id();
    auto bound = std::thread::id();
    // A detached checker takes the first thread that checks.
    return thread_.compare_exchange_strong(bound, caller) || bound == caller;
}

void SequenceChecker::check(const char* method, const char* file, int line) const
{
    if (!calledOnValidSequence()) {
        AssertionHandler::handleFailure({method, file, line, "Called off the queue or thread the object is confined to"});
    }
}

}  // namespace platform

#endif
