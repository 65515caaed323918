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
    int receive = 0;       // > 0: receive up to this many bytes per exchange, like the daemon
};

// Prints "link=L local=A:P rtt_us=N min_rtt_us=N rttvar_us=N exchanges=N
// elapsed_ms=N" (the exchanges' time);
// returns 0 when at least one exchange completed.
int runProbe(const ProbeOptions& options);

}  // namespace linklab
