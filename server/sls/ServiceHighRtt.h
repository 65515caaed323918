// A raised RTT report: probing resumes on every link.
#pragma once

class Parameters;

// What a report above "rtt_exit_threshold" does: resume and (re)start the probe
// threads and set the service-high-RTT flag, once until the flag is cleared.
// Called by command 12 on the control thread and by the TCP socket monitor on its
// own thread; the check and the set are one step under the engine's control
// mutex.
void enterServiceHighRtt(Parameters* params);
