// The way other threads cut the main loop's sleep short, so that the evaluation
// and the selection step run at once (a link went down, a link failed, the
// framework removed the selected link): an eventfd that the loop's wait watches
// beside its signals (lifecycle/LoopWait).
#pragma once

#include <chrono>

namespace vord {

// The descriptor the main loop's wait watches: readable while a wake-up is
// pending. The wait that sees it empties it (drainMainLoopWakeup).
int mainLoopWakeupFd();
// Empties the descriptor; true when a wake-up was pending.
bool drainMainLoopWakeup();

// Ends the main loop's current (or next) wait. Any thread; never blocks. Does
// nothing while wake-ups are disabled.
void wakeMainLoop();

// Sleeps for `period` or until wakeMainLoop() is called, whichever comes first;
// a wake-up that came before ends it at once. True when a wake-up ended it. (The
// daemon's loop waits through LoopWait, which watches the same descriptor.)
bool sleepUnlessWoken(std::chrono::microseconds period);

// Wake-ups follow the "link_events" key: without it the loop keeps its fixed
// period, as it always had. Enabled by default.
void setMainLoopWakeupsEnabled(bool enabled);
bool mainLoopWakeupsEnabled();

}  // namespace vord
