#define LOG_TAG "MUX-Vord-RssiMonitor"

#include "monitors/RssiStateMonitor.h"

#include <log/log.h>

#include <ctype.h>
#include <string.h>

#include <mutex>
#include <utility>
#include <vector>

#include "config/Parameters.h"
#include "monitors/MonitorAdapters.h"

namespace {

std::mutex g_rssiInstanceMutex;
std::atomic<RssiStateMonitor*> g_rssiMonitor{nullptr};

// A BSSID worth asking about: 12 hex digits, not the "unknown" broadcast value.
// Anything else never reaches a kernel request.
bool usableBssid(const char* bssid) {
    if (strlen(bssid) != 12 || strcasecmp(bssid, "ffffffffffff") == 0) return false;
    for (const char* p = bssid; *p; ++p) {
        if (!isxdigit(static_cast<unsigned char>(*p))) return false;
    }
    return true;
}

struct WifiLink {
    std::string name;
    std::string bssid;
};

}  // namespace

RssiStateMonitor* RssiStateMonitor::instance() {
    std::lock_guard<std::mutex> lock(g_rssiInstanceMutex);
    RssiStateMonitor* monitor = g_rssiMonitor.load();
    if (monitor == nullptr) {
        monitor = new RssiStateMonitor(Parameters::instance(), vord::makeNetlinkStationQuery(),
                                       vord::makeSelectionPenaltySink());
        monitor->start();
        g_rssiMonitor.store(monitor);
    }
    return monitor;
}

void RssiStateMonitor::finalize() {
    std::lock_guard<std::mutex> lock(g_rssiInstanceMutex);
    RssiStateMonitor* monitor = g_rssiMonitor.exchange(nullptr);
    // The thread never takes the instance mutex, so joining under it is safe.
    delete monitor;
}

bool RssiStateMonitor::isInstance() { return g_rssiMonitor.load() != nullptr; }

int RssiStateMonitor::penaltyForSignal(int signalDbm) {
    if (signalDbm >= 0) return 0;  // a failed read
    if (signalDbm >= -65) return 0;
    if (signalDbm >= -72) return 10;
    if (signalDbm >= -78) return 30;
    if (signalDbm >= -84) return 60;
    return 100;
}

RssiStateMonitor::RssiStateMonitor(Parameters* params, std::unique_ptr<vord::StationQuery> station,
                                   std::unique_ptr<vord::PenaltySink> sink)
    : m_params(params), m_station(std::move(station)), m_sink(std::move(sink)) {
    m_stationAvailable = m_station != nullptr && m_station->start();
    if (!m_stationAvailable) {
        ALOGE("%s nl80211 is not available: Wi-Fi RTT penalties stay at 0", "RssiStateMonitor");
    }
}

RssiStateMonitor::~RssiStateMonitor() { stop(); }

void RssiStateMonitor::start() {
    // Without nl80211 the thread only waits to be stopped.
    m_loop.start([this] { tick(); }, std::chrono::milliseconds(kPeriodMs), m_stationAvailable);
    ALOGI("%s started", "RssiStateMonitor");
}

void RssiStateMonitor::stop() {
    if (!m_loop.isRunning()) return;
    m_loop.stop();
    ALOGI("%s stopped", "RssiStateMonitor");
}

void RssiStateMonitor::tick() {
    if (!m_stationAvailable) return;
    std::vector<WifiLink> links;
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        for (const auto& entry : m_params->interfaceInfoMap()) {
            const InterfaceInfo_t* record = entry.second;
            if (record == nullptr || strncmp(record->name, "wlan", 4) != 0) continue;
            links.push_back({record->name, record->bssid});
        }
    }

    // The queries run without the registry lock: each may wait for the kernel.
    std::map<std::string, int> penalties;
    for (const WifiLink& link : links) {
        const int signal = usableBssid(link.bssid.c_str())
                                   ? m_station->signalDbm(link.bssid.c_str(), link.name.c_str())
                                   : 0;
        const int penalty = penaltyForSignal(signal);
        penalties[link.name] = penalty;
        auto old = m_penalties.find(link.name);
        const int before = old != m_penalties.end() ? old->second : 0;
        if (penalty != before) {
            if (signal < 0) {
                ALOGI("%s %s signal %d dBm: RTT penalty %d ms (was %d ms)", "RssiStateMonitor",
                      link.name.c_str(), signal, penalty, before);
            } else {
                ALOGI("%s %s signal unknown: RTT penalty %d ms (was %d ms)", "RssiStateMonitor",
                      link.name.c_str(), penalty, before);
            }
        }
    }
    m_penalties = std::move(penalties);
    // Written every round, not only on a change: a start sequence creates fresh
    // records (penalty 0) for the links.
    if (m_sink != nullptr && !m_penalties.empty()) m_sink->write(m_penalties);
}
