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

DispatchQueue::Node* DispatchQueue::pop()
{
    // Called only while a block is known to be pending; a producer may be
    // between swapping itself in and linking, which takes a few instructions.
    Node* next = head_->next.load(std::memory_order_acquire);
    while (next == nullptr) {
        std::this_thread::yield();
        next = head_->next.load(std::memory_order_acquire);
    }
    delete head_;
    head_ = next;  // `next` becomes the stub; its payload is taken by the caller
    return next;
}

void DispatchQueue::async(std::function<void()> block)
{
    PLATFORM_PARAMETER_ASSERT(block != nullptr, "block != NULL");
    auto* node = new Node;
    node->block = std::move(block);
    push(node);
    if (pending_.fetch_add(1, std::memory_order_acq_rel) == 0) {
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
    for (int ran = 0;; ++ran) {
        if (isMain_ && ran == kMainQueueBatch) {
            scheduleDrain();  // still owned: the next batch continues in a later pass of the loop
            return;
        }
        Node* node = pop();
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
        if (pending_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            return;
        }
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

    auto* node = new Node;
    node->waiter = waiter;
    push(node);
    if (pending_.fetch_add(1, std::memory_order_acq_rel) == 0) {
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
