// Polling one descriptor against an absolute deadline.
#pragma once

#include <time.h>

// Polls `fd` for `events` until `deadline` (CLOCK_REALTIME), starting over with
// the time left after a signal. Returns the poll result (> 0) when the socket is
// ready without a pending error; 0 with errno ETIMEDOUT when the deadline passed;
// -1 with errno set to the socket's error when it reports one; another negative
// result when the poll itself failed. With `abortFd` (an eventfd, or -1 for none)
// readable, it returns -1 with errno ECANCELED at once, without a log line.
int retrying_poll(int fd, short events, const timespec* deadline, int abortFd = -1);

// The poll of retrying_poll without its logging and without reading SO_ERROR:
// > 0 when `fd` is ready (its events in *revents), 0 when the deadline passed,
// -1 with errno ECANCELED when `abortFd` became readable, else -1 with errno.
int pollUntil(int fd, short events, const timespec* deadline, int abortFd, short* revents);

// Now (CLOCK_REALTIME) plus `ms`.
timespec deadlineAfterMs(long ms);
