#include "monitors/StallDetector.h"

#include <algorithm>

#include "monitors/TcpInfoFields.h"
#include "sockdiag/SockDiag.h"

namespace vord {

namespace {

constexpr uint8_t kTcpEstablished = 1;  // the kernel's TCP_ESTABLISHED state

}  // namespace

void StallDetector::beginPoll(std::set<uint32_t> uids, uint32_t ifindex, uint32_t thresholdMs) {
    m_uids = std::move(uids);
    m_ifindex = ifindex;
    m_thresholdMs = thresholdMs;
    m_counted = m_stalled = 0;
}

void StallDetector::add(const inet_diag_msg* msg, const uint8_t* info, uint32_t infoLen) {
    if (msg == nullptr || msg->idiag_state != kTcpEstablished || m_uids.count(msg->idiag_uid) == 0 ||
        android::net::SockDiag::isLoopbackSocket(msg) ||
        (m_ifindex != 0 && msg->id.idiag_if != 0 && msg->id.idiag_if != m_ifindex)) {
        return;
    }
    uint32_t unacked = 0;
    if (!TCPI_READ(info, infoLen, tcpi_unacked, &unacked)) return;
    Seen& now = m_sockets[{msg->id.idiag_cookie[0], msg->id.idiag_cookie[1]}];
    const Seen before = now;
    now.seen = true;
    now.inFlight = unacked > 0;
    TCPI_READ(info, infoLen, tcpi_bytes_acked, &now.bytesAcked);
    if (unacked == 0) return;

    m_counted += 1;
    uint8_t backoff = 0;
    uint32_t lastAckMs = 0, rttUs = 0;
    const bool inBackoff = TCPI_READ(info, infoLen, tcpi_backoff, &backoff) && backoff > 0;
    TCPI_READ(info, infoLen, tcpi_rtt, &rttUs);
    const uint32_t limitMs = std::max(4 * (rttUs / 1000), m_thresholdMs);
    const bool silent = TCPI_READ(info, infoLen, tcpi_last_ack_recv, &lastAckMs) &&
                        lastAckMs >= limitMs && before.inFlight &&
                        before.bytesAcked == now.bytesAcked;
    if (inBackoff || silent) m_stalled += 1;
}

bool StallDetector::endPoll() {
    endSocketPoll(m_sockets);
    return m_counted > 0 && m_stalled == m_counted;
}

}  // namespace vord
