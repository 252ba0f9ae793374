#include "Platform/SystemConfiguration/SCNetworkReachability.h"

#include "Platform/Foundation/Unicode.h"
#include "Platform/SystemConfiguration/RoutingNetlink.h"

#include <netdb.h>
#include <netinet/in.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>

namespace platform {
namespace {

// Hands a change of the network on to its target without keeping it alive.
class TargetListener final : public internal::NetworkChangeListener {
public:
    explicit TargetListener(std::weak_ptr<SCNetworkReachability> target) : target_(std::move(target)) {}
    void networkMayHaveChanged() override;

private:
    std::weak_ptr<SCNetworkReachability> target_;
};

constexpr std::size_t kLongestHostName = 253;
constexpr std::size_t kLongestLabel = 63;

// A name that DNS, /etc/hosts or any other resolver could hold: it need not
// be looked up to know it is nowhere.
bool couldBeHostName(std::string_view name)
{
    if (!name.empty() && name.back() == '.') {
        name.remove_suffix(1);  // the root: "example.org." is "example.org"
    }
    if (name.empty() || name.size() > kLongestHostName || name.find('\0') != std::string_view::npos ||
        !isValidUTF8(name)) {
        return false;
    }
    std::size_t start = 0;
    for (;;) {
        const auto dot = name.find('.', start);
        const auto label = name.substr(start, dot == std::string_view::npos ? std::string_view::npos : dot - start);
        if (label.empty() || label.size() > kLongestLabel) {
            return false;
        }
        if (dot == std::string_view::npos) {
            return true;
        }
        start = dot + 1;
    }
}

}  // namespace

class SCNetworkReachability final : public Object {
public:
    SCNetworkReachability(std::string name, std::optional<sockaddr_storage> address)
        : name_(std::move(name)), address_(address)
    {
    }

    std::string className() const override { return "SCNetworkReachability"; }

    // Asks afresh; nothing when it could not.
    std::optional<SCNetworkReachabilityFlags> readFlags() const
    {
        if (address_) {
            return internal::readAddressFlags(*address_);
        }
        return resolveAndRead();
    }

    bool setCallback(SCNetworkReachabilityCallBack callback)
    {
        SCNetworkReachabilityCallBack previous;  // released outside the lock
        std::lock_guard lock(mutex_);
        previous = std::exchange(callback_, std::move(callback));
        if (!updateMonitoringLocked()) {
            callback_ = nullptr;
            return false;
        }
        return true;
    }

    bool setQueue(DispatchQueueRef queue)
    {
        DispatchQueueRef previous;
        std::lock_guard lock(mutex_);
        previous = std::exchange(queue_, std::move(queue));
        if (!updateMonitoringLocked()) {
            queue_ = nullptr;
            return false;
        }
        return true;
    }

    // From the monitor's queue: asks again on the evaluation queue, once
    // for any number of changes that come before that begins.
    void scheduleEvaluation()
    {
        if (evaluationPending_.exchange(true)) {
            return;
        }
        std::weak_ptr<SCNetworkReachability> weak = std::static_pointer_cast<SCNetworkReachability>(shared_from_this());
        evaluationQueue_->async([weak] {
            if (auto self = weak.lock()) {
                self->evaluate();
            }
        });
    }

    ~SCNetworkReachability() override
    {
        if (listener_) {
            internal::NetlinkMonitor::shared().removeListener(listener_.get());
        }
    }

private:
    std::optional<SCNetworkReachabilityFlags> resolveAndRead() const
    {
        if (!couldBeHostName(name_)) {
            return std::nullopt;
        }
        addrinfo hints{};
        hints.ai_family = AF_UNSPEC;
        hints.ai_socktype = SOCK_STREAM;  // one entry per address, not one per socket type
        addrinfo* addresses = nullptr;
        if (::getaddrinfo(name_.c_str(), nullptr, &hints, &addresses) != 0) {
            return 0;  // a name that does not resolve is not reachable
        }
        std::optional<SCNetworkReachabilityFlags> first;
        std::optional<SCNetworkReachabilityFlags> reachable;
        std::optional<SCNetworkReachabilityFlags> ready;  // reachable without a connection made first
        for (const addrinfo* entry = addresses; entry != nullptr && !ready; entry = entry->ai_next) {
            if ((entry->ai_family != AF_INET && entry->ai_family != AF_INET6) ||
                entry->ai_addrlen > sizeof(sockaddr_storage)) {
                continue;
            }
            sockaddr_storage address{};
            std::memcpy(&address, entry->ai_addr, entry->ai_addrlen);
            const auto flags = internal::readAddressFlags(address);
            if (!flags) {
                continue;
            }
            if ((*flags & kSCNetworkReachabilityFlagsReachable) == 0) {
                first = first ? first : flags;
            } else if ((*flags & kSCNetworkReachabilityFlagsConnectionRequired) == 0) {
                ready = flags;
            } else {
                reachable = reachable ? reachable : flags;
            }
        }
        ::freeaddrinfo(addresses);
        return ready ? ready : reachable ? reachable : first.value_or(0);
    }

