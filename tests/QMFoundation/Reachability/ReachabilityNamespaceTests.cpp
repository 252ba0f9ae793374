// Reachability against real networks: each test process enters a user,
// network and mount namespace of its own before anything else runs, builds
// a veth pair with iproute2, and changes links, addresses and routes under
// the eyes of real targets. Where the kernel forbids such namespaces, every
// test is skipped and says why.
#include "QMFoundation/Reachability/QMNetworkReachability.h"

#include "Platform/SystemConfiguration/RoutingNetlink.h"
#include "Platform/SystemConfiguration/SCNetworkReachability.h"
#include "tests/Support/NetworkNamespace.h"
#include "tests/Support/ReachabilityCallbacks.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

// glibc's <net/if.h> first: <linux/if.h> then leaves out what it defines.
#include <net/if.h>

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

using namespace platform;

namespace {

constexpr SCNetworkReachabilityFlags kReachable = kSCNetworkReachabilityFlagsReachable;
constexpr SCNetworkReachabilityFlags kDirect = kSCNetworkReachabilityFlagsIsDirect;
constexpr SCNetworkReachabilityFlags kLocal = kSCNetworkReachabilityFlagsIsLocalAddress;
constexpr SCNetworkReachabilityFlags kConnectionRequired = kSCNetworkReachabilityFlagsConnectionRequired;

testsupport::NetworkNamespace network;
// A name that resolves to the far side of the gateway, when /etc/hosts is ours.
std::string hostsName = "localhost";

bool ip(const std::string& arguments)
{
    return testsupport::ip(arguments);
}

using testsupport::addressTarget;
using Recorder = testsupport::FlagsRecorder;

SCNetworkReachabilityFlags flagsOf(const char* dotted)
{
    SCNetworkReachabilityFlags flags = 0xdead;
    EXPECT_TRUE(SCNetworkReachabilityGetFlags(addressTarget(dotted), &flags)) << dotted;
    return flags;
}

// The kernel applies a carrier change from a work queue, a moment after the
// command that caused it returns: wait to be told that the far side of the
// pair reached `flags` before asking anything that depends on it.
bool farSideBecomes(SCNetworkReachabilityFlags flags)
{
    // The callback owns the recorder, so one still queued when the target is
    // detached finds it alive.
    const auto recorder = std::make_shared<Recorder>();
    const auto callback = [recorder, record = recorder->callback()](SCNetworkReachabilityFlags told) {
        record(told);
    };
    const auto farSide = addressTarget("10.9.0.2");
    const bool told = SCNetworkReachabilitySetCallback(farSide, callback) &&
                      SCNetworkReachabilitySetDispatchQueue(farSide, DispatchQueue::create("test.far-side")) &&
                      recorder->waitForLast(flags);
    static_cast<void>(SCNetworkReachabilitySetDispatchQueue(farSide, nullptr));
    return told;
}

// Declares a dormant link operational, as a supplicant does once 802.1X
// has authenticated it (iproute2 has no word for this); true once the
// kernel acknowledged it.
bool declareOperational(unsigned interfaceIndex)
{
    mnl_socket* socket = mnl_socket_open(NETLINK_ROUTE);
    if (socket == nullptr) {
        return false;
    }
    alignas(nlmsghdr) char buffer[8192];
    auto* request = mnl_nlmsg_put_header(buffer);
    request->nlmsg_type = RTM_NEWLINK;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
    request->nlmsg_seq = 1;
    auto* link = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
    link->ifi_family = AF_UNSPEC;
    link->ifi_index = static_cast<int>(interfaceIndex);
    mnl_attr_put_u8(request, IFLA_OPERSTATE, IF_OPER_UP);
    bool acknowledged = mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) == 0 &&
                        mnl_socket_sendto(socket, request, request->nlmsg_len) >= 0;
    if (acknowledged) {
        const auto length = mnl_socket_recvfrom(socket, buffer, sizeof buffer);
        acknowledged = length > 0 && mnl_cb_run(buffer, static_cast<std::size_t>(length), 1,
                                                 mnl_socket_get_portid(socket), nullptr, nullptr) >= 0;
    }
    mnl_socket_close(socket);
    return acknowledged;
}

