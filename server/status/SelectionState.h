// The link-selection engine's state as the status snapshot shows it.
#pragma once

#include <string>
#include <vector>

#include "status/StatusText.h"

namespace vord {
namespace status {

struct EngineLink {
    std::string ifname;
    int speed = 0;  // smoothed RTT, ms; -1 when the link failed
    int level = 0;
    int missCount = 0;
    int rssiPenaltyMs = 0;
    bool running = false;
    int probeFamily = 0;  // AF_INET, AF_INET6; 0 before the first probe
};

struct EngineState {
    std::string current;  // empty when no link is current
    int switchCount = 0;  // switches in the current hysteresis window
    std::vector<EngineLink> links;
    LastSwitch lastSwitch;
};

enum class EngineRead {
    None,  // no selection engine
    Busy,  // the engine is busy and has published nothing yet; nothing was read
    Read,  // `out` holds the engine's state
};

// Never waits for the engine (a switch holds its lock through rule commands):
// while it is busy, the state published by its last probe or decision step is
// read.
EngineRead readSelectionEngine(EngineState* out);

}  // namespace status
}  // namespace vord
