// The RTT probe. Every failure is -1 and logged at error level; the caller counts
// it as a miss. Names are never resolved: the server text goes through inet_addr,
// and anything but a dotted IPv4 address fails at connect. A link without IPv4
// is probed at the IPv6 probe server instead (see Tcping.h).
//
// The socket keeps its 500 ms send and receive time-outs, but the exchanges wait
// in poll (with the record's abort descriptor) and then send or receive without
// blocking: a receive gathers up to 60 bytes until the buffer is full, the peer
// closes, an error comes or 500 ms have passed, as MSG_WAITALL under a receive
// time-out does.

#define LOG_TAG "MUX-Vord-Tcping"

#include "sls/Tcping.h"

#include <log/log.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include "sls/RetryingPoll.h"

namespace {

// Length handed to TCP_INFO: the kernel copies at most this much of its record.
constexpr socklen_t kTcpInfoLength = 248;
constexpr long kTimeoutMs = Tcping::kTimeoutUs / 1000;

void closeSocket(tcping_info* info) {
    if (info->sockfd >= 0) close(info->sockfd);
    info->sockfd = -1;
}

// Sends `size` bytes once the socket can take them within the time-out. The
// bytes sent, or -1 with errno (EAGAIN: time-out, ECANCELED: aborted).
ssize_t sendWithin(int fd, const char* data, size_t size, int abortFd) {
    const timespec deadline = deadlineAfterMs(kTimeoutMs);
    for (;;) {
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0 || (errno != EAGAIN && errno != EINTR)) return n;
        int polled = pollUntil(fd, POLLOUT, &deadline, abortFd, nullptr);
        if (polled == 0) errno = EAGAIN;
        if (polled <= 0) return -1;
    }
}

// Receives up to `size` bytes as described at the top of this file. The bytes
// received (0: the peer closed first), or -1 with errno when nothing came (EAGAIN:
// time-out, ECANCELED: aborted, else the socket's error).
ssize_t receiveWithin(int fd, char* buffer, size_t size, int abortFd) {
    const timespec deadline = deadlineAfterMs(kTimeoutMs);
    size_t got = 0;
    while (got < size) {
        ssize_t n = recv(fd, buffer + got, size - got, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n == 0) break;
        if (n > 0) {
            got += static_cast<size_t>(n);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN) return got > 0 ? static_cast<ssize_t>(got) : -1;
        int polled = pollUntil(fd, POLLIN, &deadline, abortFd, nullptr);
        if (polled < 0 && errno == ECANCELED) return -1;
        if (polled <= 0) {
            if (got > 0) break;
            errno = EAGAIN;
            return -1;
        }
    }
    return static_cast<ssize_t>(got);
}

// Whether `ifname` has an IPv4 address. Also true when that cannot be told (no
// such interface: binding to it fails next, with its own log line) and for an
// unbound probe. Asked through a TCP socket, the class the probes already use.
bool hasIpv4Address(const char* ifname) {
    if (ifname == nullptr) return true;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return true;
    ifreq request;
    memset(&request, 0, sizeof(request));
    strncpy(request.ifr_name, ifname, IFNAMSIZ - 1);
    const bool none = ioctl(fd, SIOCGIFADDR, &request) != 0 && errno == EADDRNOTAVAIL;
    close(fd);
    return !none;
}

// Whether the IPv6 probe server can stand in for a probe of `info`.
bool haveIpv6Server(const tcping_info* info) {
    in6_addr unused;
    return info->server6 != nullptr && inet_pton(AF_INET6, info->server6, &unused) == 1;
}

