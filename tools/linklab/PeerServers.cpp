#include "PeerServers.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "LabConfig.h"
#include "Sys.h"

namespace linklab {

namespace {

constexpr size_t kMaxPending = 1 << 20;   // stop reading a client that does not read
constexpr size_t kProbeMessage = 58;      // what a probe sends per exchange
constexpr const char* kProbeFill = "..";  // up to the 60 bytes it waits for

int listenOn(const char* addr, int port, std::string& error) {
    sockaddr_storage sa;
    const socklen_t len = socketAddress(addr, port, sa);
    const int fd = socket(sa.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int one = 1;
    // IP_FREEBIND serves IPv6 sockets too.
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0 ||
        setsockopt(fd, IPPROTO_IP, IP_FREEBIND, &one, sizeof(one)) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&sa), len) != 0 || listen(fd, 256) != 0) {
        error =
            std::string("listen on ") + addr + ":" + std::to_string(port) + ": " + errnoName(errno);
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

PeerServers::~PeerServers() {
    for (auto& [tag, c] : conns_) close(c.fd);
    for (int fd : listenFds_) {
        if (fd >= 0) close(fd);
    }
}

bool PeerServers::open(std::string& error) {
    const char* addrs[kListeners] = {kProbeServerAddr, kAppServerAddr, kProbeServerAddr6,
                                     kAppServerAddr6};
    for (int i = 0; i < kListeners; ++i) {
        listenFds_[i] = listenOn(addrs[i], i % 2 ? kAppServerPort : kProbeServerPort, error);
        if (listenFds_[i] < 0) return false;
    }
    return true;
}

void PeerServers::setWatchers(Watch watch, Unwatch unwatch) {
    watch_ = std::move(watch);
    unwatch_ = std::move(unwatch);
}

void PeerServers::start() {
    for (int i = 0; i < kListeners; ++i) watch_(listenFds_[i], static_cast<uint64_t>(i), EPOLLIN);
}

void PeerServers::onEvent(uint64_t tag, uint32_t events) {
    if (tag < kListeners) {
        accept(static_cast<int>(tag));
        return;
    }
    auto it = conns_.find(tag);
    if (it == conns_.end()) return;
    Conn& c = it->second;
    if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
        char buf[16384];
        while (c.pending.size() < kMaxPending) {
            const ssize_t n = recv(c.fd, buf, sizeof(buf), 0);
            if (n > 0) {
                echo(c, buf, static_cast<size_t>(n));
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
            closeConn(tag);  // end of stream or error
            return;
        }
    }
    flush(tag, c);
}

void PeerServers::echo(Conn& c, const char* data, size_t size) {
    if (c.app || !fill_) {
        c.pending.append(data, size);
        return;
    }
    while (size > 0) {
        const size_t take = std::min(size, kProbeMessage - c.unit);
        c.pending.append(data, take);
        data += take;
        size -= take;
        c.unit += take;
        if (c.unit == kProbeMessage) {
            c.pending.append(kProbeFill);
            c.unit = 0;
        }
    }
}

void PeerServers::accept(int listener) {
    const bool app = listener % 2 == 1;
    for (;;) {
        sockaddr_storage peer{}, local{};
        socklen_t len = sizeof(peer);
        const int fd = accept4(listenFds_[listener], reinterpret_cast<sockaddr*>(&peer), &len,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        len = sizeof(local);
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        Conn c;
        c.fd = fd;
        c.app = app;
        c.peer = addrText(peer);
        c.link = finder_(peer, local);
        if (c.link.empty()) c.link = "?";
        if (app) c.pending = "hello peer=" + c.peer + " link=" + c.link + "\n";
        fprintf(log_, "%s accept peer=%s link=%s\n", app ? "app" : "echo", c.peer.c_str(),
                c.link.c_str());
        fflush(log_);
        const uint64_t tag = nextTag_++;
        watch_(fd, tag, EPOLLIN);
        flush(tag, conns_.emplace(tag, std::move(c)).first->second);
    }
}

void PeerServers::flush(uint64_t tag, Conn& c) {
    while (!c.pending.empty()) {
        const ssize_t n = send(c.fd, c.pending.data(), c.pending.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) break;
        if (n < 0) {
            closeConn(tag);
            return;
        }
        c.pending.erase(0, static_cast<size_t>(n));
    }
    watch_(c.fd, tag,
           (c.pending.size() < kMaxPending ? EPOLLIN : 0u) | (c.pending.empty() ? 0u : EPOLLOUT));
}

void PeerServers::closeConn(uint64_t tag) {
    auto it = conns_.find(tag);
    if (it == conns_.end()) return;
    Conn& c = it->second;
    fprintf(log_, "%s close peer=%s link=%s\n", c.app ? "app" : "echo", c.peer.c_str(),
            c.link.c_str());
    fflush(log_);
    unwatch_(c.fd);
    close(c.fd);
    conns_.erase(it);
}

}  // namespace linklab
