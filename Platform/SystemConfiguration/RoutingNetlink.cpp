#include "Platform/SystemConfiguration/RoutingNetlink.h"

#include "Platform/Foundation/EventMonitor.h"
#include "Platform/Foundation/Guarded.h"

#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace platform::internal {
namespace {

constexpr SCNetworkReachabilityFlags kRouteFlags = kSCNetworkReachabilityFlagsReachable;
constexpr SCNetworkReachabilityFlags kLocalFlags = kSCNetworkReachabilityFlagsReachable |
                                                   kSCNetworkReachabilityFlagsIsLocalAddress |
                                                   kSCNetworkReachabilityFlagsIsDirect;

// Replies to one route request fit easily; a dump comes in parts of at most
// this size (the kernel fills a part up to about a page, or 8 KiB).
constexpr std::size_t kReceiveBufferSize = 32768;
// A kernel that does not answer a request within this time is taken for
// one that will not: the caller then hears "could not ask", never hangs.
constexpr int kReplyTimeoutSeconds = 2;
// Big enough for a burst of a few thousand announcements; beyond that the
// kernel drops messages, which the monitor treats as "ask everything again".
constexpr int kSubscribedBufferBytes = 1 << 20;
constexpr std::size_t kIdleQuerySockets = 4;

// --- Route messages

struct NextHopState {
    bool alive = false;  // some next hop is neither dead nor without carrier
    bool direct = false;  // a live next hop has no gateway
};

// Calls `visit` with each attribute of a run of `length` bytes; false when
// the run does not end where its last attribute does (a length that points
// past the run, or bytes that are not a whole attribute).
template <typename Visit>
bool forEachAttribute(const nlattr* attribute, int length, Visit&& visit)
{
    while (mnl_attr_ok(attribute, length)) {
        visit(attribute);
        // mnl_attr_next does not count down: the remaining length is ours.
        length -= static_cast<int>(MNL_ALIGN(attribute->nla_len));
        attribute = mnl_attr_next(attribute);
    }
    return length <= 0;
}

bool isGateway(const nlattr* attribute)
{
    const auto type = mnl_attr_get_type(attribute);
    return type == RTA_GATEWAY || type == RTA_VIA;
}

// The next hops of a multipath route: an array of rtnexthop records, each
// followed by its own attributes.
NextHopState readMultipath(const nlattr* multipath)
{
    NextHopState state;
    const auto* nextHop = static_cast<const rtnexthop*>(mnl_attr_get_payload(multipath));
    int remaining = mnl_attr_get_payload_len(multipath);
    // RTNH_OK reads the record's length before it checks there is room for it.
    while (remaining >= static_cast<int>(sizeof(rtnexthop)) && RTNH_OK(nextHop, remaining)) {
        const bool alive = (nextHop->rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0;
        if (alive) {
            state.alive = true;
            const auto attributesLength = static_cast<int>(nextHop->rtnh_len) - static_cast<int>(RTNH_LENGTH(0));
            bool gateway = false;
            forEachAttribute(reinterpret_cast<const nlattr*>(RTNH_DATA(nextHop)), attributesLength,
                             [&](const nlattr* attribute) { gateway = gateway || isGateway(attribute); });
            state.direct = state.direct || !gateway;
        }
        remaining -= static_cast<int>(RTNH_ALIGN(nextHop->rtnh_len));
        nextHop = RTNH_NEXT(nextHop);
    }
    return state;
}

// The flags one route message gives; nothing when the message is too short
// to be a route. `interfaceIndex` learns the link of a live route's one next
// hop (it is left alone otherwise).
std::optional<SCNetworkReachabilityFlags> flagsOfRoute(const nlmsghdr* message, unsigned* interfaceIndex = nullptr)
{
    if (mnl_nlmsg_get_payload_len(message) < sizeof(rtmsg)) {
        return std::nullopt;
    }
    const auto* route = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
    bool gateway = false;
    const nlattr* multipath = nullptr;
    unsigned outputInterface = 0;
    const auto* first = static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(message, sizeof(rtmsg)));
    const auto length = static_cast<int>(static_cast<const char*>(mnl_nlmsg_get_payload_tail(message)) -
                                         reinterpret_cast<const char*>(first));
    const bool whole = forEachAttribute(first, length, [&](const nlattr* attribute) {
        gateway = gateway || isGateway(attribute);
        if (mnl_attr_get_type(attribute) == RTA_MULTIPATH) {
            multipath = attribute;
        }
        if (mnl_attr_get_type(attribute) == RTA_OIF && mnl_attr_validate(attribute, MNL_TYPE_U32) == 0) {
            outputInterface = mnl_attr_get_u32(attribute);
        }
    });
    if (!whole) {
        return std::nullopt;
    }
    switch (route->rtm_type) {
    case RTN_LOCAL:
        // One of this machine's own addresses: reachable whatever its link does.
        return kLocalFlags;
    case RTN_UNICAST:
    case RTN_BROADCAST:
    case RTN_MULTICAST:
    case RTN_ANYCAST: {
        NextHopState state;
        if (multipath != nullptr) {
            state = readMultipath(multipath);
        } else {
            state.alive = (route->rtm_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0;
            state.direct = !gateway;
        }
        if (!state.alive) {
            return 0;
        }
        if (multipath == nullptr && interfaceIndex != nullptr) {
            *interfaceIndex = outputInterface;
        }
        return kRouteFlags | (state.direct ? kSCNetworkReachabilityFlagsIsDirect : 0);
    }
    default:
        // Unreachable, blackhole, prohibit, throw, ...: a route that says no.
        return 0;
    }
}

// Kernel answers to a route request that mean "there is no route", as
// opposed to "the request failed".
bool meansNoRoute(int error)
{
    switch (error) {
    case ENETUNREACH:
    case EHOSTUNREACH:
    case ENETDOWN:
    case EHOSTDOWN:
    case EACCES:  // a prohibit route
    case EPERM:
    case EINVAL:  // a blackhole route
    case ESRCH:
    case ENOENT:
        return true;
    default:
        return false;
    }
}

// What a reply said, for both parsers.
struct ReplyState {
    bool error = false;  // an NLMSG_ERROR came
    int code = 0;  // its errno (0: an acknowledgement)
    bool done = false;
    bool malformed = false;
    std::optional<SCNetworkReachabilityFlags> flags;  // of a single route
    unsigned interfaceIndex = 0;  // of a single route
    DefaultRouteScan* scan = nullptr;  // of a dump
};

int onError(const nlmsghdr* message, void* data)
{
    auto& control = *static_cast<ReplyState*>(data);
    if (mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr)) {
        control.malformed = true;
        return MNL_CB_ERROR;
    }
    const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
    control.error = true;
    control.code = -error->error;
    return MNL_CB_STOP;
}

int onDone(const nlmsghdr*, void* data)
{
    static_cast<ReplyState*>(data)->done = true;
    return MNL_CB_STOP;
}

int onOverrun(const nlmsghdr*, void* data)
{
    static_cast<ReplyState*>(data)->malformed = true;
    return MNL_CB_ERROR;
}

// mnl_cb_run2 calls these by message type, with the same data pointer as
// the callback of data messages: every run passes a ReplyState.
constexpr std::array<mnl_cb_t, NLMSG_MIN_TYPE> kControlCallbacks = [] {
    std::array<mnl_cb_t, NLMSG_MIN_TYPE> callbacks{};
    callbacks[NLMSG_ERROR] = onError;
    callbacks[NLMSG_DONE] = onDone;
    callbacks[NLMSG_OVERRUN] = onOverrun;
    return callbacks;
}();


int onRouteReply(const nlmsghdr* message, void* data)
{
    auto& state = *static_cast<ReplyState*>(data);
    if (message->nlmsg_type != RTM_NEWROUTE || state.flags) {
        state.malformed = true;
        return MNL_CB_ERROR;
    }
    state.flags = flagsOfRoute(message, &state.interfaceIndex);
    if (!state.flags) {
        state.malformed = true;
        return MNL_CB_ERROR;
    }
    return MNL_CB_OK;
}


int onDumpedRoute(const nlmsghdr* message, void* data)
{
    auto& state = *static_cast<ReplyState*>(data);
    if (message->nlmsg_type != RTM_NEWROUTE || mnl_nlmsg_get_payload_len(message) < sizeof(rtmsg)) {
        state.malformed = true;
        return MNL_CB_ERROR;
    }
    const auto* route = static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
    if (route->rtm_dst_len != 0 || route->rtm_table == RT_TABLE_LOCAL || route->rtm_type != RTN_UNICAST ||
        (route->rtm_flags & RTM_F_CLONED) != 0) {
        return MNL_CB_OK;
    }
    unsigned interfaceIndex = 0;
    const auto flags = flagsOfRoute(message, &interfaceIndex);
    if (!flags) {
        state.malformed = true;
        return MNL_CB_ERROR;
    }
    if ((*flags & kSCNetworkReachabilityFlagsReachable) != 0) {
        if (!state.scan->found) {
            state.scan->interfaceIndex = interfaceIndex;
        }
        state.scan->found = true;
        state.scan->direct = state.scan->direct || (*flags & kSCNetworkReachabilityFlagsIsDirect) != 0;
    }
    return MNL_CB_OK;
}

// --- Requests

// Idle unsubscribed sockets for requests, so that a question costs a send
// and a receive, not a socket. A socket whose exchange went wrong is closed,
// never returned: a late reply left in it would answer the next question.
class QuerySockets {
public:
    static QuerySockets& shared()
    {
        static auto* sockets = new QuerySockets;  // used until the process ends
        return *sockets;
    }

