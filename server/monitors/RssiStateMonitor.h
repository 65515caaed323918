// The RSSI monitor: once a second it reads the signal of the access point of
// every registered Wi-Fi link and turns it into that link's RTT penalty
// (InterfaceRtt::rssiPenaltyMs), which the link's probes add to every RTT they
// measure. A weak signal thus makes a Wi-Fi link rank lower before its RTT
// actually rises.
//
// Signal to penalty (dBm -> ms):
//   -65 and stronger   0
//   -66 .. -72        10
//   -73 .. -78        30
//   -79 .. -84        60
//   -85 and weaker   100
// A failed read (no BSSID known, not associated, no nl80211) gives 0.
//
// One process-wide instance: instance() creates and starts it, finalize() stops
// and joins it. Both are called on the control thread (commands 9, 10, 11, 13)
// and at shutdown. On a host without nl80211 the thread logs once and sleeps
// until it is stopped.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "monitors/MonitorLoop.h"
#include "monitors/MonitorSeams.h"

class Parameters;

class RssiStateMonitor {
  public:
    static constexpr int kPeriodMs = 1000;

    // The daemon's monitor, created and started on the first call.
    static RssiStateMonitor* instance();
    // Stops, joins and deletes the daemon's monitor; nothing when there is none.
    static void finalize();
    static bool isInstance();

    // The penalty for a signal in dBm (see the table above).
    static int penaltyForSignal(int signalDbm);

    // A monitor over `params` (its registry) with the given seams. Starts the
    // station query; the thread is started by start().
    RssiStateMonitor(Parameters* params, std::unique_ptr<vord::StationQuery> station,
                     std::unique_ptr<vord::PenaltySink> sink);
    ~RssiStateMonitor();
    RssiStateMonitor(const RssiStateMonitor&) = delete;
    RssiStateMonitor& operator=(const RssiStateMonitor&) = delete;

    void start();
    void stop();
    bool isRunning() const { return m_loop.isRunning(); }
    bool stationAvailable() const { return m_stationAvailable; }

    // One round: read the signals, compute the penalties, write them. Runs on
    // the monitor's thread (tests call it directly on a monitor not started).
    void tick();
    // The penalties of the last round, by link.
    const std::map<std::string, int>& penalties() const { return m_penalties; }

  private:
    Parameters* m_params;
    std::unique_ptr<vord::StationQuery> m_station;
    std::unique_ptr<vord::PenaltySink> m_sink;
    bool m_stationAvailable = false;
    std::map<std::string, int> m_penalties;
    vord::MonitorLoop m_loop;
};
