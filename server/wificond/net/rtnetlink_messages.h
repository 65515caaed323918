// The kernel's rtnetlink link and address messages (RTM_NEWLINK, RTM_DELLINK,
// RTM_NEWADDR, RTM_DELADDR), read from one received datagram.
//
// Every header and attribute is bounds-checked against the datagram and copied
// out before use (attributes are only 4-byte aligned); a message or attribute
// whose length does not fit ends the walk of that datagram or message.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>

namespace android {
namespace wificond {

struct RtnlLink {
    bool deleted = false;  // RTM_DELLINK
    int index = 0;
    std::string name;      // IFLA_IFNAME; empty when absent
    uint32_t flags = 0;    // ifi_flags (IFF_UP, IFF_LOWER_UP, ...)
};

struct RtnlAddress {
    bool deleted = false;  // RTM_DELADDR
    int index = 0;
    uint8_t family = 0;    // AF_INET or AF_INET6
    std::string address;   // IFA_LOCAL, else IFA_ADDRESS, as raw bytes
};

// Calls `onLink` or `onAddress` for each link or address message of the
// datagram, in order; other messages (NLMSG_DONE, errors, routes) are skipped.
void parseRtnetlink(const uint8_t* data, size_t size,
                    const std::function<void(const RtnlLink&)>& onLink,
                    const std::function<void(const RtnlAddress&)>& onAddress);

}  // namespace wificond
}  // namespace android
