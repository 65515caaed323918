// How many bytes each socket moved over the last few polls of the TCP socket
// monitor, so that the probe target follows the game's current traffic and not
// the connection with the most bytes over its lifetime (an asset download of the
// game's UID would otherwise outrank the game server for good).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <map>
#include <utility>

#include "monitors/SocketPolls.h"

namespace vord {

class RecentTraffic {
  public:
    using Cookie = SocketCookie;
    static constexpr size_t kPolls = 5;

    // Enters the socket's byte total of this poll; returns what it moved since the
    // poll kPolls before (a socket first seen now counts from 0). The first poll
    // only takes every socket's total as its baseline and returns 0.
    uint64_t moved(const Cookie& cookie, uint64_t total);
    // Ends a poll: sockets not seen in it are forgotten.
    void endPoll();

  private:
    struct Entry {
        std::deque<uint64_t> totals;  // oldest first, at most kPolls + 1
        bool seen = false;
    };
    std::map<Cookie, Entry> m_sockets;
    bool m_first = true;
};

}  // namespace vord
