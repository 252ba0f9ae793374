#include "Platform/SystemConfiguration/RoutingNetlink.h"

#include "NetlinkMessages.h"

#include <gtest/gtest.h>

#include <linux/if_addr.h>
#include <net/if.h>
#include <net/if_arp.h>

#include <cerrno>

using namespace platform;
using platform::internal::RouteOutcome;
using testsupport::NetlinkBuffer;

namespace {

constexpr SCNetworkReachabilityFlags kReachable = kSCNetworkReachabilityFlagsReachable;
constexpr SCNetworkReachabilityFlags kDirect = kSCNetworkReachabilityFlagsIsDirect;
constexpr SCNetworkReachabilityFlags kLocal = kSCNetworkReachabilityFlagsIsLocalAddress;

internal::RouteAnswer parse(const NetlinkBuffer& buffer)
{
    return internal::parseRouteReply(buffer.data(), buffer.size());
}

}  // namespace

TEST(RouteReplyParsing, GivesFlagsAndTheLinkToAskByKindOfRoute)
{
    // The link (interface 3 unless a row names another) is given only for a
    // live route with one next hop: its state may add to the flags.
    struct Row {
        const char* what;
        NetlinkBuffer reply;
        SCNetworkReachabilityFlags flags;
        unsigned interfaceIndex;
    };
    const Row rows[] = {
        {"on-link", NetlinkBuffer().route(RTN_UNICAST), kReachable | kDirect, 3},
        {"behind a gateway", NetlinkBuffer().route(RTN_UNICAST, "10.9.0.2", 0, 32, RT_TABLE_MAIN, 7), kReachable, 7},
        {"own address, even with its link down", NetlinkBuffer().route(RTN_LOCAL, nullptr, RTNH_F_LINKDOWN),
         kReachable | kLocal | kDirect, 0},
        {"no carrier", NetlinkBuffer().route(RTN_UNICAST, "10.9.0.2", RTNH_F_LINKDOWN), 0, 0},
        {"dead next hop", NetlinkBuffer().route(RTN_UNICAST, nullptr, RTNH_F_DEAD), 0, 0},
        {"unreachable route", NetlinkBuffer().route(RTN_UNREACHABLE), 0, 0},
        {"blackhole route", NetlinkBuffer().route(RTN_BLACKHOLE), 0, 0},
        {"prohibit route", NetlinkBuffer().route(RTN_PROHIBIT), 0, 0},
        {"no route at all", NetlinkBuffer().error(ENETUNREACH), 0, 0},
        {"no route to host", NetlinkBuffer().error(EHOSTUNREACH), 0, 0},
        {"multipath, one hop alive behind a gateway",
         NetlinkBuffer().multipathRoute({{RTNH_F_LINKDOWN, nullptr}, {0, "10.9.0.2"}}), kReachable, 0},
        {"multipath, a live on-link hop", NetlinkBuffer().multipathRoute({{0, "10.9.0.2"}, {0, nullptr}}),
         kReachable | kDirect, 0},
        {"multipath, every hop down",
         NetlinkBuffer().multipathRoute({{RTNH_F_LINKDOWN, nullptr}, {RTNH_F_DEAD, "10.9.0.2"}}), 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto answer = parse(row.reply);
        ASSERT_EQ(answer.outcome, RouteOutcome::Answered);
        EXPECT_EQ(answer.flags, row.flags);
        EXPECT_EQ(answer.interfaceIndex, row.interfaceIndex);
    }
}

TEST(LinkState, AddsWhatTheLinkOfALiveRouteStillNeeds)
{
    constexpr auto kConnectionRequired = kSCNetworkReachabilityFlagsConnectionRequired;
    constexpr auto kTransient = kSCNetworkReachabilityFlagsTransientConnection;
    struct Row {
        const char* what;
        unsigned interfaceFlags;
        unsigned hardwareType;
        SCNetworkReachabilityFlags flags;
    };
    const Row rows[] = {
        {"a running Ethernet link", IFF_UP | IFF_BROADCAST | IFF_RUNNING, ARPHRD_ETHER, 0},
        {"a dormant link (802.1X not done)", IFF_UP | IFF_BROADCAST, ARPHRD_ETHER, kConnectionRequired},
        {"a running PPP link", IFF_UP | IFF_POINTOPOINT | IFF_RUNNING, ARPHRD_PPP, kTransient},
        {"a PPP link not running yet", IFF_UP | IFF_POINTOPOINT, ARPHRD_PPP, kTransient | kConnectionRequired},
        {"a point-to-point tunnel", IFF_UP | IFF_POINTOPOINT | IFF_RUNNING, ARPHRD_NONE, 0},
        {"an unknown type", IFF_UP | IFF_RUNNING, ARPHRD_VOID, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(internal::flagsOfLink(row.interfaceFlags, row.hardwareType), row.flags);
    }
}

TEST(RouteReplyParsing, FailsOnWhatIsNotAnAnswer)
{
    const NetlinkBuffer whole = NetlinkBuffer().route(RTN_UNICAST, "10.9.0.2");
    NetlinkBuffer overlong = whole;
    overlong.headerAt(0)->nlmsg_len = 4096;  // claims more than arrived
    NetlinkBuffer tooShortForARoute = NetlinkBuffer().message(RTM_NEWROUTE, 4);
    struct Row {
        const char* what;
        NetlinkBuffer reply;
    };
    const Row rows[] = {
        {"nothing", NetlinkBuffer()},
        {"half a header", whole.truncated(8)},
        {"a route cut short", whole.truncated(whole.size() - 4)},
        {"a length beyond the buffer", overlong},
        {"a route message without its header", tooShortForARoute},
        {"a message of another kind", NetlinkBuffer().message(RTM_NEWLINK, sizeof(ifinfomsg))},
        {"two answers to one question", NetlinkBuffer().route(RTN_UNICAST).route(RTN_LOCAL)},
        {"an error message cut short", NetlinkBuffer().message(NLMSG_ERROR, 2)},
        {"the kernel out of memory", NetlinkBuffer().error(ENOMEM)},
        {"a bare acknowledgement", NetlinkBuffer().error(0)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(parse(row.reply).outcome, RouteOutcome::Failed);
    }
}

TEST(RouteReplyParsing, RejectsARouteWithCorruptAttributes)
{
    NetlinkBuffer reply = NetlinkBuffer().route(RTN_UNICAST, "10.9.0.2");
    // The first attribute (the interface) claims to run past its message.
    auto* firstAttribute = reinterpret_cast<nlattr*>(static_cast<char*>(mnl_nlmsg_get_payload(reply.headerAt(0))) +
                                                     MNL_ALIGN(sizeof(rtmsg)));
    firstAttribute->nla_len = 0x7ff0;
    EXPECT_EQ(parse(reply).outcome, RouteOutcome::Failed);
}

TEST(RouteReplyParsing, ChecksThatTheReplyAnswersTheRequest)
{
    NetlinkBuffer reply = NetlinkBuffer().route(RTN_UNICAST);
    reply.headerAt(0)->nlmsg_seq = 7;
    reply.headerAt(0)->nlmsg_pid = 42;
    EXPECT_EQ(internal::parseRouteReply(reply.data(), reply.size(), 7, 42).outcome, RouteOutcome::Answered);
    EXPECT_EQ(internal::parseRouteReply(reply.data(), reply.size(), 8, 42).outcome, RouteOutcome::Failed)
        << "a late reply to an earlier question";
    EXPECT_EQ(internal::parseRouteReply(reply.data(), reply.size(), 7, 43).outcome, RouteOutcome::Failed);
}

TEST(DefaultRouteScanning, FindsALiveDefaultRouteAcrossParts)
{
    internal::DefaultRouteScan scan;
    const auto first = NetlinkBuffer()
                           .route(RTN_UNICAST, nullptr, 0, 24)                   // a subnet
                           .route(RTN_LOCAL, nullptr, 0, 0, RT_TABLE_LOCAL)      // not a default
                           .route(RTN_UNICAST, "10.9.0.2", RTNH_F_LINKDOWN, 0);  // a default without carrier
    internal::scanDefaultRoutes(first.data(), first.size(), scan);
    EXPECT_FALSE(scan.done);
    EXPECT_FALSE(scan.found);
    // Two live defaults: the first listed (the lower metric) is the one used.
    const auto second = NetlinkBuffer()
                            .route(RTN_UNICAST, "10.9.0.2", 0, 0, RT_TABLE_MAIN, 5)
                            .route(RTN_UNICAST, "10.8.0.2", 0, 0, RT_TABLE_MAIN, 6)
                            .done();
    internal::scanDefaultRoutes(second.data(), second.size(), scan);
    EXPECT_TRUE(scan.done);
    EXPECT_FALSE(scan.failed);
    EXPECT_EQ(scan.flags(), kReachable);
    EXPECT_EQ(scan.interfaceIndex, 5U);
}

TEST(DefaultRouteScanning, APointToPointDefaultIsDirect)
{
    internal::DefaultRouteScan scan;
    const auto dump = NetlinkBuffer().route(RTN_UNICAST, nullptr, 0, 0).done();
    internal::scanDefaultRoutes(dump.data(), dump.size(), scan);
    EXPECT_EQ(scan.flags(), kReachable | kDirect);
}

TEST(DefaultRouteScanning, NoDefaultRouteIsNoFlags)
{
    internal::DefaultRouteScan scan;
    const auto dump = NetlinkBuffer().route(RTN_UNREACHABLE, nullptr, 0, 0).route(RTN_UNICAST, nullptr, 0, 8).done();
    internal::scanDefaultRoutes(dump.data(), dump.size(), scan);
    EXPECT_TRUE(scan.done);
    EXPECT_EQ(scan.flags(), 0U);
}

TEST(DefaultRouteScanning, FailsOnBrokenParts)
{
    const NetlinkBuffer route = NetlinkBuffer().route(RTN_UNICAST, nullptr, 0, 0);
    NetlinkBuffer interrupted = route;
    interrupted.headerAt(0)->nlmsg_flags |= NLM_F_DUMP_INTR;
    struct Row {
        const char* what;
        NetlinkBuffer part;
    };
    const Row rows[] = {
        {"a part cut short", route.truncated(route.size() - 4)},
        {"an empty part", NetlinkBuffer()},
        {"a dump the kernel interrupted", interrupted},
        {"an error instead of routes", NetlinkBuffer().error(EPERM)},
        {"a message of another kind", NetlinkBuffer().message(RTM_NEWADDR, sizeof(ifaddrmsg))},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        internal::DefaultRouteScan scan;
        internal::scanDefaultRoutes(row.part.data(), row.part.size(), scan);
        EXPECT_TRUE(scan.failed);
    }
}

TEST(EventParsing, CountsChangesOfLinksAddressesRoutesAndRules)
{
    const auto batch = NetlinkBuffer()
                           .message(RTM_NEWLINK, sizeof(ifinfomsg))
                           .message(RTM_DELADDR, sizeof(ifaddrmsg))
                           .message(RTM_NEWROUTE, sizeof(rtmsg))
                           .message(RTM_DELRULE, sizeof(rtmsg))
                           .message(RTM_NEWNEIGH, 12);  // a neighbour changes no route
    const auto parsed = internal::parseEvents(batch.data(), batch.size());
    EXPECT_EQ(parsed.changes, 4U);
    EXPECT_FALSE(parsed.malformed);
}

TEST(EventParsing, NothingRelevantAsksNothing)
{
    const auto batch = NetlinkBuffer().message(RTM_NEWNEIGH, 12).message(NLMSG_NOOP, 0);
    EXPECT_FALSE(internal::parseEvents(batch.data(), batch.size()).relevant());
    EXPECT_FALSE(internal::parseEvents(nullptr, 0).relevant());
}

TEST(EventParsing, WhatCannotBeReadAsksEverythingAgain)
{
    const NetlinkBuffer whole = NetlinkBuffer().message(RTM_NEWNEIGH, 12).message(RTM_NEWROUTE, sizeof(rtmsg));
    NetlinkBuffer overlong = whole;
    overlong.headerAt(0)->nlmsg_len = 1U << 30;
    NetlinkBuffer underlong = whole;
    underlong.headerAt(0)->nlmsg_len = 3;  // shorter than its own header
    struct Row {
        const char* what;
        NetlinkBuffer batch;
    };
    const Row rows[] = {
        {"cut inside the second message", whole.truncated(whole.size() - 4)},
        {"cut inside a header", whole.truncated(5)},
        {"a length beyond the buffer", overlong},
        {"a length shorter than a header", underlong},
        {"a route message without its header", NetlinkBuffer().message(RTM_DELROUTE, 3)},
        {"an overrun", NetlinkBuffer().message(NLMSG_OVERRUN, 0)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const auto parsed = internal::parseEvents(row.batch.data(), row.batch.size());
        EXPECT_TRUE(parsed.malformed);
        EXPECT_TRUE(parsed.relevant());
    }
}
