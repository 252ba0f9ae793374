// Network reachability inside a network namespace of the benchmark's own
// (a veth pair, a route through a gateway on its far side):
// - reading the flags of an address target, against the plain RTM_GETROUTE
//   request it rests on, sent on one netlink socket, in alternating rounds;
// - the time from an address change (added or removed by a netlink request
//   of our own) to the monitored target's callback, median and worst;
// - how often idle monitoring wakes the process (every thread's context
//   switches over a quiet stretch).
//
//   reachability [READS] [CHANGES]
#include "Platform/SystemConfiguration/SCNetworkReachability.h"
#include "bench/BenchmarkSupport.h"
#include "tests/Support/NetworkNamespace.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <arpa/inet.h>
#include <dirent.h>
#include <net/if.h>
#include <netinet/in.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

void require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "reachability: %s\n", what);
        std::exit(2);
    }
}

sockaddr_in ipv4(const char* dotted)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    inet_pton(AF_INET, dotted, &address.sin_addr);
    return address;
}

// The baseline: one socket, one request per question, the reply received
// and checked for an error, nothing else.
class PlainRouteRequests {
public:
    PlainRouteRequests() : socket_(mnl_socket_open(NETLINK_ROUTE))
    {
        require(socket_ != nullptr && mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) == 0, "netlink socket");
    }
    ~PlainRouteRequests() { mnl_socket_close(socket_); }

    bool ask(const in_addr& destination)
    {
        auto* request = mnl_nlmsg_put_header(buffer_.data());
        request->nlmsg_type = RTM_GETROUTE;
        request->nlmsg_flags = NLM_F_REQUEST;
        request->nlmsg_seq = ++sequence_;
        auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
        route->rtm_family = AF_INET;
        route->rtm_dst_len = 32;
        route->rtm_flags = RTM_F_FIB_MATCH;
        mnl_attr_put(request, RTA_DST, sizeof destination, &destination);
        if (mnl_socket_sendto(socket_, request, request->nlmsg_len) < 0) {
            return false;
        }
        const auto length = mnl_socket_recvfrom(socket_, buffer_.data(), buffer_.size());
        return length > 0 && reinterpret_cast<const nlmsghdr*>(buffer_.data())->nlmsg_type == RTM_NEWROUTE;
    }

private:
    mnl_socket* socket_;
    unsigned sequence_ = 0;
    alignas(nlmsghdr) std::array<char, 8192> buffer_{};
};

// Adds or removes an address of v0 with one netlink request, as a network
// manager would, and returns once the kernel has acknowledged it.
class AddressChanger {
public:
    AddressChanger() : socket_(mnl_socket_open(NETLINK_ROUTE)), interface_(if_nametoindex("v0"))
    {
        require(socket_ != nullptr && mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) == 0, "netlink socket");
        require(interface_ != 0, "no v0");
    }
    ~AddressChanger() { mnl_socket_close(socket_); }

    void change(bool add, const char* dotted, unsigned char prefix)
    {
        auto* request = mnl_nlmsg_put_header(buffer_.data());
        request->nlmsg_type = add ? RTM_NEWADDR : RTM_DELADDR;
        request->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0);
        request->nlmsg_seq = ++sequence_;
        auto* address = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifaddrmsg)));
        address->ifa_family = AF_INET;
        address->ifa_prefixlen = prefix;
        address->ifa_index = interface_;
        const auto local = ipv4(dotted).sin_addr;
        mnl_attr_put(request, IFA_LOCAL, sizeof local, &local);
        mnl_attr_put(request, IFA_ADDRESS, sizeof local, &local);
        require(mnl_socket_sendto(socket_, request, request->nlmsg_len) >= 0, "send");
        require(mnl_socket_recvfrom(socket_, buffer_.data(), buffer_.size()) > 0, "acknowledgement");
    }

private:
    mnl_socket* socket_;
    unsigned interface_;
    unsigned sequence_ = 0;
    alignas(nlmsghdr) std::array<char, 8192> buffer_{};
};

// Context switches of every thread of the process, by thread.
std::map<std::string, long long> contextSwitches()
{
    std::map<std::string, long long> switches;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return switches;
    }
    while (const dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream status(std::string("/proc/self/task/") + entry->d_name + "/status");
        long long total = 0;
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0 || line.rfind("nonvoluntary_ctxt_switches:", 0) == 0) {
                total += std::atoll(line.substr(line.find(':') + 1).c_str());
            }
        }
        switches[entry->d_name] = total;
    }
    closedir(tasks);
    return switches;
}

}  // namespace

