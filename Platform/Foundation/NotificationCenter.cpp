#include "Platform/Foundation/NotificationCenter.h"

#include "Platform/Foundation/OperationQueue.h"

#include <algorithm>
#include <atomic>

namespace platform {

// One observer; also its token.
class NotificationCenter::Observation final : public Object {
public:
    Observation(std::optional<std::string> name, const ObjectRef& sender, std::shared_ptr<OperationQueue> queue,
                Block block)
        : name_(std::move(name)), sender_(sender), senderIdentity_(sender.get()), queue_(std::move(queue)),
          block_(std::move(block))
    {
    }

    bool matches(const Notification& notification) const
    {
        if (name_ && *name_ != notification.name) {
            return false;
        }
        if (senderIdentity_ == nullptr) {
            return true;
        }
        // Same address and same owner: an object made later at the address of
        // one that is gone has another owner.
        const auto& object = notification.object;
        return object.get() == senderIdentity_ && !sender_.owner_before(object) && !object.owner_before(sender_);
    }

    void deliver(const Notification& notification, const std::shared_ptr<Observation>& self) const
    {
        if (!queue_) {
            callUnlessRemoved(notification);
            return;
        }
        queue_->addOperationWithBlock([self, notification] { self->callUnlessRemoved(notification); });
    }

    void markRemoved() { removed_.store(true, std::memory_order_release); }

private:
    void callUnlessRemoved(const Notification& notification) const
    {
        if (!removed_.load(std::memory_order_acquire)) {
            block_(notification);
        }
    }

    const std::optional<std::string> name_;
    const std::weak_ptr<Object> sender_;
    const Object* const senderIdentity_;  // compared, never dereferenced; null for any sender
    const std::shared_ptr<OperationQueue> queue_;
    const Block block_;
    std::atomic<bool> removed_{false};
};

std::shared_ptr<NotificationCenter> NotificationCenter::defaultCenter()
{
    static const std::shared_ptr<NotificationCenter> center = create();
    return center;
}

std::shared_ptr<NotificationCenter> NotificationCenter::create()
{
    return makeObject<NotificationCenter>();
}

ObjectRef NotificationCenter::addObserverForName(std::optional<std::string> name, const ObjectRef& object,
                                                 const std::shared_ptr<OperationQueue>& queue, Block block)
{
    auto observation = makeObject<Observation>(std::move(name), object, queue, std::move(block));
    std::lock_guard lock(mutex_);
    observations_.push_back(observation);
    return observation;
}

void NotificationCenter::removeObserver(const ObjectRef& observer)
{
    std::shared_ptr<Observation> removed;  // released outside the lock: its block may own anything
    {
        std::lock_guard lock(mutex_);
        const auto found = std::find(observations_.begin(), observations_.end(), observer);
        if (found == observations_.end()) {
            return;
        }
        removed = std::move(*found);
        observations_.erase(found);
    }
    removed->markRemoved();
}

void NotificationCenter::postNotification(const Notification& notification)
{
    std::vector<std::shared_ptr<Observation>> matching;
    {
        std::lock_guard lock(mutex_);
        for (const auto& observation : observations_) {
            if (observation->matches(notification)) {
                matching.push_back(observation);
            }
        }
    }
    for (const auto& observation : matching) {
        observation->deliver(notification, observation);
    }
}

void NotificationCenter::postNotificationName(std::string name, ObjectRef object, Dictionary userInfo)
{
    postNotification(Notification{std::move(name), std::move(object), std::move(userInfo)});
}

}  // namespace platform
