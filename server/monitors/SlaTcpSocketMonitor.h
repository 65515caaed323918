// The TCP socket monitor: once a second, while polling, it reads the live TCP
// sockets with their tcp_info (sock_diag) and makes the gaming UIDs' busiest
// IPv4 server the probe target (setGamingRttServer / setRttServerPort), so the
// link probes measure the path to the game's own server. When the kernel's RTT
// of the game's busiest connection to it is above "rtt_exit_threshold", it does
// what a command 12 report above the threshold does (enterServiceHighRtt), once
// until the flag is cleared by command 10 or 11. It only reads sockets; it never
// changes one, of any UID.
//
// Polling: instance() creates the thread paused; resumePolling() starts the
// rounds (commands 9 and 13 call both); finalize() stops and joins the thread.
// A paused thread sleeps until it is resumed or stopped.
#pragma once

#include <atomic>
#include <memory>

#include "monitors/GameEndpointTally.h"
#include "monitors/MonitorAdapters.h"
#include "monitors/MonitorLoop.h"
#include "monitors/MonitorSeams.h"

class Parameters;

class SlaTcpSocketMonitor {
  public:
    static constexpr int kPeriodMs = 1000;

    // The daemon's monitor, created (thread started, paused) on the first call.
    static SlaTcpSocketMonitor* instance();
    // Stops, joins and deletes the daemon's monitor; nothing when there is none.
    static void finalize();
    static bool isInstance();

    SlaTcpSocketMonitor(Parameters* params, std::unique_ptr<vord::TcpInfoSource> source,
                        vord::HighRttAction highRtt);
    ~SlaTcpSocketMonitor();
    SlaTcpSocketMonitor(const SlaTcpSocketMonitor&) = delete;
    SlaTcpSocketMonitor& operator=(const SlaTcpSocketMonitor&) = delete;

    // Starts the thread, paused.
    void start();
    void stop();
    bool isRunning() const { return m_loop.isRunning(); }
    // Starts the rounds (the first one at once).
    void resumePolling();
    bool isPolling() const { return m_loop.isActive(); }

    // One round. Runs on the monitor's thread (tests call it directly on a
    // monitor not started).
    void tick();

  private:
    Parameters* m_params;
    std::unique_ptr<vord::TcpInfoSource> m_source;
    vord::HighRttAction m_highRtt;
    bool m_dumpFailing = false;  // the last dump failed (logged once per failure run)
    vord::MonitorLoop m_loop;
};