    std::unique_ptr<NetlinkSocket> take()
    {
        {
            std::lock_guard lock(mutex_);
            if (!idle_.empty()) {
                auto socket = std::move(idle_.back());
                idle_.pop_back();
                return socket;
            }
        }
        auto socket = NetlinkSocket::open();
        if (socket) {
            const timeval timeout{kReplyTimeoutSeconds, 0};
            ::setsockopt(socket->descriptor(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        }
        return socket;
    }

    void giveBack(std::unique_ptr<NetlinkSocket> socket)
    {
        std::lock_guard lock(mutex_);
        if (idle_.size() < kIdleQuerySockets) {
            idle_.push_back(std::move(socket));
        }
    }

private:
    std::mutex mutex_;  // guards `idle_`
    std::vector<std::unique_ptr<NetlinkSocket>> idle_;
};

struct Destination {
    int family = AF_UNSPEC;
    const void* bytes = nullptr;
    std::size_t length = 0;
    bool allZero = false;
};

Destination destinationOf(const sockaddr_storage& address)
{
    Destination destination;
    if (address.ss_family == AF_INET) {
        const auto& inet = reinterpret_cast<const sockaddr_in&>(address);
        destination = {AF_INET, &inet.sin_addr, sizeof inet.sin_addr, inet.sin_addr.s_addr == 0};
    } else if (address.ss_family == AF_INET6) {
        const auto& inet6 = reinterpret_cast<const sockaddr_in6&>(address);
        destination = {AF_INET6, &inet6.sin6_addr, sizeof inet6.sin6_addr, IN6_IS_ADDR_UNSPECIFIED(&inet6.sin6_addr)};
    }
    return destination;
}

// What the link `index` adds to the flags of a live route over it. The
// interface ioctls answer on any socket, the request socket included; a link
// gone since the route was answered adds nothing (its removal is announced,
// and monitored targets ask again).
SCNetworkReachabilityFlags askLink(const NetlinkSocket& socket, unsigned index)
{
    ifreq request{};
    request.ifr_ifindex = static_cast<int>(index);
    if (::ioctl(socket.descriptor(), SIOCGIFNAME, &request) != 0 ||
        ::ioctl(socket.descriptor(), SIOCGIFFLAGS, &request) != 0) {
        return 0;
    }
    const auto interfaceFlags = static_cast<unsigned short>(request.ifr_flags);
    unsigned hardwareType = ARPHRD_VOID;
    // Only a point-to-point link can be PPP: others cost no third question.
    if ((interfaceFlags & IFF_POINTOPOINT) != 0 && ::ioctl(socket.descriptor(), SIOCGIFHWADDR, &request) == 0) {
        hardwareType = request.ifr_hwaddr.sa_family;
    }
    return flagsOfLink(interfaceFlags, hardwareType);
}

SCNetworkReachabilityFlags withLinkFlags(const NetlinkSocket& socket, SCNetworkReachabilityFlags flags,
                                         unsigned interfaceIndex)
{
    if ((flags & kSCNetworkReachabilityFlagsReachable) == 0 || interfaceIndex == 0) {
        return flags;
    }
    return flags | askLink(socket, interfaceIndex);
}

ssize_t receive(NetlinkSocket& socket, void* buffer, std::size_t size)
{
    for (;;) {
        const auto length = mnl_socket_recvfrom(socket.handle(), buffer, size);
        if (length >= 0 || errno != EINTR) {
            return length;
        }
    }
}

std::optional<SCNetworkReachabilityFlags> askRoute(NetlinkSocket& socket, const Destination& destination)
{
    alignas(nlmsghdr) std::array<char, kReceiveBufferSize> buffer;
    auto* request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST;
    request->nlmsg_seq = socket.nextSequence();
    auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    route->rtm_family = static_cast<unsigned char>(destination.family);
    route->rtm_dst_len = static_cast<unsigned char>(destination.length * 8);
    // The matching routing entry itself, as `ip route get fibmatch` asks:
    // it carries the link-down mark of its next hop, a cached route does not.
    route->rtm_flags = RTM_F_FIB_MATCH;
    mnl_attr_put(request, RTA_DST, destination.length, destination.bytes);
    const unsigned sequence = request->nlmsg_seq;
    if (mnl_socket_sendto(socket.handle(), request, request->nlmsg_len) < 0) {
        return std::nullopt;
    }
    const auto length = receive(socket, buffer.data(), buffer.size());
    if (length <= 0) {
        return std::nullopt;
    }
    const auto answer = parseRouteReply(buffer.data(), static_cast<std::size_t>(length), sequence, socket.portId());
    if (answer.outcome != RouteOutcome::Answered) {
        return std::nullopt;
    }
    return withLinkFlags(socket, answer.flags, answer.interfaceIndex);
}

std::optional<SCNetworkReachabilityFlags> askDefaultRoute(NetlinkSocket& socket, int family)
{
    alignas(nlmsghdr) std::array<char, kReceiveBufferSize> buffer;
    auto* request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETROUTE;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request->nlmsg_seq = socket.nextSequence();
    auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
    route->rtm_family = static_cast<unsigned char>(family);
    const unsigned sequence = request->nlmsg_seq;
    if (mnl_socket_sendto(socket.handle(), request, request->nlmsg_len) < 0) {
        return std::nullopt;
    }
    DefaultRouteScan scan;
    while (!scan.done && !scan.failed) {
        const auto length = receive(socket, buffer.data(), buffer.size());
        if (length <= 0) {
            return std::nullopt;
        }
        scanDefaultRoutes(buffer.data(), static_cast<std::size_t>(length), scan, sequence, socket.portId());
    }
    if (scan.failed) {
        return std::nullopt;
    }
    return withLinkFlags(socket, scan.flags(), scan.interfaceIndex);
}

std::optional<SCNetworkReachabilityFlags> askKernel(const sockaddr_storage& address)
{
    const auto destination = destinationOf(address);
    if (destination.family == AF_UNSPEC) {
        return std::nullopt;
    }
    auto socket = QuerySockets::shared().take();
    if (!socket) {
        return std::nullopt;
    }
    const auto flags = destination.allZero ? askDefaultRoute(*socket, destination.family)
                                           : askRoute(*socket, destination);
    if (flags) {
        QuerySockets::shared().giveBack(std::move(socket));
    }
    return flags;
}

std::mutex readerMutex;  // guards `testReader`
AddressFlagsReader testReader;
std::atomic<bool> hasTestReader{false};

}  // namespace

// --- NetlinkSocket

std::unique_ptr<NetlinkSocket> NetlinkSocket::open(unsigned groups, bool nonBlocking)
{
    auto* socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0));
    if (socket == nullptr) {
        return nullptr;
    }
    if (mnl_socket_bind(socket, groups, MNL_SOCKET_AUTOPID) < 0) {
        mnl_socket_close(socket);
        return nullptr;
    }
    return std::unique_ptr<NetlinkSocket>(new NetlinkSocket(socket));
}

