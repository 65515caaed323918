// An RTT probe like the daemon's: a TCP connection bound to one link
// (SO_BINDTODEVICE) inside the lab, a few echoed exchanges of 58 bytes, then the
// kernel's estimate of the round trip (TCP_INFO).
#pragma once

#include <string>

namespace linklab {

struct ProbeOptions {
    std::string lab, link, serverAddr;
    int serverPort = 0;
    int exchanges = 10;
    int timeoutMs = 2000;  // for the connect and each send and receive
};

// Prints "link=L local=A:P rtt_us=N min_rtt_us=N rttvar_us=N exchanges=N";
// returns 0 when at least one exchange completed.
int runProbe(const ProbeOptions& options);

}  // namespace linklab
