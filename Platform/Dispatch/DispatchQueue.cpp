#include "Platform/Dispatch/DispatchQueue.h"

#include "Platform/Foundation/EventMonitor.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Thread.h"
#include "Platform/Foundation/WorkerPool.h"

#include <semaphore>
#include <thread>

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/Dispatch/DispatchQueue";

// The main queue hands the main run loop back after this many blocks, so a
// busy main queue does not starve the loop's other sources.
constexpr int kMainQueueBatch = 32;

// How long a drainer that ran out of work keeps looking before it lets the
// queue go idle (each spin is one pause instruction).
constexpr int kIdleSpins = 256;

inline void spinPause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// The queues the calling thread runs, innermost first; frames live on the stack.
struct QueueFrame {
    const DispatchQueue* queue;
    const QueueFrame* outer;
};
thread_local const QueueFrame* innermostFrame = nullptr;

class QueueScope {
public:
    explicit QueueScope(const DispatchQueue* queue) : frame_{queue, innermostFrame} { innermostFrame = &frame_; }
    ~QueueScope() { innermostFrame = frame_.outer; }
    QueueScope(const QueueScope&) = delete;
    QueueScope& operator=(const QueueScope&) = delete;

private:
    QueueFrame frame_;
};

bool threadRuns(const DispatchQueue* queue)
{
    for (const QueueFrame* frame = innermostFrame; frame != nullptr; frame = frame->outer) {
        if (frame->queue == queue) {
            return true;
        }
    }
    return false;
}

}  // namespace

DispatchTime dispatchTimeFromNow(double seconds)
{
    return DispatchClock::now() + std::chrono::duration_cast<DispatchClock::duration>(std::chrono::duration<double>(seconds));
}

// A block waiting its turn, or a synchronous caller waiting for its turn.
struct DispatchQueue::Node {
    std::atomic<Node*> next{nullptr};
    std::function<void()> block;
    std::shared_ptr<SyncWaiter> waiter;
};

// Nodes are recycled instead of freed: the producers allocate them and the
// drainer releases them, always on different threads, which is the one
// pattern per-thread allocator caches do not help with. The drainer returns
// them in batches to one shared stack; a producer takes the whole stack at
// once (so there is no ABA problem) into a cache of its own.
struct DispatchQueue::NodePool {
    static constexpr int kMaximumShared = 65536;

    struct Cache {
        Node* head = nullptr;
        ~Cache()
        {
            while (Node* node = head) {
                head = node->next.load(std::memory_order_relaxed);
                delete node;
            }
        }
    };

    static inline std::atomic<Node*> shared{nullptr};
    static inline std::atomic<int> sharedCount{0};  // approximate: bounds what the stack keeps

    static Node* take()
    {
        thread_local Cache cache;
        if (cache.head == nullptr) {
            cache.head = shared.exchange(nullptr, std::memory_order_acquire);
            sharedCount.store(0, std::memory_order_relaxed);
        }
        if (Node* node = cache.head) {
            cache.head = node->next.load(std::memory_order_relaxed);
            node->next.store(nullptr, std::memory_order_relaxed);
            return node;
        }
        return new Node;
    }

    static void give(Node* first, Node* last, int count)
    {
        if (sharedCount.load(std::memory_order_relaxed) + count > kMaximumShared) {
            for (Node* node = first; node != nullptr;) {
                Node* next = node == last ? nullptr : node->next.load(std::memory_order_relaxed);
                delete node;
                node = next;
            }
            return;
        }
        sharedCount.fetch_add(count, std::memory_order_relaxed);
        Node* head = shared.load(std::memory_order_relaxed);
        do {
            last->next.store(head, std::memory_order_relaxed);
        } while (!shared.compare_exchange_weak(head, first, std::memory_order_release, std::memory_order_relaxed));
    }
};

