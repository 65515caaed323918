#include "NetNamespace.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

namespace vord {
namespace test {

namespace {

const std::string kPrefix = "vord-e2e-";  // then the creating pid

// Namespaces whose creator is gone (a killed run).
void removeStaleNamespaces() {
    std::stringstream list(shell("ip netns list").output);
    std::string ns;
    while (list >> ns) {
        if (ns.compare(0, kPrefix.size(), kPrefix) != 0) continue;
        pid_t creator = static_cast<pid_t>(atol(ns.c_str() + kPrefix.size()));
        if (creator > 0 && kill(creator, 0) != 0)
            shell("ip netns del " + ns + "; rm -rf /etc/netns/" + ns);
        list.ignore(1 << 20, '\n');
    }
}

}  // namespace

ShellResult shell(const std::string& cmd) {
    ShellResult r;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;) r.output.append(buf, n);
    int status = pclose(p);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return r;
}

NetNamespace::NetNamespace() {
    static int counter = 0;
    removeStaleNamespaces();
    name_ = kPrefix + std::to_string(getpid()) + "-" + std::to_string(counter++);
    const std::string in = "ip -n " + name_ + " ", peer = "ip -n " + name_ + "-peer ";
    const std::string etc = "/etc/netns/" + name_ + "/iproute2";
    step("ip netns add " + name_ + " && ip netns add " + name_ + "-peer && " + in +
         "link set lo up");
    step("mkdir -p " + etc + " && if [ -d /etc/iproute2 ]; then cp -a /etc/iproute2/. " + etc +
         "/; fi");
    int i = 0;
    for (const std::string link : {"wlan0", "wlan1", "rmnet_data0"}) {
        const std::string n = std::to_string(++i), table = std::to_string(99 + i);
        step("echo '" + table + " " + link + "' >> " + etc + "/rt_tables");
        step(in + "link add " + link + " type veth peer name p" + n + " netns " + name_ + "-peer");
        step(in + "addr add 10.99." + n + ".2/24 dev " + link + " && " + in + "link set " + link +
             " up");
        step(peer + "addr add 10.99." + n + ".1/24 dev p" + n + " && " + peer + "link set p" + n +
             " up");
        step(in + "route add default via 10.99." + n + ".1 dev " + link + " table " + table);
    }
}

NetNamespace::~NetNamespace() {
    shell("ip netns del " + name_ + "; ip netns del " + name_ + "-peer; rm -rf /etc/netns/" +
          name_);
}

void NetNamespace::step(const std::string& cmd) {
    if (!error_.empty()) return;
    ShellResult r = shell(cmd);
    if (r.status != 0) error_ = "\"" + cmd + "\" failed: " + r.output;
}

void NetNamespace::installTools(const TempRoot& root) const {
    for (const char* tool : {"iptables", "ip"}) {
        root.writeFile(std::string("/system/bin/") + tool + "-wrapper-1.0",
                       "#!/bin/sh\nexec ip netns exec " + name_ + " " + tool + " \"$@\"\n", 0755);
    }
}

std::string NetNamespace::exec(const std::string& cmd) const {
    return shell("ip netns exec " + name_ + " " + cmd).output;
}

}  // namespace test
}  // namespace vord
