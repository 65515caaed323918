// The RTT probe: a short TCP exchange with the probe server over one interface.
// The result is the kernel's own smoothed RTT of the connection (TCP_INFO), not a
// stopwatch reading.
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
    int rtt = 0;                   // result, ms
    int port = 0;                  // probe server port, host order (low 16 bits)
    int abortFd = -1;              // readable: give up at once (-1: none)
    // Set by a probe whose exchange failed with its bytes not even acknowledged
    // by the server's kernel: the path stopped carrying (a sample may still come
    // from the exchanges before).
    bool stalled = false;
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
    static int connect_with_timeout(int fd, const sockaddr* addr, unsigned len, timespec timeout,
                                    int abortFd = -1);
    // Fills the first len - 2 bytes of `out` with random letters and digits and
    // writes a NUL at len - 1. Returns 0.
    static int genRandomString(int len, char* out);

    // Whether `ifname` still reaches `server`:`port`: a connection bound to the
    // link is attempted within `timeoutMs`. True when the server answered, by
    // accepting or refusing; false when nothing came back in time or the socket
    // could not be set up. No data is exchanged, so the server's manner of
    // answering data plays no part. Also true (no verdict) when `abortFd`
    // became readable.
    static bool linkAnswers(const char* ifname, const char* server, int port, int timeoutMs,
                            int abortFd = -1);

    // The probe server's address from its text (dotted IPv4, inet_addr's forms)
    // and port. False when the text is not an address; `out` then holds an
    // unusable address that fails at connect.
    static bool fillTarget(const char* server, int port, sockaddr_storage* out, socklen_t* len);
};
