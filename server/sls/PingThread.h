// The probe thread of one link under selection.
#pragma once

#include <pthread.h>

#include <condition_variable>

class InterfaceRtt;

// Thread body; `rtt` is the link's InterfaceRtt. Probes the link once per
// "ping_interval_ms" while the record is running, and ends once it sees the
// record no longer alive. Returns its argument.
void* makeRawPingFunc(void* rtt);

// Wakes every probe thread from its sleep between two probes. Whoever clears a
// record's `alive` or sets its `probeNow` (under g_slsMapMutex) notifies it
// afterwards, so the thread acts at once instead of after its interval.
std::condition_variable& pingWakeup();

// Ends the probe in progress of `r`'s thread at once (its result is not
// counted). Caller holds g_slsMapMutex.
void abortProbe(InterfaceRtt* r);

// Starts `r`'s probe thread (pthread_create's result).
int startProbeThread(InterfaceRtt* r, pthread_t* thread);
// Probe threads started and not yet ended (each has left its body once this
// drops; for tests).
int liveProbeThreads();
