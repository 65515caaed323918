// The control channel: the local stream socket "/dev/socket/vord", the single
// control thread that serves one client at a time, and the dispatch of the
// fixed-size command records (msg_t) to the command handlers.
#pragma once

#include <pthread.h>

#include <functional>

#include "control/msg.h"

class Parameters;

// Creates the listening socket at `path` (resolved under the sandbox root, if
// any): removes a stale file, binds, opens the file to every local user (0666).
// Returns the descriptor, or -1.
int createSocket(const char* path);

// Installs the SIGUSR1 handler, records `params` as the store of the command
// handlers and starts the control thread. Returns its id, or (pthread_t)-1.
pthread_t createSocketThreads(Parameters* params);

// The control thread's body; the argument is ignored.
void* socketThreadHandle(void*);

// Dispatches one record on its id. Taken by value: a handler never sees the
// receive buffer change under it.
void handleMessage(msg_t msg);

// Reads every record queued on the client socket `fd` without blocking, logs
// each one whose length is at most 1023 and hands a copy of it to `dispatch`;
// longer ones are dropped silently. Stops when the queue is empty or
// `keepGoing` returns false. The control thread runs it with handleMessage; it
// is the seam through which the record handling is tested and fuzzed.
void drainRecords(int fd, msg_t& buffer, const std::function<bool()>& keepGoing,
                  void (*dispatch)(msg_t));

// Stops and joins the control thread. After it returns no command is served.
void stopSocketThreads();
