// A throw-away network namespace that stands in for the handset's network stack.
//
// It holds the links "wlan0", "wlan1" and "rmnet_data0" (veth pairs whose other
// ends live in a second namespace), each with an address, up, and a routing table
// of its own name with a default route. The names of the tables are known to `ip`
// run inside the namespace through /etc/netns/NS/iproute2, which `ip netns exec`
// mounts over /etc/iproute2; the host's own configuration is never touched.
// Everything is removed by the destructor, also when a test fails.
#pragma once

#include <string>

#include "TempRoot.h"

namespace vord {
namespace test {

struct ShellResult {
    int status = -1;
    std::string output;  // standard output and standard error
};

// Runs `cmd` through /bin/sh.
ShellResult shell(const std::string& cmd);

class NetNamespace {
  public:
    NetNamespace();
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    // Empty when the namespace was set up; otherwise what went wrong.
    const std::string& error() const { return error_; }
    const std::string& name() const { return name_; }

    // Installs the rule tools under `root`'s /system/bin: both run the real
    // iptables and ip inside this namespace.
    void installTools(const TempRoot& root) const;

    // `cmd` run inside the namespace (e.g. "iptables-save -t mangle").
    std::string exec(const std::string& cmd) const;

  private:
    void step(const std::string& cmd);

    std::string name_;
    std::string peer_;
    std::string error_;
};

}  // namespace test
}  // namespace vord
