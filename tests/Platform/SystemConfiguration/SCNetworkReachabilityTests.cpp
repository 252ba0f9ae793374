#include "Platform/SystemConfiguration/SCNetworkReachability.h"

#include "NetlinkMessages.h"
#include "Platform/SystemConfiguration/RoutingNetlink.h"
#include "tests/Support/FakeRoutingAnswers.h"
#include "tests/Support/ReachabilityCallbacks.h"
#include "tests/Support/Signal.h"

#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <mutex>
#include <string>
#include <vector>

using namespace platform;
using testsupport::NetlinkBuffer;

namespace {

constexpr SCNetworkReachabilityFlags kReachable = kSCNetworkReachabilityFlagsReachable;
constexpr SCNetworkReachabilityFlags kDirect = kSCNetworkReachabilityFlagsIsDirect;

using FakeKernel = testsupport::FakeRoutingAnswers;

using CallbackRecorder = testsupport::FlagsRecorder;
using testsupport::addressTarget;

void announceRouteChange()
{
    const auto batch = NetlinkBuffer().message(RTM_NEWROUTE, sizeof(rtmsg));
    internal::NetlinkMonitor::shared().handleMessages(batch.data(), batch.size());
}

}  // namespace

TEST(SCNetworkReachabilityTargets, NamesThatCannotBeHostNamesFailWithoutALookUp)
{
    FakeKernel kernel;
    const std::string rows[] = {
        "",
        ".",
        std::string(1 << 20, 'a'),
        std::string(254, 'a'),
        "\xff\xfe\xc3\x28.example",
        std::string("local\0host", 10),
        "a..b",
        std::string(64, 'x') + ".example",
    };
    for (const auto& name : rows) {
        SCOPED_TRACE(name.size() > 80 ? name.substr(0, 80) + "..." : name);
        const auto target = SCNetworkReachabilityCreateWithName(name);
        ASSERT_NE(target, nullptr) << "every text makes a target";
        SCNetworkReachabilityFlags flags = 12345;
        EXPECT_FALSE(SCNetworkReachabilityGetFlags(target, &flags));
        EXPECT_EQ(flags, 12345U) << "flags are written only on success";
    }
    EXPECT_EQ(kernel.questionCount(), 0);
}

TEST(SCNetworkReachabilityTargets, ANameIsAskedByTheAddressesItResolvesTo)
{
    FakeKernel kernel;
    kernel.answer(kReachable);
    SCNetworkReachabilityFlags flags = 0;
    ASSERT_TRUE(SCNetworkReachabilityGetFlags(SCNetworkReachabilityCreateWithName("localhost"), &flags));
    EXPECT_EQ(flags, kReachable);
    const auto asked = kernel.asked();
    ASSERT_FALSE(asked.empty());
    const auto& first = asked.front();
    if (first.ss_family == AF_INET) {
        EXPECT_EQ(ntohl(reinterpret_cast<const sockaddr_in&>(first).sin_addr.s_addr), INADDR_LOOPBACK);
    } else {
        ASSERT_EQ(first.ss_family, AF_INET6);
        EXPECT_TRUE(IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(first).sin6_addr));
    }
    EXPECT_EQ(asked.size(), 1U) << "the first reachable address answers for the name";
}

TEST(SCNetworkReachabilityTargets, AddressTargetsTakeIPv4AndIPv6Only)
{
    EXPECT_EQ(SCNetworkReachabilityCreateWithAddress(nullptr), nullptr);
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    EXPECT_EQ(SCNetworkReachabilityCreateWithAddress(reinterpret_cast<const sockaddr*>(&local)), nullptr);
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    EXPECT_NE(SCNetworkReachabilityCreateWithAddress(reinterpret_cast<const sockaddr*>(&six)), nullptr);
    SCNetworkReachabilityFlags flags = 0;
    EXPECT_FALSE(SCNetworkReachabilityGetFlags(nullptr, &flags));
    EXPECT_FALSE(SCNetworkReachabilitySetCallback(nullptr, nullptr));
    EXPECT_FALSE(SCNetworkReachabilitySetDispatchQueue(nullptr, nullptr));
}

TEST(SCNetworkReachabilityTargets, TheKernelAnswersForTheLoopbackAddress)
{
    // No fake: this machine's own kernel, for an address it always has.
    SCNetworkReachabilityFlags flags = 0;
    ASSERT_TRUE(SCNetworkReachabilityGetFlags(addressTarget("127.0.0.1"), &flags));
    EXPECT_EQ(flags, kReachable | kDirect | kSCNetworkReachabilityFlagsIsLocalAddress);
}

TEST(SCNetworkReachabilityMonitoring, FirstReportsTheCurrentFlagsThenOnlyChanges)
{
    FakeKernel kernel;
    kernel.answer(kReachable | kDirect);
    CallbackRecorder recorder;
    const auto target = addressTarget("10.9.0.2");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(target, recorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, DispatchQueue::create("test.callbacks")));
    ASSERT_TRUE(recorder.waitForCalls(1));

    // A change that leaves the flags as they were is asked about, not told.
    const int asked = kernel.questionCount();
    announceRouteChange();
    ASSERT_TRUE(kernel.waitForQuestions(asked + 1));

    kernel.answer(0);
    announceRouteChange();
    ASSERT_TRUE(recorder.waitForCalls(2));
    EXPECT_EQ(recorder.flags(), (std::vector<SCNetworkReachabilityFlags>{kReachable | kDirect, 0}));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, nullptr));
}

