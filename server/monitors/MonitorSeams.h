// What the three monitors see of the world outside the daemon's own state.
//
// The RSSI monitor reads access-point signals (StationQuery) and writes RTT
// penalties into the selection records (PenaltySink); the TCP socket monitor
// reads the kernel's table of live TCP sockets (TcpInfoSource) and, for stall
// detection, asks link selection about the selected link (SelectedLink); the
// dual Wi-Fi monitor probes each Wi-Fi link (LinkProber); the link-event monitor
// reads the kernel's link and address notifications (NetlinkEventSource) and
// hands what it makes of them on (LinkEventSink). The daemon uses the adapters of
// MonitorAdapters.h; unit tests hand the monitors scripted stand-ins.
#pragma once

#include <stdint.h>

#include <linux/inet_diag.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "sls/InterfaceRtt.h"

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

class SelectedLink {
  public:
    virtual ~SelectedLink() = default;
    // The link the gaming UIDs are steered to while link selection probes the
    // links (gaming, a voice call, game mode's RTT check); "" otherwise.
    virtual std::string selected() = 0;
    // The link's interface index; 0 when unknown.
    virtual uint32_t ifindex(const std::string& link) = 0;
    // Whether the link still reaches the built-in probe server within a short
    // deadline (a connection answered, whatever the server then does).
    virtual bool answers(const std::string& link) = 0;
    // A stall of the link is confirmed: it fails.
    virtual void fail(const std::string& link) = 0;
};

class NetlinkEventSource {
  public:
    virtual ~NetlinkEventSource() = default;
    // Subscribes to the link and address notifications and asks for the
    // current links and addresses. False when that is not possible.
    virtual bool open() = 0;
    // The next datagram of netlink messages into `buffer`, waiting up to
    // `timeoutMs`: its length, 0 when none came, negative errno on an error.
    virtual int receive(uint8_t* buffer, size_t size, int timeoutMs) = 0;
    // Asks for the link's current state; the answer comes through receive().
    virtual void requestLink(const std::string& link) = 0;
};

class LinkEventSink {
  public:
    virtual ~LinkEventSink() = default;
    // A link went down: no carrier, administratively down, removed, or its last
    // IPv4 address gone (the LinkFailCause of each).
    virtual void down(const std::string& link, LinkFailCause cause) = 0;
    // It is up again (all of those undone).
    virtual void up(const std::string& link) = 0;
    // The links whose carrier is to be polled (not only followed through
    // notifications); empty when none.
    virtual std::vector<std::string> watched() = 0;
};

class LinkProber {
  public:
    virtual ~LinkProber() = default;
    // One RTT probe to `server`:`port` bound to `ifname`. The RTT in ms, or -1.
    virtual int probe(const char* ifname, const std::string& server, int port) = 0;
};

}  // namespace vord
