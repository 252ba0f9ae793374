// SequenceChecker: a debug-build check that an object confined to one
// dispatch queue or one thread is used only there.
//
//   class Context {
//   public:
//       explicit Context(const DispatchQueueRef& queue) { sequence_.bindToQueue(queue); }
//       void save() { PLATFORM_CHECK_SEQUENCE(sequence_); ... }
//   private:
//       [[no_unique_address]] SequenceChecker sequence_;
//   };
//
// Contract:
// - A checker starts bound to the thread that made it. `bindToQueue` binds it
//   to a queue instead: code passes the check while it runs on that queue (the
//   innermost queue of the calling thread, as queue-specific values are seen;
//   the main queue on the main thread outside any other queue). `detach`
//   leaves it unbound, and the next check binds it to the checking thread.
// - A failed check goes through the assertion handler and raises
//   "NSInternalInconsistencyException" naming the method, file and line.
// - Binding is not synchronised with checks: bind before the object is shared.
// - In release builds (NDEBUG) the class is empty, every member does nothing
//   and PLATFORM_CHECK_SEQUENCE compiles to nothing; declare the member
//   [[no_unique_address]] so it takes no room either.
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"

#include <atomic>
#include <memory>
#include <thread>

namespace platform {

#ifndef NDEBUG

class SequenceChecker {
public:
    SequenceChecker();
    ~SequenceChecker();
    SequenceChecker(const SequenceChecker&) = delete;
    SequenceChecker& operator=(const SequenceChecker&) = delete;

    void bindToQueue(const DispatchQueueRef& queue);
    void bindToCurrentThread();
    void detach();

    // Whether the caller is where the checker is bound (binding a detached
    // checker to the calling thread).
    bool calledOnValidSequence() const;
    // Raises through the assertion handler unless `calledOnValidSequence`.
    void check(const char* method, const char* file, int line) const;

private:
    void unbindQueue();

    std::weak_ptr<DispatchQueue> queue_;
    mutable std::atomic<std::thread::id> thread_;
};

#define PLATFORM_CHECK_SEQUENCE(checker) (checker).check(__func__, kAssertionSourceFile, __LINE__)

#else

class SequenceChecker {
public:
    void bindToQueue(const DispatchQueueRef&) {}
    void bindToCurrentThread() {}
    void detach() {}
    bool calledOnValidSequence() const { return true; }
    void check(const char*, const char*, int) const {}
};

#define PLATFORM_CHECK_SEQUENCE(checker) \
    do {                                 \
    } while (false)

#endif

}  // namespace platform
