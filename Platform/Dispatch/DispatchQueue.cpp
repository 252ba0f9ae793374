#include "Platform/Dispatch/DispatchQueue.h"

#include "Platform/Foundation/EventMonitor.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/Foundation/Thread.h"
#include "Platform/Foundation/WorkerPool.h"

#include <cstdint>
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
constexpr int kIdleSpins = 1024;
constexpr int kSpinsPerLook = 128;

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

// A block waiting its turn (a synchronous caller's turn is a block too).
// Forty bytes: the fewer cache lines a submission writes, the fewer move
// between the submitting and the draining core.
struct DispatchQueue::Node {
    std::atomic<Node*> next{nullptr};
    std::function<void()> block;
};

struct alignas(4096) DispatchQueue::Slab {
    static constexpr std::size_t kSize = 4096;  // also the alignment: a node finds its slab by its address
    static constexpr int kNodes = static_cast<int>((kSize - 64) / sizeof(Node));
    static constexpr int kMaximumSpare = 256;  // 1 MiB of spare slabs at most

    std::atomic<int> finished{0};
    Slab* nextSpare = nullptr;
    alignas(64) Node nodes[kNodes];

    static Slab* of(const Node* node)
    {
        return reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(node) & ~(std::uintptr_t{kSize} - 1));
    }

    static inline std::atomic<Slab*> spares{nullptr};
    static inline std::atomic<int> spareCount{0};  // approximate: only bounds the stack

    // Counts `count` nodes as done with; the call that completes the slab
    // keeps it for reuse or frees it.
    void finish(int count)
    {
        if (finished.fetch_add(count, std::memory_order_acq_rel) + count != kNodes) {
            return;
        }
        if (spareCount.fetch_add(1, std::memory_order_relaxed) >= kMaximumSpare) {
            spareCount.fetch_sub(1, std::memory_order_relaxed);
            delete this;
            return;
        }
        finished.store(0, std::memory_order_relaxed);
        Slab* head = spares.load(std::memory_order_relaxed);
        do {
            nextSpare = head;
        } while (!spares.compare_exchange_weak(head, this, std::memory_order_release, std::memory_order_relaxed));
    }

    // The submitting thread's slab in progress and the spares it took.
    struct Current {
        Slab* slab = nullptr;
        int handedOut = 0;
        Slab* spare = nullptr;
        ~Current()
        {
            // A thread that ends returns the nodes it never handed out.
            if (slab != nullptr) {
                slab->finish(kNodes - handedOut);
            }
            while (Slab* unused = spare) {
                spare = unused->nextSpare;
                spareCount.fetch_sub(1, std::memory_order_relaxed);
                delete unused;
            }
        }
    };

    static Slab* fresh(Current& current)
    {
        if (current.spare == nullptr) {
            current.spare = spares.exchange(nullptr, std::memory_order_acquire);
        }
        if (Slab* reused = current.spare) {
            current.spare = reused->nextSpare;
            spareCount.fetch_sub(1, std::memory_order_relaxed);
            return reused;
        }
        return new Slab;
    }

    static Node* take()
    {
        thread_local Current current;
        if (current.slab == nullptr) {
            current.slab = fresh(current);
            current.handedOut = 0;
        }
        Node* node = &current.slab->nodes[current.handedOut];
        node->next.store(nullptr, std::memory_order_relaxed);
        if (++current.handedOut == kNodes) {
            current.slab = nullptr;  // every node is out: the drainers own the slab now
        }
        return node;
    }
};

// The hand-over between the draining thread and a synchronous caller: the
// queue says "your turn", the caller runs its block and says "done". Shared,
// because either side may still be inside `release` when the other returns.
struct DispatchQueue::SyncWaiter {
    std::binary_semaphore turn{0};
    std::binary_semaphore done{0};
};

// The mark in `head_` of a queue that nobody drains.
DispatchQueue::Node DispatchQueue::idleMark;

DispatchQueue::DispatchQueue(std::string label, bool isMain)
    : label_(std::move(label)), isMain_(isMain), head_(&idleMark)
{
}

// Only reached with nothing pending, since pending blocks hold their queue.
DispatchQueue::~DispatchQueue() = default;

DispatchQueueRef DispatchQueue::create(std::string label)
{
    return makeObject<DispatchQueue>(std::move(label), false);
}