TEST(SCNetworkReachabilityMonitoring, AnOverflowOrAnUnreadableBatchAsksAgain)
{
    FakeKernel kernel;
    CallbackRecorder recorder;
    const auto target = addressTarget("10.9.0.2");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(target, recorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, DispatchQueue::create("test.callbacks")));
    ASSERT_TRUE(recorder.waitForCalls(1));

    kernel.answer(kReachable);
    internal::NetlinkMonitor::shared().handleOverflow();
    ASSERT_TRUE(recorder.waitForCalls(2));

    kernel.answer(0);
    const auto cut = NetlinkBuffer().message(RTM_NEWNEIGH, 12).message(RTM_NEWROUTE, sizeof(rtmsg));
    const auto truncated = cut.truncated(cut.size() - 6);
    internal::NetlinkMonitor::shared().handleMessages(truncated.data(), truncated.size());
    ASSERT_TRUE(recorder.waitForCalls(3));
    EXPECT_EQ(recorder.flags(), (std::vector<SCNetworkReachabilityFlags>{0, kReachable, 0}));
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(target, nullptr));
}

TEST(SCNetworkReachabilityMonitoring, ATargetThatCannotBeAskedReachesNothing)
{
    FakeKernel kernel;
    kernel.answer(-1);
    CallbackRecorder recorder;
    const auto target = addressTarget("10.9.0.2");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(target, recorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, DispatchQueue::create("test.callbacks")));
    ASSERT_TRUE(recorder.waitForCalls(1));
    EXPECT_EQ(recorder.flags(), std::vector<SCNetworkReachabilityFlags>{0});
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, nullptr));
}

TEST(SCNetworkReachabilityMonitoring, RestartingReportsAgainAndStoppedTargetsHearNothing)
{
    FakeKernel kernel;
    kernel.answer(kReachable);
    CallbackRecorder recorder;
    const auto target = addressTarget("10.9.0.2");
    const auto queue = DispatchQueue::create("test.callbacks");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(target, recorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, queue));
    ASSERT_TRUE(recorder.waitForCalls(1));

    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, nullptr));
    kernel.answer(0);
    announceRouteChange();  // nobody listens: no callback may come of it
    kernel.answer(kReachable | kDirect);
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, queue));
    ASSERT_TRUE(recorder.waitForCalls(2));
    // A barrier on the callback queue: anything stale would have come first.
    testsupport::Signal drained;
    queue->async([&] { drained.raise(); });
    ASSERT_TRUE(drained.wait());
    EXPECT_EQ(recorder.flags(), (std::vector<SCNetworkReachabilityFlags>{kReachable, kReachable | kDirect}));
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(target, nullptr));
}

TEST(SCNetworkReachabilityMonitoring, MonitoringDoesNotKeepTheTargetAlive)
{
    FakeKernel kernel;
    CallbackRecorder recorder;
    auto target = addressTarget("10.9.0.2");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(target, recorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(target, DispatchQueue::create("test.callbacks")));
    ASSERT_TRUE(recorder.waitForCalls(1));
    std::weak_ptr<SCNetworkReachability> weak = target;
    target.reset();
    // The evaluation or callback that has just run may still hold the target
    // for a moment; it goes as soon as that work has returned. There is no
    // event to wait on for an object the test no longer holds, so look.
    const auto limit = std::chrono::steady_clock::now() + testsupport::kHangTimeout;
    while (!weak.expired() && std::chrono::steady_clock::now() < limit) {
        std::this_thread::yield();
    }
    EXPECT_TRUE(weak.expired());
    announceRouteChange();  // must not reach the target that went
}

TEST(SCNetworkReachabilityMonitoring, ATargetSlowToAnswerHoldsUpNoOther)
{
    // The name's addresses are asked about until the test lets them go, as a
    // resolver that takes its time would hold the name's evaluation. Shared,
    // so an evaluation still finishing after the test finds them alive.
    struct Kernel {
        testsupport::Signal nameAsked;
        testsupport::Signal letGo;
        std::atomic<SCNetworkReachabilityFlags> answer{0};
    };
    const auto kernel = std::make_shared<Kernel>();
    const auto previous = internal::setAddressFlagsReaderForTesting(
        [kernel](const sockaddr_storage& address) -> std::optional<SCNetworkReachabilityFlags> {
            if (address.ss_family != AF_INET ||
                reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr == htonl(INADDR_LOOPBACK)) {
                kernel->nameAsked.raise();
                static_cast<void>(kernel->letGo.wait());
            }
            return kernel->answer.load();
        });
    struct Restore {
        std::shared_ptr<Kernel> kernel;
        internal::AddressFlagsReader previous;
        ~Restore()
        {
            kernel->letGo.raise();
            internal::setAddressFlagsReaderForTesting(previous);
        }
    } restore{kernel, previous};

    CallbackRecorder nameRecorder;
    const auto name = SCNetworkReachabilityCreateWithName("localhost");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(name, nameRecorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(name, DispatchQueue::create("test.name")));
    ASSERT_TRUE(kernel->nameAsked.wait());

    CallbackRecorder addressRecorder;
    const auto address = addressTarget("10.9.0.2");
    ASSERT_TRUE(SCNetworkReachabilitySetCallback(address, addressRecorder.callback()));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(address, DispatchQueue::create("test.address")));
    ASSERT_TRUE(addressRecorder.waitForCalls(1));
    kernel->answer = kReachable;
    announceRouteChange();
    ASSERT_TRUE(addressRecorder.waitForLast(kReachable)) << "held up behind the name";
    EXPECT_TRUE(nameRecorder.flags().empty());

    kernel->letGo.raise();
    ASSERT_TRUE(nameRecorder.waitForCalls(1));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(name, nullptr));
    ASSERT_TRUE(SCNetworkReachabilitySetDispatchQueue(address, nullptr));
}
