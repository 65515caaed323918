// vord-linklab: a lab of network namespaces standing in for a handset and the
// network behind its links, for end-to-end tests and the demo. See kUsage.

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "AppClient.h"
#include "LabDaemon.h"
#include "LabSetup.h"
#include "LabConfig.h"
#include "Probe.h"
#include "Sys.h"

namespace {

using namespace linklab;

const char kUsage[] =
    "usage: vord-linklab COMMAND NAME [ARGS...]\n"
    "\n"
    "A lab NAME is two network namespaces: NAME, the handset, and NAME-peer, the\n"
    "network behind its links. Each link is a TUN device of the link's name in\n"
    "both; a relay process moves packets between the two and holds each for the\n"
    "link's one-way delay, in each direction (so wlan0=20 gives a 40 ms round\n"
    "trip). Link number i (in the order given) has the subnet 10.66.i.0/24 and\n"
    "the prefix fd66:66:i::/64 (i in hex): the handset end is 10.66.i.2 and\n"
    "fd66:66:i::2, the peer end 10.66.i.1 and fd66:66:i::1. The handset has a\n"
    "route table named after the link (number 100+i) with a default route of each\n"
    "family out of it, a rule (priority 13000, each family) that routes sockets\n"
    "bound to the link by that table, and in the main table the default routes\n"
    "out of the default link. The peer runs an echo server at 1.1.1.1:443 and\n"
    "[2606:4700:4700::1111]:443 (the daemon's probe servers) and an application\n"
    "server at 198.18.0.10:8080 and [2001:2::10]:8080 that greets each client\n"
    "with \"hello peer=ADDR:PORT link=LINK\" and echoes. Both log each connection\n"
    "with the link it came in on (vord-linklab log NAME). Needs root and\n"
    "/dev/net/tun.\n"
    "\n"
    "commands:\n"
    "  up NAME LINK=MS... [--default LINK] [--ipv6-only LINK]...\n"
    "        build the lab; MS is the link's ONE-WAY delay in milliseconds\n"
    "        (0..10000); the main table's default routes use --default (else the\n"
    "        last link given); an --ipv6-only link has no IPv4 address or route.\n"
    "        e.g. up lab1 wlan0=20 wlan1=25 rmnet_data0=15 --ipv6-only rmnet_data0\n"
    "  down NAME       stop the relay and every process in the lab, delete the\n"
    "                  namespaces, /etc/netns/NAME and /run/vord-linklab/NAME;\n"
    "                  succeeds when the lab does not exist\n"
    "  status NAME     links, delays, cut state, addresses, packet counters\n"
    "  cut NAME LINK   drop every packet of LINK, both ways (held ones too)\n"
    "  restore NAME LINK\n"
    "                  carry LINK's packets again\n"
    "  probe-echo NAME exact|fill\n"
    "                  how the echo server at 1.1.1.1:443 answers: exact (the\n"
    "                  default) sends back exactly what it receives; fill adds two\n"
    "                  bytes after every 58 received, so a probe that sends 58 and\n"
    "                  waits for 60 (MSG_WAITALL) gets them after one round trip\n"
    "                  instead of at its receive time-out\n"
    "  delay NAME LINK MS\n"
    "                  change LINK's one-way delay (packets keep their order)\n"
    "  exec NAME [--peer] [--uid UID] -- CMD [ARGS...]\n"
    "                  run CMD in the handset namespace (the peer's with --peer),\n"
    "                  as UID (gid UID, no groups) when given, through\n"
    "                  \"ip netns exec\" (route-table names known to ip)\n"
    "  client NAME [--uid UID] [-6] [--server ADDR:PORT] [--interval MS]\n"
    "        [--connections N]\n"
    "                  an application in the handset namespace: connects to the\n"
    "                  application server (its IPv6 address with -6; [IPV6]:PORT\n"
    "                  with --server), sends a line every MS (200) ms, and\n"
    "                  reconnects when the connection is torn down; prints\n"
    "                  \"connected local=A:P peer=A:P link=L\",\n"
    "                  \"connection aborted: ECONNABORTED\", \"reconnected ...\".\n"
    "                  With --connections: N new connections, one after the\n"
    "                  other, each closed after the greeting, then the links they\n"
    "                  came in on: \"connections=N failed=F LINK=COUNT ...\"\n"
    "  probe NAME LINK [-6] [--server ADDR:PORT] [--exchanges N] [--timeout MS]\n"
    "        [--receive BYTES]\n"
    "                  a TCP connection bound to LINK (SO_BINDTODEVICE), N (10)\n"
    "                  exchanges of 58 bytes echoed back, each step within MS\n"
    "                  (2000) ms; with --receive, each reply is a receive of up to\n"
    "                  BYTES with MSG_WAITALL that ends at the time-out, as the\n"
    "                  daemon's probe does (--receive 60 --timeout 500). Prints\n"
    "                  the kernel's RTT and the time the exchanges took:\n"
    "                  \"link=L local=A:P rtt_us=N min_rtt_us=N rttvar_us=N\n"
    "                  exchanges=N elapsed_ms=N\"\n"
    "  log NAME        the servers' connection log\n";

int usage(const char* why) {
    fprintf(stderr, "vord-linklab: %s\n(vord-linklab --help for usage)\n", why);
    return 2;
}

bool needRoot() {
    if (geteuid() == 0) return true;
    fprintf(stderr, "vord-linklab: needs root (network namespaces)\n");
    return false;
}

int request(const std::string& lab, const std::string& line, bool print) {
    std::string reply;
    const bool ok = controlRequest(lab, line, reply);
    if (print || !ok) fputs(reply.c_str(), ok ? stdout : stderr);
    return ok ? 0 : 1;
}

int cmdUp(const std::string& lab, const std::vector<std::string>& args) {
    std::vector<LinkConfig> links;
    std::set<std::string> names, ipv6Only;
    std::string defaultLink, error;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--default" && i + 1 < args.size()) {
            defaultLink = args[++i];
            continue;
        }
        if (args[i] == "--ipv6-only" && i + 1 < args.size()) {
            ipv6Only.insert(args[++i]);
            continue;
        }
        LinkConfig config;
        if (!parseLinkArg(args[i], static_cast<int>(links.size()) + 1, config, error)) {
            return usage(error.c_str());
        }
        if (!names.insert(config.name).second)
            return usage(("link " + config.name + " twice").c_str());
        links.push_back(config);
    }
    if (links.empty()) return usage("up needs at least one LINK=MS");
    if (links.size() > static_cast<size_t>(kMaxLinks)) return usage("too many links");
    if (defaultLink.empty()) defaultLink = links.back().name;
    if (names.count(defaultLink) == 0) return usage("--default names no link of the lab");
    for (const std::string& name : ipv6Only) {
        if (names.count(name) == 0) return usage("--ipv6-only names no link of the lab");
    }
    for (LinkConfig& l : links) l.ipv6Only = ipv6Only.count(l.name) != 0;
    struct stat st;
    if (stat("/dev/net/tun", &st) != 0) {
        fprintf(stderr, "vord-linklab: /dev/net/tun is missing (no TUN support)\n");
        return 1;
    }
    if (!labUp(lab, links, defaultLink, error)) {
        fprintf(stderr, "vord-linklab: up %s: %s\n", lab.c_str(), error.c_str());
        return 1;
    }
    printf("lab %s up: handset namespace %s, peer namespace %s, default route via %s\n",
           lab.c_str(), lab.c_str(), peerNamespace(lab).c_str(), defaultLink.c_str());
    for (const LinkConfig& l : links) {
        const std::string v4 = l.ipv6Only ? "IPv6 only" : l.handsetAddr() + " / " + l.peerAddr();
        printf("  %s: one-way %d ms (round trip %d ms), handset / peer %s, %s / %s, table %s (%d)\n",
               l.name.c_str(), l.delayMs, 2 * l.delayMs, v4.c_str(), l.handsetAddr6().c_str(),
               l.peerAddr6().c_str(), l.name.c_str(), l.table());
    }
    return 0;
}

