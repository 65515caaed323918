#define LOG_TAG "MUX-Vord-VordSocket-Server"

#include "control/SignalHandler.h"

#include <log/log.h>

void signal_handler(int signum) { ALOGI("Received signal %d\n", signum); }
