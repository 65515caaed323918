#include "monitors/GameEndpointTally.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include "monitors/TcpInfoFields.h"

namespace vord {

namespace {

constexpr uint8_t kTcpEstablished = 1;  // the kernel's TCP_ESTABLISHED state

// The remote IPv4 address of the socket (network order), or false when the
// remote is not IPv4 (nor IPv4-mapped).
bool remoteIpv4(const inet_diag_msg* msg, uint32_t* addr) {
    if (msg->idiag_family == AF_INET) {
        *addr = msg->id.idiag_dst[0];
        return true;
    }
    if (msg->idiag_family == AF_INET6 && msg->id.idiag_dst[0] == 0 && msg->id.idiag_dst[1] == 0 &&
        msg->id.idiag_dst[2] == htonl(0xffff)) {
        *addr = msg->id.idiag_dst[3];
        return true;
    }
    return false;
}

}  // namespace

void GameEndpointTally::add(const inet_diag_msg* msg, const uint8_t* info, uint32_t infoLen) {
    if (msg == nullptr || m_uids.count(msg->idiag_uid) == 0) return;
    uint32_t addr = 0;
    if (!remoteIpv4(msg, &addr)) return;
    const uint32_t host = ntohl(addr);
    const uint16_t port = ntohs(msg->id.idiag_dport);
    if (host == 0 || (host >> 24) == 127 || port == 0) return;

    uint64_t acked = 0, received = 0;
    if (!TCPI_READ(info, infoLen, tcpi_bytes_acked, &acked) ||
        !TCPI_READ(info, infoLen, tcpi_bytes_received, &received)) {
        return;
    }
    const uint64_t bytes =
            m_recent != nullptr
                    ? m_recent->moved({msg->id.idiag_cookie[0], msg->id.idiag_cookie[1]}, acked + received)
                    : acked + received;
    if (bytes == 0) return;  // nothing exchanged yet (e.g. a connect in progress)

    Tally& t = m_endpoints[{host, port}];
    t.bytes += bytes;
    if (bytes > t.bestSocketBytes) {
        t.bestSocketBytes = bytes;
        t.uid = msg->idiag_uid;
        uint32_t rttUs = 0;
        t.rttMs = msg->idiag_state == kTcpEstablished &&
                                  TCPI_READ(info, infoLen, tcpi_rtt, &rttUs)
                          ? static_cast<int64_t>(rttUs / 1000)
                          : -1;
    }
}

bool GameEndpointTally::busiest(GameEndpoint* out) const {
    const std::pair<const std::pair<uint32_t, uint16_t>, Tally>* best = nullptr;
    for (const auto& entry : m_endpoints) {
        if (best == nullptr || entry.second.bytes > best->second.bytes) best = &entry;
    }
    if (best == nullptr) return false;
    out->addr = htonl(best->first.first);
    out->port = best->first.second;
    out->uid = best->second.uid;
    out->bytes = best->second.bytes;
    out->rttMs = best->second.rttMs;
    return true;
}

}  // namespace vord