class ReachabilityInNamespace : public testing::Test {
protected:
    void SetUp() override
    {
        if (!network.skipReason.empty()) {
            GTEST_SKIP() << network.skipReason;
        }
        // v0 (10.9.0.1) is ours; 10.9.0.2 on the far side plays the gateway.
        ASSERT_TRUE(ip("link set lo up"));
        ASSERT_TRUE(ip("link add v0 type veth peer name v1"));
        ASSERT_TRUE(ip("addr add 10.9.0.1/24 dev v0"));
        ASSERT_TRUE(ip("link set v0 up"));
        ASSERT_TRUE(ip("link set v1 up"));
        ASSERT_TRUE(farSideBecomes(kReachable | kDirect)) << "v0 never gained carrier";
    }
    // Removing v0 takes its peer, addresses and routes with it, so tests run
    // together in one process each begin from the same network.
    void TearDown() override
    {
        if (network.skipReason.empty()) {
            static_cast<void>(ip("link del v0"));
        }
    }
};

}  // namespace

TEST_F(ReachabilityInNamespace, FlagsFollowTheRoutingTable)
{
    EXPECT_EQ(flagsOf("10.9.0.2"), kReachable | kDirect);
    EXPECT_EQ(flagsOf("10.9.0.1"), kReachable | kDirect | kLocal);
    EXPECT_EQ(flagsOf("10.20.1.1"), 0U);
    EXPECT_EQ(flagsOf("0.0.0.0"), 0U) << "no default route yet";

    ASSERT_TRUE(ip("route add 10.20.0.0/16 via 10.9.0.2"));
    EXPECT_EQ(flagsOf("10.20.1.1"), kReachable);
    EXPECT_EQ(flagsOf("192.0.2.1"), 0U);
    ASSERT_TRUE(ip("route add default via 10.9.0.2"));
    EXPECT_EQ(flagsOf("0.0.0.0"), kReachable);
    EXPECT_EQ(flagsOf("192.0.2.1"), kReachable);

    // The far side goes down: our link keeps its routes but loses carrier.
    ASSERT_TRUE(ip("link set v1 down"));
    ASSERT_TRUE(farSideBecomes(0));
    EXPECT_EQ(flagsOf("10.9.0.2"), 0U);
    EXPECT_EQ(flagsOf("10.20.1.1"), 0U);
    EXPECT_EQ(flagsOf("0.0.0.0"), 0U);
    EXPECT_EQ(flagsOf("10.9.0.1"), kReachable | kDirect | kLocal) << "our own address stays ours";
}

TEST_F(ReachabilityInNamespace, ADormantLinkNeedsItsConnectionMadeFirst)
{
    // In dormant mode a link with carrier waits, as for 802.1X, until it is
    // declared operational; the mode applies from the next carrier change.
    ASSERT_TRUE(ip("route add 10.20.0.0/16 via 10.9.0.2"));
    ASSERT_TRUE(ip("route add default via 10.9.0.2"));
    ASSERT_TRUE(ip("link set v0 mode dormant"));
    ASSERT_TRUE(ip("link set v1 down"));
    ASSERT_TRUE(farSideBecomes(0));
    ASSERT_TRUE(ip("link set v1 up"));
    ASSERT_TRUE(farSideBecomes(kReachable | kDirect | kConnectionRequired));

    EXPECT_EQ(flagsOf("10.20.1.1"), kReachable | kConnectionRequired);
    EXPECT_EQ(flagsOf("0.0.0.0"), kReachable | kConnectionRequired);
    EXPECT_EQ(flagsOf("10.9.0.1"), kReachable | kDirect | kLocal) << "our own address needs no connection";
    EXPECT_FALSE(QMNetworkReachability::networkReachabilityForInternetConnection()->isReachable());
    if (hostsName != "localhost") {
        EXPECT_FALSE(QMNetworkReachability::isHostAvailable(hostsName));
    }

    // Authenticated: the link runs, with no change of carrier or routes.
    const unsigned v0 = if_nametoindex("v0");
    ASSERT_NE(v0, 0U);
    ASSERT_TRUE(declareOperational(v0));
    ASSERT_TRUE(farSideBecomes(kReachable | kDirect));
    EXPECT_EQ(flagsOf("0.0.0.0"), kReachable);
    EXPECT_TRUE(QMNetworkReachability::networkReachabilityForInternetConnection()->isReachable());
}

TEST_F(ReachabilityInNamespace, NamesResolveThroughTheSystemResolver)
{
    EXPECT_TRUE(QMNetworkReachability::isHostAvailable(std::string("localhost")));
    if (hostsName != "localhost") {
        EXPECT_FALSE(QMNetworkReachability::isHostAvailable(hostsName)) << "no route to 10.20.1.1 yet";
        ASSERT_TRUE(ip("route add 10.20.0.0/16 via 10.9.0.2"));
        EXPECT_TRUE(QMNetworkReachability::isHostAvailable(hostsName));
    }
    EXPECT_FALSE(QMNetworkReachability::isHostAvailable(std::string("no-such-host.zarvo.test")));
}

