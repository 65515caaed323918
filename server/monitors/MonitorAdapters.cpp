// The daemon's implementations of the monitors' seams.

#define LOG_TAG "MUX-Vord-Monitors"

#include "monitors/MonitorAdapters.h"

#include <log/log.h>

#include <errno.h>
#include <net/if.h>
#include <string.h>

#include <mutex>

#include "wificond/net/netlink_utils.h"
#include "wificond/net/rtnetlink_socket.h"

#include "config/Parameters.h"
#include "lifecycle/MainLoopWakeup.h"
#include "sla/SlaStatsImpl.h"
#include "sls/InterfaceRtt.h"
#include "sls/ServiceHighRtt.h"
#include "sls/SmartLinkSelection.h"
#include "sls/Tcping.h"
#include "sockdiag/SockDiag.h"

namespace vord {

namespace {

class NetlinkStationQuery : public StationQuery {
  public:
    bool start() override { return android::wificond::NetlinkUtils::instance()->Start(); }
    int signalDbm(const char* bssid, const char* ifname) override {
        return android::wificond::NetlinkUtils::instance()->GetStationInfo(bssid, ifname);
    }
};

class SelectionPenaltySink : public PenaltySink {
  public:
    int write(const std::map<std::string, int>& penaltyMsByLink) override {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        if (!SmartLinkSelection::isInstance()) return -1;
        std::map<std::string, InterfaceRtt*>& records =
                SmartLinkSelection::instance()->slsInterfaceMap();  // exists: checked above
        int written = 0;
        for (const auto& entry : penaltyMsByLink) {
            auto it = records.find(entry.first);
            if (it == records.end() || it->second == nullptr) continue;
            it->second->rssiPenaltyMs = entry.second;
            ++written;
        }
        return written;
    }
};

class TcpingLinkProber : public LinkProber {
  public:
    int probe(const char* ifname, const std::string& server, int port) override {
        tcping_info info{};
        info.sockfd = -1;
        info.ifname = ifname;
        info.server = server.c_str();
        info.port = port;
        const std::string server6 = Parameters::instance()->getIpv6ProbeServer();
        info.server6 = server6.c_str();
        return Tcping::updateTcpingRtt(&info, 0);
    }
};

class SockDiagTcpInfoSource : public TcpInfoSource {
  public:
    int dump(const Reader& reader) override {
        using namespace android::net;
        SockDiag diag;
        if (!diag.open()) return errno != 0 ? -errno : -EIO;
        return diag.getLiveTcpInfos(
                [&reader](const inet_diag_msg* msg, const tcp_info_ext* info, uint32_t len) {
                    reader(msg, reinterpret_cast<const uint8_t*>(info), info != nullptr ? len : 0);
                });
    }
};

// Deadline of the probe that confirms a stall: the probes' connect time-out.
constexpr int kStallProbeTimeoutMs = 500;

class SelectionSelectedLink : public SelectedLink {
  public:
    std::string selected() override {
        Parameters* p = Parameters::instance();
        const int gaming = p->isGamingRunning();
        const bool probing =
                gaming == 1 || p->isVoipRunning() || (gaming == 2 && p->isGamingAiModeCheckRtt());
        return probing ? SmartLinkSelection::publishedCurrent() : std::string();
    }
    uint32_t ifindex(const std::string& link) override { return if_nametoindex(link.c_str()); }
    bool answers(const std::string& link) override {
        return Tcping::linkAnswers(link.c_str(), VORD_DEFAULT_RTT_SERVER, VORD_DEFAULT_RTT_PORT,
                                   kStallProbeTimeoutMs, -1, Parameters::instance()->getIpv6ProbeServer().c_str());
    }
    void fail(const std::string& link) override {
        if (SmartLinkSelection::isInstance()) SmartLinkSelection::instance()->linkStalled(link);
    }
};

class RtnetlinkEventSource : public NetlinkEventSource {
  public:
    bool open() override { return m_socket.open(); }
    int receive(uint8_t* buffer, size_t size, int timeoutMs) override {
        return m_socket.receive(buffer, size, timeoutMs);
    }
    void requestLink(const std::string& link) override { m_socket.requestLink(link); }

  private:
    android::wificond::RtnetlinkSocket m_socket;
};

class DaemonLinkEventSink : public LinkEventSink {
  public:
    void down(const std::string& link, LinkFailCause cause) override {
        if (SmartLinkSelection::isInstance()) SmartLinkSelection::instance()->linkDown(link, cause);
        if (SlaStatsImpl::instance()->setLinkDown(link, true)) {
            ALOGI("%s %s: no new connections until it is back", link.c_str(), linkFailCauseText(cause));
            vord::wakeMainLoop();  // the evaluation gives its share to the others now
        }
    }
    void up(const std::string& link) override {
        if (SmartLinkSelection::isInstance()) SmartLinkSelection::instance()->linkUp(link);
        if (SlaStatsImpl::instance()->setLinkDown(link, false)) {
            ALOGI("%s is back: it takes new connections again", link.c_str());
            vord::wakeMainLoop();
        }
    }
    // The links under selection while it probes: there a lost carrier must not
    // wait for the kernel's batched notification.
    std::vector<std::string> watched() override {
        std::vector<std::string> out;
        SlsState state;
        if (!SmartLinkSelection::trySnapshotState(state)) return out;
        for (const SlsLinkState& l : state.links) {
            if (l.running) out.push_back(l.ifname);
        }
        return out;
    }
};

}  // namespace

std::unique_ptr<SelectedLink> makeSelectionSelectedLink() {
    return std::make_unique<SelectionSelectedLink>();
}

std::unique_ptr<NetlinkEventSource> makeRtnetlinkEventSource() {
    return std::make_unique<RtnetlinkEventSource>();
}

std::unique_ptr<LinkEventSink> makeDaemonLinkEventSink() {
    return std::make_unique<DaemonLinkEventSink>();
}

std::unique_ptr<StationQuery> makeNetlinkStationQuery() {
    return std::make_unique<NetlinkStationQuery>();
}

std::unique_ptr<PenaltySink> makeSelectionPenaltySink() {
    return std::make_unique<SelectionPenaltySink>();
}

std::unique_ptr<LinkProber> makeTcpingLinkProber() { return std::make_unique<TcpingLinkProber>(); }

HighRttAction serviceHighRttAction() {
    return [](Parameters* params) { return enterServiceHighRtt(params, true); };
}

std::unique_ptr<TcpInfoSource> makeSockDiagTcpInfoSource() {
    return std::make_unique<SockDiagTcpInfoSource>();
}

}  // namespace vord
