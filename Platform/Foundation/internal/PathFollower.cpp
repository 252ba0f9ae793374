#include "Platform/Foundation/internal/PathFollower.h"

#include "Platform/Foundation/Exception.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace platform::internal {
namespace {

std::vector<std::string> keysOfPath(const std::string& keyPath)
{
    std::vector<std::string> keys;
    std::size_t start = 0;
    for (auto dot = keyPath.find('.'); dot != std::string::npos; dot = keyPath.find('.', start)) {
        keys.push_back(keyPath.substr(start, dot - start));
        start = dot + 1;
    }
    keys.push_back(keyPath.substr(start));
    return keys;
}

}  // namespace

PathFollower::PathFollower(Object& owner, PathDependency dependency)
    : dependency_(std::move(dependency)), keys_(keysOfPath(dependency_.keyPath)), ownerRef_(owner.weak_from_this()),
      owner_(&owner), ownerIsShared_(!ownerRef_.expired())
{
}

void PathFollower::relink(std::size_t level)
{
    std::lock_guard lock(mutex_);
    if (detached_) {
        return;
    }
    unlinkFrom(level);
    ObjectRef holding;
    const Object* holder = owner_;
    if (level > 0) {
        holding = links_[level - 1].object.lock();
        holder = holding.get();
    }
    const auto self = shared_from_this();
    for (auto index = level; holder != nullptr && index + 1 < keys_.size(); ++index) {
        ObjectRef next;
        try {
            next = holder->valueForKey(keys_[index]).object();
        } catch (const Exception&) {
        }
        if (!next) {
            break;
        }
        next->addObserver(self, keys_[index + 1], NSKeyValueObservingOptionPrior, this);
        links_.push_back({next, next.get()});
        holding = std::move(next);
        holder = holding.get();
    }
}

void PathFollower::detach()
{
    std::lock_guard lock(mutex_);
    detached_ = true;
    unlinkFrom(0);
}

void PathFollower::observeValueForKeyPath(const std::string& keyPath, const ObjectRef& object, const Dictionary& change,
                                          void* context)
{
    if (context != this) {
        Object::observeValueForKeyPath(keyPath, object, change, context);
        return;
    }
    std::optional<std::size_t> level;
    {
        std::lock_guard lock(mutex_);
        for (std::size_t index = 0; index < links_.size() && !detached_; ++index) {
            if (links_[index].identity == object.get() && keys_[index + 1] == keyPath) {
                level = index;
                break;
            }
        }
    }
    const auto owner = lockedOwner();
    if (!level || !owner) {
        return;
    }
    if (change.get(NSKeyValueChangeNotificationIsPriorKey) == Value(true)) {
        owner->willChangeValueForKey(dependency_.dependentKey);
    } else {
        relink(*level + 1);
        owner->didChangeValueForKey(dependency_.dependentKey);
    }
}

// The owner while it lives. One that no shared_ptr owned when the path was
// first followed (on the stack) is taken as it is: it outlives its own
// observations.
ObjectRef PathFollower::lockedOwner() const
{
    if (ownerIsShared_) {
        return ownerRef_.lock();
    }
    return ObjectRef(ObjectRef(), owner_);
}

void PathFollower::unlinkFrom(std::size_t level)
{
    for (auto index = level; index < links_.size(); ++index) {
        if (const auto link = links_[index].object.lock()) {
            link->removeObserver(*this, keys_[index + 1], this);
        }
    }
    links_.resize(std::min(level, links_.size()));
}

}  // namespace platform::internal
