// The TCP socket monitor: while polling, it reads the live TCP sockets with their
// tcp_info (sock_diag) and makes the gaming UIDs' busiest IPv4 server, by the
// bytes moved over the last few polls, the probe target (setGamingRttServer /
// setRttServerPort), so the link probes measure the path to the game's own
// server. When the kernel's RTT of the game's busiest connection to it is above
// "rtt_exit_threshold" while some probing is paused, it does what a command 12
// report above the threshold does (enterServiceHighRtt), once until the flag is
// cleared by command 10, 11 or 13.
//
// Stall detection ("stall_poll_ms", "stall_threshold_ms"): while link selection
// steers the gaming UIDs to a selected link, the rounds come every
// "stall_poll_ms" (once a second otherwise) and a StallDetector watches the
// gaming connections. When every one with data in flight has stalled, the link is
// suspect and is probed at once, with a short deadline, against the built-in
// probe server (not the game's server: a stalled game server must not look like
// a dead link). No answer fails the link; an answer clears the suspicion for a
// second. It only reads sockets; it never changes one, of any UID.
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
#include "monitors/RecentTraffic.h"
#include "monitors/StallDetector.h"

class Parameters;

class SlaTcpSocketMonitor {
  public:
    static constexpr int kPeriodMs = 1000;
    // Shortest stall poll period taken ("stall_poll_ms" below it is raised).
    static constexpr int kMinStallPollMs = 50;
    // How long a stall that the probe server's answer cleared is not probed again.
    static constexpr int kStallHoldOffMs = 1000;

    // The daemon's monitor, created (thread started, paused) on the first call.
    static SlaTcpSocketMonitor* instance();
    // Stops, joins and deletes the daemon's monitor; nothing when there is none.
    static void finalize();
    static bool isInstance();

    // Without `link`, no stall detection.
    SlaTcpSocketMonitor(Parameters* params, std::unique_ptr<vord::TcpInfoSource> source,
                        vord::HighRttAction highRtt,
                        std::unique_ptr<vord::SelectedLink> link = nullptr);
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
    // monitor not started). Returns the period until the next round, in ms.
    int tick();

  private:
    // Stall detection's part of a round, after the dump.
    void checkStall(const std::string& link, int periodMs);

    Parameters* m_params;
    std::unique_ptr<vord::TcpInfoSource> m_source;
    vord::HighRttAction m_highRtt;
    std::unique_ptr<vord::SelectedLink> m_link;
    bool m_dumpFailing = false;  // the last dump failed (logged once per failure run)
    vord::RecentTraffic m_traffic;
    vord::StallDetector m_stall;
    int m_holdOffMs = 0;  // no stall probe before this much more polling
    vord::MonitorLoop m_loop;
};
