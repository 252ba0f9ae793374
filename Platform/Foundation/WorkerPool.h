// WorkerPool: the threads behind every queue of the runtime.
//
// Plumbing shared by the operation queues and the dispatch queues; the
// library above never uses it directly. A job runs on some pool thread soon
// after `submit`. A thread that finds nothing to do lingers for a few
// seconds, so bursts of work reuse warm threads, then exits.
//
// What is promised: every submitted job runs, exactly once, on a pool thread.
// When no thread is idle a new one starts (up to a high ceiling), so a job
// that blocks waiting for another job cannot starve the pool the way a
// fixed-size pool would. What is not promised: order between jobs, or which
// thread runs a job. Queues build their own ordering on top.
#pragma once

#include <functional>

namespace platform::internal {

class WorkerPool {
public:
    using Job = std::function<void()>;

    // The process's one pool; never destroyed, so jobs may still run while
    // the process exits.
    static WorkerPool& shared();

    void submit(Job job);

    // Threads alive at the moment (busy or lingering); for tests and benchmarks.
    int threadCount() const;

private:
    WorkerPool();
    struct State;
    State* state_;
};

}  // namespace platform::internal
