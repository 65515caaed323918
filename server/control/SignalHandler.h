#pragma once

// SIGUSR1 handler of the control thread: only logs, so that the signal merely
// interrupts a blocking call (installed without SA_RESTART).
void signal_handler(int signum);
