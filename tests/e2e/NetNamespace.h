// A throw-away network namespace standing in for the handset's network stack:
// links "wlan0", "wlan1" and "rmnet_data0" (veth pairs into a peer namespace),
// addressed and up, each with a routing table of its own name holding a default
// route. The table names are known to `ip` inside the namespace through
// /etc/netns/NS/iproute2, which `ip netns exec` mounts over /etc/iproute2; the
// host's configuration is not touched. The destructor removes everything.
#pragma once

#include <unistd.h>

#include <string>

#include "DaemonProcess.h"

namespace vord {
namespace test {

class NetNamespace {
  public:
    NetNamespace() {
        static int counter = 0;
        name_ = "vord-e2e-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
        const std::string in = "ip -n " + name_ + " ", peer = "ip -n " + name_ + "-peer ";
        const std::string etc = "/etc/netns/" + name_ + "/iproute2";
        step("ip netns add " + name_ + " && ip netns add " + name_ + "-peer && " + in +
             "link set lo up && mkdir -p " + etc +
             " && if [ -d /etc/iproute2 ]; then cp -a /etc/iproute2/. " + etc + "/; fi");
        const char* links[] = {"wlan0", "wlan1", "rmnet_data0"};
        for (int i = 1; i <= 3; ++i) {
            const std::string n = std::to_string(i), link = links[i - 1];
            const std::string table = std::to_string(99 + i), net = "10.99." + n;
            step("echo '" + table + " " + link + "' >> " + etc + "/rt_tables && " + in +
                 "link add " + link + " type veth peer name p" + n + " netns " + name_ +
                 "-peer && " + in + "addr add " + net + ".2/24 dev " + link + " && " + in +
                 "link set " + link + " up && " + peer + "addr add " + net + ".1/24 dev p" + n +
                 " && " + peer + "link set p" + n + " up && " + in + "route add default via " +
                 net + ".1 dev " + link + " table " + table);
        }
    }
    ~NetNamespace() {
        shell("ip netns del " + name_ + "; ip netns del " + name_ +
              "-peer; rm -rf /etc/netns/" + name_);
    }

    // Empty when the set-up worked; else the failed step and its output.
    const std::string& error() const { return error_; }
    // Installs the rule tools in `root`: the real iptables and ip, run in here.
    void installTools(const TempRoot& root) const {
        for (const std::string tool : {"iptables", "ip"}) {
            const std::string script = "#!/bin/sh\nexec ip netns exec " + name_ + " " + tool;
            root.writeFile("/system/bin/" + tool + "-wrapper-1.0", script + " \"$@\"\n", 0755);
        }
    }
    // Output of `cmd` run in here (e.g. "iptables-save -t mangle").
    std::string exec(const std::string& cmd) const {
        std::string out;
        shell("ip netns exec " + name_ + " " + cmd, &out);
        return out;
    }

  private:
    void step(const std::string& cmd) {
        std::string out;
        if (error_.empty() && shell(cmd, &out) != 0) error_ = "\"" + cmd + "\" failed: " + out;
    }
    std::string name_, error_;
};

}  // namespace test
}  // namespace vord
