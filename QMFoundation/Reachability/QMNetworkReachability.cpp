#include "QMFoundation/Reachability/QMNetworkReachability.h"

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/NotificationCenter.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>
#include <utility>

using platform::SCNetworkReachabilityFlags;

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMNetworkReachability";

struct FlagName {
    SCNetworkReachabilityFlags flag;
    const char* name;
};

// The order in which stringValuesForFlags lists them.
constexpr std::array<FlagName, 8> kFlagNames{{
    {platform::kSCNetworkReachabilityFlagsReachable, "kSCNetworkReachabilityFlagsReachable"},
    {platform::kSCNetworkReachabilityFlagsTransientConnection, "kSCNetworkReachabilityFlagsTransientConnection"},
    {platform::kSCNetworkReachabilityFlagsConnectionRequired, "kSCNetworkReachabilityFlagsConnectionRequired"},
    {platform::kSCNetworkReachabilityFlagsConnectionOnTraffic, "kSCNetworkReachabilityFlagsConnectionOnTraffic"},
    {platform::kSCNetworkReachabilityFlagsInterventionRequired, "kSCNetworkReachabilityFlagsInterventionRequired"},
    {platform::kSCNetworkReachabilityFlagsConnectionOnDemand, "kSCNetworkReachabilityFlagsConnectionOnDemand"},
    {platform::kSCNetworkReachabilityFlagsIsLocalAddress, "kSCNetworkReachabilityFlagsIsLocalAddress"},
    {platform::kSCNetworkReachabilityFlagsIsDirect, "kSCNetworkReachabilityFlagsIsDirect"},
}};

platform::SCNetworkReachabilityRef targetForIPv4(const in_addr& address)
{
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_port = 0;
    socketAddress.sin_addr = address;
    return platform::SCNetworkReachabilityCreateWithAddress(reinterpret_cast<const sockaddr*>(&socketAddress));
}

// One look at a name's flags through a target made for it alone.
bool isNameReachable(const std::string& hostname)
{
    const auto target = platform::SCNetworkReachabilityCreateWithName(hostname);
    SCNetworkReachabilityFlags flags = 0;
    if (!platform::SCNetworkReachabilityGetFlags(target, &flags)) {
        return false;
    }
    return QMNetworkReachability::isReachableWithFlags(flags);
}

}  // namespace

QMNetworkReachabilityRef QMNetworkReachability::sharedNetworkReachability()
{
    static const QMNetworkReachabilityRef shared = networkReachabilityForInternetConnection();
    return shared;
}

bool QMNetworkReachability::isHostAvailable(const std::optional<std::string>& hostname)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(hostname.has_value(), "hostname", 45);
    return isNameReachable(*hostname);
}

void QMNetworkReachability::checkSharedNetworkReachabilityForHost(const std::optional<std::string>& hostname,
                                                                  CompletionHandler completionHandler)
{
    sharedNetworkReachability()->checkNetworkReachabilityForHost(hostname, std::move(completionHandler));
}

bool QMNetworkReachability::isReachableWithFlags(SCNetworkReachabilityFlags flags)
{
    return (flags & platform::kSCNetworkReachabilityFlagsReachable) != 0 &&
           (flags & platform::kSCNetworkReachabilityFlagsConnectionRequired) == 0;
}

std::vector<std::string> QMNetworkReachability::stringValuesForFlags(SCNetworkReachabilityFlags flags)
{
    std::vector<std::string> names;
    for (const auto& [flag, name] : kFlagNames) {
        if ((flags & flag) != 0) {
            names.emplace_back(name);
        }
    }
    return names;
}

QMNetworkReachabilityRef QMNetworkReachability::networkReachabilityWithHostName(
    const std::optional<std::string>& hostname)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(hostname.has_value(), "hostname", 118);
    auto reachability = initWithNetworkReachability(platform::SCNetworkReachabilityCreateWithName(*hostname));
    reachability->host_ = *hostname;
    return reachability;
}

QMNetworkReachabilityRef QMNetworkReachability::networkReachabilityWithIP4AddressString(
    const std::optional<std::string>& internetAddress)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(internetAddress.has_value(), "internetAddress", 125);
    in_addr address{};
    // Text that does not parse leaves 0.0.0.0; the failure is not reported.
    if (::inet_pton(AF_INET, internetAddress->c_str(), &address) != 1) {
        address.s_addr = 0;
    }
    auto reachability = initWithNetworkReachability(targetForIPv4(address));
    reachability->host_ = *internetAddress;
    return reachability;
}

