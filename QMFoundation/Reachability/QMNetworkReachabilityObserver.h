// QMNetworkReachabilityObserver: hands one reachability object's change
// notifications to a delegate on the main queue.
//
//   auto observer = QMNetworkReachabilityObserver::initWithNetworkReachability(reachability, delegate);
//   observer->startObserving();   // delegate->networkReachabilityDidChange(notification), on the main thread
//
// Contract:
// - Deliveries are operations of the main operation queue, so they run only
//   while the main thread runs its run loop, one at a time, in the order of
//   the changes.
// - A delegate that does not respond to networkReachabilityDidChange gets no
//   observation at all.
// - The observer holds the reachability object and the delegate weakly; a
//   delivery that finds the delegate gone does nothing.
// - `stopObserving` removes the observations but keeps their tokens, stale,
//   until the next `startObserving` removes them again (harmless) and
//   registers anew. Going away removes them too.
// - Use one observer from one thread (the main thread, as a rule): the first
//   call binds it there, and debug builds raise on a call from elsewhere.
//   Going away may happen on any thread.
#pragma once

#include "Platform/Dispatch/SequenceChecker.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/OperationQueue.h"
#include "QMFoundation/Reachability/QMNetworkReachability.h"

#include <map>
#include <memory>
#include <string>

// The observer's delegate. The method is optional: a delegate that
// implements it says so through respondsToNetworkReachabilityDidChange.
class QMNetworkReachabilityObserving {
public:
    virtual ~QMNetworkReachabilityObserving() = default;
    virtual bool respondsToNetworkReachabilityDidChange() const { return false; }
    virtual void networkReachabilityDidChange(const platform::Notification& notification)
    {
        static_cast<void>(notification);
    }
};

class QMNetworkReachabilityObserver final : public platform::Object {
public:
    using Action = void (QMNetworkReachabilityObserving::*)(const platform::Notification&);

    // Both must be given; `create()` is the plain initialiser, which gives
    // neither and so fails its assertion.
    static std::shared_ptr<QMNetworkReachabilityObserver> initWithNetworkReachability(
        const QMNetworkReachabilityRef& networkReachability,
        const std::shared_ptr<QMNetworkReachabilityObserving>& delegate);
    static std::shared_ptr<QMNetworkReachabilityObserver> create();
    ~QMNetworkReachabilityObserver() override;

    void startObserving();
    void stopObserving();
    void registerObservers();
    void unregisterObservers();
    void registerNotificationWithName(const std::string& name, Action action);

    std::weak_ptr<QMNetworkReachability> networkReachability() const { return networkReachability_; }
    std::weak_ptr<QMNetworkReachabilityObserving> delegate() const { return delegate_; }
    // Notification name → token of the centre, stale ones included.
    const std::map<std::string, platform::ObjectRef>& observers() const { return observers_; }
    const platform::OperationQueueRef& queue() const { return queue_; }
    const std::shared_ptr<platform::NotificationCenter>& notificationCenter() const { return notificationCenter_; }

    std::string className() const override { return "QMNetworkReachabilityObserver"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMNetworkReachabilityObserver(const QMNetworkReachabilityRef& networkReachability,
                                  const std::shared_ptr<QMNetworkReachabilityObserving>& delegate);
    // What unregisterObservers does, without the thread check (for going away).
    void removeObservations();

    std::weak_ptr<QMNetworkReachability> networkReachability_;
    std::weak_ptr<QMNetworkReachabilityObserving> delegate_;
    std::map<std::string, platform::ObjectRef> observers_;
    platform::OperationQueueRef queue_;
    std::shared_ptr<platform::NotificationCenter> notificationCenter_;
    [[no_unique_address]] platform::SequenceChecker sequence_;
};
