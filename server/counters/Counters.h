// Process-wide event counters since the daemon started, shown in the status
// snapshot. Each is bumped where the event happens, from any thread; readers take
// relaxed loads (a snapshot need not be consistent across counters).
#pragma once

#include <stdint.h>

#include <atomic>

namespace vord {

struct Counters {
    std::atomic<uint64_t> controlRecordsServed{0};    // records dispatched to a handler
    std::atomic<uint64_t> controlRecordsRefused{0};   // records dropped or refused, in whole or part
    std::atomic<uint64_t> ruleCommandsRun{0};         // rule tool processes started
    std::atomic<uint64_t> ruleCommandsNotStarted{0};  // rule tool processes that could not start
    std::atomic<uint64_t> ruleCommandsFailed{0};      // started, but exited non-zero or were killed
    // The IPv6 share of the run and not-started counts, and the IPv6 halves of rule groups that
    // were skipped (no IPv6 tool) or left incomplete.
    std::atomic<uint64_t> ipv6RuleCommandsRun{0};
    std::atomic<uint64_t> ipv6RuleCommandsNotStarted{0};
    std::atomic<uint64_t> ipv6RuleGroupsFailed{0};
    std::atomic<uint64_t> socketsDestroyed{0};        // sockets destroyed through sock_diag
    std::atomic<uint64_t> linkSwitches{0};            // link-selection switches made
};

inline Counters& counters() {
    static Counters c;
    return c;
}

inline void bump(std::atomic<uint64_t>& counter, uint64_t by = 1) {
    counter.fetch_add(by, std::memory_order_relaxed);
}

}  // namespace vord
