#include "Probe.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <linux/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Sys.h"

namespace linklab {

int runProbe(const ProbeOptions& o) {
    std::string error;
    if (!enterNetns(o.lab, error)) {
        fprintf(stderr, "vord-linklab probe: %s\n", error.c_str());
        return 1;
    }
    sockaddr_storage server;
    const socklen_t serverLen = socketAddress(o.serverAddr, o.serverPort, server);
    const int fd = socket(server.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval tv{o.timeoutMs / 1000, (o.timeoutMs % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, o.link.c_str(),
                   static_cast<socklen_t>(o.link.size())) != 0) {
        fprintf(stderr, "vord-linklab probe: bind to %s: %s\n", o.link.c_str(),
                errnoName(errno).c_str());
        return 1;
    }
    if (connect(fd, reinterpret_cast<sockaddr*>(&server), serverLen) != 0) {
        fprintf(stderr, "vord-linklab probe: connect to %s over %s: %s\n", addrText(server).c_str(),
                o.link.c_str(), errno == EINPROGRESS ? "timed out" : errnoName(errno).c_str());
        return 1;
    }
    // Each exchange: 58 bytes out, then either the same 58 back (compared;
    // fill bytes that come with them are skipped) or, with --receive N, a
    // receive of up to N bytes with MSG_WAITALL that ends at the time-out
    // with what has come, as the daemon's probe does.
    const int64_t start = monotonicNanos();
    int done = 0;
    char out[58], in[1024];
    for (; done < o.exchanges; ++done) {
        for (size_t i = 0; i < sizeof(out); ++i) out[i] = static_cast<char>('a' + (i + done) % 26);
        if (send(fd, out, sizeof(out), MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof(out))) break;
        if (o.receive > 0) {
            if (recv(fd, in, static_cast<size_t>(o.receive), MSG_WAITALL) < 0) break;
            continue;
        }
        if (recv(fd, in, sizeof(out), MSG_WAITALL) != static_cast<ssize_t>(sizeof(out)) ||
            memcmp(in, out, sizeof(out)) != 0) {
            break;
        }
        (void)!recv(fd, in, sizeof(in), MSG_DONTWAIT);
    }
    const int64_t elapsedMs = (monotonicNanos() - start) / 1000000;
    tcp_info info{};
    socklen_t len = sizeof(info);
    sockaddr_storage local{};
    socklen_t localLen = sizeof(local);
    getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLen);
    const bool ok = getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0;
    close(fd);
    if (!ok || done == 0) {
        fprintf(stderr, "vord-linklab probe: no exchange over %s\n", o.link.c_str());
        return 1;
    }
    printf("link=%s local=%s rtt_us=%u min_rtt_us=%u rttvar_us=%u exchanges=%d elapsed_ms=%lld\n",
           o.link.c_str(), addrText(local).c_str(), info.tcpi_rtt, info.tcpi_min_rtt,
           info.tcpi_rttvar, done, static_cast<long long>(elapsedMs));
    return 0;
}

}  // namespace linklab
