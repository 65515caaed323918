#include "monitors/RecentTraffic.h"

namespace vord {

uint64_t RecentTraffic::moved(const Cookie& cookie, uint64_t total) {
    Entry& e = m_sockets[cookie];
    if (e.totals.empty()) e.totals.push_back(m_first ? total : 0);
    if (!e.seen) e.totals.push_back(total);
    e.seen = true;
    while (e.totals.size() > kPolls + 1) e.totals.pop_front();
    return total > e.totals.front() ? total - e.totals.front() : 0;
}

void RecentTraffic::endPoll() {
    endSocketPoll(m_sockets);
    m_first = false;
}

}  // namespace vord
