// Tallies one dump of live TCP sockets: among the sockets owned by the gaming
// UIDs, the IPv4 remote endpoint (address and port) that carried the most bytes,
// and the kernel's RTT of the busiest connection to it.
//
// Bytes of a socket are tcpi_bytes_acked + tcpi_bytes_received; with a
// RecentTraffic, only what the socket moved over the last few polls. The tcp_info a
// kernel delivers may be shorter than this build's struct: a field is read only
// when the delivered length covers it, and a socket whose length does not cover
// the byte counters is not counted. IPv4-mapped IPv6 sockets count as IPv4.
// Loopback and unspecified remotes, port 0 and sockets of other UIDs are left
// out. The tally only reads what the dump delivered.
#pragma once

#include <stdint.h>

#include <linux/inet_diag.h>

#include <map>
#include <set>
#include <utility>

#include "monitors/RecentTraffic.h"

namespace vord {

struct GameEndpoint {
    uint32_t addr = 0;   // IPv4 address, network byte order
    uint16_t port = 0;   // host byte order
    uint32_t uid = 0;    // owner of the busiest connection
    uint64_t bytes = 0;  // over all counted connections to the endpoint
    // tcpi_rtt of the busiest established connection to it, in ms; -1 unknown.
    int64_t rttMs = -1;
};

class GameEndpointTally {
  public:
    explicit GameEndpointTally(std::set<uint32_t> gamingUids, RecentTraffic* recent = nullptr)
        : m_uids(std::move(gamingUids)), m_recent(recent) {}

    // One socket of the dump (the TcpInfoSource::Reader signature).
    void add(const inet_diag_msg* msg, const uint8_t* info, uint32_t infoLen);
    // The busiest endpoint; false when no socket was counted. Equal byte counts
    // go to the lower address, then the lower port.
    bool busiest(GameEndpoint* out) const;

  private:
    struct Tally {
        uint64_t bytes = 0;
        uint64_t bestSocketBytes = 0;
        uint32_t uid = 0;
        int64_t rttMs = -1;
    };
    std::set<uint32_t> m_uids;
    RecentTraffic* m_recent;
    // Key: (address in host order, port) so that the map order is numeric.
    std::map<std::pair<uint32_t, uint16_t>, Tally> m_endpoints;
};

}  // namespace vord
