#include "QMFoundation/Reachability/QMNetworkReachability.h"
#include "QMFoundation/Reachability/QMNetworkReachabilityObserver.h"

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/RunLoop.h"
#include "Platform/SystemConfiguration/RoutingNetlink.h"
#include "tests/Support/AssertionCapture.h"
#include "tests/Support/FakeRoutingAnswers.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace platform;

namespace {

constexpr SCNetworkReachabilityFlags kReachable = kSCNetworkReachabilityFlagsReachable;
constexpr SCNetworkReachabilityFlags kConnectionRequired = kSCNetworkReachabilityFlagsConnectionRequired;

// The kernel's answers, made up; `setFlags` sets what every address has.
class FakeRoutes : public testsupport::FakeRoutingAnswers {
public:
    void setFlags(SCNetworkReachabilityFlags flags) { answer(flags); }
    std::vector<std::string> asked() const { return askedIPv4(); }
};

void announceRouteChange()
{
    alignas(nlmsghdr) char buffer[NLMSG_SPACE(sizeof(rtmsg))] = {};
    auto* message = reinterpret_cast<nlmsghdr*>(buffer);
    message->nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    message->nlmsg_type = RTM_NEWROUTE;
    internal::NetlinkMonitor::shared().handleMessages(buffer, sizeof buffer);
}

// Writes what happens, in order, from the three ways a change is told.
class EventLog {
public:
    void add(std::string event)
    {
        {
            std::lock_guard lock(mutex_);
            events_.push_back(std::move(event));
        }
        added_.raise();
    }
    bool waitFor(int count) { return added_.wait(count); }
    std::vector<std::string> events() const
    {
        std::lock_guard lock(mutex_);
        return events_;
    }

private:
    testsupport::Signal added_;
    mutable std::mutex mutex_;  // guards `events_`
    std::vector<std::string> events_;
};

class LoggingDelegate final : public QMNetworkReachabilityDelegate {
public:
    explicit LoggingDelegate(EventLog& log) : log_(log) {}
    void networkReachabilityDidChange(QMNetworkReachability& reachability) override
    {
        log_.add(std::string("delegate ") + (reachability.isReachable() ? "YES" : "NO"));
    }

private:
    EventLog& log_;
};

}  // namespace

TEST(QMNetworkReachabilityFlags, DecidesReachableWithoutARequiredConnection)
{
    EXPECT_TRUE(QMNetworkReachability::isReachableWithFlags(kReachable));
    EXPECT_FALSE(QMNetworkReachability::isReachableWithFlags(kReachable | kConnectionRequired));
    EXPECT_FALSE(QMNetworkReachability::isReachableWithFlags(0));
    EXPECT_TRUE(QMNetworkReachability::isReachableWithFlags(kReachable | kSCNetworkReachabilityFlagsTransientConnection |
                                                            kSCNetworkReachabilityFlagsIsLocalAddress));
    EXPECT_FALSE(QMNetworkReachability::isReachableWithFlags(kConnectionRequired));
}

TEST(QMNetworkReachabilityFlags, NamesSetFlagsInTheirFixedOrder)
{
    EXPECT_EQ(QMNetworkReachability::stringValuesForFlags(kReachable | kConnectionRequired |
                                                          kSCNetworkReachabilityFlagsIsDirect),
              (std::vector<std::string>{"kSCNetworkReachabilityFlagsReachable",
                                        "kSCNetworkReachabilityFlagsConnectionRequired",
                                        "kSCNetworkReachabilityFlagsIsDirect"}));
    EXPECT_TRUE(QMNetworkReachability::stringValuesForFlags(0).empty());
    // Transient (bit 0) comes after Reachable (bit 1); unnamed bits are left out.
    EXPECT_EQ(QMNetworkReachability::stringValuesForFlags(0xffffffffU).size(), 8U);
    EXPECT_EQ(QMNetworkReachability::stringValuesForFlags(1U | 2U | (1U << 20)),
              (std::vector<std::string>{"kSCNetworkReachabilityFlagsReachable",
                                        "kSCNetworkReachabilityFlagsTransientConnection"}));
}

TEST(QMNetworkReachabilityConstruction, AddressTextThatDoesNotParseMeansTheWholeNetwork)
{
    FakeRoutes routes;
    const auto reachability = QMNetworkReachability::networkReachabilityWithIP4AddressString(std::string("not-an-ip"));
    EXPECT_EQ(reachability->host(), "not-an-ip");
    static_cast<void>(reachability->isReachable());
    const auto parsed = QMNetworkReachability::networkReachabilityWithIP4AddressString(std::string("192.0.2.7"));
    EXPECT_EQ(parsed->host(), "192.0.2.7");
    static_cast<void>(parsed->isReachable());
    EXPECT_EQ(routes.asked(), (std::vector<std::string>{"0.0.0.0", "192.0.2.7"}));
}

