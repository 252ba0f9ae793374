// NotificationCenter: broadcasts named notifications to the blocks observing
// them, optionally filtered by the object that posts.
//
//   auto token = NotificationCenter::defaultCenter()->addObserverForName(
//       "TaskDidTerminate", task, nullptr, [](const Notification& notification) { ... });
//   NotificationCenter::defaultCenter()->postNotificationName("TaskDidTerminate", task);
//   NotificationCenter::defaultCenter()->removeObserver(token);
//
// Contract:
// - An observer without a queue runs on the posting thread, inside the post
//   call. One with a queue gets an operation added to that queue for each
//   matching post; the post does not wait for it.
// - Observers run in the order they were added. The matching observers are
//   taken when the post begins: one added during a post hears the next post.
// - Removing a token is safe at any time, from an observer too: a removed
//   observer is not called again, neither by the post under way nor by
//   operations already queued for it. A call already running on another
//   thread finishes.
// - No lock is held while an observer runs, so observers may post, add and
//   remove observers.
// - The centre holds the block (and what it captures) until the token is
//   removed; dropping the token does not end the observation. The sender an
//   observer filters on is held weakly and only compared: once it is gone,
//   nothing matches it any more.
#pragma once

#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace platform {

class OperationQueue;

// What is posted: a name, the object posting it (may be nothing) and user
// information.
struct Notification {
    std::string name;
    ObjectRef object;
    Dictionary userInfo;
};

class NotificationCenter final : public Object {
public:
    using Block = std::function<void(const Notification& notification)>;

    // The process's centre, made on first use.
    static std::shared_ptr<NotificationCenter> defaultCenter();
    static std::shared_ptr<NotificationCenter> create();

    // Observes notifications named `name` (any name when nothing) posted by
    // `object` (by anyone when null), calling `block` on `queue` (on the
    // posting thread when null). Returns the token that removes it.
    ObjectRef addObserverForName(std::optional<std::string> name, const ObjectRef& object,
                                 const std::shared_ptr<OperationQueue>& queue, Block block);
    // Ends the observation of a token; anything else is ignored.
    void removeObserver(const ObjectRef& observer);

    void postNotification(const Notification& notification);
    void postNotificationName(std::string name, ObjectRef object = nullptr, Dictionary userInfo = {});

private:
    class Observation;

    template <class> friend struct ObjectAllocator;
    NotificationCenter() = default;

    mutable std::mutex mutex_;  // guards `observations_`
    std::vector<std::shared_ptr<Observation>> observations_;  // in the order they were added
};

}  // namespace platform