// A socket for `info`'s target (its IPv6 server with `ipv6`), bound to its
// interface; -1 with a log line.
int boundSocket(tcping_info* info, bool ipv6) {
    if (ipv6) {
        memset(&info->addr, 0, sizeof(info->addr));
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&info->addr);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(static_cast<uint16_t>(info->port6));
        inet_pton(AF_INET6, info->server6, &in6->sin6_addr);
        info->addrLen = sizeof(sockaddr_in6);
    } else {
        Tcping::fillTarget(info->server, info->port, &info->addr, &info->addrLen);
    }
    const int family = info->addr.ss_family;
    info->sockfd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (info->sockfd < 0) {
        ALOGE("create socket failed of client!\n");
        return -1;
    }
    timeval timeout{0, Tcping::kTimeoutUs};
    setsockopt(info->sockfd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    if (setsockopt(info->sockfd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0) {
        ALOGE("Set SocketTimeout failed.");
        closeSocket(info);
        return -1;
    }
    if (info->ifname != nullptr) {
        ifreq request;
        memset(&request, 0, sizeof(request));
        strncpy(request.ifr_name, info->ifname, IFNAMSIZ - 1);
        ioctl(info->sockfd, SIOCGIFINDEX, &request);
        if (setsockopt(info->sockfd, SOL_SOCKET, SO_BINDTODEVICE, &request, sizeof(request)) != 0) {
            ALOGE("Set interface %s failed.", info->ifname);
            closeSocket(info);
            return -1;
        }
    }
    return info->sockfd;
}

// Records the family `info`'s probe goes over, with a log line when it changed.
void noteFamily(tcping_info* info, bool fellBack) {
    const int family = info->addr.ss_family;
    if (family == info->family) return;
    const char* dev = info->ifname != nullptr ? info->ifname : "(none)";
    if (family == AF_INET6) {
        ALOGI("%s has no IPv4 %s: probing it over IPv6 ([%s]:%d)", dev, fellBack ? "route" : "address",
              info->server6, info->port6);
    } else if (info->family != 0) {
        ALOGI("%s has IPv4 again: probing it over IPv4", dev);
    }
    info->family = family;
}

// Starts the connection of the socket populateTcpingSocket made, leaving it
// non-blocking. An IPv4 connect that fails at once for want of a route (the
// link has no IPv4 route, or no address to send from) is replaced by one to the
// IPv6 probe server when there is one. connect's result: 0, or -1 with errno
// (EINPROGRESS: under way; the socket is closed on any other failure).
int startConnect(tcping_info* info) {
    for (bool fellBack = false;; fellBack = true) {
        fcntl(info->sockfd, F_SETFL, fcntl(info->sockfd, F_GETFL, 0) | O_NONBLOCK);
        const int result = connect(info->sockfd, reinterpret_cast<const sockaddr*>(&info->addr), info->addrLen);
        const int error = errno;
        const bool noRoute = error == ENETUNREACH || error == EHOSTUNREACH || error == EADDRNOTAVAIL;
        if (result != 0 && error != EINPROGRESS) closeSocket(info);
        if (result == 0 || error == EINPROGRESS || info->addr.ss_family != AF_INET || !noRoute ||
            !haveIpv6Server(info)) {
            noteFamily(info, fellBack);
            errno = error;
            return result;
        }
        if (boundSocket(info, true) < 0) return -1;
    }
}

}  // namespace

bool Tcping::fillTarget(const char* server, int port, sockaddr_storage* out, socklen_t* len) {
    memset(out, 0, sizeof(*out));
    auto* in = reinterpret_cast<sockaddr_in*>(out);
    in->sin_family = AF_INET;
    in->sin_port = htons(static_cast<uint16_t>(port));
    in->sin_addr.s_addr = inet_addr(server != nullptr ? server : "");
    *len = sizeof(sockaddr_in);
    return in->sin_addr.s_addr != INADDR_NONE || (server != nullptr && strcmp(server, "255.255.255.255") == 0);
}

int Tcping::updateTcpingRtt(tcping_info* info, int offsetMs) {
    if (populateTcpingSocket(info) != 0) return -1;
    return getTcpingRtt(info, offsetMs);
}

int Tcping::populateTcpingSocket(tcping_info* info) {
    return boundSocket(info, haveIpv6Server(info) && !hasIpv4Address(info->ifname)) < 0 ? -1 : 0;
}

