// The control channel: the local stream socket "/dev/socket/vord", the single
// control thread that serves one client at a time, and the dispatch of the
// fixed-size command records (msg_t) to the command handlers.
#pragma once

#include <pthread.h>

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
// receive buffer change under it. Counts the record as served, or as refused when
// its id is unknown or its handler refused it (or a part of it).
void handleMessage(msg_t msg);

// Stops and joins the control thread. After it returns no command is served.
void stopSocketThreads();
