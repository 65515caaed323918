// An application inside the lab: connects to the application server, keeps
// exchanging small messages, and reconnects whenever the connection is torn
// down. One line per event on stdout:
//   connected local=10.66.3.2:40112 peer=10.66.1.2:40112 link=wlan0
//   connection aborted: ECONNABORTED
//   reconnected local=10.66.3.2:40200 peer=10.66.3.2:40200 link=rmnet_data0
// `peer` and `link` are what the server saw (after any address translation).
// With a number of connections instead: that many new connections one after
// the other, each closed after the greeting, and one line with the links they
// came in on: "connections=400 failed=0 rmnet_data0=151 wlan0=249".
#pragma once

#include <sys/types.h>

#include <string>

namespace linklab {

struct ClientOptions {
    std::string lab;
    int uid = -1;  // -1: stay root
    std::string serverAddr;
    int serverPort = 0;
    int intervalMs = 200;
    int connections = 0;  // > 0: that many connections, then the tally
};

// Runs until killed (with `connections`: until they are done); returns the exit
// status.
int runAppClient(const ClientOptions& options);

}  // namespace linklab
