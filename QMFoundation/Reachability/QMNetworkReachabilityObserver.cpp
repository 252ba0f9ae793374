#include "QMFoundation/Reachability/QMNetworkReachabilityObserver.h"

#include "Platform/Foundation/Exception.h"

namespace {

constexpr const char* kAssertionSourceFile = "QMFoundation/QMNetworkReachabilityObserver";

}  // namespace

std::shared_ptr<QMNetworkReachabilityObserver> QMNetworkReachabilityObserver::initWithNetworkReachability(
    const QMNetworkReachabilityRef& networkReachability, const std::shared_ptr<QMNetworkReachabilityObserving>& delegate)
{
    PLATFORM_PARAMETER_ASSERT_AT_LINE(networkReachability != nullptr, "networkReachability", 30);
    PLATFORM_PARAMETER_ASSERT_AT_LINE(delegate != nullptr, "delegate", 31);
    return platform::makeObject<QMNetworkReachabilityObserver>(networkReachability, delegate);
}

std::shared_ptr<QMNetworkReachabilityObserver> QMNetworkReachabilityObserver::create()
{
    return initWithNetworkReachability(nullptr, nullptr);
}

QMNetworkReachabilityObserver::QMNetworkReachabilityObserver(
    const QMNetworkReachabilityRef& networkReachability, const std::shared_ptr<QMNetworkReachabilityObserving>& delegate)
    : networkReachability_(networkReachability),
      delegate_(delegate),
      queue_(platform::OperationQueue::mainQueue()),
      notificationCenter_(platform::NotificationCenter::defaultCenter())
{
    // Made on one thread and handed to the one that uses it, as a rule.
    sequence_.detach();
}

QMNetworkReachabilityObserver::~QMNetworkReachabilityObserver()
{
    removeObservations();
}

void QMNetworkReachabilityObserver::startObserving()
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    if (!observers_.empty()) {
        unregisterObservers();
    }
    registerObservers();
}

void QMNetworkReachabilityObserver::stopObserving()
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    unregisterObservers();
}

void QMNetworkReachabilityObserver::registerObservers()
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    registerNotificationWithName(QMNetworkReachabilityDidChangeNotification,
                                 &QMNetworkReachabilityObserving::networkReachabilityDidChange);
}

void QMNetworkReachabilityObserver::unregisterObservers()
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    removeObservations();
}

void QMNetworkReachabilityObserver::removeObservations()
{
    // The tokens stay: removing one twice is harmless, and the next start
    // removes them again before it registers.
    for (const auto& [name, token] : observers_) {
        notificationCenter_->removeObserver(token);
    }
}

void QMNetworkReachabilityObserver::registerNotificationWithName(const std::string& name, Action action)
{
    PLATFORM_CHECK_SEQUENCE(sequence_);
    const auto delegate = delegate_.lock();
    // The protocol's one method is the only action there is to respond to.
    if (!delegate || action == nullptr || !delegate->respondsToNetworkReachabilityDidChange()) {
        return;
    }
    std::weak_ptr<QMNetworkReachabilityObserver> weak =
        std::static_pointer_cast<QMNetworkReachabilityObserver>(shared_from_this());
    auto token = notificationCenter_->addObserverForName(
        name, networkReachability_.lock(), queue_, [weak, action](const platform::Notification& notification) {
            const auto self = weak.lock();
            if (!self) {
                return;
            }
            if (const auto current = self->delegate_.lock()) {
                (current.get()->*action)(notification);
            }
        });
    // An earlier token of the same name is replaced, not removed.
    observers_[name] = std::move(token);
}