int Tcping::getTcpingRtt(tcping_info* info, int offsetMs) {
    const char* dev = info->ifname != nullptr ? info->ifname : "(none)";
    int connected = startConnect(info);
    if (connected == -1 && errno == EINPROGRESS) {
        const timespec deadline = deadlineAfterMs(kTimeoutMs);
        connected = retrying_poll(info->sockfd, POLLIN | POLLOUT, &deadline, info->abortFd) >= 1 ? 0 : -1;
    }
    if (connected == -1) {
        if (errno != ECANCELED) ALOGE("connect failed of client,device is %s!\n", dev);
        closeSocket(info);
        return -1;
    }
    int exchanges = 0;
    bool failed = false, aborted = false;
    char buffer[kBufferSize];
    while (exchanges < kExchanges) {
        memset(buffer, 0, sizeof(buffer));
        genRandomString(kBufferSize, buffer);
        if (sendWithin(info->sockfd, buffer, strlen(buffer), info->abortFd) == -1) {
            if ((aborted = errno == ECANCELED)) break;
            ALOGE("send data to server request failed %d,device is %s(errno %d, errno count %d)\n",
                  -1, dev, errno, exchanges);
            failed = true;
            break;
        }
        memset(buffer, 0, sizeof(buffer));
        if (receiveWithin(info->sockfd, buffer, sizeof(buffer), info->abortFd) == -1) {
            if ((aborted = errno == ECANCELED)) break;
            ALOGE("recieve failed %d,device is %s(errno %d, errno count %d)", -1, dev, errno,
                  exchanges);
            failed = true;
            break;
        }
        exchanges += 1;  // a peer that closed (0) counts as an exchange
    }
    tcp_info kernelInfo;
    memset(&kernelInfo, 0, sizeof(kernelInfo));
    socklen_t length = sizeof(kernelInfo) < kTcpInfoLength ? sizeof(kernelInfo) : kTcpInfoLength;
    const bool haveInfo =
            !aborted && getsockopt(info->sockfd, IPPROTO_TCP, TCP_INFO, &kernelInfo, &length) == 0;
    // A failed exchange whose bytes the server's kernel did not even acknowledge:
    // the path stopped carrying, whatever the server program does.
    info->stalled = failed && haveInfo &&
                    length >= offsetof(tcp_info, tcpi_unacked) + sizeof(kernelInfo.tcpi_unacked) &&
                    kernelInfo.tcpi_unacked > 0;
    if (aborted || (failed && exchanges == 0) || !haveInfo ||
        length < offsetof(tcp_info, tcpi_rtt) + sizeof(kernelInfo.tcpi_rtt)) {
        closeSocket(info);
        return -1;
    }
    info->rtt = static_cast<int>(kernelInfo.tcpi_rtt / 1000);
    closeSocket(info);
    info->rtt += offsetMs;
    ALOGI("TCPing cacla rtt is %d,device is %s", info->rtt, dev);
    return info->rtt;
}

int Tcping::genRandomString(int len, char* out) {
    timeval now;
    gettimeofday(&now, nullptr);
    srand(static_cast<unsigned>(now.tv_usec));
    for (int i = 0; i < len - 2; ++i) {
        switch (rand() % 3) {
            case 0: out[i] = static_cast<char>('A' + rand() % 26); break;
            case 1: out[i] = static_cast<char>('a' + rand() % 26); break;
            default: out[i] = static_cast<char>('0' + rand() % 10); break;
        }
    }
    if (len >= 1) out[len - 1] = '\0';
    return 0;
}

bool Tcping::linkAnswers(const char* ifname, const char* server, int port, int timeoutMs, int abortFd,
                         const char* server6) {
    tcping_info info;
    info.ifname = ifname;
    info.server = server;
    info.port = port;
    info.server6 = server6;
    if (populateTcpingSocket(&info) != 0) return false;
    bool answered = startConnect(&info) == 0;
    if (!answered && errno == EINPROGRESS) {
        const timespec deadline = deadlineAfterMs(timeoutMs);
        short revents = 0;
        const int polled = pollUntil(info.sockfd, POLLOUT, &deadline, abortFd, &revents);
        if (polled < 0 && errno == ECANCELED) answered = true;  // no verdict
        if (polled > 0) {
            int error = 0;
            socklen_t len = sizeof(error);
            getsockopt(info.sockfd, SOL_SOCKET, SO_ERROR, &error, &len);
            // A refusal came back over the link as much as an acceptance did.
            answered = error == 0 || error == ECONNREFUSED;
        }
    }
    closeSocket(&info);
    return answered;
}
