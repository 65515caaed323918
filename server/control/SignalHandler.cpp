#define LOG_TAG "MUX-Vord-VordSocket-Server"

#include "control/SignalHandler.h"

#include <errno.h>

#include <log/log.h>

void signal_handler(int signum) {
    int savedErrno = errno;  // the interrupted call's errno is still to be read
    ALOGI("Received signal %d\n", signum);
    errno = savedErrno;
}