// The nodes one drain has finished with, handed back to the pool in batches.
struct DispatchQueue::Retired {
    static constexpr int kBatch = 64;
    Node* first = nullptr;
    Node* last = nullptr;
    int count = 0;

    void add(Node* node)
    {
        node->next.store(first, std::memory_order_relaxed);
        first = node;
        if (last == nullptr) {
            last = node;
        }
        if (++count == kBatch) {
            flush();
        }
    }
    void flush()
    {
        if (count > 0) {
            NodePool::give(first, last, count);
        }
        first = last = nullptr;
        count = 0;
    }
    ~Retired() { flush(); }
};

// The hand-over between the draining thread and a synchronous caller: the
// queue says "your turn", the caller runs its block and says "done". Shared,
// because either side may still be inside `release` when the other returns.
struct DispatchQueue::SyncWaiter {
    std::binary_semaphore turn{0};
    std::binary_semaphore done{0};
};

DispatchQueue::DispatchQueue(std::string label, bool isMain)
    : label_(std::move(label)), isMain_(isMain), tail_(new Node), head_(tail_.load())
{
}

DispatchQueue::~DispatchQueue()
{
    // Only reached with nothing pending (blocks hold their queue): the stub remains.
    while (Node* node = head_) {
        head_ = node->next.load();
        delete node;
    }
}

DispatchQueueRef DispatchQueue::create(std::string label)
{
    return DispatchQueueRef(new DispatchQueue(std::move(label), false));
}

DispatchQueueRef DispatchQueue::main()
{
    static const auto* main = new DispatchQueueRef(new DispatchQueue("com.apple.main-thread", true));
    return *main;
}

std::string DispatchQueue::currentLabel()
{
    if (innermostFrame != nullptr) {
        return innermostFrame->queue->label();
    }
    return Thread::isMainThread() ? main()->label() : std::string();
}

std::string DispatchQueue::description() const
{
    return "<OS_dispatch_queue_serial: " + label_ + "[" + addressString() + "]>";
}

void DispatchQueue::push(Node* node)
{
    Node* previous = tail_.exchange(node, std::memory_order_acq_rel);
    previous->next.store(node, std::memory_order_release);
}

DispatchQueue::Node* DispatchQueue::tryPop(Retired& retired)
{
    Node* next = head_->next.load(std::memory_order_acquire);
    if (next == nullptr) {
        return nullptr;
    }
    retired.add(head_);
    head_ = next;  // `next` becomes the stub; its payload is taken by the caller
    return next;
}

void DispatchQueue::async(std::function<void()> block)
{
    PLATFORM_PARAMETER_ASSERT(block != nullptr, "block != NULL");
    auto* node = NodePool::take();
    node->block = std::move(block);
    // Counted before it is linked, so the drainer never runs a block that
    // `pending_` does not include yet.
    const bool wasIdle = pending_.fetch_add(1, std::memory_order_acq_rel) == 0;
    push(node);
    if (wasIdle) {
        scheduleDrain();
    }
}

void DispatchQueue::asyncAfter(DispatchTime when, std::function<void()> block)
{
    PLATFORM_PARAMETER_ASSERT(block != nullptr, "block != NULL");
    auto self = std::static_pointer_cast<DispatchQueue>(shared_from_this());
    EventMonitor::shared().addTimer(when, std::chrono::milliseconds(1),
                                    [self, block = std::move(block)]() mutable { self->async(std::move(block)); });
}

void DispatchQueue::scheduleDrain()
{
    auto self = std::static_pointer_cast<DispatchQueue>(shared_from_this());
    if (isMain_) {
        RunLoop::mainRunLoop()->performBlock([self] { self->drain(); });
    } else {
        WorkerPool::shared().submit([self] { self->drain(); });
    }
}

