// The RTT probe: a short TCP exchange with the probe server over one interface.
// The result is the kernel's own smoothed RTT of the connection (TCP_INFO), not a
// stopwatch reading.
//
// A link without IPv4 (IPv6-only cellular) is probed over IPv6: with an IPv6
// probe server given, a probe goes to it instead of the IPv4 target when the
// link has no IPv4 address, or when the IPv4 connect fails at once for want of a
// route. The exchanges, time-outs and RTT are the same in either family.
//
// Every wait of a probe (connect, each send and receive) also watches the
// record's abort descriptor, so a probe whose link is being ended or has just
// gone down stops at once instead of waiting out its time-outs.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

// One probe's working record, owned by the caller.
struct tcping_info {
    int sockfd = -1;
    // The probe server's address: filled from `server` and `port` by
    // populateTcpingSocket; its family decides the socket's.
    sockaddr_storage addr{};
    socklen_t addrLen = 0;
    const char* ifname = nullptr;  // interface to bind to; null: unbound
    const char* server = nullptr;  // address text of the probe server (dotted IPv4)
    const char* server6 = nullptr; // IPv6 probe server (literal) for a link without IPv4; null: none
    int port6 = 443;               // its port
    int rtt = 0;                   // result, ms
    int port = 0;                  // probe server port, host order (low 16 bits)
    int abortFd = -1;              // readable: give up at once (-1: none)
    // Set by a probe whose exchange failed with its bytes not even acknowledged
    // by the server's kernel: the path stopped carrying (a sample may still come
    // from the exchanges before).
    bool stalled = false;
    // The family the last probe went over (AF_INET, AF_INET6; 0 before the
    // first). A change is logged.
    int family = 0;
};

class Tcping {
  public:
    // Connect, exchange and read timeouts, and the payload of one exchange.
    static constexpr long kTimeoutUs = 500000;
    static constexpr int kExchanges = 10;
    static constexpr int kBufferSize = 60;  // 58 characters and NUL bytes

    // One probe: the RTT in ms plus `offsetMs`, or -1 on failure (no offset).
    static int updateTcpingRtt(tcping_info* info, int offsetMs);
    // Creates the socket with its timeouts, bound to info->ifname, for the
    // family the link is probed over first. 0, or -1 with the socket closed.
    static int populateTcpingSocket(tcping_info* info);
    // Connects (over IPv6 instead when IPv4 has no route, see above), exchanges
    // data and reads the kernel's RTT; always closes.
    static int getTcpingRtt(tcping_info* info, int offsetMs);
    // Fills the first len - 2 bytes of `out` with random letters and digits and
    // writes a NUL at len - 1. Returns 0.
    static int genRandomString(int len, char* out);

    // Whether `ifname` still reaches `server`:`port`: a connection bound to the
    // link is attempted within `timeoutMs`. True when the server answered, by
    // accepting or refusing; false when nothing came back in time or the socket
    // could not be set up. No data is exchanged, so the server's manner of
    // answering data plays no part. Also true (no verdict) when `abortFd`
    // became readable. The connection goes to `server6` on a link without IPv4,
    // as a probe's does.
    static bool linkAnswers(const char* ifname, const char* server, int port, int timeoutMs,
                            int abortFd = -1, const char* server6 = nullptr);

    // The probe server's address from its text (dotted IPv4, inet_addr's forms)
    // and port. False when the text is not an address; `out` then holds an
    // unusable address that fails at connect.
    static bool fillTarget(const char* server, int port, sockaddr_storage* out, socklen_t* len);
};