TEST(QMNetworkReachabilityConstruction, HostNamesAndTheInternetConnection)
{
    EXPECT_EQ(QMNetworkReachability::networkReachabilityWithHostName(std::string("git.example.org"))->host(),
              "git.example.org");
    EXPECT_EQ(QMNetworkReachability::networkReachabilityForInternetConnection()->host(), std::nullopt);
    const auto shared = QMNetworkReachability::sharedNetworkReachability();
    EXPECT_EQ(shared, QMNetworkReachability::sharedNetworkReachability());
    EXPECT_EQ(shared->host(), std::nullopt);
    EXPECT_EQ(shared->networkReachabilityQueue()->label(), "zarvo.foundation.networkReachability.queue");
    EXPECT_EQ(shared->backgroundQueue()->maxConcurrentOperationCount(), 1);
}

TEST(QMNetworkReachabilityConstruction, MissingArgumentsFailTheirAssertions)
{
    struct Row {
        std::function<void()> call;
        const char* condition;
        int line;
    };
    const auto reachability = QMNetworkReachability::networkReachabilityForInternetConnection();
    const Row rows[] = {
        {[] { QMNetworkReachability::isHostAvailable(std::nullopt); }, "hostname", 45},
        {[] { QMNetworkReachability::networkReachabilityWithHostName(std::nullopt); }, "hostname", 118},
        {[] { QMNetworkReachability::networkReachabilityWithIP4AddressString(std::nullopt); }, "internetAddress", 125},
        {[] { QMNetworkReachability::initWithNetworkReachability(nullptr); }, "reachability", 150},
        {[&] { reachability->checkNetworkReachabilityForHost(std::nullopt, [](const std::string&, bool) {}); },
         "hostname", 227},
        {[&] { reachability->checkNetworkReachabilityForHost(std::string("h"), nullptr); }, "completionHandler", 228},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.condition);
        const auto failure = testsupport::captureAssertion(row.call);
        EXPECT_EQ(failure.description, std::string("Invalid parameter not satisfying: ") + row.condition);
        EXPECT_EQ(failure.file, "QMFoundation/QMNetworkReachability");
        EXPECT_EQ(failure.line, row.line);
    }
}

TEST(QMNetworkReachabilityChecks, BadHostNamesAreNotAvailable)
{
    EXPECT_FALSE(QMNetworkReachability::isHostAvailable(std::string()));
    EXPECT_FALSE(QMNetworkReachability::isHostAvailable(std::string(1 << 20, 'h')));
    EXPECT_FALSE(QMNetworkReachability::isHostAvailable(std::string("\xc0\xaf\xed\xa0\x80\xff")));
}

TEST(QMNetworkReachabilityChecks, OneOffIsReachableAsksAfreshEachTime)
{
    FakeRoutes routes;
    const auto reachability = QMNetworkReachability::networkReachabilityWithIP4AddressString(std::string("10.1.2.3"));
    routes.setFlags(kReachable);
    EXPECT_TRUE(reachability->isReachable());
    routes.setFlags(kReachable | kConnectionRequired);
    EXPECT_FALSE(reachability->isReachable());
    EXPECT_EQ(routes.asked().size(), 2U);
}

TEST(QMNetworkReachabilityChecks, AsynchronousChecksRunOneAtATimeInOrder)
{
    FakeRoutes routes;
    routes.setFlags(kReachable);
    const auto reachability = QMNetworkReachability::networkReachabilityForInternetConnection();
    std::mutex mutex;
    std::vector<std::string> hosts;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    testsupport::Signal done;
    for (const char* host : {"127.0.0.1", "localhost", "", "127.0.0.2"}) {
        reachability->checkNetworkReachabilityForHost(std::string(host), [&](const std::string& name, bool reachable) {
            overlapped = overlapped || running.fetch_add(1) != 0;
            {
                std::lock_guard lock(mutex);
                hosts.push_back(name + (reachable ? ":YES" : ":NO"));
            }
            running.fetch_sub(1);
            done.raise();
        });
    }
    ASSERT_TRUE(done.wait(4));
    EXPECT_FALSE(overlapped.load());
    EXPECT_EQ(hosts, (std::vector<std::string>{"127.0.0.1:YES", "localhost:YES", ":NO", "127.0.0.2:YES"}));
}