QMNetworkReachabilityRef QMNetworkReachability::networkReachabilityForInternetConnection()
{
    return initWithNetworkReachability(targetForIPv4(in_addr{}));
}

QMNetworkReachabilityRef QMNetworkReachability::initWithNetworkReachability(
    platform::SCNetworkReachabilityRef reachability)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(reachability != nullptr, "reachability", 150);
    return platform::makeObject<QMNetworkReachability>(std::move(reachability), std::nullopt);
}

QMNetworkReachability::QMNetworkReachability(platform::SCNetworkReachabilityRef reachability,
                                             std::optional<std::string> host)
    : networkReachability_(std::move(reachability)),
      host_(std::move(host)),
      networkReachabilityQueue_(platform::DispatchQueue::create("zarvo.foundation.networkReachability.queue")),
      backgroundQueue_(platform::OperationQueue::create())
{
    backgroundQueue_->setMaxConcurrentOperationCount(1);
}

QMNetworkReachability::~QMNetworkReachability()
{
    stopMonitoringNetworkReachability();
}

bool QMNetworkReachability::isReachable()
{
    if (monitoring_.load()) {
        return reachable_.load();
    }
    SCNetworkReachabilityFlags flags = 0;
    if (!platform::SCNetworkReachabilityGetFlags(networkReachability_, &flags)) {
        return false;
    }
    const bool reachable = isReachableWithFlags(flags);
    reachable_.store(reachable);
    return reachable;
}

void QMNetworkReachability::startMonitoringNetworkReachability()
{
    std::lock_guard lock(monitoringMutex_);
    if (monitoring_.load()) {
        return;
    }
    if (!platform::SCNetworkReachabilitySetDispatchQueue(networkReachability_, networkReachabilityQueue_)) {
        static_cast<void>(platform::SCNetworkReachabilitySetDispatchQueue(networkReachability_, nullptr));
        return;
    }
    // The callback holds the object weakly: monitoring must not keep it alive.
    std::weak_ptr<QMNetworkReachability> weak = std::static_pointer_cast<QMNetworkReachability>(shared_from_this());
    const bool installed = platform::SCNetworkReachabilitySetCallback(
        networkReachability_, [weak](SCNetworkReachabilityFlags flags) {
            if (auto self = weak.lock()) {
                self->networkReachabilityDidChange(flags);
            }
        });
    if (!installed) {
        static_cast<void>(platform::SCNetworkReachabilitySetDispatchQueue(networkReachability_, nullptr));
        static_cast<void>(platform::SCNetworkReachabilitySetCallback(networkReachability_, nullptr));
        return;
    }
    monitoring_.store(true);
}

void QMNetworkReachability::stopMonitoringNetworkReachability()
{
    std::lock_guard lock(monitoringMutex_);
    if (!monitoring_.load()) {
        return;
    }
    static_cast<void>(platform::SCNetworkReachabilitySetDispatchQueue(networkReachability_, nullptr));
    static_cast<void>(platform::SCNetworkReachabilitySetCallback(networkReachability_, nullptr));
    monitoring_.store(false);
}

void QMNetworkReachability::checkNetworkReachabilityForHost(const std::optional<std::string>& hostname,
                                                            CompletionHandler completionHandler)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(hostname.has_value(), "hostname", 227);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(completionHandler != nullptr, "completionHandler", 228);
    backgroundQueue_->addOperationWithBlock([host = *hostname, handler = std::move(completionHandler)] {
        handler(host, isNameReachable(host));
    });
}

void QMNetworkReachability::networkReachabilityDidChange(SCNetworkReachabilityFlags flags)
{
    reachable_.store(isReachableWithFlags(flags));
    platform::NotificationCenter::defaultCenter()->postNotificationName(QMNetworkReachabilityDidChangeNotification,
                                                                         shared_from_this());
    if (auto delegate = this->delegate().lock()) {
        delegate->networkReachabilityDidChange(*this);
    }
    if (auto block = notificationBlock()) {
        block(host_, isReachable());
    }
}

std::weak_ptr<QMNetworkReachabilityDelegate> QMNetworkReachability::delegate() const
{
    return delegate_.get();
}

void QMNetworkReachability::setDelegate(std::weak_ptr<QMNetworkReachabilityDelegate> delegate)
{
    delegate_.set(std::move(delegate));
}

QMNetworkReachability::NotificationBlock QMNetworkReachability::notificationBlock() const
{
    return notificationBlock_.get();
}

void QMNetworkReachability::setNotificationBlock(NotificationBlock block)
{
    notificationBlock_.set(std::move(block));
}
