// Plumbing of the reachability service: rtnetlink sockets, the parsers that
// turn the kernel's answers and announcements into reachability facts, and
// the process's one subscribed socket. Not for the library above.
//
// The parsers take raw bytes, so tests feed them hand-made messages
// (malformed, truncated, of kinds nobody asked for) exactly as the kernel's
// would arrive; the monitor takes such bytes too, through `handleMessages`.
#pragma once

#include "Platform/SystemConfiguration/SCNetworkReachability.h"

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

struct mnl_socket;

namespace platform::internal {

// One rtnetlink socket (libmnl's), closed with the object.
class NetlinkSocket {
public:
    // Unsubscribed when `groups` is 0. Nothing when the kernel refuses.
    static std::unique_ptr<NetlinkSocket> open(unsigned groups = 0, bool nonBlocking = false);
    ~NetlinkSocket();
    NetlinkSocket(const NetlinkSocket&) = delete;
    NetlinkSocket& operator=(const NetlinkSocket&) = delete;

    int descriptor() const;
    unsigned portId() const;
    mnl_socket* handle() const { return socket_; }
    unsigned nextSequence() { return ++sequence_; }

private:
    explicit NetlinkSocket(mnl_socket* socket) : socket_(socket) {}
    mnl_socket* socket_;
    unsigned sequence_ = 0;
};

// What one RTM_GETROUTE (fib match) said.
enum class RouteOutcome {
    Answered,  // `flags` holds the answer (0 when there is no usable route)
    Failed,    // the kernel could not be asked, or answered nonsense
};
struct RouteAnswer {
    RouteOutcome outcome = RouteOutcome::Failed;
    SCNetworkReachabilityFlags flags = 0;
    // The link of the route's one live next hop, whose state may add to the
    // flags; 0 for a local route, one without a live next hop, or several.
    unsigned interfaceIndex = 0;
};

// The reply to one route request, as received (`sequence`/`portId` 0 skip
// the checks that the reply belongs to the request).
RouteAnswer parseRouteReply(const void* buffer, std::size_t length, unsigned sequence = 0, unsigned portId = 0);

// Flags of the routes of a dump that are default routes: accumulates over
// the dump's buffers. `done` is set by the dump's last message.
struct DefaultRouteScan {
    bool found = false;
    bool direct = false;
    bool done = false;
    bool failed = false;
    // The link of the first live default route, as RouteAnswer's. The kernel
    // lists a table's default routes by metric, so this is the one it uses.
    unsigned interfaceIndex = 0;
    SCNetworkReachabilityFlags flags() const;
};
void scanDefaultRoutes(const void* buffer, std::size_t length, DefaultRouteScan& scan, unsigned sequence = 0,
                       unsigned portId = 0);

// What the state of a route's link adds to the flags of a live route over it,
// from the link's interface flags (IFF_*) and hardware type (ARPHRD_*): a
// link that is up with carrier but not running (dormant while 802.1X or a
// similar protocol authenticates, or testing) needs that connection made
// first; a PPP link is a transient connection.
SCNetworkReachabilityFlags flagsOfLink(unsigned interfaceFlags, unsigned hardwareType);

// What a buffer of announcements from the subscribed socket asks for.
struct EventBatch {
    std::size_t changes = 0;  // messages about links, addresses, routes or rules
    bool malformed = false;   // something could not be read: ask everything again
    bool relevant() const { return changes > 0 || malformed; }
};
EventBatch parseEvents(const void* buffer, std::size_t length);

// The flags of an IPv4 or IPv6 address (the all-zero address: a default
// route), asked of the kernel; nothing when it could not be asked.
std::optional<SCNetworkReachabilityFlags> readAddressFlags(const sockaddr_storage& address);

// Replaces how addresses are asked (tests make the kernel's answers up);
// nothing restores the kernel. Returns the previous reader.
using AddressFlagsReader = std::function<std::optional<SCNetworkReachabilityFlags>(const sockaddr_storage&)>;
AddressFlagsReader setAddressFlagsReaderForTesting(AddressFlagsReader reader);

// Something the monitor tells when the network may have changed.
class NetworkChangeListener {
public:
    virtual ~NetworkChangeListener() = default;
    // On the monitor's queue; must only hand the work on.
    virtual void networkMayHaveChanged() = 0;
};

// The process's one subscribed rtnetlink socket, read on a serial dispatch
// queue whenever the event monitor reports it readable.
class NetlinkMonitor {
public:
    static NetlinkMonitor& shared();

    // Opens the socket on first use; false when that failed (and then again
    // on the next call). Listeners are held weakly and told in no promised
    // order.
    [[nodiscard]] bool addListener(const std::shared_ptr<NetworkChangeListener>& listener);
    void removeListener(const NetworkChangeListener* listener);

    // Handles a buffer as if the socket had delivered it, on the calling
    // thread: listeners are told when it asks for it. For tests.
    void handleMessages(const void* buffer, std::size_t length);
    // As if the socket had overflowed.
    void handleOverflow();

    // How often the socket overflowed since the process began.
    std::uint64_t overflowCount() const;
    // The serial queue the socket is read on (nothing before it opens).
    // Tests hold it up to let announcements pile up in the socket.
    DispatchQueueRef queue() const;
    // The receive buffer the socket asks for when it opens (later calls
    // change nothing). Tests make it small to have the kernel drop messages.
    void setReceiveBufferBytes(int bytes);

private:
    NetlinkMonitor();
    bool openLocked();
    void drain();
    void tellListeners();

    mutable std::mutex mutex_;  // guards the fields below
    std::unique_ptr<NetlinkSocket> socket_;
    DispatchQueueRef queue_;
    std::uint64_t watchToken_ = 0;
    std::uint64_t overflows_ = 0;
    int receiveBufferBytes_;
    std::vector<std::pair<const NetworkChangeListener*, std::weak_ptr<NetworkChangeListener>>> listeners_;
};

}  // namespace platform::internal
