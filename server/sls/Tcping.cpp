// The RTT probe. Every failure is -1 and logged at error level; the caller counts
// it as a miss. Names are never resolved: the server text goes through inet_addr,
// and anything but a dotted IPv4 address fails at connect.

#define LOG_TAG "MUX-Vord-Tcping"

#include "sls/Tcping.h"

#include <log/log.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include "sls/RetryingPoll.h"

namespace {

constexpr long kNsPerSecond = 1000000000L;
// Length handed to TCP_INFO: the kernel copies at most this much of its record.
constexpr socklen_t kTcpInfoLength = 248;

void closeSocket(tcping_info* info) {
    if (info->sockfd >= 0) close(info->sockfd);
    info->sockfd = -1;
}

}  // namespace

int Tcping::updateTcpingRtt(tcping_info* info, int offsetMs) {
    if (populateTcpingSocket(info) != 0) return -1;
    return getTcpingRtt(info, offsetMs);
}

int Tcping::populateTcpingSocket(tcping_info* info) {
    info->sockfd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (info->sockfd < 0) {
        ALOGE("create socket failed of client!\n");
        return -1;
    }
    memset(&info->addr, 0, sizeof(info->addr));
    info->addr.sin_family = AF_INET;
    info->addr.sin_port = htons(static_cast<uint16_t>(info->port));
    info->addr.sin_addr.s_addr = inet_addr(info->server != nullptr ? info->server : "");

    timeval timeout{0, kTimeoutUs};
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
    return 0;
}

int Tcping::getTcpingRtt(tcping_info* info, int offsetMs) {
    const char* dev = info->ifname != nullptr ? info->ifname : "(none)";
    if (connect_with_timeout(info->sockfd, reinterpret_cast<const sockaddr*>(&info->addr),
                             sizeof(info->addr), timespec{0, kTimeoutUs * 1000}) == -1) {
        ALOGE("connect failed of client,device is %s!\n", dev);
        closeSocket(info);
        return -1;
    }
    int exchanges = 0;
    bool failed = false;
    char buffer[kBufferSize];
    while (exchanges < kExchanges) {
        memset(buffer, 0, sizeof(buffer));
        genRandomString(kBufferSize, buffer);
        if (send(info->sockfd, buffer, strlen(buffer), MSG_NOSIGNAL) == -1) {
            ALOGE("send data to server request failed %d,device is %s(errno %d, errno count %d)\n",
                  -1, dev, errno, exchanges);
            failed = true;
            break;
        }
        memset(buffer, 0, sizeof(buffer));
        if (recv(info->sockfd, buffer, sizeof(buffer), MSG_WAITALL | MSG_NOSIGNAL) == -1) {
            ALOGE("recieve failed %d,device is %s(errno %d, errno count %d)", -1, dev, errno,
                  exchanges);
            failed = true;
            break;
        }
        exchanges += 1;  // a peer that closed (0) counts as an exchange
    }
    if (failed && exchanges == 0) {
        closeSocket(info);
        return -1;
    }
    tcp_info kernelInfo;
    memset(&kernelInfo, 0, sizeof(kernelInfo));
    socklen_t length = sizeof(kernelInfo) < kTcpInfoLength ? sizeof(kernelInfo) : kTcpInfoLength;
    if (getsockopt(info->sockfd, IPPROTO_TCP, TCP_INFO, &kernelInfo, &length) != 0) {
        closeSocket(info);
        return -1;
    }
    info->rtt = static_cast<int>(kernelInfo.tcpi_rtt / 1000);
    closeSocket(info);
    info->rtt += offsetMs;
    ALOGI("TCPing cacla rtt is %d,device is %s", info->rtt, dev);
    return info->rtt;
}

int Tcping::connect_with_timeout(int fd, const sockaddr* addr, unsigned len, timespec timeout) {
    const int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int result;
    if (connect(fd, addr, len) == 0) {
        result = 0;
    } else if (errno != EINPROGRESS) {
        result = -1;
    } else {
        timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += timeout.tv_sec;
        deadline.tv_nsec += timeout.tv_nsec;
        deadline.tv_sec += deadline.tv_nsec / kNsPerSecond;
        deadline.tv_nsec %= kNsPerSecond;
        int polled = retrying_poll(fd, POLLIN | POLLOUT, &deadline);
        result = polled >= 1 ? polled : -1;
    }
    fcntl(fd, F_SETFL, flags);
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
