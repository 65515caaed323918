// Stall detection on the gaming UIDs' live TCP connections over the selected
// link, one poll of the TCP socket monitor at a time.
//
// A socket counts when it is established, owned by a gaming UID, not a loopback
// connection, not bound to another interface than the selected link, and has
// data in flight (tcpi_unacked). A counted socket is stalled when it is in
// retransmission back-off (tcpi_backoff), or when no ACK has come for
// max(4 x its smoothed RTT, the threshold) (tcpi_last_ack_recv) and the previous
// poll already saw it with data in flight and the same bytes acknowledged: data
// sent after a quiet spell is not taken for a stall before its first ACK could
// come back. The link is suspect when at least one socket counts and every
// counted socket is stalled; one socket still getting ACKs clears it.
//
// Each tcp_info field is read only when the delivered length covers it; a socket
// whose length does not cover tcpi_unacked is not counted.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <linux/inet_diag.h>

#include <map>
#include <set>
#include <utility>

#include "monitors/SocketPolls.h"

namespace vord {

class StallDetector {
  public:
    // Starts a poll: the gaming UIDs, the selected link's interface index (0:
    // unknown, no socket is left out for its binding) and the threshold in ms.
    void beginPoll(std::set<uint32_t> uids, uint32_t ifindex, uint32_t thresholdMs);
    // One socket of the dump (the TcpInfoSource::Reader signature).
    void add(const inet_diag_msg* msg, const uint8_t* info, uint32_t infoLen);
    // Ends the poll: whether the link is suspect. Sockets not seen are forgotten.
    bool endPoll();

    size_t counted() const { return m_counted; }
    size_t stalled() const { return m_stalled; }

  private:
    struct Seen {
        uint64_t bytesAcked = 0;
        bool inFlight = false;
        bool seen = false;  // in this poll
    };
    std::set<uint32_t> m_uids;
    uint32_t m_ifindex = 0;
    uint32_t m_thresholdMs = 0;
    size_t m_counted = 0, m_stalled = 0;
    std::map<SocketCookie, Seen> m_sockets;
};

}  // namespace vord
