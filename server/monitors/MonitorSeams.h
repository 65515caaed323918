// What the three monitors see of the world outside the daemon's own state.
//
// The RSSI monitor reads access-point signals (StationQuery) and writes RTT
// penalties into the selection records (PenaltySink); the TCP socket monitor
// reads the kernel's table of live TCP sockets (TcpInfoSource); the dual Wi-Fi
// monitor probes each Wi-Fi link (LinkProber). The daemon uses the adapters of
// MonitorAdapters.h; unit tests hand the monitors scripted stand-ins.
#pragma once

#include <stdint.h>

#include <linux/inet_diag.h>

#include <functional>
#include <map>
#include <string>

namespace vord {

class StationQuery {
  public:
    virtual ~StationQuery() = default;
    // Prepares the query (opens the nl80211 client); false when the host has no
    // nl80211, in which case signalDbm is never called.
    virtual bool start() = 0;
    // Signal of the access point `bssid` (12 hex digits) as seen on `ifname`, in
    // dBm. A value of 0 or above means the read failed.
    virtual int signalDbm(const char* bssid, const char* ifname) = 0;
};

class PenaltySink {
  public:
    virtual ~PenaltySink() = default;
    // Writes each link's penalty into the link's selection record. Links without
    // a record are skipped. Returns the number of records written, or -1 when the
    // selection engine does not exist (nothing is written then).
    virtual int write(const std::map<std::string, int>& penaltyMsByLink) = 0;
};

class TcpInfoSource {
  public:
    // One socket: its diag message, and the payload of its INET_DIAG_INFO
    // attribute (the kernel's struct tcp_info, `infoLen` bytes, possibly shorter
    // than this build's struct; null and 0 when absent).
    using Reader =
            std::function<void(const inet_diag_msg* msg, const uint8_t* info, uint32_t infoLen)>;
    virtual ~TcpInfoSource() = default;
    // One pass over the host's live TCP sockets. 0, or a negative errno.
    virtual int dump(const Reader& reader) = 0;
};

class LinkProber {
  public:
    virtual ~LinkProber() = default;
    // One RTT probe to `server`:`port` bound to `ifname`. The RTT in ms, or -1.
    virtual int probe(const char* ifname, const std::string& server, int port) = 0;
};

}  // namespace vord
