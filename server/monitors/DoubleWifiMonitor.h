// The dual Wi-Fi monitor (command 6): every two seconds, while both "wlan0" and
// "wlan1" are registered, it probes each link (the link-selection probe,
// Tcping::updateTcpingRtt with offset 0, to the probe server and port of the
// parameter store) and sets the dual Wi-Fi selection status that the
// aggregation cascade ("vexo_SLA") applies: 1 sends new connections to the
// primary Wi-Fi only, 2 to the secondary only, 0 to both by ratio. The choice
// and its hysteresis are DualWifiChoice's. With either link unregistered the
// status is 0 and nothing is probed.
//
// instance() creates and starts it and sets the store's dual Wi-Fi monitor
// status; finalize() stops and joins it and puts both the monitor status and
// the selection status back (false, 0).
#pragma once

#include <atomic>
#include <memory>

#include "monitors/DualWifiChoice.h"
#include "monitors/MonitorLoop.h"
#include "monitors/MonitorSeams.h"

class Parameters;

class DoubleWifiMonitor {
  public:
    static constexpr int kPeriodMs = 2000;

    static DoubleWifiMonitor* instance();
    static void finalize();
    static bool isInstance();

    DoubleWifiMonitor(Parameters* params, std::unique_ptr<vord::LinkProber> prober);
    ~DoubleWifiMonitor();
    DoubleWifiMonitor(const DoubleWifiMonitor&) = delete;
    DoubleWifiMonitor& operator=(const DoubleWifiMonitor&) = delete;

    void start();
    void stop();
    bool isRunning() const { return m_loop.isRunning(); }

    // One round. Runs on the monitor's thread (tests call it directly on a
    // monitor not started).
    void tick();

  private:
    void apply(int status, int primaryRttMs, int secondaryRttMs);

    Parameters* m_params;
    std::unique_ptr<vord::LinkProber> m_prober;
    vord::DualWifiChoice m_choice;
    vord::MonitorLoop m_loop;
};
