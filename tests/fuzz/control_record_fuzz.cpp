// Arbitrary byte streams through the control channel's receive path: the bytes
// are written in chunks of arbitrary size to a connected socket pair and the
// real record stream reassembles them, so whole, partial, split and over-long
// records all occur. Every record accepted must be in bounds and NUL-terminated; records of
// the commands that run no rule tool also go through the real dispatch.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vord/LogCapture.h>

#include "FuzzRoot.h"
#include "control/RecordStream.h"
#include "control/VordSocketServer.h"

namespace {

constexpr size_t kRecord = sizeof(msg_t);

void dispatch(msg_t msg) {
    if (msg.length > VORD_MSG_TEXT_SIZE - 1) abort();
    if (memchr(msg.message, '\0', sizeof(msg.message)) == nullptr) abort();
    // Without a store (no control thread ever ran here) these handlers touch
    // no rule tool: the interface list, the monitors and link selection, and
    // unknown ids.
    switch (msg.id) {
        case 2: case 3: case 4: case 5: case 7: case 8: break;
        default: handleMessage(msg); break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    vordfuzz::sandboxRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    vord::LogCapture quiet;
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return 0;
    RecordStream stream;
    size_t at = 0;
    while (at < size) {
        // Two bytes give the size of the next chunk, up to two records and one byte.
        size_t want = kRecord;
        if (size - at >= 2) {
            want = (data[at] | (data[at + 1] << 8)) % (2 * kRecord + 2);
            at += 2;
        }
        size_t n = want < size - at ? want : size - at;
        if (n > 0 && write(sv[0], data + at, n) != static_cast<ssize_t>(n)) break;
        at += n;
        stream.read(sv[1], [] { return true; }, dispatch);
    }
    close(sv[0]);
    stream.read(sv[1], [] { return true; }, dispatch);
    close(sv[1]);
    return 0;
}