TEST(QMNetworkReachabilityMonitoring, AnnouncesValueNotificationDelegateThenBlock)
{
    FakeRoutes routes;
    routes.setFlags(kReachable);
    const auto reachability = QMNetworkReachability::networkReachabilityWithIP4AddressString(std::string("10.1.2.3"));
    EventLog log;
    auto delegate = std::make_shared<LoggingDelegate>(log);
    reachability->setDelegate(delegate);
    const auto token = NotificationCenter::defaultCenter()->addObserverForName(
        QMNetworkReachabilityDidChangeNotification, reachability, nullptr, [&](const Notification& notification) {
            EXPECT_EQ(notification.object, reachability);
            EXPECT_EQ(DispatchQueue::currentLabel(), "zarvo.foundation.networkReachability.queue");
            log.add(std::string("notification ") + (reachability->isReachable() ? "YES" : "NO"));
        });
    reachability->setNotificationBlock([&](const std::optional<std::string>& host, bool reachable) {
        log.add("block " + host.value_or("nil") + (reachable ? " YES" : " NO"));
    });

    EXPECT_FALSE(reachability->isMonitoring());
    reachability->startMonitoringNetworkReachability();
    reachability->startMonitoringNetworkReachability();  // once is enough
    EXPECT_TRUE(reachability->isMonitoring());
    ASSERT_TRUE(log.waitFor(3));

    routes.setFlags(kReachable | kConnectionRequired);
    announceRouteChange();
    ASSERT_TRUE(log.waitFor(6));
    EXPECT_FALSE(reachability->isReachable());
    EXPECT_EQ(log.events(), (std::vector<std::string>{"notification YES", "delegate YES", "block 10.1.2.3 YES",
                                                      "notification NO", "delegate NO", "block 10.1.2.3 NO"}))
        << "one callback installed, however often monitoring was started";

    reachability->stopMonitoringNetworkReachability();
    reachability->stopMonitoringNetworkReachability();
    EXPECT_FALSE(reachability->isMonitoring());
    NotificationCenter::defaultCenter()->removeObserver(token);
}

TEST(QMNetworkReachabilityMonitoring, IsReachableKeepsTheLastAnnouncedValue)
{
    FakeRoutes routes;
    routes.setFlags(kReachable);
    const auto reachability = QMNetworkReachability::networkReachabilityWithIP4AddressString(std::string("10.1.2.3"));
    testsupport::Signal announced;
    reachability->setNotificationBlock([&](const std::optional<std::string>&, bool) { announced.raise(); });
    reachability->startMonitoringNetworkReachability();
    ASSERT_TRUE(announced.wait());
    routes.setFlags(0);  // not announced: no change was signalled
    EXPECT_TRUE(reachability->isReachable());
    reachability->stopMonitoringNetworkReachability();
    EXPECT_FALSE(reachability->isReachable()) << "asked afresh once monitoring has stopped";
}

TEST(QMNetworkReachabilityMonitoring, MonitoringDoesNotKeepTheObjectAlive)
{
    FakeRoutes routes;
    auto reachability = QMNetworkReachability::networkReachabilityForInternetConnection();
    testsupport::Signal announced;
    reachability->setNotificationBlock([&](const std::optional<std::string>&, bool) { announced.raise(); });
    reachability->startMonitoringNetworkReachability();
    ASSERT_TRUE(announced.wait());
    // Going away is an event of its own; the announcement that has just run
    // may still hold the object for a moment.
    testsupport::Signal gone;
    reachability->setDestructionHook("test", [&](Object&) { gone.raise(); });
    std::weak_ptr<QMNetworkReachability> weak = reachability;
    reachability.reset();
    ASSERT_TRUE(gone.wait());
    EXPECT_TRUE(weak.expired());
}

namespace {

class RecordingObserverDelegate final : public QMNetworkReachabilityObserving {
public:
    explicit RecordingObserverDelegate(bool responds) : responds_(responds) {}
    bool respondsToNetworkReachabilityDidChange() const override { return responds_; }
    void networkReachabilityDidChange(const Notification& notification) override
    {
        EXPECT_EQ(RunLoop::currentRunLoop(), RunLoop::mainRunLoop());
        senders.push_back(notification.object);
    }
    std::vector<ObjectRef> senders;

private:
    bool responds_;
};

// Runs the main run loop until `done` or the hang time-out.
bool runMainLoopUntil(const std::function<bool()>& done)
{
    const auto limit = std::chrono::steady_clock::now() + testsupport::kHangTimeout;
    while (!done() && std::chrono::steady_clock::now() < limit) {
        RunLoop::mainRunLoop()->runModeBeforeDate(NSDefaultRunLoopMode, Date::now().dateByAddingTimeInterval(0.05));
    }
    return done();
}

}  // namespace

