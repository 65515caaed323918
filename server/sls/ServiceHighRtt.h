// A raised RTT report: probing resumes on every link.
#pragma once

class Parameters;

// What a report above "rtt_exit_threshold" does: resume and (re)start the probe
// threads and set the service-high-RTT flag, once until the flag is cleared.
// Called by command 12 on the control thread and by the TCP socket monitor on its
// own thread; the check and the set are one step under the engine's control
// mutex. With `onlyWhenPaused` (the monitor), nothing happens and the flag stays
// clear unless some probing is paused, so a monitor that sees a slow game while
// every link is probed already does not silence command 12.
// True when it acted (resumed probing and set the flag).
bool enterServiceHighRtt(Parameters* params, bool onlyWhenPaused = false);
