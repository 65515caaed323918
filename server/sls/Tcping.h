// The RTT probe: a short TCP exchange with the probe server over one interface.
// The result is the kernel's own smoothed RTT of the connection (TCP_INFO), not a
// stopwatch reading.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

// One probe's working record, owned by the caller.
struct tcping_info {
    int sockfd = -1;
    sockaddr_in addr{};
    const char* ifname = nullptr;  // interface to bind to; null: unbound
    const char* server = nullptr;  // dotted IPv4 text of the probe server
    int rtt = 0;                   // result, ms
    int port = 0;                  // probe server port, host order (low 16 bits)
};

class Tcping {
  public:
    // Connect, exchange and read timeouts, and the payload of one exchange.
    static constexpr long kTimeoutUs = 500000;
    static constexpr int kExchanges = 10;
    static constexpr int kBufferSize = 60;  // 58 characters and NUL bytes

    // One probe: the RTT in ms plus `offsetMs`, or -1 on failure (no offset).
    static int updateTcpingRtt(tcping_info* info, int offsetMs);
    // Creates the socket with its timeouts, bound to info->ifname. 0, or -1 with
    // the socket closed.
    static int populateTcpingSocket(tcping_info* info);
    // Connects, exchanges data and reads the kernel's RTT; always closes.
    static int getTcpingRtt(tcping_info* info, int offsetMs);
    // Non-blocking connect with a deadline; 0 or positive on success, -1 on
    // failure. The descriptor's flags are restored in every case.
    static int connect_with_timeout(int fd, const sockaddr* addr, unsigned len, timespec timeout);
    // Fills the first len - 2 bytes of `out` with random letters and digits and
    // writes a NUL at len - 1. Returns 0.
    static int genRandomString(int len, char* out);
};
