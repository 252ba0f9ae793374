#include "QMFoundation/Comparison/QMConcurrentEnumeration.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

// One enumeration in flight. Helpers that reach it after every chunk is taken
// leave without touching the body, so the caller may return (and the body
// go) as soon as the last chunk has completed.
struct Enumeration {
    const std::function<void(std::size_t, std::size_t)>* body = nullptr;
    std::size_t count = 0;
    std::size_t chunkSize = 0;
    std::size_t chunkCount = 0;
    std::atomic<std::size_t> nextChunk{0};

    std::mutex completionMutex;  // guards completedChunks and failure
    std::condition_variable allCompleted;
    std::size_t completedChunks = 0;
    std::exception_ptr failure;
    std::atomic<bool> failed{false};

    // Runs chunks until none is left to take.
    void work()
    {
        for (;;) {
            const auto chunk = nextChunk.fetch_add(1, std::memory_order_relaxed);
            if (chunk >= chunkCount) {
                return;
            }
            if (!failed.load(std::memory_order_relaxed)) {
                const auto begin = chunk * chunkSize;
                try {
                    (*body)(begin, std::min(count, begin + chunkSize));
                } catch (...) {
                    std::lock_guard lock(completionMutex);
                    if (!failure) {
                        failure = std::current_exception();
                    }
                    failed.store(true, std::memory_order_relaxed);
                }
            }
            std::lock_guard lock(completionMutex);
            if (++completedChunks == chunkCount) {
                allCompleted.notify_all();
            }
        }
    }
};

// Workers live until the process ends; the pool is never destroyed, so no
// thread is left joinable at exit.
class WorkerPool {
public:
    static WorkerPool& shared()
    {
        static auto* pool = new WorkerPool(processorCount() > 1 ? processorCount() - 1 : 1);
        return *pool;
    }

    std::size_t workerCount() const { return workerCount_; }

    void post(const std::shared_ptr<Enumeration>& enumeration, std::size_t helpers)
    {
        {
            std::lock_guard lock(queueMutex_);
            for (std::size_t index = 0; index < helpers; ++index) {
                queue_.push_back(enumeration);
            }
        }
        if (helpers == 1) {
            queueChanged_.notify_one();
        } else {
            queueChanged_.notify_all();
        }
    }

private:
    explicit WorkerPool(std::size_t workers) : workerCount_(workers)
    {
        for (std::size_t index = 0; index < workers; ++index) {
            std::thread([this] { run(); }).detach();
        }
    }

    void run()
    {
        for (;;) {
            std::shared_ptr<Enumeration> enumeration;
            {
                std::unique_lock lock(queueMutex_);
                queueChanged_.wait(lock, [this] { return !queue_.empty(); });
                enumeration = std::move(queue_.front());
                queue_.pop_front();
            }
            enumeration->work();
        }
    }

    const std::size_t workerCount_;
    std::mutex queueMutex_;  // guards queue_
    std::condition_variable queueChanged_;
    std::deque<std::shared_ptr<Enumeration>> queue_;
};

}  // namespace

std::size_t processorCount()
{
    return std::max<std::size_t>(1, std::thread::hardware_concurrency());
}

void concurrentlyEnumerate(std::size_t count, std::size_t grain, std::size_t concurrency,
                           const std::function<void(std::size_t, std::size_t)>& body)
{
    grain = std::max<std::size_t>(1, grain);
    if (count == 0) {
        return;
    }
    auto& pool = WorkerPool::shared();
    const auto threads = std::min(concurrency, pool.workerCount() + 1);
    if (threads <= 1 || count < 2 * grain) {
        body(0, count);
        return;
    }
    // A few chunks per thread even out chunks that take longer than others.
    const auto chunks = std::min(count / grain, threads * 4);
    auto enumeration = std::make_shared<Enumeration>();
    enumeration->body = &body;
    enumeration->count = count;
    enumeration->chunkSize = (count + chunks - 1) / chunks;
    enumeration->chunkCount = (count + enumeration->chunkSize - 1) / enumeration->chunkSize;
    pool.post(enumeration, std::min(threads - 1, enumeration->chunkCount - 1));
    enumeration->work();
    std::unique_lock lock(enumeration->completionMutex);
    enumeration->allCompleted.wait(lock, [&] { return enumeration->completedChunks == enumeration->chunkCount; });
    if (enumeration->failure) {
        std::rethrow_exception(enumeration->failure);
    }
}

std::size_t concurrentlyFindFirst(std::size_t count, std::size_t grain, std::size_t concurrency,
                                  const std::function<bool(std::size_t)>& matches)
{
    std::atomic<std::size_t> first{count};
    concurrentlyEnumerate(count, grain, concurrency, [&](std::size_t begin, std::size_t end) {
        for (auto index = begin; index < end && index < first.load(std::memory_order_relaxed); ++index) {
            if (matches(index)) {
                auto seen = first.load(std::memory_order_relaxed);
                while (index < seen && !first.compare_exchange_weak(seen, index, std::memory_order_relaxed)) {
                }
                return;
            }
        }
    });
    return first.load();
}
