// Destroys every socket of one application UID: the IP, TCP and UDP passes.

#define LOG_TAG "MUX-Vord-SockDiag"

#include <errno.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <log/log.h>

#include "config/Tokens.h"
#include "sockdiag/SockDiag.h"

int killSocketsForUID(const char* uid, android::net::SocketOps& ops) {
    // The last guard before the kernel: only a plain decimal number that fits a
    // UID becomes a request.
    const unsigned long long value =
            uid != nullptr && vord::isDecimalUid(uid) ? strtoull(uid, nullptr, 10) : ~0ull;
    if (value > UINT32_MAX) {
        ALOGE("%s: refusing a UID that is not a plain decimal number (%zu characters)", __func__,
              uid == nullptr ? size_t{0} : strlen(uid));
        return -1;
    }

    android::net::SockDiag sd(ops);
    if (!sd.open()) {
        ALOGE(" SLA_GAMING Error opening NETLINK_SOCK_DIAG socket: %s", strerror(errno));
        return -1;
    }

    struct Pass {
        uint8_t proto;
        const char* label;
    };
    static const Pass kPasses[] = {{0, "IP"}, {IPPROTO_TCP, "TCP"}, {IPPROTO_UDP, "UDP"}};
    int ret = 0;
    for (const Pass& pass : kPasses) {
        ret = sd.destroySockets(pass.proto, static_cast<uint32_t>(value), false);
        if (ret < 0) {
            ALOGE(" SLA_GAMING Error destroying %s sockets: %s", pass.label, strerror(-ret));
        } else {
            ALOGE(" SLA_GAMING destroying %s sockets: %s", pass.label, uid);
        }
    }
    return ret;
}

int killSocketsForUID(const char* uid) {
    return killSocketsForUID(uid, android::net::realSocketOps());
}
