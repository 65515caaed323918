#define LOG_TAG "MUX-Vord-LinkEvents"

#include "monitors/LinkEventMonitor.h"

#include <log/log.h>

#include <string.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "monitors/MonitorAdapters.h"

namespace {

std::mutex g_linkInstanceMutex;
std::atomic<LinkEventMonitor*> g_linkMonitor{nullptr};

constexpr size_t kReceiveBufferSize = 32768;
// With no link to poll, a round waits this many times longer.
constexpr int kIdleWaitFactor = 5;

}  // namespace

LinkEventMonitor* LinkEventMonitor::instance() {
    std::lock_guard<std::mutex> lock(g_linkInstanceMutex);
    LinkEventMonitor* monitor = g_linkMonitor.load();
    if (monitor == nullptr) {
        monitor = new LinkEventMonitor(vord::makeRtnetlinkEventSource(), vord::makeDaemonLinkEventSink());
        monitor->start();
        g_linkMonitor.store(monitor);
    }
    return monitor;
}

void LinkEventMonitor::finalize() {
    std::lock_guard<std::mutex> lock(g_linkInstanceMutex);
    delete g_linkMonitor.exchange(nullptr);
}

LinkEventMonitor::LinkEventMonitor(std::unique_ptr<vord::NetlinkEventSource> source,
                                   std::unique_ptr<vord::LinkEventSink> sink)
    : m_source(std::move(source)), m_sink(std::move(sink)) {}

LinkEventMonitor::~LinkEventMonitor() { stop(); }

void LinkEventMonitor::start() {
    m_loop.start([this] { tick(kWaitMs); }, std::chrono::milliseconds(0), true);
    ALOGI("%s started", "LinkEventMonitor");
}

void LinkEventMonitor::stop() {
    if (!m_loop.isRunning()) return;
    m_loop.stop();
    ALOGI("%s stopped", "LinkEventMonitor");
}

void LinkEventMonitor::tick(int timeoutMs) {
    if (!m_opened) {
        m_opened = m_source->open();
        if (!m_opened) {
            if (!m_failed) {
                ALOGE("%s cannot follow link events (%s): links fail through their probes only",
                      "LinkEventMonitor", strerror(errno));
            }
            m_failed = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
            return;
        }
    }
    // The carrier of the watched links is asked for on every round: the kernel
    // may hold back a lost carrier's notification for up to a second.
    const std::vector<std::string> watched = m_sink->watched();
    for (const std::string& link : watched) m_source->requestLink(link);
    m_buffer.resize(kReceiveBufferSize);
    // Everything that has come, waiting for the first datagram only.
    for (int wait = watched.empty() ? timeoutMs * kIdleWaitFactor : timeoutMs;; wait = 0) {
        const int n = m_source->receive(m_buffer.data(), m_buffer.size(), wait);
        if (n < 0) {
            // Opened again (with a fresh dump) on the next round.
            if (!m_failed) ALOGE("%s reading link events failed: %s", "LinkEventMonitor", strerror(-n));
            m_failed = true;
            m_opened = false;
            std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
            return;
        }
        if (n == 0) return;
        m_failed = false;
        // The sinks log what an event means for the links they manage.
        for (const vord::LinkStateTracker::Event& e : m_tracker.apply(m_buffer.data(), static_cast<size_t>(n))) {
            if (e.down) {
                m_sink->down(e.link, e.cause);
            } else {
                m_sink->up(e.link);
            }
        }
    }
}