// exec NAME [--peer] [--uid UID] -- CMD...
int cmdExec(const std::string& lab, const std::vector<std::string>& args) {
    bool peer = false;
    std::string uid;
    size_t i = 0;
    for (; i < args.size() && args[i] != "--"; ++i) {
        int ignored;
        if (args[i] == "--peer") {
            peer = true;
        } else if (args[i] == "--uid" && i + 1 < args.size() &&
                   parseInt(args[i + 1], 0, 0x7fffffff, ignored)) {
            uid = args[++i];
        } else {
            return usage(("exec: unexpected \"" + args[i] + "\"").c_str());
        }
    }
    if (i + 1 >= args.size()) return usage("exec needs -- CMD");
    const std::string ns = peer ? peerNamespace(lab) : lab;
    if (!netnsExists(ns)) {
        fprintf(stderr, "vord-linklab: no lab %s\n", lab.c_str());
        return 1;
    }
    std::vector<std::string> argv = {"ip", "netns", "exec", ns};
    if (!uid.empty()) argv.insert(argv.end(), {selfExe(), "run-as", uid, "--"});
    argv.insert(argv.end(), args.begin() + static_cast<long>(i) + 1, args.end());
    std::vector<char*> c;
    for (std::string& a : argv) c.push_back(a.data());
    c.push_back(nullptr);
    execvp(c[0], c.data());
    fprintf(stderr, "vord-linklab: cannot run ip: %s\n", strerror(errno));
    return 127;
}

