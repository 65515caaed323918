// The probe thread of one link under selection.
#pragma once

#include <condition_variable>

// Thread body; `rtt` is the link's InterfaceRtt. Probes the link once per
// "ping_interval_ms" while the record is running, and ends once it sees the
// record no longer alive. Returns its argument.
void* makeRawPingFunc(void* rtt);

// Wakes every probe thread from its sleep between two probes. Whoever clears a
// record's `alive` (under g_slsMapMutex) notifies it afterwards, so the thread
// ends at once instead of after its interval.
std::condition_variable& pingWakeup();
