// The main loop's sleep between two periods, and the way other threads cut it
// short so that the evaluation and the selection step run at once (a link went
// down, a link failed, the framework removed the selected link).
#pragma once

#include <chrono>

namespace vord {

// Sleeps for `period` or until wakeMainLoop() is called, whichever comes first.
// A wake-up that arrives while the loop is not sleeping ends the next sleep at
// once. A period of 0 returns at once. True when a wake-up ended it. Main thread
// only.
bool sleepUnlessWoken(std::chrono::microseconds period);

// Ends the main loop's current (or next) sleep. Any thread; never blocks beyond a
// leaf lock. Does nothing while wake-ups are disabled.
void wakeMainLoop();

// Wake-ups follow the "link_events" key: without it the loop keeps its fixed
// period, as it always had. Enabled by default.
void setMainLoopWakeupsEnabled(bool enabled);
bool mainLoopWakeupsEnabled();

}  // namespace vord