NetlinkSocket::~NetlinkSocket()
{
    mnl_socket_close(socket_);
}

int NetlinkSocket::descriptor() const
{
    return mnl_socket_get_fd(socket_);
}

unsigned NetlinkSocket::portId() const
{
    return mnl_socket_get_portid(socket_);
}

// --- Parsers

RouteAnswer parseRouteReply(const void* buffer, std::size_t length, unsigned sequence, unsigned portId)
{
    ReplyState state;
    auto control = kControlCallbacks;  // libmnl takes the table as writable
    mnl_cb_run2(buffer, length, sequence, portId, onRouteReply, &state, control.data(), control.size());
    if (state.malformed) {
        return {};
    }
    if (state.error && state.code != 0) {
        if (meansNoRoute(state.code)) {
            return {RouteOutcome::Answered, 0};
        }
        return {};
    }
    if (state.flags) {
        return {RouteOutcome::Answered, *state.flags, state.interfaceIndex};
    }
    return {};  // nothing whole arrived
}

SCNetworkReachabilityFlags DefaultRouteScan::flags() const
{
    if (!found) {
        return 0;
    }
    return kRouteFlags | (direct ? kSCNetworkReachabilityFlagsIsDirect : 0);
}

void scanDefaultRoutes(const void* buffer, std::size_t length, DefaultRouteScan& scan, unsigned sequence,
                       unsigned portId)
{
    ReplyState state;
    state.scan = &scan;
    auto control = kControlCallbacks;
    const int result =
        mnl_cb_run2(buffer, length, sequence, portId, onDumpedRoute, &state, control.data(), control.size());
    if (state.done) {
        scan.done = true;
    }
    // An interrupted dump (routes changed meanwhile), an error reply or a
    // message that cannot be read: the scan says nothing.
    if (state.malformed || (state.error && state.code != 0) ||
        (result < 0 && !state.error)) {
        scan.failed = true;
    }
    // A part that holds no whole message cannot belong to a dump in progress.
    if (!scan.done && !scan.failed && !mnl_nlmsg_ok(static_cast<const nlmsghdr*>(buffer), static_cast<int>(length))) {
        scan.failed = true;
    }
}

