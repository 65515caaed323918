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
// Tcping::updateTcpingRtt with offset 0 ("ipv6_probe_server" for a link
// without IPv4).
std::unique_ptr<LinkProber> makeTcpingLinkProber();
// The selection engine's current link while it probes; Tcping::linkAnswers to
// the built-in probe server (or "ipv6_probe_server" on a link without IPv4);
// SmartLinkSelection::linkStalled.
std::unique_ptr<SelectedLink> makeSelectionSelectedLink();
// The rtnetlink socket (wificond/net/rtnetlink_socket.h).
std::unique_ptr<NetlinkEventSource> makeRtnetlinkEventSource();
// Link selection (linkDown/linkUp), aggregation (setLinkDown) and a wake-up of
// the main loop.
std::unique_ptr<LinkEventSink> makeDaemonLinkEventSink();

// What a command 12 report above "rtt_exit_threshold" does while some probing
// is paused (enterServiceHighRtt); true when it acted.
using HighRttAction = std::function<bool(Parameters*)>;
HighRttAction serviceHighRttAction();

}  // namespace vord
