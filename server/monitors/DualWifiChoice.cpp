#include "monitors/DualWifiChoice.h"

#include <stdint.h>

namespace vord {

namespace {

bool clearlyWorse(int rttMs, int otherMs) {
    const int64_t rtt = rttMs, other = otherMs;
    return rtt > DualWifiChoice::kWorseFactor * other &&
           rtt - other >= DualWifiChoice::kWorseMarginMs;
}

}  // namespace

int DualWifiChoice::candidate(int primaryRttMs, int secondaryRttMs) {
    const bool primaryOk = primaryRttMs >= 0;
    const bool secondaryOk = secondaryRttMs >= 0;
    if (primaryOk && !secondaryOk) return 1;
    if (!primaryOk && secondaryOk) return 2;
    if (!primaryOk && !secondaryOk) return 0;
    if (clearlyWorse(secondaryRttMs, primaryRttMs)) return 1;
    if (clearlyWorse(primaryRttMs, secondaryRttMs)) return 2;
    return 0;
}

int DualWifiChoice::update(int candidate) {
    if (candidate == m_status) {
        m_pendingRounds = 0;
        return m_status;
    }
    if (candidate == m_pending && m_pendingRounds > 0) {
        ++m_pendingRounds;
    } else {
        m_pending = candidate;
        m_pendingRounds = 1;
    }
    if (m_pendingRounds >= kHoldRounds) {
        m_status = candidate;
        m_pendingRounds = 0;
    }
    return m_status;
}

void DualWifiChoice::reset() {
    m_status = 0;
    m_pending = 0;
    m_pendingRounds = 0;
}

}  // namespace vord