SCNetworkReachabilityFlags flagsOfLink(unsigned interfaceFlags, unsigned hardwareType)
{
    SCNetworkReachabilityFlags flags = 0;
    // The route's next hop has carrier, or there would be no live route: a
    // link that is up and still not running waits in the dormant (or testing)
    // state for something to complete before it carries traffic.
    if ((interfaceFlags & IFF_UP) != 0 && (interfaceFlags & IFF_RUNNING) == 0) {
        flags |= kSCNetworkReachabilityFlagsConnectionRequired;
    }
    if (hardwareType == ARPHRD_PPP) {
        flags |= kSCNetworkReachabilityFlagsTransientConnection;
    }
    return flags;
}

EventBatch parseEvents(const void* buffer, std::size_t length)
{
    EventBatch batch;
    const auto* message = static_cast<const nlmsghdr*>(buffer);
    int remaining = static_cast<int>(std::min<std::size_t>(length, INT32_MAX));
    while (mnl_nlmsg_ok(message, remaining)) {
        std::size_t header = 0;
        switch (message->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            header = sizeof(ifinfomsg);
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            header = sizeof(ifaddrmsg);
            break;
        case RTM_NEWROUTE:
        case RTM_DELROUTE:
            header = sizeof(rtmsg);
            break;
        case RTM_NEWRULE:
        case RTM_DELRULE:
            header = sizeof(fib_rule_hdr);
            break;
        case NLMSG_ERROR:
        case NLMSG_OVERRUN:
            batch.malformed = true;
            break;
        default:
            break;  // neighbours, padding and the like change no route
        }
        if (header != 0) {
            if (mnl_nlmsg_get_payload_len(message) < header) {
                batch.malformed = true;
            } else {
                ++batch.changes;
            }
        }
        message = mnl_nlmsg_next(message, &remaining);
    }
    // Bytes left over that are not a whole message: something was cut off.
    if (remaining > 0) {
        batch.malformed = true;
    }
    return batch;
}

