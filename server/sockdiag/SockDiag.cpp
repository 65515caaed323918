// Socket diagnostics client: dump requests, the dump reader, SOCK_DESTROY.

#define LOG_TAG "MUX-Vord-SockDiag"

#include "sockdiag/SockDiag.h"

#include <errno.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>

#include <log/log.h>

#include "counters/Counters.h"

namespace android {
namespace net {

namespace {

// Wire layouts this file relies on (host order, as the kernel's uapi has them).
static_assert(sizeof(nlmsghdr) == 16, "nlmsghdr");
static_assert(offsetof(nlmsghdr, nlmsg_len) == 0 && offsetof(nlmsghdr, nlmsg_type) == 4 &&
                  offsetof(nlmsghdr, nlmsg_flags) == 6 && offsetof(nlmsghdr, nlmsg_seq) == 8 &&
                  offsetof(nlmsghdr, nlmsg_pid) == 12,
              "nlmsghdr fields");
static_assert(sizeof(nlmsgerr) == 20 && offsetof(nlmsgerr, error) == 0 &&
                  offsetof(nlmsgerr, msg) == 4,
              "nlmsgerr");
static_assert(sizeof(inet_diag_sockid) == 48, "inet_diag_sockid");
static_assert(offsetof(inet_diag_sockid, idiag_sport) == 0 &&
                  offsetof(inet_diag_sockid, idiag_dport) == 2 &&
                  offsetof(inet_diag_sockid, idiag_src) == 4 &&
                  offsetof(inet_diag_sockid, idiag_dst) == 20 &&
                  offsetof(inet_diag_sockid, idiag_if) == 36 &&
                  offsetof(inet_diag_sockid, idiag_cookie) == 40,
              "inet_diag_sockid fields");
static_assert(sizeof(inet_diag_req_v2) == 56, "inet_diag_req_v2");
static_assert(offsetof(inet_diag_req_v2, sdiag_family) == 0 &&
                  offsetof(inet_diag_req_v2, sdiag_protocol) == 1 &&
                  offsetof(inet_diag_req_v2, idiag_ext) == 2 &&
                  offsetof(inet_diag_req_v2, pad) == 3 &&
                  offsetof(inet_diag_req_v2, idiag_states) == 4 &&
                  offsetof(inet_diag_req_v2, id) == 8,
              "inet_diag_req_v2 fields");
static_assert(sizeof(inet_diag_msg) == 72, "inet_diag_msg");
static_assert(offsetof(inet_diag_msg, idiag_family) == 0 &&
                  offsetof(inet_diag_msg, idiag_state) == 1 && offsetof(inet_diag_msg, id) == 4 &&
                  offsetof(inet_diag_msg, id.idiag_src) == 8 &&
                  offsetof(inet_diag_msg, id.idiag_dst) == 24 &&
                  offsetof(inet_diag_msg, idiag_uid) == 64,
              "inet_diag_msg fields");
static_assert(sizeof(rtattr) == 4 && offsetof(rtattr, rta_len) == 0 &&
                  offsetof(rtattr, rta_type) == 2,
              "rtattr");
static_assert(SOCK_DIAG_BY_FAMILY == 20 && SOCK_DESTROY == 21 && INET_DIAG_INFO == 2 &&
                  NLMSG_ERROR == 2 && NLMSG_DONE == 3 && NETLINK_SOCK_DIAG == 4,
              "netlink constants");
static_assert(offsetof(tcp_info_ext, tcpi_rto) == 8 && offsetof(tcp_info_ext, tcpi_rtt) == 68 &&
                  offsetof(tcp_info_ext, tcpi_total_retrans) == 100 &&
                  offsetof(tcp_info_ext, tcpi_pacing_rate) == 104 &&
                  offsetof(tcp_info_ext, tcpi_bytes_acked) == 120 &&
                  offsetof(tcp_info_ext, tcpi_segs_out) == 136 &&
                  offsetof(tcp_info_ext, tcpi_min_rtt) == 148 &&
                  offsetof(tcp_info_ext, tcpi_delivery_rate) == 160 &&
                  offsetof(tcp_info_ext, tcpi_delivered) == 192 &&
                  offsetof(tcp_info_ext, tcpi_bytes_sent) == 200 &&
                  offsetof(tcp_info_ext, tcpi_snd_wnd) == 228 && sizeof(tcp_info_ext) == 232,
              "tcp_info_ext follows the kernel's struct tcp_info");

// One request message: the header and an inet_diag_req_v2, 72 bytes.
struct DiagRequest {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};
static_assert(sizeof(DiagRequest) == 72 && offsetof(DiagRequest, req) == 16, "request");

// An acknowledgement as the error probe reads it: 36 bytes.
struct Ack {
    nlmsghdr nlh;
    nlmsgerr err;
};
static_assert(sizeof(Ack) == 36 && offsetof(Ack, err) == 16, "ack");

constexpr size_t kDumpBufferSize = 32768;
// A dump entry: header, then inet_diag_msg, then its attributes.
constexpr size_t kDiagMsgOffset = sizeof(nlmsghdr);
constexpr size_t kAttrOffset = kDiagMsgOffset + sizeof(inet_diag_msg);
static_assert(kAttrOffset == 88, "attributes start at 88");

constexpr size_t align4(size_t n) { return (n + 3) & ~size_t{3}; }

// The error field of an NLMSG_ERROR as a result: 0 or a negative errno. Anything
// else on the wire (positive, or beyond the errno range) is a malformed reply.
int wireError(int32_t error) {
    return error == 0 || (error < 0 && error >= -4095) ? error : -EBADMSG;
}

const char* familyLabel(uint8_t family) { return family == AF_INET ? "IPv4" : "IPv6"; }

bool isV4MappedLoopback(const uint8_t* a) {
    static const uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return memcmp(a, prefix, sizeof(prefix)) == 0 && a[12] == 127;
}

bool isV6Loopback(const uint8_t* a) {
    static const uint8_t one[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return memcmp(a, one, sizeof(one)) == 0;
}

}  // namespace

// Reads a dump reply until NLMSG_DONE, an NLMSG_ERROR or a read of 0 bytes, and
// hands every other message to `callback`. A message whose length doesn't fit
// what is left of the read ends the walk of that read.
static int processNetlinkDump(SocketOps& ops, int fd, const SockDiag::NetlinkDumpCallback& callback) {
    alignas(8) uint8_t buf[kDumpBufferSize];
    for (;;) {
        ssize_t n = ops.read(fd, buf, sizeof(buf));
        if (n < 0) return -errno;
        if (n == 0) return 0;
        size_t remaining = static_cast<size_t>(n);
        uint8_t* p = buf;
        while (remaining >= sizeof(nlmsghdr)) {
            nlmsghdr* h = reinterpret_cast<nlmsghdr*>(p);
            if (h->nlmsg_len < sizeof(nlmsghdr) || h->nlmsg_len > remaining) break;
            if (h->nlmsg_type == NLMSG_DONE) return 0;
            if (h->nlmsg_type == NLMSG_ERROR) {
                // An error message too short to carry its code is still an error.
                if (h->nlmsg_len < sizeof(nlmsghdr) + sizeof(int32_t)) return -EBADMSG;
                int32_t error;
                memcpy(&error, p + sizeof(nlmsghdr), sizeof(error));
                return wireError(error);
            }
            callback(h);
            const size_t step = align4(h->nlmsg_len);
            if (step >= remaining) break;
            p += step;
            remaining -= step;
        }
    }
}

SockDiag::~SockDiag() {
    if (m_dumpSock != -1) m_ops->close(m_dumpSock);
    if (m_destroySock != -1) m_ops->close(m_destroySock);
}

bool SockDiag::open() {
    if (m_dumpSock != -1 && m_destroySock != -1) return false;
    m_dumpSock = m_ops->socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    m_destroySock = m_ops->socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    sockaddr_nl nl = {};
    nl.nl_family = AF_NETLINK;
    static_assert(sizeof(sockaddr_nl) == 12, "sockaddr_nl");
    const sockaddr* addr = reinterpret_cast<const sockaddr*>(&nl);
    if (m_dumpSock == -1 || m_destroySock == -1 ||
        m_ops->connect(m_dumpSock, addr, sizeof(nl)) != 0 ||
        m_ops->connect(m_destroySock, addr, sizeof(nl)) != 0) {
        const int saved = errno;  // the caller reports what went wrong
        if (m_dumpSock != -1) m_ops->close(m_dumpSock);
        if (m_destroySock != -1) m_ops->close(m_destroySock);
        m_dumpSock = m_destroySock = -1;
        errno = saved;
        return false;
    }
    return true;
}

int SockDiag::checkError(int fd) {
    Ack ack;
    ssize_t n = m_ops->recvfrom(fd, &ack, sizeof(ack), MSG_PEEK | MSG_DONTWAIT, nullptr, nullptr);
    if (n < 0) return errno == EAGAIN ? 0 : -errno;
    if (n != static_cast<ssize_t>(sizeof(ack)) || ack.nlh.nlmsg_type != NLMSG_ERROR) return 0;
    // An acknowledgement: take it off the socket (the rest of a longer one goes too).
    n = m_ops->recvfrom(fd, &ack, sizeof(ack), 0, nullptr, nullptr);
    if (n < 0) return -errno;
    if (n != static_cast<ssize_t>(sizeof(ack))) return -EBADMSG;
    return wireError(ack.err.error);
}

int SockDiag::sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions,
                              uint32_t states, iovec* iov, int iovcnt) {
    DiagRequest request = {};
    request.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.req.sdiag_family = family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_ext = extensions;
    request.req.idiag_states = states;

    iov[0].iov_base = &request;
    iov[0].iov_len = sizeof(request);
    size_t total = 0;
    for (int i = 0; i < iovcnt; ++i) total += iov[i].iov_len;
    request.nlh.nlmsg_len = static_cast<uint32_t>(total);

    ssize_t written = m_ops->writev(m_dumpSock, iov, iovcnt);
    const int saved = errno;
    iov[0].iov_base = nullptr;
    iov[0].iov_len = 0;
    if (written < 0 || static_cast<size_t>(written) != total) {
        return written < 0 ? -saved : -EIO;
    }
    return checkError(m_dumpSock);
}

int SockDiag::readDiagMsg(uint8_t proto, const FilterFunction& filter) {
    FilterFunction shouldDestroy = filter;
    NetlinkDumpCallback callback = [this, proto, &shouldDestroy](nlmsghdr* h) {
        // An entry too short for its inet_diag_msg names no socket.
        if (h->nlmsg_len < kAttrOffset) return;
        const inet_diag_msg* msg = reinterpret_cast<const inet_diag_msg*>(
                reinterpret_cast<const uint8_t*>(h) + kDiagMsgOffset);
        if (shouldDestroy(proto, msg)) sockDestroy(proto, msg);
    };
    return processNetlinkDump(*m_ops, m_dumpSock, callback);
}

int SockDiag::readDiagMsgWithTcpInfo(const TcpInfoReader& reader) {
    TcpInfoReader read = reader;
    NetlinkDumpCallback callback = [&read](nlmsghdr* h) {
        if (h->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            ALOGE("expected nlmsg_type=SOCK_DIAG_BY_FAMILY, got nlmsg_type=%d", h->nlmsg_type);
            return;
        }
        if (h->nlmsg_len < kAttrOffset) return;  // no room for the socket itself
        const uint8_t* base = reinterpret_cast<const uint8_t*>(h);
        const uint8_t* payload = nullptr;
        uint32_t payloadLen = 0;
        size_t offset = kAttrOffset;
        size_t remaining = h->nlmsg_len - kAttrOffset;
        while (remaining >= sizeof(rtattr)) {
            rtattr attr;
            memcpy(&attr, base + offset, sizeof(attr));
            if (attr.rta_len < sizeof(rtattr) || attr.rta_len > remaining) break;
            if (attr.rta_type == INET_DIAG_INFO) {
                payload = base + offset + sizeof(rtattr);
                payloadLen = attr.rta_len - sizeof(rtattr);
            }
            const size_t step = align4(attr.rta_len);
            if (step >= remaining) break;
            offset += step;
            remaining -= step;
        }
        const inet_diag_msg* msg = reinterpret_cast<const inet_diag_msg*>(base + kDiagMsgOffset);
        if (payload == nullptr) {
            read(msg, nullptr, 0);
            return;
        }
        // Attribute payloads are only 4-aligned: hand on an aligned copy (the
        // fields past a short payload are zero; readers check the length anyway).
        tcp_info_ext info = {};
        memcpy(&info, payload, std::min<size_t>(payloadLen, sizeof(info)));
        read(msg, &info, payloadLen);
    };
    return processNetlinkDump(*m_ops, m_dumpSock, callback);
}

int SockDiag::sockDestroy(uint8_t proto, const inet_diag_msg* msg) {
    if (msg == nullptr) return 0;
    DiagRequest request = {};
    request.nlh.nlmsg_len = sizeof(request);
    request.nlh.nlmsg_type = SOCK_DESTROY;
    request.nlh.nlmsg_flags = NLM_F_REQUEST;
    request.req.sdiag_family = msg->idiag_family;
    request.req.sdiag_protocol = proto;
    request.req.idiag_states = 1u << (msg->idiag_state & 31);
    request.req.id = msg->id;

    ssize_t written = m_ops->write(m_destroySock, &request, sizeof(request));
    if (written < static_cast<ssize_t>(sizeof(request))) return written < 0 ? -errno : -EIO;
    int ret = checkError(m_destroySock);
    if (ret != 0) return ret;
    ++m_socketsDestroyed;
    vord::bump(vord::counters().socketsDestroyed);
    return 0;
}

bool SockDiag::isLoopbackSocket(const inet_diag_msg* msg) {
    const uint8_t* src = reinterpret_cast<const uint8_t*>(msg->id.idiag_src);
    const uint8_t* dst = reinterpret_cast<const uint8_t*>(msg->id.idiag_dst);
    switch (msg->idiag_family) {
        case AF_INET:
            return src[0] == 127 || dst[0] == 127 || memcmp(src, dst, 4) == 0;
        case AF_INET6:
            return isV4MappedLoopback(src) || isV4MappedLoopback(dst) || isV6Loopback(src) ||
                   isV6Loopback(dst) || memcmp(src, dst, 16) == 0;
        default:
            return false;
    }
}

int SockDiag::destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback) {
    m_socketsDestroyed = 0;
    const FilterFunction filter = [uid, excludeLoopback](uint8_t, const inet_diag_msg* msg) {
        return msg != nullptr && msg->idiag_uid == uid &&
               !(excludeLoopback && isLoopbackSocket(msg));
    };
    for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
        iovec iov[1];
        int ret = sendDumpRequest(proto, family, 0, 0xFFFFFFFF, iov, 1);
        if (ret != 0) {
            ALOGE("Failed to dump %s sockets for UID: %s", familyLabel(family), strerror(-ret));
            return ret;
        }
        ret = readDiagMsg(proto, filter);
        if (ret != 0) {
            ALOGE("Failed to destroy %s sockets for UID: %s", familyLabel(family),
                  strerror(-ret));
            return ret;
        }
    }
    if (m_socketsDestroyed >= 1) ALOGI("Destroyed %d sockets for UID", m_socketsDestroyed);
    return 0;
}

int SockDiag::getLiveTcpInfos(const TcpInfoReader& reader) {
    constexpr uint8_t kInfoExtension = 1 << (INET_DIAG_INFO - 1);
    constexpr uint32_t kLiveStates = (1u << 1) | (1u << 2) | (1u << 3);  // ESTABLISHED, SYN_*
    for (const uint8_t family : {uint8_t{AF_INET}, uint8_t{AF_INET6}}) {
        iovec iov[1];
        int ret = sendDumpRequest(IPPROTO_TCP, family, kInfoExtension, kLiveStates, iov, 1);
        if (ret != 0) {
            ALOGE("Failed to dump %s sockets struct tcp_info: %s", familyLabel(family),
                  strerror(-ret));
            return ret;
        }
        ret = readDiagMsgWithTcpInfo(reader);
        if (ret != 0) {
            ALOGE("Failed to read %s sockets struct tcp_info: %s", familyLabel(family),
                  strerror(-ret));
            return ret;
        }
    }
    return 0;
}

}  // namespace net
}  // namespace android
