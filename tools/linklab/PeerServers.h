// The servers of the peer namespace, each on an IPv4 and an IPv6 address: the
// probe echo server (1.1.1.1 and 2606:4700:4700::1111, port 443; echoes exactly
// what it receives; in "fill" mode it also adds two bytes after every
// 58 received, so a probe's receive of 60 bytes with MSG_WAITALL completes
// after one round trip instead of at its time-out) and the application server
// (198.18.0.10 and 2001:2::10, port 8080; greets each client with one line naming the peer address and the link it
// came in on, then echoes). Each accepted and closed connection is logged, one
// line each, with the link it used:
//   "echo accept peer=10.66.1.2:40112 link=wlan0"
//   "app close peer=[fd66:66:3::2]:51000 link=rmnet_data0"
#pragma once

#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>

#include <functional>
#include <map>
#include <string>

namespace linklab {

class PeerServers {
  public:
    // Names the link a connection came in on, from its source and destination.
    using LinkFinder =
        std::function<std::string(const sockaddr_storage&, const sockaddr_storage&)>;

    PeerServers(LinkFinder finder, FILE* log) : finder_(std::move(finder)), log_(log) {}
    ~PeerServers();

    // Opens the four listening sockets in the calling thread's namespace. The
    // addresses need not exist yet (free bind).
    bool open(std::string& error);

    // Adds or changes the epoll events watched on a descriptor; the tag is what
    // onEvent takes back. Listening sockets are tags 0 to 3 (odd: the
    // application server); connections get tags from 4 on.
    using Watch = std::function<void(int fd, uint64_t tag, uint32_t events)>;
    using Unwatch = std::function<void(int fd)>;
    void setWatchers(Watch watch, Unwatch unwatch);
    void start();
    void onEvent(uint64_t tag, uint32_t events);
    void setFill(bool fill) { fill_ = fill; }
    bool fill() const { return fill_; }

  private:
    struct Conn {
        int fd = -1;
        bool app = false;
        std::string peer, link, pending;
        size_t unit = 0;  // bytes of the current 58-byte message (fill mode)
    };
    void accept(int listener);
    void echo(Conn& c, const char* data, size_t size);
    void flush(uint64_t tag, Conn& c);
    void closeConn(uint64_t tag);

    LinkFinder finder_;
    FILE* log_;
    static constexpr int kListeners = 4;  // echo and app server, IPv4 then IPv6
    int listenFds_[kListeners] = {-1, -1, -1, -1};
    bool fill_ = false;
    uint64_t nextTag_ = kListeners;
    std::map<uint64_t, Conn> conns_;
    Watch watch_;
    Unwatch unwatch_;
};

}  // namespace linklab