std::optional<SCNetworkReachabilityFlags> readAddressFlags(const sockaddr_storage& address)
{
    if (hasTestReader.load(std::memory_order_acquire)) {
        AddressFlagsReader reader;
        {
            std::lock_guard lock(readerMutex);
            reader = testReader;
        }
        if (reader) {
            return reader(address);
        }
    }
    return askKernel(address);
}

AddressFlagsReader setAddressFlagsReaderForTesting(AddressFlagsReader reader)
{
    std::lock_guard lock(readerMutex);
    hasTestReader.store(reader != nullptr, std::memory_order_release);
    return std::exchange(testReader, std::move(reader));
}

// --- NetlinkMonitor

NetlinkMonitor& NetlinkMonitor::shared()
{
    static auto* monitor = new NetlinkMonitor;  // its socket lives until the process ends
    return *monitor;
}

NetlinkMonitor::NetlinkMonitor() : receiveBufferBytes_(kSubscribedBufferBytes) {}

DispatchQueueRef NetlinkMonitor::queue() const
{
    return copyUnder(mutex_, queue_);
}

void NetlinkMonitor::setReceiveBufferBytes(int bytes)
{
    storeUnder(mutex_, receiveBufferBytes_, bytes);
}

bool NetlinkMonitor::addListener(const std::shared_ptr<NetworkChangeListener>& listener)
{
    std::lock_guard lock(mutex_);
    if (!socket_ && !openLocked()) {
        return false;
    }
    std::erase_if(listeners_, [](const auto& entry) { return entry.second.expired(); });
    listeners_.emplace_back(listener.get(), listener);
    return true;
}