TEST(QMNetworkReachabilityObserver, DeliversOnTheMainQueueForItsObjectOnly)
{
    FakeRoutes routes;
    const auto watched = QMNetworkReachability::networkReachabilityForInternetConnection();
    const auto other = QMNetworkReachability::networkReachabilityForInternetConnection();
    auto delegate = std::make_shared<RecordingObserverDelegate>(true);
    const auto observer = QMNetworkReachabilityObserver::initWithNetworkReachability(watched, delegate);
    EXPECT_TRUE(observer->queue()->isMainQueue());
    observer->startObserving();
    ASSERT_EQ(observer->observers().size(), 1U);

    other->networkReachabilityDidChange(kReachable);
    watched->networkReachabilityDidChange(kReachable);
    ASSERT_TRUE(runMainLoopUntil([&] { return !delegate->senders.empty(); }));
    // The main queue runs its operations in order: had the other object's
    // post been delivered, it would have come first.
    EXPECT_EQ(delegate->senders, std::vector<ObjectRef>{watched});
}

TEST(QMNetworkReachabilityObserver, KeepsStaleTokensUntilItStartsAgain)
{
    const auto watched = QMNetworkReachability::networkReachabilityForInternetConnection();
    auto delegate = std::make_shared<RecordingObserverDelegate>(true);
    const auto observer = QMNetworkReachabilityObserver::initWithNetworkReachability(watched, delegate);
    observer->startObserving();
    const auto firstToken = observer->observers().at(QMNetworkReachabilityDidChangeNotification);
    observer->stopObserving();
    EXPECT_EQ(observer->observers().size(), 1U) << "stopping keeps the stale token";
    observer->stopObserving();  // removing it again is harmless
    observer->startObserving();
    EXPECT_NE(observer->observers().at(QMNetworkReachabilityDidChangeNotification), firstToken);

    watched->networkReachabilityDidChange(kReachable);
    ASSERT_TRUE(runMainLoopUntil([&] { return !delegate->senders.empty(); }));
    // Another post through a fence: exactly one delivery per post.
    watched->networkReachabilityDidChange(0);
    ASSERT_TRUE(runMainLoopUntil([&] { return delegate->senders.size() >= 2; }));
    EXPECT_EQ(delegate->senders.size(), 2U);
}

TEST(QMNetworkReachabilityObserver, ADelegateWithoutTheMethodGetsNothingRegistered)
{
    const auto watched = QMNetworkReachability::networkReachabilityForInternetConnection();
    const auto observer = QMNetworkReachabilityObserver::initWithNetworkReachability(
        watched, std::make_shared<RecordingObserverDelegate>(false));
    observer->startObserving();
    EXPECT_TRUE(observer->observers().empty());
}

TEST(QMNetworkReachabilityObserver, MissingArgumentsFailTheirAssertions)
{
    const auto watched = QMNetworkReachability::networkReachabilityForInternetConnection();
    auto failure = testsupport::captureAssertion([] { QMNetworkReachabilityObserver::create(); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: networkReachability");
    EXPECT_EQ(failure.line, 30);
    failure = testsupport::captureAssertion(
        [&] { QMNetworkReachabilityObserver::initWithNetworkReachability(watched, nullptr); });
    EXPECT_EQ(failure.description, "Invalid parameter not satisfying: delegate");
    EXPECT_EQ(failure.file, "QMFoundation/QMNetworkReachabilityObserver");
    EXPECT_EQ(failure.line, 31);
}

#ifndef NDEBUG
TEST(QMNetworkReachabilityObserver, DebugBuildsRaiseWhenASecondThreadUsesIt)
{
    const auto watched = QMNetworkReachability::networkReachabilityForInternetConnection();
    const auto delegate = std::make_shared<RecordingObserverDelegate>(true);
    const auto observer = QMNetworkReachabilityObserver::initWithNetworkReachability(watched, delegate);
    // Made here, first used on another thread: that thread is its own from then on.
    std::thread([&] { observer->startObserving(); }).join();
    const auto failure = testsupport::captureAssertion([&] { observer->stopObserving(); });
    EXPECT_EQ(failure.method, "stopObserving");
    // The refused call changed nothing.
    EXPECT_FALSE(observer->observers().empty());
}
#endif
