// Polling one descriptor against an absolute deadline.
#pragma once

#include <time.h>

// Polls `fd` for `events` until `deadline` (CLOCK_REALTIME), starting over with
// the time left after a signal. Returns the poll result (> 0) when the socket is
// ready without a pending error; 0 with errno ETIMEDOUT when the deadline passed;
// -1 with errno set to the socket's error when it reports one; another negative
// result when the poll itself failed.
int retrying_poll(int fd, short events, const timespec* deadline);
