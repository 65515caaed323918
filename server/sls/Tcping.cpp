// The RTT probe. Every failure is -1 and logged at error level; the caller counts
// it as a miss. Names are never resolved: the server text goes through inet_addr,
// and anything but a dotted IPv4 address fails at connect.
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

// A socket for `info`'s target, bound to its interface; -1 with a log line.
int boundSocket(tcping_info* info) {
    Tcping::fillTarget(info->server, info->port, &info->addr, &info->addrLen);
    info->sockfd = socket(info->addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
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

int Tcping::populateTcpingSocket(tcping_info* info) { return boundSocket(info) < 0 ? -1 : 0; }

int Tcping::getTcpingRtt(tcping_info* info, int offsetMs) {
    const char* dev = info->ifname != nullptr ? info->ifname : "(none)";
    if (connect_with_timeout(info->sockfd, reinterpret_cast<const sockaddr*>(&info->addr), info->addrLen,
                             timespec{0, kTimeoutUs * 1000}, info->abortFd) == -1) {
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

int Tcping::connect_with_timeout(int fd, const sockaddr* addr, unsigned len, timespec timeout,
                                 int abortFd) {
    const int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int result;
    if (connect(fd, addr, len) == 0) {
        result = 0;
    } else if (errno != EINPROGRESS) {
        result = -1;
    } else {
        timespec deadline = deadlineAfterMs(timeout.tv_sec * 1000 + timeout.tv_nsec / 1000000);
        int polled = retrying_poll(fd, POLLIN | POLLOUT, &deadline, abortFd);
        result = polled >= 1 ? polled : -1;
    }
    const int saved = errno;
    fcntl(fd, F_SETFL, flags);
    errno = saved;
    return result;
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

bool Tcping::linkAnswers(const char* ifname, const char* server, int port, int timeoutMs, int abortFd) {
    tcping_info info;
    info.ifname = ifname;
    info.server = server;
    info.port = port;
    if (boundSocket(&info) < 0) return false;
    const int flags = fcntl(info.sockfd, F_GETFL, 0);
    fcntl(info.sockfd, F_SETFL, flags | O_NONBLOCK);
    bool answered = connect(info.sockfd, reinterpret_cast<const sockaddr*>(&info.addr), info.addrLen) == 0;
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