void DispatchQueue::drain()
{
    QueueScope scope(this);
    Retired retired;
    // Finished blocks are counted off `pending_` in batches, when the list
    // looks empty, so that the producers' counter is not bounced between
    // threads once per block.
    std::int64_t finished = 0;
    for (int ran = 0;; ++ran) {
        if (isMain_ && ran == kMainQueueBatch) {
            pending_.fetch_sub(finished, std::memory_order_acq_rel);
            scheduleDrain();  // still owned: the next batch continues in a later pass of the loop
            return;
        }
        Node* node = tryPop(retired);
        if (node == nullptr) {
            // Before letting go, look for new work a little while: a producer
            // in full flow submits again within microseconds, and keeping the
            // queue spares it handing the queue to a parked thread again.
            for (int spin = 0; spin < kIdleSpins && pending_.load(std::memory_order_acquire) == finished; ++spin) {
                spinPause();
            }
            if (pending_.fetch_sub(finished, std::memory_order_acq_rel) == finished) {
                return;  // nothing was submitted meanwhile: the queue is idle
            }
            // A producer has counted its block but may not have linked it yet;
            // it is a few instructions away.
            finished = 0;
            if (head_->next.load(std::memory_order_acquire) == nullptr) {
                std::this_thread::yield();
            }
            continue;
        }
        if (node->waiter != nullptr) {
            const auto waiter = std::move(node->waiter);
            node->waiter = nullptr;
            waiter->turn.release();
            waiter->done.acquire();
        } else {
            std::function<void()> block = std::move(node->block);
            node->block = nullptr;
            block();
        }
        ++finished;
    }
}

void DispatchQueue::syncInvoke(void (*function)(void*), void* context)
{
    if (isMain_) {
        PLATFORM_ASSERT(!Thread::isMainThread(), "dispatch_sync called on the main queue from the main thread");
    }
    PLATFORM_ASSERT(!threadRuns(this), "dispatch_sync called on queue already owned by current thread");

    std::int64_t idle = 0;
    if (!isMain_ && pending_.compare_exchange_strong(idle, 1, std::memory_order_acq_rel)) {
        // Idle: the caller owns the queue while its block runs.
        struct Own {
            DispatchQueue& queue;
            QueueScope scope;
            ~Own()
            {
                if (queue.pending_.fetch_sub(1, std::memory_order_acq_rel) > 1) {
                    queue.scheduleDrain();  // blocks that arrived meanwhile found the queue owned
                }
            }
        } own{*this, QueueScope(this)};
        function(context);
        return;
    }

    const auto waiter = std::make_shared<SyncWaiter>();
    if (isMain_) {
        async([waiter, function, context] {
            struct Done {
                SyncWaiter& waiter;
                ~Done() { waiter.done.release(); }
            } done{*waiter};
            function(context);
        });
        waiter->done.acquire();
        return;
    }

    auto* node = NodePool::take();
    node->waiter = waiter;
    const bool wasIdle = pending_.fetch_add(1, std::memory_order_acq_rel) == 0;
    push(node);
    if (wasIdle) {
        scheduleDrain();
    }
    waiter->turn.acquire();
    struct Done {
        SyncWaiter& waiter;
        QueueScope scope;
        ~Done() { waiter.done.release(); }
    } done{*waiter, QueueScope(this)};
    function(context);
}

void DispatchQueue::setSpecific(const void* key, void* value)
{
    std::lock_guard lock(specificsMutex_);
    for (auto& entry : specifics_) {
        if (entry.first == key) {
            entry.second = value;
            return;
        }
    }
    specifics_.emplace_back(key, value);
}

void* DispatchQueue::getSpecificValue(const void* key) const
{
    std::lock_guard lock(specificsMutex_);
    for (const auto& entry : specifics_) {
        if (entry.first == key) {
            return entry.second;
        }
    }
    return nullptr;
}

void* DispatchQueue::getSpecific(const void* key)
{
    if (innermostFrame != nullptr) {
        return innermostFrame->queue->getSpecificValue(key);
    }
    return Thread::isMainThread() ? main()->getSpecificValue(key) : nullptr;
}

}  // namespace platform
