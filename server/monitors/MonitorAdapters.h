// The daemon's implementations of the monitors' seams (MonitorSeams.h).
#pragma once

#include <functional>
#include <memory>

#include "monitors/MonitorSeams.h"

class Parameters;

namespace vord {

// GetStationInfo of the nl80211 client (NetlinkUtils::instance()).
std::unique_ptr<StationQuery> makeNetlinkStationQuery();
// rssiPenaltyMs of the selection records, under g_slsMapMutex.
std::unique_ptr<PenaltySink> makeSelectionPenaltySink();
// SockDiag::getLiveTcpInfos, one SockDiag per pass.
std::unique_ptr<TcpInfoSource> makeSockDiagTcpInfoSource();
// Tcping::updateTcpingRtt with offset 0.
std::unique_ptr<LinkProber> makeTcpingLinkProber();

// What a command 12 report above "rtt_exit_threshold" does (enterServiceHighRtt).
using HighRttAction = std::function<void(Parameters*)>;
HighRttAction serviceHighRttAction();

}  // namespace vord
