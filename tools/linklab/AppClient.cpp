#include "AppClient.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "Sys.h"

namespace linklab {

namespace {

constexpr int kConnectTimeoutMs = 3000;

// Connects with a time-out; the socket or -1 with errno set.
int connectTo(const sockaddr_storage& server, socklen_t len) {
    const int fd = socket(server.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&server), len) != 0) {
        if (errno != EINPROGRESS) {
            const int e = errno;
            close(fd);
            errno = e;
            return -1;
        }
        pollfd p{fd, POLLOUT, 0};
        int err = ETIMEDOUT;
        socklen_t len = sizeof(err);
        if (poll(&p, 1, kConnectTimeoutMs) == 1) getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
        if (err != 0) {
            close(fd);
            errno = err;
            return -1;
        }
    }
    return fd;
}

// Reads the server's greeting line ("hello peer=A:P link=L"); false on a
// failure or after the time-out, errno set.
bool readHello(int fd, std::string& hello) {
    hello.clear();
    const int64_t deadline = monotonicNanos() + int64_t{kConnectTimeoutMs} * 1000000;
    while (hello.find('\n') == std::string::npos) {
        const int64_t left = (deadline - monotonicNanos()) / 1000000;
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) != 1) {
            errno = ETIMEDOUT;
            return false;
        }
        char buf[256];
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n == 0) errno = ECONNRESET;
        if (n <= 0) return false;
        hello.append(buf, static_cast<size_t>(n));
    }
    hello.erase(hello.find('\n'));
    if (hello.compare(0, 6, "hello ") == 0) hello.erase(0, 6);
    return true;
}

// Exchanges messages until the connection fails; returns the failure text.
std::string exchange(int fd, int intervalMs) {
    int64_t nextPing = monotonicNanos();
    for (unsigned seq = 0;;) {
        const int64_t now = monotonicNanos();
        if (now >= nextPing) {
            const std::string ping = "ping " + std::to_string(seq++) + "\n";
            if (send(fd, ping.data(), ping.size(), MSG_NOSIGNAL) < 0) {
                if (errno != EAGAIN) return "connection aborted: " + errnoName(errno);
            }
            nextPing = now + int64_t{intervalMs} * 1000000;
        }
        pollfd p{fd, POLLIN, 0};
        const int wait = static_cast<int>((nextPing - monotonicNanos()) / 1000000) + 1;
        if (poll(&p, 1, wait) != 1) continue;
        char buf[4096];
        const ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n == 0) return "connection closed by the server";
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return "connection aborted: " + errnoName(errno);
        }
    }
}

// `count` connections, each closed after the greeting; prints the links they
// came in on.
int tally(const sockaddr_storage& server, socklen_t len, int count) {
    std::map<std::string, int> links;
    int failed = 0;
    for (int i = 0; i < count; ++i) {
        const int fd = connectTo(server, len);
        std::string hello;
        if (fd < 0 || !readHello(fd, hello)) {
            ++failed;
        } else {
            const size_t at = hello.find(" link=");
            ++links[at == std::string::npos ? "?" : hello.substr(at + 6)];
        }
        if (fd >= 0) close(fd);
    }
    printf("connections=%d failed=%d", count, failed);
    for (const auto& [link, n] : links) printf(" %s=%d", link.c_str(), n);
    printf("\n");
    return failed == 0 ? 0 : 1;
}

}  // namespace

int runAppClient(const ClientOptions& o) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN);
    std::string error;
    if (!enterNetns(o.lab, error)) {
        fprintf(stderr, "vord-linklab client: %s\n", error.c_str());
        return 1;
    }
    if (o.uid >= 0 && !dropToUid(static_cast<uid_t>(o.uid))) {
        fprintf(stderr, "vord-linklab client: cannot become uid %d: %s\n", o.uid,
                errnoName(errno).c_str());
        return 1;
    }
    sockaddr_storage server;
    const socklen_t serverLen = socketAddress(o.serverAddr, o.serverPort, server);
    if (o.connections > 0) return tally(server, serverLen, o.connections);
    printf("client uid=%d server=%s\n", o.uid >= 0 ? o.uid : static_cast<int>(getuid()),
           addrText(server).c_str());
    bool everConnected = false;
    std::string lastFailure;
    for (;;) {
        const int fd = connectTo(server, serverLen);
        std::string hello;
        if (fd < 0 || !readHello(fd, hello)) {
            const std::string failure = "connect failed: " + errnoName(errno);
            if (failure != lastFailure) printf("%s\n", failure.c_str());
            lastFailure = failure;
            if (fd >= 0) close(fd);
            std::this_thread::sleep_for(std::chrono::milliseconds(o.intervalMs));
            continue;
        }
        sockaddr_storage local{};
        socklen_t len = sizeof(local);
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
        printf("%s local=%s %s\n", everConnected ? "reconnected" : "connected",
               addrText(local).c_str(), hello.c_str());
        everConnected = true;
        lastFailure.clear();
        printf("%s\n", exchange(fd, o.intervalMs).c_str());
        close(fd);
    }
}

}  // namespace linklab