// run-as UID -- CMD...: the last step of exec --uid, already in the namespace.
int cmdRunAs(const std::vector<std::string>& args) {
    int uid;
    if (args.size() < 3 || !parseInt(args[0], 0, 0x7fffffff, uid) || args[1] != "--") {
        return usage("run-as UID -- CMD");
    }
    if (!dropToUid(static_cast<uid_t>(uid))) {
        fprintf(stderr, "vord-linklab: cannot become uid %d: %s\n", uid, strerror(errno));
        return 1;
    }
    std::vector<char*> c;
    for (size_t i = 2; i < args.size(); ++i) c.push_back(const_cast<char*>(args[i].c_str()));
    c.push_back(nullptr);
    execvp(c[0], c.data());
    fprintf(stderr, "vord-linklab: cannot run %s: %s\n", c[0], strerror(errno));
    return 127;
}

int cmdClient(const std::string& lab, const std::vector<std::string>& args) {
    ClientOptions o;
    o.lab = lab;
    o.serverAddr = kAppServerAddr;
    o.serverPort = kAppServerPort;
    for (size_t i = 0; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--uid" && hasValue && parseInt(args[i + 1], 0, 0x7fffffff, o.uid)) {
            ++i;
        } else if (args[i] == "-6") {
            o.serverAddr = kAppServerAddr6;
        } else if (args[i] == "--connections" && hasValue &&
                   parseInt(args[i + 1], 1, 100000, o.connections)) {
            ++i;
        } else if (args[i] == "--server" && hasValue &&
                   parseAddrPort(args[i + 1], o.serverAddr, o.serverPort)) {
            ++i;
        } else if (args[i] == "--interval" && hasValue &&
                   parseInt(args[i + 1], 1, 60000, o.intervalMs)) {
            ++i;
        } else {
            return usage(("client: unexpected \"" + args[i] + "\"").c_str());
        }
    }
    return runAppClient(o);
}

int cmdProbe(const std::string& lab, const std::vector<std::string>& args) {
    ProbeOptions o;
    o.lab = lab;
    o.serverAddr = kProbeServerAddr;
    o.serverPort = kProbeServerPort;
    if (args.empty() || !validLinkName(args[0])) return usage("probe NAME LINK");
    o.link = args[0];
    for (size_t i = 1; i < args.size(); ++i) {
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "-6") {
            o.serverAddr = kProbeServerAddr6;
        } else if (args[i] == "--server" && hasValue &&
                   parseAddrPort(args[i + 1], o.serverAddr, o.serverPort)) {
            ++i;
        } else if (args[i] == "--exchanges" && hasValue &&
                   parseInt(args[i + 1], 1, 1000, o.exchanges)) {
            ++i;
        } else if (args[i] == "--timeout" && hasValue &&
                   parseInt(args[i + 1], 1, 60000, o.timeoutMs)) {
            ++i;
        } else if (args[i] == "--receive" && hasValue &&
                   parseInt(args[i + 1], 1, 1024, o.receive)) {
            ++i;
        } else {
            return usage(("probe: unexpected \"" + args[i] + "\"").c_str());
        }
    }
    return runProbe(o);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    const std::string cmd = args[0];
    if (cmd == "run-as") return cmdRunAs({args.begin() + 1, args.end()});
    if (args.size() < 2) return usage((cmd + " needs a lab NAME").c_str());
    const std::string lab = args[1];
    if (!validLabName(lab)) return usage(("\"" + lab + "\" is not a valid lab name").c_str());
    const std::vector<std::string> rest(args.begin() + 2, args.end());
    if (!needRoot()) return 1;

    if (cmd == "up") return cmdUp(lab, rest);
    if (cmd == "down") {
        std::string error;
        if (labDown(lab, error)) return 0;
        fprintf(stderr, "vord-linklab: down %s: %s\n", lab.c_str(), error.c_str());
        return 1;
    }
    if (cmd == "status") return rest.empty() ? request(lab, "status", true) : usage("status NAME");
    if (cmd == "cut" || cmd == "restore") {
        if (rest.size() != 1 || !validLinkName(rest[0])) return usage((cmd + " NAME LINK").c_str());
        return request(lab, cmd + " " + rest[0], false);
    }
    if (cmd == "delay") {
        int ms;
        if (rest.size() != 2 || !validLinkName(rest[0]) || !parseInt(rest[1], 0, kMaxDelayMs, ms)) {
            return usage("delay NAME LINK MS (one-way, 0..10000)");
        }
        return request(lab, "delay " + rest[0] + " " + rest[1], false);
    }
    if (cmd == "probe-echo") {
        if (rest.size() != 1 || (rest[0] != "exact" && rest[0] != "fill")) {
            return usage("probe-echo NAME exact|fill");
        }
        return request(lab, "probe-echo " + rest[0], false);
    }
    if (cmd == "exec") return cmdExec(lab, rest);
    if (cmd == "client") return cmdClient(lab, rest);
    if (cmd == "probe") return cmdProbe(lab, rest);
    if (cmd == "log") {
        std::ifstream log(connectionLogPath(lab));
        if (!log) {
            fprintf(stderr, "vord-linklab: no lab %s\n", lab.c_str());
            return 1;
        }
        std::cout << log.rdbuf();
        return 0;
    }
    return usage(("unknown command \"" + cmd + "\"").c_str());
}
