// One link under selection: its smoothed round-trip time, miss counter and
// network level.
//
// A record receives one raw RTT sample (or -1 for a failed probe) per probe from
// its probe thread, smooths it with a short (3) and a long (10) history, and maps
// the result to a network level with a small hysteresis. The decision step only
// compares levels. Every member is used with g_slsMapMutex held.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <vector>

// Why a record was put into the failed state other than by its own probes.
enum class LinkFailCause : uint8_t {
    None,         // not failed, or failed through its own probes' misses
    Carrier,      // the link lost its carrier
    AdminDown,    // the link was set administratively down
    Removed,      // the link disappeared from the kernel
    AddressLost,  // the link lost its last IPv4 address
    Stall,        // the gaming connections stalled and a probe got no answer
};
// "lost carrier", "went administratively down", ... for log lines.
const char* linkFailCauseText(LinkFailCause cause);
// "carrier-lost", "admin-down", ... as the status snapshot names switch reasons.
const char* linkFailCauseKey(LinkFailCause cause);

class InterfaceRtt {
  public:
    // Longest interface name a record holds.
    static constexpr size_t kMaxNameLength = 14;
    // "thread" value while no probe thread runs for the record.
    static pthread_t noThread() { return static_cast<pthread_t>(-1); }

    // A fresh record (level 0, no thread, alive), or null with an error line when
    // `ifname` is null, empty or longer than kMaxNameLength characters.
    static InterfaceRtt* create(const char* ifname, int minPingTimes, bool running);

    // Enters one probe result: the RTT in ms, or -1 for a failed probe.
    void setSpeed(int rawRtt);
    // The smoothing step (setSpeed only).
    void caclaverageInterfaceSpeed(int raw);
    // The level step (setSpeed only).
    void caclInterfaceLevel();
    // Whether the interface is the secondary one of its kind, from its registry
    // record.
    bool isSlave();
    // Puts the record at once into the state that "min_ping_times" misses give:
    // speed -1, level 1, misses at the limit, 500 ms entered into both
    // histories. Probes started before are not counted (epoch).
    void forceFail(LinkFailCause cause);

    pthread_t thread = noThread();
    int32_t minPingTimes = 0;
    char ifname[kMaxNameLength + 1] = {};
    int32_t speed = 0;
    int32_t levelSpeed = 0;
    bool running = false;
    bool alive = true;
    int32_t missCount = 0;
    std::vector<uint32_t> m_longpreviousSpeed;
    std::vector<uint32_t> m_shortpreviousSpeed;
    int32_t rssiPenaltyMs = 0;
    int32_t level = 0;
    // The registry's slave flag as last read; answers isSlave() while the
    // registry is busy (it is never waited for under g_slsMapMutex).
    bool m_slaveHint = false;

    // Failover state (g_slsMapMutex).
    int abortFd = -1;          // the probe thread's abort descriptor while it runs
    uint32_t epoch = 0;        // bumped by forceFail; older probes are discarded
    bool probeNow = false;     // probe at once instead of after the interval
    bool down = false;         // the link is down (link event); out of the choice while another is up
    bool retired = false;      // the link left the registry; never chosen
    LinkFailCause failCause = LinkFailCause::None;
    int probeFamily = 0;       // AF_INET or AF_INET6: the family of its last probe (0: none yet)

  private:
    InterfaceRtt() = default;
};
