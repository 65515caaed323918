#define LOG_TAG "MUX-Vord-TcpSocketMonitor"

#include "monitors/SlaTcpSocketMonitor.h"

#include <log/log.h>

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <string>

#include "config/Parameters.h"

namespace {

std::mutex g_tcpInstanceMutex;
std::atomic<SlaTcpSocketMonitor*> g_tcpMonitor{nullptr};

// The gaming UIDs as numbers; entries that are not decimal UIDs are left out.
std::set<uint32_t> gamingUids(const Parameters* params) {
    std::set<uint32_t> uids;
    for (const std::string& text : params->gamingUidList()) {
        if (text.empty() || text.size() > 10 ||
            text.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const unsigned long long value = strtoull(text.c_str(), nullptr, 10);
        if (value <= UINT32_MAX) uids.insert(static_cast<uint32_t>(value));
    }
    return uids;
}

}  // namespace

SlaTcpSocketMonitor* SlaTcpSocketMonitor::instance() {
    std::lock_guard<std::mutex> lock(g_tcpInstanceMutex);
    SlaTcpSocketMonitor* monitor = g_tcpMonitor.load();
    if (monitor == nullptr) {
        monitor = new SlaTcpSocketMonitor(Parameters::instance(),
                                          vord::makeSockDiagTcpInfoSource(),
                                          vord::serviceHighRttAction(),
                                          vord::makeSelectionSelectedLink());
        monitor->start();
        g_tcpMonitor.store(monitor);
    }
    return monitor;
}

void SlaTcpSocketMonitor::finalize() {
    std::lock_guard<std::mutex> lock(g_tcpInstanceMutex);
    // The thread never takes the instance mutex, so joining under it is safe.
    delete g_tcpMonitor.exchange(nullptr);
}

bool SlaTcpSocketMonitor::isInstance() { return g_tcpMonitor.load() != nullptr; }

SlaTcpSocketMonitor::SlaTcpSocketMonitor(Parameters* params,
                                         std::unique_ptr<vord::TcpInfoSource> source,
                                         vord::HighRttAction highRtt,
                                         std::unique_ptr<vord::SelectedLink> link)
    : m_params(params), m_source(std::move(source)), m_highRtt(std::move(highRtt)),
      m_link(std::move(link)) {}

SlaTcpSocketMonitor::~SlaTcpSocketMonitor() { stop(); }

void SlaTcpSocketMonitor::start() {
    m_loop.start([this] { m_loop.setPeriod(std::chrono::milliseconds(tick())); },
                 std::chrono::milliseconds(kPeriodMs), false);
    ALOGI("%s started, paused", "SlaTcpSocketMonitor");
}

void SlaTcpSocketMonitor::stop() {
    if (!m_loop.isRunning()) return;
    m_loop.stop();
    ALOGI("%s stopped", "SlaTcpSocketMonitor");
}

void SlaTcpSocketMonitor::resumePolling() {
    if (m_loop.isActive()) return;
    m_loop.setActive(true);
    ALOGI("%s polling", "SlaTcpSocketMonitor");
}

int SlaTcpSocketMonitor::tick() {
    const std::set<uint32_t> uids = gamingUids(m_params);
    const std::string link =
            m_link != nullptr && m_params->stallDetectionEnabled() ? m_link->selected() : std::string();
    const int periodMs =
            link.empty() ? kPeriodMs : std::max(kMinStallPollMs, m_params->getStallPollMs());
    if (!link.empty()) {
        m_stall.beginPoll(uids, m_link->ifindex(link),
                          static_cast<uint32_t>(m_params->getStallThresholdMs()));
    }
    vord::GameEndpointTally tally(uids, &m_traffic);
    const int result = m_source->dump(
            [&](const inet_diag_msg* msg, const uint8_t* info, uint32_t infoLen) {
                tally.add(msg, info, infoLen);
                if (!link.empty()) m_stall.add(msg, info, infoLen);
            });
    if (result != 0) {
        if (!m_dumpFailing) {
            ALOGE("%s cannot read the live TCP sockets: %s", "SlaTcpSocketMonitor",
                  strerror(-result));
        }
        m_dumpFailing = true;
        return periodMs;
    }
    m_dumpFailing = false;
    m_traffic.endPoll();
    if (!link.empty()) checkStall(link, periodMs);

    vord::GameEndpoint game;
    if (!tally.busiest(&game)) return periodMs;  // no game traffic: the target stays

    char server[INET_ADDRSTRLEN] = "";
    in_addr addr{};
    addr.s_addr = game.addr;
    inet_ntop(AF_INET, &addr, server, sizeof(server));
    if (m_params->getRttServer() != server || m_params->getRttServerPort() != game.port) {
        m_params->setGamingRttServer(server);
        m_params->setRttServerPort(game.port);
        ALOGI("%s probe target %s:%u (UID %u, %llu bytes)", "SlaTcpSocketMonitor", server,
              game.port, game.uid, static_cast<unsigned long long>(game.bytes));
    }

    // Compared as unsigned 32-bit values, like a command 12 report.
    const uint32_t threshold = static_cast<uint32_t>(m_params->getRttExitThreshold());
    if (game.rttMs >= 0 && static_cast<uint64_t>(game.rttMs) > threshold &&
        !m_params->isServiceHighRtt() && m_highRtt && m_highRtt(m_params)) {
        ALOGI("%s game connection to %s:%u has RTT %lld ms, above rtt_exit_threshold %u: "
              "probing resumed",
              "SlaTcpSocketMonitor", server, game.port, static_cast<long long>(game.rttMs),
              threshold);
    }
    return periodMs;
}

void SlaTcpSocketMonitor::checkStall(const std::string& link, int periodMs) {
    const bool suspect = m_stall.endPoll();
    if (m_holdOffMs > 0) {
        m_holdOffMs -= periodMs;
        return;
    }
    if (!suspect) return;
    ALOGI("%s the %zu gaming connections with data in flight on %s have stalled: probing %s",
          "SlaTcpSocketMonitor", m_stall.counted(), link.c_str(), link.c_str());
    m_holdOffMs = kStallHoldOffMs;
    if (m_link->answers(link)) {
        ALOGI("%s %s answers: the game's server stalled, not the link", "SlaTcpSocketMonitor",
              link.c_str());
        return;
    }
    m_link->fail(link);
}
