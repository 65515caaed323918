// What a lab is made of: its name, its links (name, one-way delay, addresses,
// route table) and where its files live. Pure data and validation.
#pragma once

#include <string>
#include <vector>

namespace linklab {

// Addresses inside the lab's peer namespace, IPv4 and IPv6.
constexpr const char* kProbeServerAddr = "1.1.1.1";  // the daemon's built-in probe server
constexpr const char* kProbeServerAddr6 = "2606:4700:4700::1111";  // its IPv6 twin
constexpr int kProbeServerPort = 443;
constexpr const char* kAppServerAddr = "198.18.0.10";
constexpr const char* kAppServerAddr6 = "2001:2::10";  // benchmarking range, as 198.18/15
constexpr int kAppServerPort = 8080;
// Priority of the rules that send a socket bound to a link (oif) to the link's
// table, as the handset's network daemon has them; below the daemon's 14999.
constexpr int kOifRulePriority = 13000;
constexpr int kMaxLinks = 16;
constexpr int kMaxDelayMs = 10000;

struct LinkConfig {
    std::string name;  // interface name in both namespaces
    int delayMs = 0;   // one-way delay, applied in each direction
    int index = 0;     // 1-based, in the order given; picks the subnets and table
    bool ipv6Only = false;  // no IPv4 address or route on the link

    // Link subnet 10.66.<index>.0/24: the handset end is .2, the peer end .1.
    std::string handsetAddr() const { return "10.66." + std::to_string(index) + ".2"; }
    std::string peerAddr() const { return "10.66." + std::to_string(index) + ".1"; }
    std::string subnet() const { return "10.66." + std::to_string(index) + ".0/24"; }
    // Link prefix fd66:66:<index in hex>::/64 (ULA): the handset end ::2, the peer end ::1.
    std::string prefix6() const;
    std::string handsetAddr6() const { return prefix6() + "2"; }
    std::string peerAddr6() const { return prefix6() + "1"; }
    int table() const { return 100 + index; }
};

bool validLabName(const std::string& name);
bool validLinkName(const std::string& name);
// Parses "NAME=MS"; false with `error` set when it is not valid.
bool parseLinkArg(const std::string& text, int index, LinkConfig& out, std::string& error);
// Parses a decimal integer in [lo, hi].
bool parseInt(const std::string& text, int lo, int hi, int& out);
// Parses "A.B.C.D:PORT" or "[IPV6]:PORT"; `addr` gets the address without brackets.
bool parseAddrPort(const std::string& text, std::string& addr, int& port);

std::string peerNamespace(const std::string& lab);
std::string runDir(const std::string& lab);       // /run/vord-linklab/NAME
std::string controlPath(const std::string& lab);  // control socket of the relay
std::string pidPath(const std::string& lab);
std::string connectionLogPath(const std::string& lab);
std::string relayLogPath(const std::string& lab);
std::string etcDir(const std::string& lab);  // /etc/netns/NAME

}  // namespace linklab
