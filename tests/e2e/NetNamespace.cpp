#include "NetNamespace.h"

#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <vector>

namespace vord {
namespace test {

namespace {

constexpr const char* kPrefix = "vord-e2e-";

struct Link {
    const char* name;
    int table;
    int subnet;
};
const Link kLinks[] = {{"wlan0", 100, 1}, {"wlan1", 101, 2}, {"rmnet_data0", 102, 3}};

// Namespaces left by an earlier run that was killed: their creator (whose pid is
// part of the name) is gone.
void removeStaleNamespaces() {
    std::stringstream list(shell("ip netns list").output);
    std::string line;
    while (std::getline(list, line)) {
        std::string ns = line.substr(0, line.find(' '));
        if (ns.compare(0, strlen(kPrefix), kPrefix) != 0) continue;
        pid_t creator = static_cast<pid_t>(atol(ns.c_str() + strlen(kPrefix)));
        if (creator <= 0 || creator == getpid() || kill(creator, 0) == 0) continue;
        shell("ip netns del " + ns);
        if (ns.find("-peer") == std::string::npos) shell("rm -rf /etc/netns/" + ns);
    }
}

}  // namespace

ShellResult shell(const std::string& cmd) {
    ShellResult r;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), p)) > 0) r.output.append(buf, n);
    int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

NetNamespace::NetNamespace() {
    static std::atomic<int> counter{0};
    removeStaleNamespaces();
    name_ = std::string(kPrefix) + std::to_string(getpid()) + "-" + std::to_string(counter++);
    peer_ = name_ + "-peer";
    step("ip netns add " + name_);
    step("ip netns add " + peer_);
    step("ip -n " + name_ + " link set lo up");
    // Table names for `ip` inside the namespace: a copy of the host's files plus
    // one line per link.
    std::string etc = "/etc/netns/" + name_ + "/iproute2";
    step("mkdir -p " + etc);
    step("if [ -d /etc/iproute2 ]; then cp -a /etc/iproute2/. " + etc + "/; fi");
    for (const Link& l : kLinks) {
        std::string n = l.name, t = std::to_string(l.table), s = std::to_string(l.subnet);
        std::string peerIf = "p" + std::to_string(l.subnet);
        step("echo '" + t + " " + n + "' >> " + etc + "/rt_tables");
        step("ip -n " + name_ + " link add " + n + " type veth peer name " + peerIf + " netns " +
             peer_);
        step("ip -n " + name_ + " addr add 10.99." + s + ".2/24 dev " + n);
        step("ip -n " + peer_ + " addr add 10.99." + s + ".1/24 dev " + peerIf);
        step("ip -n " + name_ + " link set " + n + " up");
        step("ip -n " + peer_ + " link set " + peerIf + " up");
        step("ip -n " + name_ + " route add default via 10.99." + s + ".1 dev " + n + " table " + t);
    }
}

NetNamespace::~NetNamespace() {
    shell("ip netns del " + name_);
    shell("ip netns del " + peer_);
    shell("rm -rf /etc/netns/" + name_);
}

void NetNamespace::step(const std::string& cmd) {
    if (!error_.empty()) return;
    ShellResult r = shell(cmd);
    if (r.status != 0) error_ = "\"" + cmd + "\" failed: " + r.output;
}

void NetNamespace::installTools(const TempRoot& root) const {
    root.writeFile("/system/bin/iptables-wrapper-1.0",
                   "#!/bin/sh\nexec ip netns exec " + name_ + " iptables \"$@\"\n", 0755);
    root.writeFile("/system/bin/ip-wrapper-1.0",
                   "#!/bin/sh\nexec ip netns exec " + name_ + " ip \"$@\"\n", 0755);
}

std::string NetNamespace::exec(const std::string& cmd) const {
    return shell("ip netns exec " + name_ + " " + cmd).output;
}

}  // namespace test
}  // namespace vord
