#include "Platform/Foundation/WorkerPool.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <system_error>
#include <mutex>
#include <thread>
#include <vector>

namespace platform::internal {
namespace {

// Past this many threads, jobs wait in the backlog for a thread to come free.
constexpr int kMaximumThreads = 512;
constexpr auto kLinger = std::chrono::seconds(3);

struct IdleWorker {
    std::condition_variable wake;
    WorkerPool::Job job;  // set by `submit` while the worker sleeps
};

}  // namespace

struct WorkerPool::State {
    mutable std::mutex mutex;  // guards everything below
    std::vector<IdleWorker*> idle;  // most recently idle last: the warmest thread is reused first
    std::deque<Job> backlog;
    int threads = 0;

    void run(Job job)
    {
        IdleWorker self;
        for (;;) {
            job();
            job = nullptr;
            std::unique_lock lock(mutex);
            if (!backlog.empty()) {
                job = std::move(backlog.front());
                backlog.pop_front();
                continue;
            }
            idle.push_back(&self);
            const bool woken = self.wake.wait_for(lock, kLinger, [&] { return self.job != nullptr; });
            if (!woken) {
                std::erase(idle, &self);
                --threads;
                return;
            }
            job = std::move(self.job);
            self.job = nullptr;
        }
    }
};

WorkerPool& WorkerPool::shared()
{
    static auto* pool = new WorkerPool;
    return *pool;
}

WorkerPool::WorkerPool() : state_(new State) {}

void WorkerPool::submit(Job job)
{
    State& pool = *state_;
    std::unique_lock lock(pool.mutex);
    if (!pool.idle.empty()) {
        IdleWorker* worker = pool.idle.back();
        pool.idle.pop_back();
        worker->job = std::move(job);
        // Notified under the lock: once it is released the worker may run the
        // job, go idle again, time out and take `wake` with it.
        worker->wake.notify_one();
        return;
    }
    if (pool.threads >= kMaximumThreads) {
        pool.backlog.push_back(std::move(job));
        return;
    }
    ++pool.threads;
    lock.unlock();
    auto shared = std::make_shared<Job>(std::move(job));
    try {
        std::thread([&pool, shared] { pool.run(std::move(*shared)); }).detach();
    } catch (const std::system_error&) {
        // Out of threads: the job waits for one of the existing threads.
        lock.lock();
        --pool.threads;
        pool.backlog.push_back(std::move(*shared));
        if (pool.threads == 0) {
            throw;
        }
    }
}

int WorkerPool::threadCount() const
{
    std::lock_guard lock(state_->mutex);
    return state_->threads;
}

}  // namespace platform::internal
