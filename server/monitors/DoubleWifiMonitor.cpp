#define LOG_TAG "MUX-Vord-DoubleWifiMonitor"

#include "monitors/DoubleWifiMonitor.h"

#include <log/log.h>

#include <mutex>
#include <string>

#include "config/Parameters.h"
#include "monitors/MonitorAdapters.h"

namespace {

std::mutex g_dwInstanceMutex;
std::atomic<DoubleWifiMonitor*> g_dwMonitor{nullptr};

constexpr const char* kPrimary = "wlan0";
constexpr const char* kSecondary = "wlan1";

}  // namespace

DoubleWifiMonitor* DoubleWifiMonitor::instance() {
    std::lock_guard<std::mutex> lock(g_dwInstanceMutex);
    DoubleWifiMonitor* monitor = g_dwMonitor.load();
    if (monitor == nullptr) {
        monitor = new DoubleWifiMonitor(Parameters::instance(), vord::makeTcpingLinkProber());
        monitor->start();
        g_dwMonitor.store(monitor);
    }
    return monitor;
}

void DoubleWifiMonitor::finalize() {
    std::lock_guard<std::mutex> lock(g_dwInstanceMutex);
    // The thread never takes the instance mutex, so joining under it is safe.
    delete g_dwMonitor.exchange(nullptr);
}

bool DoubleWifiMonitor::isInstance() { return g_dwMonitor.load() != nullptr; }

DoubleWifiMonitor::DoubleWifiMonitor(Parameters* params, std::unique_ptr<vord::LinkProber> prober)
    : m_params(params), m_prober(std::move(prober)) {}

DoubleWifiMonitor::~DoubleWifiMonitor() { stop(); }

void DoubleWifiMonitor::start() {
    if (m_loop.isRunning()) return;
    m_loop.start([this] { tick(); }, std::chrono::milliseconds(kPeriodMs), true);
    m_params->setDWMonitorStatus(true);
    ALOGI("%s started", "DoubleWifiMonitor");
}

void DoubleWifiMonitor::stop() {
    if (!m_loop.isRunning()) return;
    m_loop.stop();
    m_choice.reset();
    m_params->setDoubleWifiSelectStatus(0);
    m_params->setDWMonitorStatus(false);
    ALOGI("%s stopped", "DoubleWifiMonitor");
}

void DoubleWifiMonitor::tick() {
    bool both;
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        both = m_params->findInterface(kPrimary) != nullptr &&
               m_params->findInterface(kSecondary) != nullptr;
    }
    if (!both) {
        m_choice.reset();
        apply(0, -1, -1);
        return;
    }
    // Read afresh each round: the TCP socket monitor may have pointed the probes
    // at a game's server.
    const std::string server = m_params->getRttServer();
    const int port = m_params->getRttServerPort();
    const int primary = m_prober->probe(kPrimary, server, port);
    const int secondary = m_prober->probe(kSecondary, server, port);
    apply(m_choice.update(vord::DualWifiChoice::candidate(primary, secondary)), primary,
          secondary);
}

void DoubleWifiMonitor::apply(int status, int primaryRttMs, int secondaryRttMs) {
    const int before = m_params->getDoubleWifiSelectStatus();
    if (status == before) return;
    m_params->setDoubleWifiSelectStatus(status);
    static const char* const kMeaning[] = {"both", "wlan0 only", "wlan1 only"};
    ALOGI("%s dual Wi-Fi selection %d (%s), was %d; RTT wlan0 %d ms, wlan1 %d ms",
          "DoubleWifiMonitor", status, kMeaning[status], before, primaryRttMs, secondaryRttMs);
}
