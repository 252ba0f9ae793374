// Hand-made rtnetlink messages for the reachability tests: replies and
// announcements built the way the kernel lays them out, so the parsers can
// be fed exact, truncated or corrupted copies.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace testsupport {

// A buffer of netlink messages, aligned as a received one is.
class NetlinkBuffer {
public:
    NetlinkBuffer() : storage_(kCapacity / sizeof(std::uint64_t) + 1, 0) {}

    // A route as `ip route get fibmatch` answers, or a dumped one.
    NetlinkBuffer& route(std::uint8_t type, const char* gateway = nullptr, std::uint32_t flags = 0,
                         std::uint8_t dstLength = 32, std::uint8_t table = RT_TABLE_MAIN,
                         std::uint32_t interface = 3)
    {
        auto* message = begin(RTM_NEWROUTE);
        auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
        route->rtm_family = AF_INET;
        route->rtm_dst_len = dstLength;
        route->rtm_table = table;
        route->rtm_type = type;
        route->rtm_flags = flags;
        mnl_attr_put_u32(message, RTA_OIF, interface);
        if (gateway != nullptr) {
            in_addr address{};
            inet_pton(AF_INET, gateway, &address);
            mnl_attr_put(message, RTA_GATEWAY, sizeof address, &address);
        }
        return end(message);
    }

    // A multipath route whose next hops each have these flags and gateways.
    struct NextHop {
        std::uint8_t flags;
        const char* gateway;
    };
    NetlinkBuffer& multipathRoute(const std::vector<NextHop>& nextHops)
    {
        auto* message = begin(RTM_NEWROUTE);
        auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
        route->rtm_family = AF_INET;
        route->rtm_table = RT_TABLE_MAIN;
        route->rtm_type = RTN_UNICAST;
        auto* nest = mnl_attr_nest_start(message, RTA_MULTIPATH);
        for (const auto& hop : nextHops) {
            auto* record = static_cast<rtnexthop*>(mnl_nlmsg_get_payload_tail(message));
            message->nlmsg_len += static_cast<std::uint32_t>(MNL_ALIGN(sizeof(rtnexthop)));
            std::memset(record, 0, sizeof(rtnexthop));
            record->rtnh_flags = hop.flags;
            record->rtnh_ifindex = 3;
            if (hop.gateway != nullptr) {
                in_addr address{};
                inet_pton(AF_INET, hop.gateway, &address);
                mnl_attr_put(message, RTA_GATEWAY, sizeof address, &address);
            }
            record->rtnh_len = static_cast<unsigned short>(reinterpret_cast<char*>(mnl_nlmsg_get_payload_tail(message)) -
                                                           reinterpret_cast<char*>(record));
        }
        mnl_attr_nest_end(message, nest);
        return end(message);
    }

    NetlinkBuffer& error(int code)
    {
        auto* message = begin(NLMSG_ERROR);
        auto* error = static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(message, sizeof(nlmsgerr)));
        error->error = -code;
        return end(message);
    }

    NetlinkBuffer& done()
    {
        auto* message = begin(NLMSG_DONE);
        static_cast<void>(mnl_nlmsg_put_extra_header(message, sizeof(int)));
        return end(message);
    }

    // A message of `type` whose payload is `payloadLength` zero bytes.
    NetlinkBuffer& message(std::uint16_t type, std::size_t payloadLength)
    {
        auto* message = begin(type);
        static_cast<void>(mnl_nlmsg_put_extra_header(message, payloadLength));
        return end(message);
    }

    const void* data() const { return storage_.data(); }
    std::size_t size() const { return length_; }
    // The first `length` bytes, as a receive cut short would leave them.
    NetlinkBuffer truncated(std::size_t length) const
    {
        NetlinkBuffer copy = *this;
        copy.length_ = length;
        return copy;
    }
    // The header of the message that starts at `offset`, to corrupt it.
    nlmsghdr* headerAt(std::size_t offset)
    {
        return reinterpret_cast<nlmsghdr*>(reinterpret_cast<char*>(storage_.data()) + offset);
    }

private:
    static constexpr std::size_t kCapacity = 16384;

    nlmsghdr* begin(std::uint16_t type)
    {
        auto* message = mnl_nlmsg_put_header(reinterpret_cast<char*>(storage_.data()) + length_);
        message->nlmsg_type = type;
        return message;
    }
    NetlinkBuffer& end(nlmsghdr* message)
    {
        length_ += MNL_ALIGN(message->nlmsg_len);
        return *this;
    }

    std::vector<std::uint64_t> storage_;
    std::size_t length_ = 0;
};

}  // namespace testsupport
