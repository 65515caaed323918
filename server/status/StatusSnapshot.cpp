// The main loop's status snapshot.

#include "status/StatusSnapshot.h"

#include <time.h>

#include "status/StatusCollector.h"
#include "status/StatusWriter.h"

namespace vord {
namespace status {

namespace {

int64_t nowMs(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Main thread only.
struct SnapshotState {
    StatusWriter writer{kSnapshotPath};
    Snapshot current;  // the last one gathered
};

SnapshotState& state() {
    static SnapshotState s;
    return s;
}

}  // namespace

void updateStatusSnapshot(Parameters* params, SlaStatsImpl* sla) {
    SnapshotState& st = state();
    Snapshot next;
    collect(params, sla, st.current, &next);
    st.current = std::move(next);
    st.writer.update(st.current, nowMs(CLOCK_MONOTONIC), nowMs(CLOCK_REALTIME));
}

void writeStoppedStatusSnapshot(Parameters* params) {
    SnapshotState& st = state();
    Snapshot last;
    collect(params, nullptr, Snapshot(), &last);
    last.lastSwitch = st.current.lastSwitch;  // the engine is gone; its last switch stays on record
    last.state = "stopped";
    last.updatedMonoMs = nowMs(CLOCK_MONOTONIC);
    last.updatedWallMs = nowMs(CLOCK_REALTIME);
    st.writer.write(last);
}

}  // namespace status
}  // namespace vord
