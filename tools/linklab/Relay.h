// The links of a lab: for each, a TUN device in the handset namespace and one
// in the peer namespace, and the packets moving between them, each held for the
// link's one-way delay in its direction. A cut link drops everything, both ways;
// an IPv6-only link drops IPv4.
#pragma once

#include <stdint.h>
#include <sys/socket.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "DelayLine.h"
#include "LabConfig.h"

namespace linklab {

class Relay {
  public:
    ~Relay();

    // Creates the link's two TUN devices; the namespaces are given as open
    // /run/netns files. Leaves the calling thread in the peer namespace.
    bool addLink(const LinkConfig& config, int handsetNs, int peerNs, std::string& error);
    size_t linkCount() const { return links_.size(); }
    int fd(size_t link, bool handsetSide) const {
        return handsetSide ? links_[link].handsetFd : links_[link].peerFd;
    }

    // Reads what the TUN device has and queues (or drops) it.
    void onReadable(size_t link, bool handsetSide, int64_t now);
    // Delivers every packet whose time has come.
    void deliverDue(int64_t now);
    // Earliest release time of a held packet; -1 when none is held.
    int64_t nextRelease() const;

    bool setCut(const std::string& link, bool cut);
    bool setDelay(const std::string& link, int delayMs);
    // One line per link: name, delay, cut state, addresses, counters.
    std::string status() const;

    // The link that carried the SYN of this connection (handset to peer), IPv4
    // or IPv6; when none was seen, the link whose subnet holds the source; else "".
    std::string linkOfConnection(const sockaddr_storage& src, const sockaddr_storage& dst) const;

  private:
    struct Direction {
        DelayLine line;
        uint64_t passed = 0, dropped = 0;
    };
    struct Link {
        LinkConfig config;
        bool cut = false;
        int handsetFd = -1, peerFd = -1;
        Direction up, down;  // up: handset to peer
    };
    // Source and destination: address bytes (4 or 16) and port, network order.
    using FlowKey = std::tuple<std::string, uint16_t, std::string, uint16_t>;

    Link* find(const std::string& name);
    void noteSyn(size_t link, const char* packet, size_t size);
    static void deliver(Direction& dir, int fd, int64_t now);

    std::vector<Link> links_;
    std::map<FlowKey, size_t> synLink_;
};

}  // namespace linklab
