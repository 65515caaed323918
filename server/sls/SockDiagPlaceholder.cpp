// PLACEHOLDER until socket destruction (server/sockdiag) is merged: this whole
// file is deleted then, and SocketKiller.h includes "sockdiag/SockDiag.h".

#define LOG_TAG "MUX-Vord-SockDiag"

#include <log/log.h>

#include "sls/SocketKiller.h"

int killSocketsForUID(const char* uid) {
    ALOGE("%s(%s): socket destruction is not available in this build", "killSocketsForUID",
          uid != nullptr ? uid : "(null)");
    return -1;
}
