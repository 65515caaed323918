// Per-socket state the TCP socket monitor keeps from one poll to the next, keyed
// by the socket's inet_diag cookie: each entry carries a `seen` mark, set when
// the socket shows up in a poll.
#pragma once

#include <stdint.h>

#include <utility>

namespace vord {

using SocketCookie = std::pair<uint32_t, uint32_t>;

// Ends a poll: forgets the sockets not seen in it and clears the others' marks.
template <typename Map>
void endSocketPoll(Map& sockets) {
    for (auto it = sockets.begin(); it != sockets.end();) {
        if (!it->second.seen) {
            it = sockets.erase(it);
        } else {
            it->second.seen = false;
            ++it;
        }
    }
}

}  // namespace vord
