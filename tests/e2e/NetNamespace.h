// A throw-away network namespace standing in for the handset's network stack:
// links "wlan0", "wlan1" and "rmnet_data0" (veth pairs into a peer namespace),
// addressed and up, each with a routing table of its own name holding a default
// route. The table names are known to `ip` inside the namespace through
// /etc/netns/NS/iproute2, which `ip netns exec` mounts over /etc/iproute2; the
// host's configuration is not touched. The destructor removes everything, also
// after a failed test; a later run removes what a killed run left.
#pragma once

#include <string>

#include "TempRoot.h"

namespace vord {
namespace test {

struct ShellResult {
    int status = -1;
    std::string output;  // standard output and standard error
};
ShellResult shell(const std::string& cmd);

class NetNamespace {
  public:
    NetNamespace();
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    // Empty when the set-up worked; else the failed step and its output.
    const std::string& error() const { return error_; }
    // Installs the rule tools in `root`: the real iptables and ip, run in here.
    void installTools(const TempRoot& root) const;
    // Output of `cmd` run in here (e.g. "iptables-save -t mangle").
    std::string exec(const std::string& cmd) const;

  private:
    void step(const std::string& cmd);
    std::string name_, error_;
};

}  // namespace test
}  // namespace vord
