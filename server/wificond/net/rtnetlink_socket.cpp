#include "wificond/net/rtnetlink_socket.h"

#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

namespace android {
namespace wificond {

namespace {

constexpr uint32_t kLinkDumpSeq = 1;
constexpr uint32_t kAddressDumpSeq = 2;
constexpr uint32_t kLinkRequestSeq = 3;

}  // namespace

bool RtnetlinkSocket::open() {
    m_fd.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    if (m_fd.get() < 0) return false;
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (bind(m_fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return false;
    return requestDump(RTM_GETLINK, kLinkDumpSeq);
}

bool RtnetlinkSocket::requestDump(uint16_t type, uint32_t seq) {
    struct {
        nlmsghdr h;
        rtgenmsg g;
    } request{};
    request.h.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
    request.h.nlmsg_type = type;
    request.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.h.nlmsg_seq = seq;
    request.g.rtgen_family = AF_UNSPEC;
    return send(m_fd.get(), &request, request.h.nlmsg_len, 0) == static_cast<ssize_t>(request.h.nlmsg_len);
}

bool RtnetlinkSocket::requestLink(const std::string& name) {
    struct {
        nlmsghdr h;
        ifinfomsg i;
        rtattr a;
        char name[IFNAMSIZ];
    } request{};
    if (name.empty() || name.size() >= IFNAMSIZ) return false;
    request.a.rta_type = IFLA_IFNAME;
    request.a.rta_len = static_cast<unsigned short>(RTA_LENGTH(name.size() + 1));
    memcpy(request.name, name.c_str(), name.size() + 1);
    request.h.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_ALIGN(request.a.rta_len));
    request.h.nlmsg_type = RTM_GETLINK;
    request.h.nlmsg_flags = NLM_F_REQUEST;
    request.h.nlmsg_seq = kLinkRequestSeq;
    request.i.ifi_family = AF_UNSPEC;
    return send(m_fd.get(), &request, request.h.nlmsg_len, 0) == static_cast<ssize_t>(request.h.nlmsg_len);
}

int RtnetlinkSocket::receive(uint8_t* buffer, size_t size, int timeoutMs) {
    pollfd p{m_fd.get(), POLLIN, 0};
    const int polled = poll(&p, 1, timeoutMs);
    if (polled < 0) return errno == EINTR ? 0 : -errno;
    if (polled == 0) return 0;
    const ssize_t n = recv(m_fd.get(), buffer, size, 0);
    if (n < 0) {
        if (errno == EAGAIN || errno == EINTR) return 0;
        // Notifications were lost: read the whole state again.
        if (errno == ENOBUFS) return requestDump(RTM_GETLINK, kLinkDumpSeq) ? 0 : -errno;
        return -errno;
    }
    // The end of the link dump: now the addresses.
    for (size_t at = 0; at + sizeof(nlmsghdr) <= static_cast<size_t>(n);) {
        nlmsghdr h;
        memcpy(&h, buffer + at, sizeof(h));
        if (h.nlmsg_len < sizeof(nlmsghdr) || at + h.nlmsg_len > static_cast<size_t>(n)) break;
        if (h.nlmsg_type == NLMSG_DONE && h.nlmsg_seq == kLinkDumpSeq) {
            requestDump(RTM_GETADDR, kAddressDumpSeq);
        }
        at += NLMSG_ALIGN(h.nlmsg_len);
    }
    return static_cast<int>(n);
}

}  // namespace wificond
}  // namespace android
