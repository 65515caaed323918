// Gathers the daemon's state into a status snapshot.
#pragma once

#include "status/StatusText.h"

class Parameters;
class SlaStatsImpl;

namespace vord {
namespace status {

// Fills `out` with everything but the update times. Each subsystem is read under
// its own lock, one after the other and briefly: the registry under
// g_interfaceMapMutex, the aggregation map under g_slaMapMutex, the selection
// engine without waiting (when it is busy, its values are taken from `previous`).
// `sla` is null once aggregation is released: the links then carry no rate.
void collect(Parameters* params, SlaStatsImpl* sla, const Snapshot& previous, Snapshot* out);

// The selection mode shown for the store's flags: "off", "gaming", "game-mode",
// "voice-call", or a game mode and a voice call joined by '+'.
std::string selectionMode(int gamingRunning, bool voipRunning);

}  // namespace status
}  // namespace vord
