// The main thread's waits: the sleep between two loop periods and the idle wait
// after the shutdown, both cut short by a signal that ends the daemon.
//
// init's stop and restart end a service with SIGTERM, a terminal's Ctrl-C sends
// SIGINT. Both, and every other signal whose default action would end the process
// (SIGQUIT, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGXCPU, SIGXFSZ, SIGIO, SIGPWR
// and the real-time signals), run the same orderly teardown as the stop property
// and then end the process with status 0: a deliberate extension of the documented
// behaviour, where only the property stops the daemon (and it then idles). SIGPIPE
// and SIGHUP are ignored, so a closed log pipe or a lost terminal never ends the
// daemon. The signals of a crash (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT,
// SIGTRAP, SIGSYS, SIGSTKFLT) keep their actions for the platform's crash dumps,
// and SIGUSR1 stays the control thread's interrupt.
//
// The ending signals are blocked in every thread (the main thread blocks them
// before the first thread starts, and threads inherit the mask) and read from a
// signalfd by the main thread's waits. A signal therefore never interrupts a
// half-done step and is never lost between two checks: it stays pending until the
// next wait, which returns at once. The rule tools start with an empty mask and
// default actions (execnetd), so they still die of what kills a process.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace vord {

class LoopWait {
  public:
    LoopWait() = default;
    ~LoopWait();
    LoopWait(const LoopWait&) = delete;
    LoopWait& operator=(const LoopWait&) = delete;

    // Ignores SIGPIPE and SIGHUP, gives the ending signals their default action
    // (an inherited "ignore" would discard them), blocks them in the calling
    // thread and opens the descriptor the waits read them from. Call on the main
    // thread before any other thread starts. False (logged) when the descriptor
    // cannot be opened: the waits then read the blocked signals with sigtimedwait.
    bool init();
    // Waits `timeoutUs` microseconds (0: only looks; negative: for ever) or until
    // an ending signal arrives. Returns that signal, or 0 when the time ran out.
    // With `wakeFd` (>= 0), the wait also ends, returning 0, once that
    // descriptor is readable; the caller empties it. (Without the signal
    // descriptor, `wakeFd` is not watched.)
    int wait(int64_t timeoutUs, int wakeFd = -1);

  private:
    int m_fd = -1;
};

// The signals that end the daemon through its teardown.
const std::vector<int>& endingSignals();
// "SIGTERM", "SIGRTMIN+3", or "signal N".
std::string signalName(int signo);

}  // namespace vord
