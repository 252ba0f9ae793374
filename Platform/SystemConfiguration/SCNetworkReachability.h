// SCNetworkReachability: whether a host name or a socket address can be
// reached without first opening a connection, from the kernel's own routing
// answers, and a callback when that changes.
//
//   auto target = SCNetworkReachabilityCreateWithName("build.example.org");
//   SCNetworkReachabilityFlags flags = 0;
//   if (SCNetworkReachabilityGetFlags(target, &flags) && (flags & kSCNetworkReachabilityFlagsReachable)) { ... }
//
//   SCNetworkReachabilitySetCallback(target, [](SCNetworkReachabilityFlags flags) { ... });
//   SCNetworkReachabilitySetDispatchQueue(target, queue);   // monitoring starts
//   ...
//   SCNetworkReachabilitySetDispatchQueue(target, nullptr); // and stops
//
// What the flags say (the kernel is asked as `ip route get fibmatch` asks it):
// - An address: Reachable when a route to it exists whose next hop is alive
//   (the interface is up and has carrier); IsDirect as well when that route
//   has no gateway; IsLocalAddress (with Reachable and IsDirect) when the
//   address is one of this machine's. No route, an unreachable, blackhole or
//   prohibit route, or a route whose link is down: no flags at all.
// - The all-zero address (IPv4 or IPv6): whether a default route of that
//   family exists with a live next hop, in any routing table but the local
//   one; IsDirect when it has no gateway (a point-to-point link).
// - A name: resolved with getaddrinfo (so /etc/hosts and NSS apply), then the
//   flags of the first of its addresses that is reachable with no connection
//   required, else of the first reachable one, else none. A name
//   that does not resolve has no flags; one that cannot be a host name at all
//   (empty, longer than 253 bytes, an empty or over-long label, a NUL byte,
//   or bytes that are not UTF-8) is not even looked up, and reading its flags
//   fails.
// - The link of a reachable route (its one next hop's; for the all-zero
//   address the first default route's) may add: ConnectionRequired when it
//   is up with carrier but not running (dormant, as while 802.1X
//   authenticates: nothing passes until that completes), and
//   TransientConnection when it is a PPP link. Routes with several next hops
//   are not looked into. ConnectionOnTraffic, ConnectionOnDemand and
//   InterventionRequired are never set: Linux has no such state to read.
//
// Contract:
// - Every function may be called from any thread. Creating a target never
//   fails for a name; for an address only when the family is neither
//   AF_INET nor AF_INET6.
// - SCNetworkReachabilityGetFlags asks the kernel afresh on the calling
//   thread; for a name it blocks while the name is resolved.
// - Monitoring runs while a target has both a callback and a queue. The
//   callback runs on that queue: first once with the flags current when
//   monitoring began (even when they are 0), then once for each change of the
//   flags, with the new flags, never twice in a row with the same ones.
//   After the callback or the queue is cleared, no callback starts (one
//   already running finishes).
// - The process has one rtnetlink socket subscribed to link, address, route
//   and rule changes of IPv4 and IPv6, opened when the first target starts
//   monitoring and kept until the process ends. Its messages are only
//   triggers: on any of them every monitored target is asked again, and when
//   the socket overflowed (the kernel dropped messages) that happens too, so
//   no last change is lost. Idle monitoring takes no wakeups: nothing polls.
// - Names are resolved on the target's own serial queue, never on the thread
//   that reads the socket, so a slow resolver delays only its own target.
// - A monitoring target keeps itself alive only through what its owner
//   holds: dropping the last reference ends monitoring.
#pragma once

#include "Platform/Dispatch/DispatchQueue.h"
#include "Platform/Foundation/Object.h"

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace platform {

using SCNetworkReachabilityFlags = std::uint32_t;

inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsTransientConnection = 1U << 0;
inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsReachable = 1U << 1;
inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsConnectionRequired = 1U << 2;
inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsConnectionOnTraffic = 1U << 3;
inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsInterventionRequired = 1U << 4;
inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsConnectionOnDemand = 1U << 5;
inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsIsLocalAddress = 1U << 16;
inline constexpr SCNetworkReachabilityFlags kSCNetworkReachabilityFlagsIsDirect = 1U << 17;

class SCNetworkReachability;
using SCNetworkReachabilityRef = std::shared_ptr<SCNetworkReachability>;
using SCNetworkReachabilityCallBack = std::function<void(SCNetworkReachabilityFlags flags)>;

// Any text is accepted; see above for names that can never be reached.
SCNetworkReachabilityRef SCNetworkReachabilityCreateWithName(std::string_view name);
// AF_INET (sockaddr_in) or AF_INET6 (sockaddr_in6); nothing for other
// families or a null address. Only the family and address are read.
SCNetworkReachabilityRef SCNetworkReachabilityCreateWithAddress(const sockaddr* address);

// False when the kernel could not be asked or the name cannot be a host
// name; `flags` is written only on success.
[[nodiscard]] bool SCNetworkReachabilityGetFlags(const SCNetworkReachabilityRef& target,
                                                 SCNetworkReachabilityFlags* flags);
// Nothing clears the callback. False for a null target, or when the callback
// would start monitoring and the process's netlink socket cannot be opened
// (then no callback is installed).
[[nodiscard]] bool SCNetworkReachabilitySetCallback(const SCNetworkReachabilityRef& target,
                                                    SCNetworkReachabilityCallBack callback);
// A serial queue attaches the target, nothing detaches it. False for a null
// target, or when the process's netlink socket cannot be opened (then the
// target stays detached).
[[nodiscard]] bool SCNetworkReachabilitySetDispatchQueue(const SCNetworkReachabilityRef& target,
                                                         DispatchQueueRef queue);

}  // namespace platform
