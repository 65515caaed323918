// Reading the link-selection engine for the status snapshot.

#include "status/SelectionState.h"

#include "sls/SmartLinkSelection.h"

namespace vord {
namespace status {

EngineRead readSelectionEngine(EngineState* out) {
    if (!SmartLinkSelection::isInstance()) return EngineRead::None;
    SlsState state;
    if (!SmartLinkSelection::trySnapshotState(state)) {
        // Busy before its first publication (or it ended just now).
        return SmartLinkSelection::isInstance() ? EngineRead::Busy : EngineRead::None;
    }
    out->current = state.current;
    out->switchCount = state.switchCount;
    out->links.clear();
    for (const SlsLinkState& l : state.links) {
        out->links.push_back({l.ifname, l.speed, l.level, l.missCount, l.rssiPenaltyMs, l.running, l.probeFamily});
    }
    const SlsLastSwitch& last = state.lastSwitch;
    out->lastSwitch = {last.valid, last.wallMs, last.from, last.to, last.reason, last.detail};
    return EngineRead::Read;
}

}  // namespace status
}  // namespace vord