void NetlinkMonitor::removeListener(const NetworkChangeListener* listener)
{
    std::lock_guard lock(mutex_);
    std::erase_if(listeners_, [&](const auto& entry) { return entry.first == listener; });
}

bool NetlinkMonitor::openLocked()
{
    constexpr unsigned kGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_RULE |
                                 RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
    auto socket = NetlinkSocket::open(kGroups, true);
    if (!socket) {
        return false;
    }
    // Groups past the first 32 bits of the bind mask are joined one by one.
    // IPv6 policy rules change routing decisions too; a kernel without the
    // group just leaves it out.
    int group = RTNLGRP_IPV6_RULE;
    mnl_socket_setsockopt(socket->handle(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
    ::setsockopt(socket->descriptor(), SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes_, sizeof receiveBufferBytes_);

    queue_ = DispatchQueue::create("zarvo.systemconfiguration.netlink");
    const int descriptor = socket->descriptor();
    socket_ = std::move(socket);
    try {
        // The monitor's thread only hands the readiness on; reading and
        // parsing happen on the queue.
        watchToken_ = EventMonitor::shared().watch(descriptor, EPOLLIN, [this](EventMonitor::Token, std::uint32_t) {
            queue_->async([this] { drain(); });
        });
    } catch (const std::system_error&) {
        socket_.reset();
        queue_.reset();
        return false;
    }
    return true;
}

void NetlinkMonitor::drain()
{
    int descriptor = -1;
    std::uint64_t token = 0;
    {
        std::lock_guard lock(mutex_);
        descriptor = socket_->descriptor();
        token = watchToken_;
    }
    alignas(nlmsghdr) std::array<char, kReceiveBufferSize> buffer;
    bool relevant = false;
    bool overflowed = false;
    for (;;) {
        sockaddr_nl sender{};
        socklen_t senderLength = sizeof sender;
        const auto length = ::recvfrom(descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr*>(&sender), &senderLength);
        if (length < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == ENOBUFS) {
                // The kernel dropped announcements: what they said is lost,
                // so everything is asked again once the socket is empty.
                overflowed = true;
                continue;
            }
            break;  // empty (EAGAIN)
        }
        if (sender.nl_pid != 0) {
            continue;  // only the kernel speaks for the network
        }
        relevant = parseEvents(buffer.data(), static_cast<std::size_t>(length)).relevant() || relevant;
    }
    EventMonitor::shared().rearm(token);
    if (overflowed) {
        std::lock_guard lock(mutex_);
        ++overflows_;
    }
    if (relevant || overflowed) {
        tellListeners();
    }
}

void NetlinkMonitor::tellListeners()
{
    std::vector<std::shared_ptr<NetworkChangeListener>> listeners;
    {
        std::lock_guard lock(mutex_);
        for (const auto& entry : listeners_) {
            if (auto listener = entry.second.lock()) {
                listeners.push_back(std::move(listener));
            }
        }
    }
    for (const auto& listener : listeners) {
        listener->networkMayHaveChanged();
    }
}

void NetlinkMonitor::handleMessages(const void* buffer, std::size_t length)
{
    if (parseEvents(buffer, length).relevant()) {
        tellListeners();
    }
}

void NetlinkMonitor::handleOverflow()
{
    {
        std::lock_guard lock(mutex_);
        ++overflows_;
    }
    tellListeners();
}

std::uint64_t NetlinkMonitor::overflowCount() const
{
    std::lock_guard lock(mutex_);
    return overflows_;
}

}  // namespace platform::internal
