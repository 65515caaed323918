#include "Relay.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Sys.h"

namespace linklab {

namespace {

constexpr size_t kMaxPacket = 65536;
constexpr size_t kMaxSynEntries = 4096;
constexpr int kReadBurst = 64;  // packets per wake-up, so one busy link cannot starve the rest

// A TUN device (IP packets, no extra header) in the calling thread's namespace.
int openTun(const std::string& name, std::string& error) {
    const int fd = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = "open /dev/net/tun: " + errnoName(errno);
        return -1;
    }
    ifreq ifr{};
    ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
    strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (ioctl(fd, TUNSETIFF, &ifr) != 0) {
        error = "TUNSETIFF " + name + ": " + errnoName(errno);
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

Relay::~Relay() {
    for (Link& l : links_) {
        if (l.handsetFd >= 0) close(l.handsetFd);
        if (l.peerFd >= 0) close(l.peerFd);
    }
}

bool Relay::addLink(const LinkConfig& config, int handsetNs, int peerNs, std::string& error) {
    Link link;
    link.config = config;
    if (setns(handsetNs, CLONE_NEWNET) != 0) {
        error = "setns: " + errnoName(errno);
        return false;
    }
    link.handsetFd = openTun(config.name, error);
    if (link.handsetFd < 0) return false;
    if (setns(peerNs, CLONE_NEWNET) != 0 || (link.peerFd = openTun(config.name, error)) < 0) {
        if (error.empty()) error = "setns: " + errnoName(errno);
        close(link.handsetFd);
        return false;
    }
    links_.push_back(std::move(link));
    return true;
}

void Relay::onReadable(size_t index, bool handsetSide, int64_t now) {
    Link& link = links_[index];
    Direction& dir = handsetSide ? link.up : link.down;
    const int in = handsetSide ? link.handsetFd : link.peerFd;
    const int out = handsetSide ? link.peerFd : link.handsetFd;
    char buf[kMaxPacket];
    for (int i = 0; i < kReadBurst; ++i) {
        const ssize_t n = read(in, buf, sizeof(buf));
        if (n <= 0) break;
        // An IPv6-only link carries no IPv4 (the kernel may still send some out
        // of it: a bound socket's on-link fallback).
        if (link.cut || (link.config.ipv6Only && (buf[0] & 0xf0) == 0x40)) {
            ++dir.dropped;
            continue;
        }
        if (handsetSide) noteSyn(index, buf, static_cast<size_t>(n));
        if (link.config.delayMs == 0 && dir.line.empty()) {
            ++dir.passed;
            (void)!write(out, buf, static_cast<size_t>(n));
            continue;
        }
        dir.line.push(now, static_cast<int64_t>(link.config.delayMs) * 1000000, buf,
                      static_cast<size_t>(n));
    }
}

void Relay::deliver(Direction& dir, int fd, int64_t now) {
    std::string packet;
    while (dir.line.popDue(now, packet)) {
        ++dir.passed;
        // A TUN write hands the packet to the stack at once; a failure (the
        // device down, say) is a lost packet, as on a real link.
        (void)!write(fd, packet.data(), packet.size());
    }
}

void Relay::deliverDue(int64_t now) {
    for (Link& l : links_) {
        deliver(l.up, l.peerFd, now);
        deliver(l.down, l.handsetFd, now);
    }
}

int64_t Relay::nextRelease() const {
    int64_t next = -1;
    for (const Link& l : links_) {
        for (const Direction* d : {&l.up, &l.down}) {
            if (!d->line.empty() && (next < 0 || d->line.nextRelease() < next)) {
                next = d->line.nextRelease();
            }
        }
    }
    return next;
}

Relay::Link* Relay::find(const std::string& name) {
    for (Link& l : links_) {
        if (l.config.name == name) return &l;
    }
    return nullptr;
}

bool Relay::setCut(const std::string& name, bool cut) {
    Link* l = find(name);
    if (l == nullptr) return false;
    l->cut = cut;
    if (cut) {  // what is on the wire is lost too
        l->up.dropped += l->up.line.size();
        l->down.dropped += l->down.line.size();
        l->up.line.clear();
        l->down.line.clear();
    }
    return true;
}

bool Relay::setDelay(const std::string& name, int delayMs) {
    Link* l = find(name);
    if (l == nullptr) return false;
    l->config.delayMs = delayMs;
    return true;
}

std::string Relay::status() const {
    std::string out;
    for (const Link& l : links_) {
        out += l.config.name + " delay=" + std::to_string(l.config.delayMs) +
               "ms rtt=" + std::to_string(2 * l.config.delayMs) +
               "ms state=" + (l.cut ? "cut" : "up") +
               " handset=" + (l.config.ipv6Only ? "-" : l.config.handsetAddr()) +
               " peer=" + (l.config.ipv6Only ? "-" : l.config.peerAddr()) +
               " handset6=" + l.config.handsetAddr6() + " peer6=" + l.config.peerAddr6() +
               " table=" + std::to_string(l.config.table()) +
               " up_packets=" + std::to_string(l.up.passed) +
               " down_packets=" + std::to_string(l.down.passed) +
               " dropped=" + std::to_string(l.up.dropped + l.down.dropped) + "\n";
    }
    return out;
}

void Relay::noteSyn(size_t link, const char* p, size_t size) {
    const auto* b = reinterpret_cast<const unsigned char*>(p);
    if (size < 20) return;
    // IPv4 with its options, or IPv6 with TCP as the first next header.
    const bool v6 = (b[0] >> 4) == 6;
    if (!v6 && ((b[0] >> 4) != 4 || b[9] != IPPROTO_TCP)) return;
    if (v6 && (size < 40 || b[6] != IPPROTO_TCP)) return;
    const size_t ihl = v6 ? 40 : (b[0] & 0x0f) * 4u, addrLen = v6 ? 16 : 4;
    if (size < ihl + 14) return;
    const unsigned char flags = b[ihl + 13];
    if ((flags & 0x02) == 0 || (flags & 0x10) != 0) return;  // SYN without ACK only
    if (synLink_.size() >= kMaxSynEntries) synLink_.clear();
    const char* src = p + (v6 ? 8 : 12);
    uint16_t sport, dport;
    memcpy(&sport, b + ihl, 2);
    memcpy(&dport, b + ihl + 2, 2);
    synLink_[FlowKey(std::string(src, addrLen), sport, std::string(src + addrLen, addrLen), dport)] =
        link;
}

namespace {

// Address bytes and port of a socket address.
std::pair<std::string, uint16_t> bytesOf(const sockaddr_storage& a) {
    if (a.ss_family == AF_INET6) {
        const auto& a6 = reinterpret_cast<const sockaddr_in6&>(a);
        return {std::string(reinterpret_cast<const char*>(&a6.sin6_addr), 16), a6.sin6_port};
    }
    const auto& a4 = reinterpret_cast<const sockaddr_in&>(a);
    return {std::string(reinterpret_cast<const char*>(&a4.sin_addr), 4), a4.sin_port};
}

}  // namespace

std::string Relay::linkOfConnection(const sockaddr_storage& src, const sockaddr_storage& dst) const {
    const auto [srcAddr, srcPort] = bytesOf(src);
    const auto [dstAddr, dstPort] = bytesOf(dst);
    const auto it = synLink_.find(FlowKey(srcAddr, srcPort, dstAddr, dstPort));
    if (it != synLink_.end()) return links_[it->second].config.name;
    // No SYN seen (the map was full, say): the link whose subnet the source is
    // in, 10.66.<index>.0/24 or fd66:66:<index>::/64.
    const auto* a = reinterpret_cast<const unsigned char*>(srcAddr.data());
    for (const Link& l : links_) {
        const unsigned i = static_cast<unsigned>(l.config.index);
        if (srcAddr.size() == 4 ? a[0] == 10 && a[1] == 66 && a[2] == i
                                : memcmp(a, "\xfd\x66\x00\x66", 4) == 0 && a[4] == (i >> 8) && a[5] == (i & 0xff)) {
            return l.config.name;
        }
    }
    return "";
}

}  // namespace linklab
