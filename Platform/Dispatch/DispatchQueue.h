// DispatchQueue: serial queues of closures, the main queue, and the time
// values the dispatch services take.
//
//   static const char kLoggingQueueKey = 0;
//   auto queue = DispatchQueue::create("cocoa.velmora");
//   queue->setSpecific(&kLoggingQueueKey, &kLoggingQueueKey);
//   queue->async([] { write(); });
//   if (DispatchQueue::getSpecific(&kLoggingQueueKey) != nullptr) { ... }  // on the logging queue?
//
// Contract:
// - A serial queue runs its blocks one at a time, in submission order (for
//   blocks submitted from one thread; across threads, in the order the
//   submissions took effect). The blocks of one queue never overlap.
// - `async` returns at once. The block runs on a worker thread, or on the
//   main thread for the main queue, which is served by the main run loop
//   (common modes) and so runs only while the main thread runs its loop.
// - `sync` returns after the block has run. On a queue other than the main
//   queue the block runs on the calling thread: at once when the queue is
//   idle, otherwise when its turn comes, while the queue waits for it. On the
//   main queue it runs on the main thread.
// - Submitting synchronously to a queue the calling thread is already running
//   (directly or through nested `sync` calls), or to the main queue from the
//   main thread, is a programming error: "NSInternalInconsistencyException"
//   is raised instead of deadlocking. Deadlocks through other threads are not
//   detected.
// - Pending blocks keep their queue alive; dropping the last reference to a
//   queue does not cancel work.
// - Queue-specific values are not owned by the queue. `getSpecific(key)`
//   looks at the innermost queue the thread runs (the main queue on the main
//   thread outside any other queue); a `sync` into another queue hides the
//   outer queue's values for its duration.
#pragma once

#include "Platform/Foundation/Object.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace platform {

using DispatchClock = std::chrono::steady_clock;
using DispatchTime = DispatchClock::time_point;
inline constexpr DispatchTime DISPATCH_TIME_FOREVER = DispatchTime::max();

// The moment `seconds` from now.
DispatchTime dispatchTimeFromNow(double seconds);

class DispatchQueue;
using DispatchQueueRef = std::shared_ptr<DispatchQueue>;

class DispatchQueue final : public Object {
public:
    ~DispatchQueue() override;

    static DispatchQueueRef create(std::string label = {});
    // Labelled "zarvo.main-thread": the name log lines show for work on the
    // main thread.
    static DispatchQueueRef main();

    const std::string& label() const { return label_; }
    // The label of the queue the calling thread runs: the innermost one, the
    // main queue's on the main thread outside any queue, or "" elsewhere.
    static std::string currentLabel();

    void async(std::function<void()> block);
    void asyncAfter(DispatchTime when, std::function<void()> block);

    template <typename Block>
    void sync(Block&& block)
    {
        // No copy and no allocation: the block is called where it lives.
        using Callable = std::remove_reference_t<Block>;
        syncInvoke([](void* context) { (*static_cast<Callable*>(context))(); },
                   const_cast<void*>(static_cast<const void*>(std::addressof(block))));
    }

    void setSpecific(const void* key, void* value);
    void* getSpecificValue(const void* key) const;
    static void* getSpecific(const void* key);

    std::string description() const override;

private:
    struct Node;
    struct Slab;
    struct SyncWaiter;
    template <class> friend struct ObjectAllocator;
    DispatchQueue(std::string label, bool isMain);

    void syncInvoke(void (*function)(void*), void* context);
    // Returns true when the queue was idle: the caller must have it drained.
    bool push(Node* node);
    void scheduleDrain();
    void drain();

    static Node idleMark;

    const std::string label_;
    const bool isMain_;

    // Submitted blocks, newest first, pushed with one compare-and-swap each.
    // Holds `&idleMark` while nobody drains the queue (or runs a block on it
    // synchronously); whoever replaces the mark owns the queue and sees it
    // drained. The draining thread takes the whole list at once.
    alignas(64) std::atomic<Node*> head_;
    // The drainer's own: taken blocks, oldest first, not yet run.
    alignas(64) Node* ready_ = nullptr;

    alignas(64) mutable std::mutex specificsMutex_;  // guards `specifics_`
    std::vector<std::pair<const void*, void*>> specifics_;
};

}  // namespace platform