TEST_F(ReachabilityInNamespace, AMonitoredTargetIsToldOfEachChangeOnce)
{
    Recorder recorder;
    const auto gateway = addressTarget("10.20.1.1");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(gateway, recorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(gateway, DispatchQueue::create("test.callbacks")));
    ASSERT_TRUE(recorder.waitForLast(0));

    ASSERT_TRUE(ip("route add 10.20.0.0/16 via 10.9.0.2"));
    ASSERT_TRUE(recorder.waitForLast(kReachable));
    ASSERT_TRUE(ip("route add 10.30.0.0/16 via 10.9.0.2"));  // unrelated: nothing to tell
    // Taking the link down removes its routes without a route-deleted message.
    ASSERT_TRUE(ip("link set v0 down"));
    ASSERT_TRUE(recorder.waitForLast(0));
    ASSERT_TRUE(ip("link set v0 up"));
    ASSERT_TRUE(ip("route add 10.20.0.0/16 via 10.9.0.2"));
    ASSERT_TRUE(recorder.waitForLast(kReachable));
    ASSERT_TRUE(ip("route add default via 10.9.0.2"));  // still reachable, by the more specific route
    ASSERT_TRUE(ip("route del 10.20.0.0/16"));
    ASSERT_TRUE(ip("route del default"));
    ASSERT_TRUE(recorder.waitForLast(0));
    EXPECT_EQ(recorder.flags(), (std::vector<SCNetworkReachabilityFlags>{0, kReachable, 0, kReachable, 0}));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(gateway, nullptr));
}

TEST_F(ReachabilityInNamespace, TheLibraryAnnouncesRealChanges)
{
    const auto reachability = QMNetworkReachability::networkReachabilityWithIP4AddressString(std::string("10.9.0.2"));
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<bool> seen;
    reachability->setNotificationBlock([&](const std::optional<std::string>&, bool reachable) {
        std::lock_guard lock(mutex);
        seen.push_back(reachable);
        changed.notify_all();
    });
    const auto waitFor = [&](std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, testsupport::kHangTimeout, [&] { return seen.size() >= count; });
    };
    reachability->startMonitoringNetworkReachability();
    ASSERT_TRUE(waitFor(1));
    ASSERT_TRUE(ip("link set v1 down"));
    ASSERT_TRUE(waitFor(2));
    EXPECT_FALSE(reachability->isReachable());
    ASSERT_TRUE(ip("link set v1 up"));
    ASSERT_TRUE(waitFor(3));
    EXPECT_TRUE(reachability->isReachable());
    std::lock_guard lock(mutex);
    EXPECT_EQ(seen, (std::vector<bool>{true, false, true}));
}

TEST_F(ReachabilityInNamespace, ABurstThatOverflowsTheSocketLosesNoLastChange)
{
    // The smallest buffer the kernel grants: the burst cannot fit in it.
    internal::NetlinkMonitor::shared().setReceiveBufferBytes(1);
    Recorder recorder;
    const auto gateway = addressTarget("10.20.1.1");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(gateway, recorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(gateway, DispatchQueue::create("test.callbacks")));
    ASSERT_TRUE(recorder.waitForLast(0));

    // Thousands of unrelated routes, then the one that matters, in one burst.
    char batchPath[] = "/tmp/zarvo-reachability-batch-XXXXXX";
    const int fd = ::mkstemp(batchPath);
    ASSERT_GE(fd, 0);
    ::close(fd);
    {
        std::ofstream batch(batchPath);
        for (int index = 0; index < 20000; ++index) {
            batch << "route add 10.100." << index / 250 << "." << index % 250 << "/32 via 10.9.0.2\n";
        }
        batch << "route add 10.20.0.0/16 via 10.9.0.2\n";
    }
    // While the monitor's queue is held up nothing reads the socket, so the
    // kernel drops what does not fit, the last change among it.
    testsupport::Signal release;
    internal::NetlinkMonitor::shared().queue()->async([&] { release.wait(); });
    const bool added = ip(std::string("-batch ") + batchPath);
    release.raise();
    ::unlink(batchPath);
    ASSERT_TRUE(added);
    ASSERT_TRUE(recorder.waitForLast(kReachable));
    EXPECT_EQ(recorder.flags(), (std::vector<SCNetworkReachabilityFlags>{0, kReachable}));
    EXPECT_GT(internal::NetlinkMonitor::shared().overflowCount(), 0U) << "the burst was meant to overflow the socket";
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(gateway, nullptr));
}

int main(int argc, char** argv)
{
    network = testsupport::enterNetworkNamespace("127.0.0.1 localhost\n10.20.1.1 gateway.zarvo.test\n");
    if (network.ownHostsFile) {
        hostsName = "gateway.zarvo.test";
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
