// The daemon's status snapshot, "/data/vendor/vord/status": kept by the main loop.
#pragma once

class Parameters;
class SlaStatsImpl;

namespace vord {
namespace status {

// Once per main-loop period, after the selection step: gathers the state and
// rewrites the file when it changed (or for the heartbeat). Main thread only.
void updateStatusSnapshot(Parameters* params, SlaStatsImpl* sla);

// Once, at the end of the shutdown: the last snapshot, with state "stopped" and
// without aggregation (released by then). Main thread only.
void writeStoppedStatusSnapshot(Parameters* params);

}  // namespace status
}  // namespace vord
