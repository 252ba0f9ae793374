#include "Platform/Dispatch/DispatchGroup.h"

#include "Platform/Foundation/Exception.h"

namespace platform {
namespace {

constexpr const char* kAssertionSourceFile = "Platform/Dispatch/DispatchGroup";

}  // namespace

DispatchGroupRef DispatchGroup::create()
{
    return makeObject<DispatchGroup>();
}

void DispatchGroup::enter()
{
    std::lock_guard lock(mutex_);
    ++count_;
}

void DispatchGroup::leave()
{
    std::vector<std::pair<DispatchQueueRef, std::function<void()>>> due;
    {
        std::lock_guard lock(mutex_);
        PLATFORM_ASSERT(count_ > 0, "Unbalanced call to dispatch_group_leave()");
        if (--count_ > 0) {
            return;
        }
        due.swap(notifications_);
        // Notified under the lock: a waiter may destroy the group as soon as it sees it empty.
        emptied_.notify_all();
    }
    for (auto& [queue, block] : due) {
        queue->async(std::move(block));
    }
}

void DispatchGroup::async(const DispatchQueueRef& queue, std::function<void()> block)
{
    enter();
    auto self = std::static_pointer_cast<DispatchGroup>(shared_from_this());
    queue->async([self, block = std::move(block)] {
        struct Leave {
            DispatchGroup& group;
            ~Leave() { group.leave(); }
        } leave{*self};
        block();
    });
}

void DispatchGroup::notify(const DispatchQueueRef& queue, std::function<void()> block)
{
    {
        std::lock_guard lock(mutex_);
        if (count_ > 0) {
            notifications_.emplace_back(queue, std::move(block));
            return;
        }
    }
    queue->async(std::move(block));
}

void DispatchGroup::wait()
{
    std::unique_lock lock(mutex_);
    emptied_.wait(lock, [this] { return count_ == 0; });
}

bool DispatchGroup::waitUntil(DispatchTime deadline)
{
    std::unique_lock lock(mutex_);
    if (deadline == DISPATCH_TIME_FOREVER) {
        emptied_.wait(lock, [this] { return count_ == 0; });
        return true;
    }
    return emptied_.wait_until(lock, deadline, [this] { return count_ == 0; });
}

}  // namespace platform
