// PathFollower: how Object carries a key's dependency through a relationship
// ("operation.URL" of "URL") to the observers of the dependent key. Object
// makes one per such dependency of an observed key and lets it go when no
// observed key needs it any more. Not for use outside Object.cpp.
#pragma once

#include "Platform/Foundation/Object.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace platform::internal {

// A dependency that runs through a relationship, and the key that declares it.
struct PathDependency {
    std::string dependentKey;
    std::string keyPath;
    bool operator==(const PathDependency&) const = default;
};

// Carries a dependency through relationships ("operation.URL" of "URL"): it
// observes each object along the path past the owner's own key and brackets
// every change it hears of as a change of the dependent key of its owner, on
// the thread that made it. The owner's own key needs no observing: the owner
// reports a change of it to the dependent key's observers itself, and then
// has the path followed anew from the object the key now holds.
//
// The will is passed on at the related object's prior notification and the
// did at its notification after the change, so observers of the dependent
// key get its value from before and after. A follower let go between the two
// (its last observer removed meanwhile) hears no "after" and leaves that
// will unanswered on the changing thread, where a later pair of the same key
// still nests correctly.
//
// Any thread may call relink and detach; they are serialized by the
// follower's own lock, which is never held while the owner is notified.
class PathFollower final : public Object {
public:
    PathFollower(Object& owner, PathDependency dependency);

    const PathDependency& dependency() const { return dependency_; }
    // The owner's own key, where the path starts.
    const std::string& firstKey() const { return keys_.front(); }

    // Observes the path again from the link at `level` on (0: from the
    // owner's own key), where the objects along it may have changed. A link
    // that is not an object, or a key that an object does not have, ends
    // the path there: it is followed only as far as it resolves.
    void relink(std::size_t level);

    // Stops observing for good; later relinks do nothing.
    void detach();

    void observeValueForKeyPath(const std::string& keyPath, const ObjectRef& object, const Dictionary& change,
                                void* context) override;

private:
    struct Link {
        std::weak_ptr<Object> object;
        const Object* identity;  // compared, never dereferenced
    };

    ObjectRef lockedOwner() const;
    void unlinkFrom(std::size_t level);

    const PathDependency dependency_;
    const std::vector<std::string> keys_;
    const std::weak_ptr<Object> ownerRef_;
    Object* const owner_;
    const bool ownerIsShared_;
    std::mutex mutex_;
    // links_[i] is the object whose key keys_[i + 1] is observed.
    std::vector<Link> links_;
    bool detached_ = false;
};
using PathFollowerRef = std::shared_ptr<PathFollower>;

}  // namespace platform::internal