DispatchQueueRef DispatchQueue::main()
{
    static const auto* main = new DispatchQueueRef(makeObject<DispatchQueue>("zarvo.main-thread", true));
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

bool DispatchQueue::push(Node* node)
{
    Node* head = head_.load(std::memory_order_relaxed);
    do {
        node->next.store(head == &idleMark ? nullptr : head, std::memory_order_relaxed);
        // Acquire as well: replacing the idle mark takes the queue over from
        // its last owner, whose writes (the drainer's own fields) the next
        // drain must see.
    } while (!head_.compare_exchange_weak(head, node, std::memory_order_acq_rel, std::memory_order_relaxed));
    return head == &idleMark;
}

void DispatchQueue::async(std::function<void()> block)
{
    PLATFORM_PARAMETER_ASSERT(block != nullptr, "block != NULL");
    auto* node = Slab::take();
    node->block = std::move(block);
    if (push(node)) {
        scheduleDrain();  // the queue was idle: this submission owns it now
    }
}

void DispatchQueue::asyncAfter(DispatchTime when, std::function<void()> block)
{
    PLATFORM_PARAMETER_ASSERT(block != nullptr, "block != NULL");
    auto self = std::static_pointer_cast<DispatchQueue>(shared_from_this());
    internal::EventMonitor::shared().addTimer(when, std::chrono::milliseconds(1),
                                    [self, block = std::move(block)]() mutable { self->async(std::move(block)); });
}

void DispatchQueue::scheduleDrain()
{
    auto self = std::static_pointer_cast<DispatchQueue>(shared_from_this());
    if (isMain_) {
        RunLoop::mainRunLoop()->performBlock([self] { self->drain(); });
    } else {
        internal::WorkerPool::shared().submit([self] { self->drain(); });
    }
}

void DispatchQueue::drain()
{
    QueueScope scope(this);
    // Consecutive nodes mostly share a slab: they are counted off together.
    struct Finished {
        Slab* slab = nullptr;
        int count = 0;
        void add(const Node* node)
        {
            Slab* const owner = Slab::of(node);
            if (owner != slab) {
                flush();
                slab = owner;
            }
            ++count;
        }
        void flush()
        {
            if (slab != nullptr) {
                slab->finish(count);
            }
            slab = nullptr;
            count = 0;
        }
        ~Finished() { flush(); }
    } finished;
    for (int ran = 0;; ++ran) {
        if (ready_ == nullptr) {
            // Take everything submitted so far in one step; it arrives newest
            // first and is turned around into submission order.
            Node* taken = head_.exchange(nullptr, std::memory_order_acquire);
            if (taken == nullptr) {
                // Before letting go, look for new work a little while: a
                // producer in full flow submits again within microseconds, and
                // keeping the queue spares it handing the queue to a parked
                // thread again. Between looks the thread yields its core: when
                // the producer waits for that very core (a loaded machine), it
                // gets to submit instead of watching this thread spin.
                // (Looking seldom: every look pulls the producers' cache line away.)
                for (int spin = 0; spin < kIdleSpins; spin += kSpinsPerLook) {
                    for (int pause = 0; pause < kSpinsPerLook; ++pause) {
                        spinPause();
                    }
                    if (head_.load(std::memory_order_relaxed) != nullptr) {
                        break;
                    }
                    std::this_thread::yield();
                }
                Node* empty = nullptr;
                if (head_.compare_exchange_strong(empty, &idleMark, std::memory_order_acq_rel)) {
                    return;  // nothing was submitted meanwhile: the queue is idle
                }
                continue;
            }
            while (taken != nullptr) {
                Node* next = taken->next.load(std::memory_order_relaxed);
                taken->next.store(ready_, std::memory_order_relaxed);
                ready_ = taken;
                taken = next;
            }
        }
        if (isMain_ && ran == kMainQueueBatch) {
            scheduleDrain();  // still owned: the rest runs in a later pass of the loop
            return;
        }
        Node* node = ready_;
        ready_ = node->next.load(std::memory_order_relaxed);
        node->block();
        node->block = nullptr;
        finished.add(node);
    }
}

void DispatchQueue::syncInvoke(void (*function)(void*), void* context)
{
    if (isMain_) {
        PLATFORM_ASSERT(!Thread::isMainThread(), "dispatch_sync called on the main queue from the main thread");
    }
    PLATFORM_ASSERT(!threadRuns(this), "dispatch_sync called on queue already owned by current thread");

    Node* idle = &idleMark;
    if (!isMain_ && head_.compare_exchange_strong(idle, nullptr, std::memory_order_acquire)) {
        // Idle: the caller owns the queue while its block runs.
        struct Own {
            DispatchQueue& queue;
            QueueScope scope;
            ~Own()
            {
                Node* empty = nullptr;
                if (!queue.head_.compare_exchange_strong(empty, &idleMark, std::memory_order_acq_rel)) {
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

    auto* node = Slab::take();
    // The queue's part of the hand-over: give the caller its turn, wait until
    // it is done.
    node->block = [waiter] {
        waiter->turn.release();
        waiter->done.acquire();
    };
    if (push(node)) {
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
