// QMNetworkReachability: whether a host, an IPv4 address or the network as a
// whole (the all-zero address) can be reached without opening a connection,
// asked once or monitored.
//
//   auto reachability = QMNetworkReachability::networkReachabilityWithHostName(std::string("git.example.org"));
//   reachability->setNotificationBlock([](const std::optional<std::string>& host, bool reachable) { ... });
//   reachability->startMonitoringNetworkReachability();
//
// Contract (what runs where, in which order):
// - A change is announced on the serial `networkReachabilityQueue`, in this
//   order: `isReachable` takes the new value, then
//   QMNetworkReachabilityDidChangeNotification is posted (its observers
//   without a queue run right there), then the delegate is told, then the
//   notification block runs. Announcements of one object never overlap.
// - Monitoring begins with one announcement of the current state, shortly
//   after `startMonitoringNetworkReachability` (so `isReachable` is NO only
//   until then), and then one per change of the platform's flags, even when
//   the decision (`isReachableWithFlags`) stays the same.
// - Asynchronous checks run one at a time, in the order asked, on the serial
//   `backgroundQueue`, and call their handler there.
// - `isHostAvailable` and the one-off `isReachable` block while a name is
//   resolved; call them off the main thread when that matters.
// - Monitoring does not keep the object alive; when it goes, monitoring
//   stops and no announcement starts afterwards.
// - Not promised: how soon after a change it is announced (within
//   milliseconds on an idle machine).
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Foundation/Guarded.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/OperationQueue.h"
#include "Platform/SystemConfiguration/SCNetworkReachability.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class QMNetworkReachability;
using QMNetworkReachabilityRef = std::shared_ptr<QMNetworkReachability>;

inline constexpr const char* QMNetworkReachabilityDidChangeNotification = "QMNetworkReachabilityDidChangeNotification";

// Told of changes, on the reachability queue. The method is optional.
class QMNetworkReachabilityDelegate {
public:
    virtual ~QMNetworkReachabilityDelegate() = default;
    virtual void networkReachabilityDidChange(QMNetworkReachability& networkReachability)
    {
        static_cast<void>(networkReachability);
    }
};

class QMNetworkReachability final : public platform::Object {
public:
    using NotificationBlock = std::function<void(const std::optional<std::string>& host, bool reachable)>;
    using CompletionHandler = std::function<void(const std::string& host, bool reachable)>;

    // The internet-connection object of the process, made on first use.
    static QMNetworkReachabilityRef sharedNetworkReachability();
    // Blocks while the name is resolved.
    static bool isHostAvailable(const std::optional<std::string>& hostname);
    // The shared instance's checkNetworkReachabilityForHost (a class and an
    // instance member cannot share a name and parameters in C++).
    static void checkSharedNetworkReachabilityForHost(const std::optional<std::string>& hostname,
                                                     CompletionHandler completionHandler);
    // Reachable, and no connection has to be set up first.
    static bool isReachableWithFlags(platform::SCNetworkReachabilityFlags flags);
    // The names of the set flags, in a fixed order; unnamed bits are left out.
    static std::vector<std::string> stringValuesForFlags(platform::SCNetworkReachabilityFlags flags);

    static QMNetworkReachabilityRef networkReachabilityWithHostName(const std::optional<std::string>& hostname);
    // Text that is not a dotted IPv4 address gives a target for 0.0.0.0 (the
    // network as a whole); `host` keeps the text.
    static QMNetworkReachabilityRef networkReachabilityWithIP4AddressString(
        const std::optional<std::string>& internetAddress);
    static QMNetworkReachabilityRef networkReachabilityForInternetConnection();
    // Takes the target over.
    static QMNetworkReachabilityRef initWithNetworkReachability(platform::SCNetworkReachabilityRef reachability);

    ~QMNetworkReachability() override;

    // While monitoring, the last announced value; otherwise asked afresh
    // (and kept when the flags could be read).
    bool isReachable();
    bool isMonitoring() const { return monitoring_.load(); }
    void startMonitoringNetworkReachability();
    void stopMonitoringNetworkReachability();
    void checkNetworkReachabilityForHost(const std::optional<std::string>& hostname,
                                         CompletionHandler completionHandler);
    // Announces new flags; called on the reachability queue by monitoring.
    void networkReachabilityDidChange(platform::SCNetworkReachabilityFlags flags);

    std::weak_ptr<QMNetworkReachabilityDelegate> delegate() const;
    void setDelegate(std::weak_ptr<QMNetworkReachabilityDelegate> delegate);
    const std::optional<std::string>& host() const { return host_; }
    NotificationBlock notificationBlock() const;
    void setNotificationBlock(NotificationBlock block);
    const platform::SCNetworkReachabilityRef& networkReachability() const { return networkReachability_; }
    const platform::DispatchQueueRef& networkReachabilityQueue() const { return networkReachabilityQueue_; }
    const platform::OperationQueueRef& backgroundQueue() const { return backgroundQueue_; }

    std::string className() const override { return "QMNetworkReachability"; }

private:
    template <class> friend struct platform::ObjectAllocator;
    QMNetworkReachability(platform::SCNetworkReachabilityRef reachability, std::optional<std::string> host);

    const platform::SCNetworkReachabilityRef networkReachability_;
    std::optional<std::string> host_;  // set by the factory, then never changed
    const platform::DispatchQueueRef networkReachabilityQueue_;
    const platform::OperationQueueRef backgroundQueue_;
    // Written on the reachability queue (or by a one-off read), read anywhere.
    std::atomic<bool> reachable_{false};
    std::atomic<bool> monitoring_{false};
    std::mutex monitoringMutex_;  // orders starts and stops of monitoring
    platform::Guarded<std::weak_ptr<QMNetworkReachabilityDelegate>> delegate_;
    platform::Guarded<NotificationBlock> notificationBlock_;
};
