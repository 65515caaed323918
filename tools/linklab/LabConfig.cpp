#include "LabConfig.h"

#include <arpa/inet.h>
#include <net/if.h>

#include <stdio.h>

#include <cctype>

namespace linklab {

namespace {

bool nameChars(const std::string& s) {
    for (char c : s) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') {
            return false;
        }
    }
    return !s.empty() && s[0] != '-' && s[0] != '.';
}

}  // namespace

bool validLabName(const std::string& name) {
    // "-peer" is appended for the peer namespace.
    return name.size() <= 40 && nameChars(name);
}

bool validLinkName(const std::string& name) {
    // Not a name that means something else to ip's route tables or to sysctl.
    for (const char* reserved : {"lo", "all", "default", "main", "local", "unspec"}) {
        if (name == reserved) return false;
    }
    return name.size() < IFNAMSIZ && nameChars(name);
}

bool parseInt(const std::string& text, int lo, int hi, int& out) {
    if (text.empty() || text.size() > 9) return false;
    long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    if (v < lo || v > hi) return false;
    out = static_cast<int>(v);
    return true;
}

bool parseLinkArg(const std::string& text, int index, LinkConfig& out, std::string& error) {
    const size_t eq = text.find('=');
    if (eq == std::string::npos) {
        error = "link \"" + text + "\": expected NAME=MS (one-way delay in milliseconds)";
        return false;
    }
    out.name = text.substr(0, eq);
    out.index = index;
    if (!validLinkName(out.name)) {
        error = "link \"" + out.name + "\": not a valid interface name";
        return false;
    }
    if (!parseInt(text.substr(eq + 1), 0, kMaxDelayMs, out.delayMs)) {
        error =
            "link \"" + out.name + "\": delay must be 0.." + std::to_string(kMaxDelayMs) + " ms";
        return false;
    }
    return true;
}

bool parseAddrPort(const std::string& text, std::string& addr, int& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    addr = text.substr(0, colon);
    const bool v6 = addr.size() > 2 && addr.front() == '[' && addr.back() == ']';
    if (v6) addr = addr.substr(1, addr.size() - 2);
    in6_addr a{};
    return inet_pton(v6 ? AF_INET6 : AF_INET, addr.c_str(), &a) == 1 &&
           parseInt(text.substr(colon + 1), 1, 65535, port);
}

std::string LinkConfig::prefix6() const {
    char buf[32];
    snprintf(buf, sizeof(buf), "fd66:66:%x::", static_cast<unsigned>(index));
    return buf;
}

std::string peerNamespace(const std::string& lab) { return lab + "-peer"; }
std::string runDir(const std::string& lab) { return "/run/vord-linklab/" + lab; }
std::string controlPath(const std::string& lab) { return runDir(lab) + "/control"; }
std::string pidPath(const std::string& lab) { return runDir(lab) + "/relay.pid"; }
std::string connectionLogPath(const std::string& lab) { return runDir(lab) + "/connections.log"; }
std::string relayLogPath(const std::string& lab) { return runDir(lab) + "/relay.log"; }
std::string etcDir(const std::string& lab) { return "/etc/netns/" + lab; }

}  // namespace linklab
