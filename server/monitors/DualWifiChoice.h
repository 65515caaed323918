// The dual Wi-Fi choice with its hysteresis, apart from any thread or probe.
//
// One round compares the probe RTTs of the primary ("wlan0") and secondary
// ("wlan1") Wi-Fi links and names a candidate status:
//   1 (primary only)   wlan1 failed while wlan0 answered, or wlan1 is clearly worse;
//   2 (secondary only) the same the other way round;
//   0 (both)           otherwise, including when both failed.
// Clearly worse: more than twice the other's RTT and at least 50 ms more.
// The status follows a candidate only after it was named in 3 consecutive
// rounds, both to enter a forced choice and to leave it.
#pragma once

namespace vord {

class DualWifiChoice {
  public:
    static constexpr int kHoldRounds = 3;
    static constexpr int kWorseFactor = 2;
    static constexpr int kWorseMarginMs = 50;

    // The candidate of one round; an RTT of -1 is a failed probe.
    static int candidate(int primaryRttMs, int secondaryRttMs);

    // Feeds one round's candidate; returns the status in force after it.
    int update(int candidate);
    // Back to 0 with no pending change (a link left the registry).
    void reset();
    int status() const { return m_status; }

  private:
    int m_status = 0;
    int m_pending = 0;
    int m_pendingRounds = 0;
};

}  // namespace vord