    // Monitoring runs while both a callback and a queue are set.
    bool updateMonitoringLocked()
    {
        const bool wanted = callback_ && queue_;
        if (wanted == monitoring_) {
            return true;
        }
        if (wanted) {
            if (!listener_) {
                listener_ = std::make_shared<TargetListener>(
                    std::static_pointer_cast<SCNetworkReachability>(shared_from_this()));
            }
            if (!internal::NetlinkMonitor::shared().addListener(listener_)) {
                return false;
            }
            monitoring_ = true;
            ++generation_;
            // The first evaluation reports the flags of now; registering
            // before it means no change after this point goes unseen.
            scheduleEvaluation();
        } else {
            internal::NetlinkMonitor::shared().removeListener(listener_.get());
            monitoring_ = false;
            ++generation_;
        }
        return true;
    }

    // On the evaluation queue.
    void evaluate()
    {
        evaluationPending_.store(false);
        std::uint64_t generation = 0;
        {
            std::lock_guard lock(mutex_);
            if (!monitoring_) {
                return;
            }
            generation = generation_;
        }
        if (generation != evaluatedGeneration_) {
            // Monitoring began anew: its first answer is reported whatever it is.
            evaluatedGeneration_ = generation;
            lastFlags_.reset();
        }
        // A target that cannot be asked counts as reaching nothing.
        const SCNetworkReachabilityFlags flags = readFlags().value_or(0);
        if (lastFlags_ == flags) {
            return;
        }
        lastFlags_ = flags;
        DispatchQueueRef queue;
        {
            std::lock_guard lock(mutex_);
            if (!monitoring_ || generation_ != generation) {
                return;
            }
            queue = queue_;
        }
        std::weak_ptr<SCNetworkReachability> weak = std::static_pointer_cast<SCNetworkReachability>(shared_from_this());
        queue->async([weak, generation, flags] {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            SCNetworkReachabilityCallBack callback;
            {
                std::lock_guard lock(self->mutex_);
                if (!self->monitoring_ || self->generation_ != generation) {
                    return;  // stopped (or restarted) since: not this callback's turn
                }
                callback = self->callback_;
            }
            callback(flags);
        });
    }

    const std::string name_;
    const std::optional<sockaddr_storage> address_;
    // Evaluations of one target run one at a time, off the monitor's queue:
    // a name's resolution may take seconds.
    const DispatchQueueRef evaluationQueue_ = DispatchQueue::create("zarvo.systemconfiguration.target");
    std::atomic<bool> evaluationPending_{false};
    // Only on the evaluation queue.
    std::uint64_t evaluatedGeneration_ = 0;
    std::optional<SCNetworkReachabilityFlags> lastFlags_;

    std::mutex mutex_;  // guards the fields below
    SCNetworkReachabilityCallBack callback_;
    DispatchQueueRef queue_;
    bool monitoring_ = false;
    std::uint64_t generation_ = 0;  // counts starts and stops of monitoring
    std::shared_ptr<TargetListener> listener_;
};

void TargetListener::networkMayHaveChanged()
{
    if (auto target = target_.lock()) {
        target->scheduleEvaluation();
    }
}

SCNetworkReachabilityRef SCNetworkReachabilityCreateWithName(std::string_view name)
{
    return makeObject<SCNetworkReachability>(std::string(name), std::nullopt);
}

SCNetworkReachabilityRef SCNetworkReachabilityCreateWithAddress(const sockaddr* address)
{
    if (address == nullptr) {
        return nullptr;
    }
    sockaddr_storage storage{};
    if (address->sa_family == AF_INET) {
        std::memcpy(&storage, address, sizeof(sockaddr_in));
    } else if (address->sa_family == AF_INET6) {
        std::memcpy(&storage, address, sizeof(sockaddr_in6));
    } else {
        return nullptr;
    }
    return makeObject<SCNetworkReachability>(std::string(), storage);
}

bool SCNetworkReachabilityGetFlags(const SCNetworkReachabilityRef& target, SCNetworkReachabilityFlags* flags)
{
    if (!target) {
        return false;
    }
    const auto read = target->readFlags();
    if (!read) {
        return false;
    }
    if (flags != nullptr) {
        *flags = *read;
    }
    return true;
}

bool SCNetworkReachabilitySetCallback(const SCNetworkReachabilityRef& target, SCNetworkReachabilityCallBack callback)
{
    if (!target) {
        return false;
    }
    return target->setCallback(std::move(callback));
}

bool SCNetworkReachabilitySetDispatchQueue(const SCNetworkReachabilityRef& target, DispatchQueueRef queue)
{
    if (!target) {
        return false;
    }
    return target->setQueue(std::move(queue));
}

}  // namespace platform
