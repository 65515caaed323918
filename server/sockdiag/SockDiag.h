// Socket diagnostics over NETLINK_SOCK_DIAG: destroys the sockets of one UID
// (SOCK_DESTROY, by the identity each socket has in the dump) and lists the live
// TCP sockets of the host with their kernel TCP information.
//
// Objects are short-lived: a caller creates one on its stack, open()s it, uses it
// on one thread and lets it go; the destructor closes both sockets.
#pragma once

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <stdint.h>
#include <sys/uio.h>

#include <functional>

#include "sockdiag/SocketOps.h"

namespace android {
namespace net {

// The kernel's struct tcp_info, as carried by INET_DIAG_INFO. Kernels deliver
// more or fewer of these fields: a reader compares the delivered length with the
// end of a field (offsetof + sizeof) before reading that field.
struct tcp_info_ext {
    uint8_t tcpi_state;
    uint8_t tcpi_ca_state;
    uint8_t tcpi_retransmits;
    uint8_t tcpi_probes;
    uint8_t tcpi_backoff;
    uint8_t tcpi_options;
    uint8_t tcpi_snd_wscale : 4, tcpi_rcv_wscale : 4;
    uint8_t tcpi_delivery_rate_app_limited : 1, tcpi_fastopen_client_fail : 2;

    uint32_t tcpi_rto;
    uint32_t tcpi_ato;
    uint32_t tcpi_snd_mss;
    uint32_t tcpi_rcv_mss;

    uint32_t tcpi_unacked;
    uint32_t tcpi_sacked;
    uint32_t tcpi_lost;
    uint32_t tcpi_retrans;
    uint32_t tcpi_fackets;

    uint32_t tcpi_last_data_sent;
    uint32_t tcpi_last_ack_sent;
    uint32_t tcpi_last_data_recv;
    uint32_t tcpi_last_ack_recv;

    uint32_t tcpi_pmtu;
    uint32_t tcpi_rcv_ssthresh;
    uint32_t tcpi_rtt;     // smoothed RTT, microseconds
    uint32_t tcpi_rttvar;  // microseconds
    uint32_t tcpi_snd_ssthresh;
    uint32_t tcpi_snd_cwnd;
    uint32_t tcpi_advmss;
    uint32_t tcpi_reordering;

    uint32_t tcpi_rcv_rtt;
    uint32_t tcpi_rcv_space;

    uint32_t tcpi_total_retrans;

    uint64_t tcpi_pacing_rate;
    uint64_t tcpi_max_pacing_rate;
    uint64_t tcpi_bytes_acked;
    uint64_t tcpi_bytes_received;
    uint32_t tcpi_segs_out;
    uint32_t tcpi_segs_in;

    uint32_t tcpi_notsent_bytes;
    uint32_t tcpi_min_rtt;
    uint32_t tcpi_data_segs_in;
    uint32_t tcpi_data_segs_out;

    uint64_t tcpi_delivery_rate;

    uint64_t tcpi_busy_time;
    uint64_t tcpi_rwnd_limited;
    uint64_t tcpi_sndbuf_limited;

    uint32_t tcpi_delivered;
    uint32_t tcpi_delivered_ce;

    uint64_t tcpi_bytes_sent;
    uint64_t tcpi_bytes_retrans;
    uint32_t tcpi_dsack_dups;
    uint32_t tcpi_reord_seen;

    uint32_t tcpi_rcv_ooopack;

    uint32_t tcpi_snd_wnd;
};

class SockDiag {
  public:
    // (protocol, dumped socket) -> true to destroy the socket.
    using FilterFunction = std::function<bool(uint8_t, const inet_diag_msg*)>;
    // (dumped socket, its INET_DIAG_INFO payload or null, payload length).
    using TcpInfoReader = std::function<void(const inet_diag_msg*, const tcp_info_ext*, uint32_t)>;
    using NetlinkDumpCallback = std::function<void(nlmsghdr*)>;

    SockDiag() : SockDiag(realSocketOps()) {}
    explicit SockDiag(SocketOps& ops) : m_ops(&ops) {}
    SockDiag(const SockDiag&) = delete;
    SockDiag& operator=(const SockDiag&) = delete;
    virtual ~SockDiag();

    // Creates and connects both netlink sockets. False when they are already
    // open, or when either could not be created or connected (both closed then).
    bool open();

    // Destroys every socket of `proto` owned by `uid`, IPv4 then IPv6; with
    // `excludeLoopback` loopback sockets are kept. 0, or a negative errno when a
    // dump failed. A socket that can't be destroyed is only not counted.
    int destroySockets(uint8_t proto, uint32_t uid, bool excludeLoopback);

    // Calls `reader` for every TCP socket of the host in ESTABLISHED, SYN_SENT
    // or SYN_RECV, IPv4 then IPv6. 0, or a negative errno.
    int getLiveTcpInfos(const TcpInfoReader& reader);

    // Sends one dump request. The request itself goes in iov[0] (set here, and
    // set back to null/0 before returning); further elements, when iovcnt > 1,
    // follow it in the same message. 0, or a negative errno (including an
    // error acknowledgement of the request).
    int sendDumpRequest(uint8_t proto, uint8_t family, uint8_t extensions, uint32_t states,
                        iovec* iov, int iovcnt);
    // Reads a whole dump reply; destroys each socket the filter picks.
    int readDiagMsg(uint8_t proto, const FilterFunction& filter);
    // Reads a whole TCP-information dump reply into `reader`.
    int readDiagMsgWithTcpInfo(const TcpInfoReader& reader);
    // Destroys the socket `msg` describes, by its dumped identity.
    int sockDestroy(uint8_t proto, const inet_diag_msg* msg);

    static bool isLoopbackSocket(const inet_diag_msg* msg);

    // Sockets destroyed by the last destroySockets call.
    int socketsDestroyed() const { return m_socketsDestroyed; }

  private:
    int checkError(int fd);

    int m_dumpSock = -1;
    int m_destroySock = -1;
    int m_socketsDestroyed = 0;
    SocketOps* m_ops;
};

}  // namespace net
}  // namespace android

// Destroys every IP, TCP and UDP socket of `uid` (decimal text). The result of
// the UDP pass, or -1 when the netlink sockets can't be opened or `uid` is not a
// plain decimal number.
int killSocketsForUID(const char* uid);
// The same through the given system calls.
int killSocketsForUID(const char* uid, android::net::SocketOps& ops);
