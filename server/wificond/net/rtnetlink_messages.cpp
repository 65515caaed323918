#include "wificond/net/rtnetlink_messages.h"

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string.h>

namespace android {
namespace wificond {

namespace {

size_t align4(size_t n) { return (n + 3) & ~size_t{3}; }

// Calls `onAttr(type, payload, length)` for each attribute in [p, p + size).
template <typename F>
void walkAttributes(const uint8_t* p, size_t size, F onAttr) {
    while (size >= sizeof(rtattr)) {
        rtattr attr;
        memcpy(&attr, p, sizeof(attr));
        if (attr.rta_len < sizeof(rtattr) || attr.rta_len > size) return;
        onAttr(attr.rta_type, p + sizeof(rtattr), attr.rta_len - sizeof(rtattr));
        const size_t step = align4(attr.rta_len);
        if (step >= size) return;
        p += step;
        size -= step;
    }
}

void parseLink(const nlmsghdr& h, const uint8_t* body, size_t size,
               const std::function<void(const RtnlLink&)>& onLink) {
    if (size < sizeof(ifinfomsg)) return;
    ifinfomsg info;
    memcpy(&info, body, sizeof(info));
    RtnlLink link;
    link.deleted = h.nlmsg_type == RTM_DELLINK;
    link.index = info.ifi_index;
    link.flags = info.ifi_flags;
    const size_t head = align4(sizeof(ifinfomsg));
    if (size > head) {
        walkAttributes(body + head, size - head, [&](uint16_t type, const uint8_t* v, size_t n) {
            if (type == IFLA_IFNAME) link.name.assign(reinterpret_cast<const char*>(v), strnlen(reinterpret_cast<const char*>(v), n));
        });
    }
    onLink(link);
}

void parseAddress(const nlmsghdr& h, const uint8_t* body, size_t size,
                  const std::function<void(const RtnlAddress&)>& onAddress) {
    if (size < sizeof(ifaddrmsg)) return;
    ifaddrmsg info;
    memcpy(&info, body, sizeof(info));
    RtnlAddress addr;
    addr.deleted = h.nlmsg_type == RTM_DELADDR;
    addr.index = static_cast<int>(info.ifa_index);
    addr.family = info.ifa_family;
    std::string local, address;
    const size_t head = align4(sizeof(ifaddrmsg));
    if (size > head) {
        walkAttributes(body + head, size - head, [&](uint16_t type, const uint8_t* v, size_t n) {
            if (type == IFA_LOCAL) local.assign(reinterpret_cast<const char*>(v), n);
            if (type == IFA_ADDRESS) address.assign(reinterpret_cast<const char*>(v), n);
        });
    }
    addr.address = local.empty() ? address : local;
    onAddress(addr);
}

}  // namespace

void parseRtnetlink(const uint8_t* data, size_t size,
                    const std::function<void(const RtnlLink&)>& onLink,
                    const std::function<void(const RtnlAddress&)>& onAddress) {
    while (data != nullptr && size >= sizeof(nlmsghdr)) {
        nlmsghdr h;
        memcpy(&h, data, sizeof(h));
        if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > size) return;
        const uint8_t* body = data + sizeof(nlmsghdr);
        const size_t bodySize = h.nlmsg_len - sizeof(nlmsghdr);
        if (h.nlmsg_type == RTM_NEWLINK || h.nlmsg_type == RTM_DELLINK) {
            parseLink(h, body, bodySize, onLink);
        } else if (h.nlmsg_type == RTM_NEWADDR || h.nlmsg_type == RTM_DELADDR) {
            parseAddress(h, body, bodySize, onAddress);
        }
        const size_t step = align4(h.nlmsg_len);
        if (step >= size) return;
        data += step;
        size -= step;
    }
}

}  // namespace wificond
}  // namespace android
