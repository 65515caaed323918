// The daemon's implementations of the monitors' seams.

#define LOG_TAG "MUX-Vord-Monitors"

#include "monitors/MonitorAdapters.h"

#include <log/log.h>

#include <errno.h>
#include <string.h>

#include <mutex>

#include "wificond/net/netlink_utils.h"

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

}  // namespace

std::unique_ptr<StationQuery> makeNetlinkStationQuery() {
    return std::make_unique<NetlinkStationQuery>();
}

std::unique_ptr<PenaltySink> makeSelectionPenaltySink() {
    return std::make_unique<SelectionPenaltySink>();
}

std::unique_ptr<LinkProber> makeTcpingLinkProber() { return std::make_unique<TcpingLinkProber>(); }

HighRttAction serviceHighRttAction() {
    return [](Parameters* params) { enterServiceHighRtt(params); };
}

std::unique_ptr<TcpInfoSource> makeSockDiagTcpInfoSource() {
    return std::make_unique<SockDiagTcpInfoSource>();
}

}  // namespace vord
