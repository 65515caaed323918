// The link-event monitor ("link_events"): follows the kernel's link and address
// notifications (rtnetlink) and tells link selection, aggregation and the main
// loop when a link goes down (carrier lost, administratively down, removed, last
// IPv4 address lost) or comes back, so that a dead link is left at once instead
// of after its probes' misses.
//
// Started at daemon start-up when the key is on, stopped at shutdown before
// link selection and aggregation are torn down.
#pragma once

#include <memory>
#include <vector>

#include "monitors/LinkStateTracker.h"
#include "monitors/MonitorLoop.h"
#include "monitors/MonitorSeams.h"

class LinkEventMonitor {
  public:
    // How long one round waits for notifications (and a stop for a round), and
    // the carrier poll period of the watched links. Without watched links a
    // round waits five times as long.
    static constexpr int kWaitMs = 100;

    // The daemon's monitor, created and started on the first call.
    static LinkEventMonitor* instance();
    // Stops, joins and deletes the daemon's monitor; nothing when there is none.
    static void finalize();

    LinkEventMonitor(std::unique_ptr<vord::NetlinkEventSource> source,
                     std::unique_ptr<vord::LinkEventSink> sink);
    ~LinkEventMonitor();
    LinkEventMonitor(const LinkEventMonitor&) = delete;
    LinkEventMonitor& operator=(const LinkEventMonitor&) = delete;

    void start();
    void stop();

    // One round: opens the source when needed, asks for the state of the
    // watched links, then hands on what the messages that arrive within
    // `timeoutMs` mean.
    void tick(int timeoutMs);

  private:
    std::unique_ptr<vord::NetlinkEventSource> m_source;
    std::unique_ptr<vord::LinkEventSink> m_sink;
    vord::LinkStateTracker m_tracker;
    bool m_opened = false;
    bool m_failed = false;  // the source failed (logged once per failure run)
    std::vector<uint8_t> m_buffer;
    vord::MonitorLoop m_loop;
};