int main(int argc, char** argv)
{
    const int reads = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int changes = argc > 2 ? std::atoi(argv[2]) : 100;
    const auto network = testsupport::enterNetworkNamespace();
    if (!network.skipReason.empty()) {
        std::printf("skipped: %s\n", network.skipReason.c_str());
        return 0;
    }
    using testsupport::ip;
    require(ip("link set lo up") && ip("link add v0 type veth peer name v1") && ip("addr add 10.9.0.1/24 dev v0") &&
                ip("link set v0 up") && ip("link set v1 up") && ip("route add 10.20.0.0/16 via 10.9.0.2"),
            "cannot build the network");

    // --- Reading flags against plain requests
    const auto gateway = ipv4("10.20.1.1");
    const auto target = platform::SCNetworkReachabilityCreateWithAddress(reinterpret_cast<const sockaddr*>(&gateway));
    PlainRouteRequests plain;
    constexpr int kRounds = 20;
    const int perRound = std::max(1, reads / kRounds);
    // Microseconds per question over one round of each.
    const auto timeOurs = [&] {
        const auto start = Clock::now();
        for (int index = 0; index < perRound; ++index) {
            platform::SCNetworkReachabilityFlags flags = 0;
            require(platform::SCNetworkReachabilityGetFlags(target, &flags) &&
                        flags == platform::kSCNetworkReachabilityFlagsReachable,
                    "flags");
        }
        return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / perRound;
    };
    const auto timePlain = [&] {
        const auto start = Clock::now();
        for (int index = 0; index < perRound; ++index) {
            require(plain.ask(gateway.sin_addr), "plain request");
        }
        return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / perRound;
    };
    const auto [ours, baseline] = bench::pairedMedians(timeOurs, timePlain, kRounds, 2);
    std::printf("flags of an address target: %.2f us per read; plain RTM_GETROUTE: %.2f us; ratio %.2f "
                "(medians of %d rounds of %d each)\n",
                ours, baseline, ours / baseline, kRounds, perRound);

    // --- From an address change to the callback
    const auto far = ipv4("10.40.0.2");
    const auto watched = platform::SCNetworkReachabilityCreateWithAddress(reinterpret_cast<const sockaddr*>(&far));
    std::mutex mutex;
    std::condition_variable called;
    std::vector<Clock::time_point> arrivals;
    require(platform::SCNetworkReachabilitySetCallback(watched,
                                                       [&](platform::SCNetworkReachabilityFlags) {
                                                           const auto now = Clock::now();
                                                           std::lock_guard lock(mutex);
                                                           arrivals.push_back(now);
                                                           called.notify_all();
                                                       }) &&
                platform::SCNetworkReachabilitySetDispatchQueue(watched, platform::DispatchQueue::create("bench")),
            "monitoring");
    const auto waitForCallbacks = [&](std::size_t count) {
        std::unique_lock lock(mutex);
        require(called.wait_for(lock, std::chrono::seconds(20), [&] { return arrivals.size() >= count; }),
                "no callback");
    };
    waitForCallbacks(1);  // the first report of the current state
    AddressChanger changer;
    std::vector<double> latencies;
    for (int change = 0; change < changes; ++change) {
        const bool add = change % 2 == 0;
        const auto start = Clock::now();
        changer.change(add, "10.40.0.1", 24);
        waitForCallbacks(static_cast<std::size_t>(change) + 2);
        std::lock_guard lock(mutex);
        latencies.push_back(std::chrono::duration<double, std::micro>(arrivals.back() - start).count());
    }
    std::printf("address change to callback: median %.0f us, worst %.0f us (%d changes)\n",
                bench::median(latencies), *std::max_element(latencies.begin(), latencies.end()), changes);

    // --- Idle monitoring. Worker threads left from the work above linger
    // three seconds before they end; they are let go first.
    std::this_thread::sleep_for(std::chrono::seconds(4));
    const auto before = contextSwitches();
    constexpr int kQuietSeconds = 5;
    std::this_thread::sleep_for(std::chrono::seconds(kQuietSeconds));
    const auto after = contextSwitches();
    long long wakeups = 0;
    for (const auto& [thread, count] : after) {
        const auto earlier = before.find(thread);
        wakeups += count - (earlier == before.end() ? 0 : earlier->second);
    }
    // The main thread's own sleep and the reads of /proc are two switches of
    // its own; they are not the monitor's.
    const auto own = before.find(std::to_string(::getpid()));
    const auto ownAfter = after.find(std::to_string(::getpid()));
    long long mainThread = (own != before.end() && ownAfter != after.end()) ? ownAfter->second - own->second : 0;
    std::printf("idle monitoring: %.1f wakeups per second besides the measuring thread (%lld over %d s; "
                "the measuring thread itself %lld)\n",
                static_cast<double>(wakeups - mainThread) / kQuietSeconds, wakeups - mainThread, kQuietSeconds,
                mainThread);
    require(platform::SCNetworkReachabilitySetDispatchQueue(watched, nullptr), "stop");
    return 0;
}
