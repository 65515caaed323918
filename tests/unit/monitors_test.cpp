// The monitors, driven round by round with scripted seams.
#include "UnitSupport.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <linux/tcp.h>
#include <net/if.h>

#include <deque>
#include <map>

#include "FakeDiagKernel.h"
#include "monitors/DoubleWifiMonitor.h"
#include "monitors/DualWifiChoice.h"
#include "monitors/GameEndpointTally.h"
#include "monitors/LinkEventMonitor.h"
#include "monitors/RssiStateMonitor.h"
#include "monitors/SlaTcpSocketMonitor.h"
#include "monitors/StallDetector.h"

namespace {

struct ScriptedStation : vord::StationQuery {
    bool available = true;
    std::map<std::string, int> signal;
    std::vector<std::string> asked;  // "ifname bssid"
    bool start() override { return available; }
    int signalDbm(const char* bssid, const char* ifname) override {
        asked.push_back(std::string(ifname) + " " + bssid);
        return signal.count(ifname) ? signal[ifname] : 0;
    }
};

struct RecordingSink : vord::PenaltySink {
    std::vector<std::map<std::string, int>> writes;
    int write(const std::map<std::string, int>& penalties) override {
        writes.push_back(penalties);
        return static_cast<int>(penalties.size());
    }
};

class MonitorTest : public ::testing::Test, unittest::NoConf {
  protected:
    void registerLinks(std::initializer_list<const char*> names) {
        for (const char* name : names) p.UpdateInterface(name, true);
    }
    std::unique_ptr<RssiStateMonitor> rssi(bool available = true) {
        auto s = std::make_unique<ScriptedStation>();
        auto k = std::make_unique<RecordingSink>();
        s->available = available;
        station = s.get();
        sink = k.get();
        return std::make_unique<RssiStateMonitor>(&p, std::move(s), std::move(k));
    }
    std::string target() { return p.getRttServer() + ":" + std::to_string(p.getRttServerPort()); }
    Parameters p;
    ScriptedStation* station = nullptr;
    RecordingSink* sink = nullptr;
    vord::LogCapture log;
};

TEST_F(MonitorTest, RssiQueriesWifiLinksWithValidBssidAndLogsChangesOnly) {
    registerLinks({"wlan0", "wlan1", "rmnet_data0"});
    p.UpdateInterfaceBssid("AA:BB:CC:DD:EE:FF");  // wlan1 keeps the unknown BSSID
    auto idle = rssi(false);  // without nl80211: logged once, then idle; its thread still stops at once
    idle->start();
    idle->tick();
    idle->stop();
    EXPECT_TRUE(station->asked.empty() && sink->writes.empty());
    EXPECT_EQ(log.count("nl80211 is not available"), 1u);

    auto monitor = rssi();
    station->signal["wlan0"] = -70;
    monitor->tick();
    monitor->tick();  // unchanged: written again, not logged again
    EXPECT_EQ(station->asked, (std::vector<std::string>(2, "wlan0 AABBCCDDEEFF")));
    ASSERT_EQ(sink->writes.size(), 2u);
    EXPECT_EQ(sink->writes[1], (std::map<std::string, int>{{"wlan0", 10}, {"wlan1", 0}}));
    EXPECT_EQ(log.count("RTT penalty"), 1u);
    EXPECT_EQ(log.count("wlan0 signal -70 dBm: RTT penalty 10 ms (was 0 ms)"), 1u);
    p.UpdateInterfaceBssid("GG:BB:CC:DD:EE:FF");  // malformed: never passed on
    station->asked.clear();
    monitor->tick();
    EXPECT_TRUE(station->asked.empty());
}

struct Socket {
    inet_diag_msg msg;
    std::vector<uint8_t> info;  // exactly the delivered length; none: no tcp_info at all
};

// A socket; its cookie is `cookie`, or a new one when 0.
Socket tcpSocket(uint32_t uid, const char* remote, uint16_t port, uint64_t acked, uint64_t received,
                 uint32_t rttUs, size_t infoLen = sizeof(tcp_info), uint32_t cookie = 0) {
    static uint32_t lastCookie = 1000;
    Socket s{};
    s.msg.idiag_state = 1;  // established
    s.msg.idiag_uid = uid;
    s.msg.id.idiag_cookie[0] = cookie != 0 ? cookie : ++lastCookie;
    s.msg.id.idiag_dport = htons(port);
    s.msg.idiag_family = strchr(remote, ':') ? AF_INET6 : AF_INET;
    inet_pton(s.msg.idiag_family, remote, s.msg.id.idiag_dst);
    tcp_info ti{};
    ti.tcpi_bytes_acked = acked;
    ti.tcpi_bytes_received = received;
    ti.tcpi_rtt = rttUs;
    const uint8_t* raw = reinterpret_cast<const uint8_t*>(&ti);
    s.info.assign(raw, raw + infoLen);
    return s;
}

// "address:port bytes rtt uid" of the busiest endpoint, "none" without one.
std::string busiest(vord::GameEndpointTally& tally, const std::vector<Socket>& sockets) {
    for (const Socket& s : sockets) {
        // Exactly the delivered length on the heap: a read past it trips AddressSanitizer.
        std::unique_ptr<uint8_t[]> block(new uint8_t[s.info.size() + 1]);
        if (!s.info.empty()) memcpy(block.get(), s.info.data(), s.info.size());
        tally.add(&s.msg, s.info.empty() ? nullptr : block.get(), uint32_t(s.info.size()));
    }
    vord::GameEndpoint e;
    if (!tally.busiest(&e)) return "none";
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &e.addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(e.port) + " " + std::to_string(e.bytes) + " " +
           std::to_string(e.rttMs) + " " + std::to_string(e.uid);
}

TEST(GameEndpointTally, BusiestGamingEndpointWins) {
    vord::GameEndpointTally tally({10123, 10456});
    // Two connections to one server add up (700 + 500); the rtt is the busier one's.
    // Another UID, loopback, IPv6, a tcp_info short of the byte counters: not counted.
    EXPECT_EQ(busiest(tally, {tcpSocket(10123, "203.0.113.5", 7000, 400, 300, 30000),
                              tcpSocket(10123, "203.0.113.5", 7000, 200, 300, 90000),
                              tcpSocket(10456, "198.51.100.7", 443, 1000, 100, 20000),
                              tcpSocket(1000, "192.0.2.1", 443, 900000, 0, 1000),
                              tcpSocket(10123, "127.0.0.1", 9000, 900000, 0, 1000),
                              tcpSocket(10123, "2001:db8::1", 443, 900000, 0, 1000),
                              tcpSocket(10123, "192.0.2.2", 443, 900000, 900000, 1000,
                                        offsetof(tcp_info, tcpi_bytes_acked) + 4),
                              tcpSocket(10123, "198.51.100.9", 443, 0, 0, 0, 0)}),
              "203.0.113.5:7000 1200 30 10123");

    vord::GameEndpointTally mapped({10123});
    Socket rttCut = tcpSocket(10123, "::ffff:203.0.113.8", 5000, 10, 10, 250000);
    rttCut.info.resize(offsetof(tcp_info, tcpi_rtt));  // rtt not delivered, nor the byte counters
    EXPECT_EQ(busiest(mapped, {rttCut}), "none");
    EXPECT_EQ(busiest(mapped, {tcpSocket(10123, "::ffff:203.0.113.8", 5000, 10, 10, 250000)}),
              "203.0.113.8:5000 20 250 10123");
}

struct ScriptedDump : vord::TcpInfoSource {
    std::vector<Socket> sockets;
    int result = 0;
    int dump(const Reader& reader) override {
        if (result != 0) return result;
        for (const Socket& s : sockets) reader(&s.msg, s.info.data(), uint32_t(s.info.size()));
        return 0;
    }
};

TEST_F(MonitorTest, TcpMonitorTargetsTheGameServerAndActsOnHighRttOnce) {
    p.setGamingUids("10123");
    p.populateGamingUids();
    auto source = std::make_unique<ScriptedDump>();
    ScriptedDump* d = source.get();
    int highRttCalls = 0;
    SlaTcpSocketMonitor monitor(&p, std::move(source), [&](Parameters* params) {
        ++highRttCalls;
        params->setServiceHighRtt(true);  // as enterServiceHighRtt does
        return true;
    });
    EXPECT_EQ(monitor.tick(), 1000);  // the first round only takes the baseline
    // Another UID's slow connection, then failing dumps: the target stays.
    d->sockets = {tcpSocket(10999, "203.0.113.5", 7000, 5000, 5000, 300000)};
    monitor.tick();
    d->result = -EPERM;
    monitor.tick();
    monitor.tick();
    EXPECT_EQ(target(), VORD_DEFAULT_RTT_SERVER ":443");
    EXPECT_EQ(log.count("cannot read the live TCP sockets"), 1u);

    d->result = 0;
    d->sockets = {tcpSocket(10123, "203.0.113.5", 7000, 5000, 5000, 120999),  // 120 ms: not above 120
                  tcpSocket(10123, "203.0.113.6", 443, 100, 100, 10000)};
    monitor.tick();
    EXPECT_EQ(target(), "203.0.113.5:7000");
    EXPECT_EQ(highRttCalls, 0);
    d->sockets[0] = tcpSocket(10123, "203.0.113.5", 7000, 7000, 7000, 121000);
    for (int i = 0; i < 3; ++i) monitor.tick();
    EXPECT_EQ(highRttCalls, 1);
    EXPECT_EQ(log.count("probe target 203.0.113.5:7000"), 1u);  // unchanged target: logged once
    p.setServiceHighRtt(false);  // cleared by a stop command
    monitor.tick();
    EXPECT_EQ(highRttCalls, 2);
    // Bytes moved over the last five polls rank, not lifetime bytes: an asset
    // download that has gone quiet loses to the game's server.
    for (uint64_t i = 1; i <= 6; ++i) {
        d->sockets = {tcpSocket(10123, "198.51.100.1", 443, 90000000, 0, 1000, sizeof(tcp_info), 7),
                      tcpSocket(10123, "203.0.113.9", 7000, 100 * i, 100, 1000, sizeof(tcp_info), 8)};
        monitor.tick();
    }
    EXPECT_EQ(target(), "203.0.113.9:7000");
}

// A socket for stall detection: established, UID 10123, to 203.0.113.5:7000.
Socket stalling(uint32_t cookie, uint32_t unacked, uint32_t lastAckMs, uint8_t backoff = 0, uint64_t acked = 100,
                uint32_t rttUs = 20000, uint32_t uid = 10123, uint32_t boundTo = 0) {
    Socket s = tcpSocket(uid, "203.0.113.5", 7000, acked, 50, rttUs, sizeof(tcp_info), cookie);
    tcp_info ti{};
    memcpy(&ti, s.info.data(), sizeof(ti));
    ti.tcpi_unacked = unacked;
    ti.tcpi_last_ack_recv = lastAckMs;
    ti.tcpi_backoff = backoff;
    memcpy(s.info.data(), &ti, sizeof(ti));
    s.msg.id.idiag_if = boundTo;
    return s;
}

TEST(StallDetector, EveryCountedSocketMustStallAndOneThatAcksClearsIt) {
    const Socket cutShort = [] {
        Socket s = stalling(1, 2, 900, 1);
        s.info.resize(offsetof(tcp_info, tcpi_unacked));
        return s;
    }();
    const struct {
        const char* what;
        std::vector<std::vector<Socket>> polls;  // threshold 300 ms, selected link index 7
        bool suspect;
    } cases[] = {
        {"no data in flight", {{stalling(1, 0, 900)}, {stalling(1, 0, 1200)}}, false},
        {"no ACK over two polls", {{stalling(1, 2, 200)}, {stalling(1, 2, 400)}}, true},
        {"data sent after a quiet spell", {{stalling(1, 0, 9000)}, {stalling(1, 1, 9200)}}, false},
        {"an ACK between the polls", {{stalling(1, 2, 200)}, {stalling(1, 2, 400, 0, 150)}}, false},
        {"one socket still ACKing", {{stalling(1, 2, 200), stalling(2, 1, 10)}, {stalling(1, 2, 400), stalling(2, 1, 10, 0, 300)}}, false},
        {"back-off", {{stalling(1, 1, 50, 1)}}, true},
        {"under 4 x srtt", {{stalling(1, 2, 200, 0, 100, 200000)}, {stalling(1, 2, 700, 0, 100, 200000)}}, false},
        {"other UID, other interface, tcp_info cut short", {{stalling(1, 2, 900, 1, 100, 20000, 10999), stalling(2, 2, 900, 1, 100, 20000, 10123, 9), cutShort}}, false},
        {"bound to the selected link", {{stalling(1, 2, 900, 1, 100, 20000, 10123, 7)}}, true},
    };
    for (const auto& c : cases) {
        vord::StallDetector detector;
        bool suspect = false;
        for (const std::vector<Socket>& poll : c.polls) {
            detector.beginPoll({10123}, 7, 300);
            for (const Socket& s : poll) detector.add(&s.msg, s.info.data(), uint32_t(s.info.size()));
            suspect = detector.endPoll();
        }
        EXPECT_EQ(suspect, c.suspect) << c.what;
    }
}

struct FakeSelected : vord::SelectedLink {
    std::string link = "wlan0";
    bool answer = true;
    std::vector<std::string> calls;
    std::string selected() override { return link; }
    uint32_t ifindex(const std::string&) override { return 0; }
    bool answers(const std::string& l) override { return calls.push_back("answers " + l), answer; }
    void fail(const std::string& l) override { calls.push_back("fail " + l); }
};

TEST_F(MonitorTest, StallOfTheSelectedLinkIsConfirmedByAProbeBeforeItFails) {
    p.setGamingUids("10123");
    p.populateGamingUids();
    auto source = std::make_unique<ScriptedDump>();
    auto link = std::make_unique<FakeSelected>();
    source->sockets = {stalling(1, 1, 50, 1)};
    FakeSelected* l = link.get();
    SlaTcpSocketMonitor monitor(&p, std::move(source), nullptr, std::move(link));
    p.setValue("stall_poll_ms", "0");  // off: polls once a second, no stall probe
    EXPECT_EQ(monitor.tick(), 1000);
    p.setValue("stall_poll_ms", "200");
    l->link = "";  // nothing selected
    EXPECT_EQ(monitor.tick(), 1000);
    EXPECT_TRUE(l->calls.empty());
    l->link = "wlan0";
    EXPECT_EQ(monitor.tick(), 200);  // stalled: the probe server answers, a stalled game server
    for (int i = 0; i < 5; ++i) monitor.tick();  // a second without probing again
    l->answer = false;
    monitor.tick();
    EXPECT_EQ(l->calls, (std::vector<std::string>{"answers wlan0", "answers wlan0", "fail wlan0"}));
}

// Link and address messages as the kernel sends them.
using K = vord::test::FakeDiagKernel;
template <typename T>
K::Bytes raw(const T& v) {
    const uint8_t* b = reinterpret_cast<const uint8_t*>(&v);
    return K::Bytes(b, b + sizeof(v));
}
K::Bytes linkMsg(uint16_t type, int index, const char* name, uint32_t flags) {
    ifinfomsg i{};
    i.ifi_index = index;
    i.ifi_flags = flags;
    return K::message(type, K::concat({raw(i), K::attr(IFLA_IFNAME, K::Bytes(name, name + strlen(name) + 1))}));
}
K::Bytes addrMsg(uint16_t type, int index, const char* ipv4) {
    ifaddrmsg a{};
    a.ifa_family = AF_INET;
    a.ifa_index = static_cast<uint32_t>(index);
    in_addr addr{};
    inet_pton(AF_INET, ipv4, &addr);
    return K::message(type, K::concat({raw(a), K::attr(IFA_LOCAL, raw(addr))}));
}

struct ScriptedNetlink : vord::NetlinkEventSource {
    std::deque<K::Bytes> datagrams;
    std::vector<std::string> asked;
    bool open() override { return true; }
    int receive(uint8_t* buffer, size_t size, int) override {
        if (datagrams.empty()) return 0;
        const size_t n = std::min(size, datagrams.front().size());
        memcpy(buffer, datagrams.front().data(), n);
        datagrams.pop_front();
        return static_cast<int>(n);
    }
    void requestLink(const std::string& link) override { asked.push_back(link); }
};

struct RecordingLinkSink : vord::LinkEventSink {
    std::vector<std::string> events, watch;
    void down(const std::string& l, LinkFailCause c) override { events.push_back("down " + l + " " + linkFailCauseKey(c)); }
    void up(const std::string& l) override { events.push_back("up " + l); }
    std::vector<std::string> watched() override { return watch; }
};

TEST(LinkEventMonitor, EachCauseDownsOnlyItsLinkOnceAndABounceComesBackOnce) {
    constexpr uint32_t kNoCarrier = IFF_UP, kCarrier = IFF_UP | (1u << 16), kUp = kCarrier | IFF_RUNNING;  // LOWER_UP
    auto source = std::make_unique<ScriptedNetlink>();
    auto sink = std::make_unique<RecordingLinkSink>();
    ScriptedNetlink* src = source.get();
    RecordingLinkSink* out = sink.get();
    LinkEventMonitor monitor(std::move(source), std::move(sink));
    const struct {
        std::vector<K::Bytes> datagrams;
        std::vector<std::string> events;
    } steps[] = {
        // The start-up dump, one datagram: wlan1 has no carrier already.
        {{K::concat({linkMsg(RTM_NEWLINK, 2, "wlan0", kUp), linkMsg(RTM_NEWLINK, 3, "rmnet_data0", kUp),
                     linkMsg(RTM_NEWLINK, 4, "wlan1", kNoCarrier)})},
         {"down wlan1 carrier-lost"}},
        {{addrMsg(RTM_NEWADDR, 2, "10.0.0.2"), addrMsg(RTM_NEWADDR, 3, "10.0.1.2")}, {}},
        // Repeated, then administratively down as well: still one event.
        {{linkMsg(RTM_NEWLINK, 2, "wlan0", kNoCarrier), linkMsg(RTM_NEWLINK, 2, "wlan0", kNoCarrier),
          linkMsg(RTM_NEWLINK, 2, "wlan0", 0)},
         {"down wlan0 carrier-lost"}},
        {{linkMsg(RTM_NEWLINK, 2, "wlan0", kCarrier)}, {}},  // not running yet
        {{linkMsg(RTM_NEWLINK, 2, "wlan0", kUp)}, {"up wlan0"}},
        {{linkMsg(RTM_NEWLINK, 3, "rmnet_data0", 0)}, {"down rmnet_data0 admin-down"}},
        {{linkMsg(RTM_NEWLINK, 3, "rmnet_data0", kUp)}, {"up rmnet_data0"}},
        {{addrMsg(RTM_DELADDR, 2, "10.0.0.2")}, {"down wlan0 address-lost"}},
        {{addrMsg(RTM_NEWADDR, 2, "10.0.0.3")}, {"up wlan0"}},
        {{linkMsg(RTM_DELLINK, 3, "rmnet_data0", 0)}, {"down rmnet_data0 link-removed"}},
    };
    for (const auto& step : steps) {
        src->datagrams.assign(step.datagrams.begin(), step.datagrams.end());
        monitor.tick(0);
        EXPECT_EQ(out->events, step.events) << (step.events.empty() ? "" : step.events[0]);
        out->events.clear();
    }
    out->watch = {"wlan0"};  // its carrier is asked for on every round
    monitor.tick(0);
    monitor.tick(0);
    EXPECT_EQ(src->asked, (std::vector<std::string>{"wlan0", "wlan0"}));
}

TEST(DualWifiChoice, CandidatePerRoundAndThreeRoundHysteresis) {
    const int rows[][3] = {{40, 60, 0},  {40, 81, 0},  // twice as slow but < 50 ms worse
                           {60, 120, 0}, {60, 130, 1}, {130, 60, 2}, {-1, 50, 2},
                           {50, -1, 1},  {-1, -1, 0},  {0, 49, 0},   {0, 50, 1}};  // the margin is 50 ms
    for (const auto& r : rows) EXPECT_EQ(vord::DualWifiChoice::candidate(r[0], r[1]), r[2]) << r[0] << " " << r[1];

    vord::DualWifiChoice c;
    const std::pair<int, int> rounds[] = {
            {1, 0}, {1, 0}, {0, 0}, {1, 0}, {1, 0}, {1, 1},  // a broken run restarts the count
            {0, 1}, {2, 1}, {0, 1}, {0, 1}, {0, 0},          // only 3 in a row leave
            {2, 0}, {2, 0}, {1, 0}, {1, 0}, {1, 1},          // a new candidate restarts it
            {2, 1}, {2, 1}, {2, 2},                          // 1 -> 2 directly
    };
    int i = 0;
    for (const auto& r : rounds) EXPECT_EQ(c.update(r.first), r.second) << "round " << i++;
    c.reset();
    EXPECT_EQ(c.status(), 0);
}

struct ScriptedProber : vord::LinkProber {
    std::map<std::string, int> rtt;
    std::vector<std::string> probed;  // "ifname server:port"
    int probe(const char* ifname, const std::string& server, int port) override {
        probed.push_back(std::string(ifname) + " " + server + ":" + std::to_string(port));
        return rtt.count(ifname) ? rtt[ifname] : -1;
    }
};

TEST_F(MonitorTest, DualWifiMonitorSetsTheSelectionStatusWithHysteresis) {
    registerLinks({"wlan0", "rmnet_data0"});
    auto prober = std::make_unique<ScriptedProber>();
    ScriptedProber* pr = prober.get();
    DoubleWifiMonitor monitor(&p, std::move(prober));
    pr->rtt = {{"wlan0", 40}, {"wlan1", -1}};
    monitor.tick();  // wlan1 not registered: nothing probed
    EXPECT_TRUE(pr->probed.empty());
    registerLinks({"wlan1"});
    p.setGamingRttServer("192.0.2.10");
    p.setRttServerPort(8443);
    for (int i = 0; i < 2; ++i) monitor.tick();
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 0);
    monitor.tick();
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 1);  // wlan1 failed three rounds
    EXPECT_EQ(pr->probed[0] + ", " + pr->probed[1], "wlan0 192.0.2.10:8443, wlan1 192.0.2.10:8443");
    p.UpdateInterface("wlan1", false);  // a link leaves: back to 0 at once
    monitor.tick();
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 0);
    p.setDoubleWifiSelectStatus(2);
    monitor.start();
    monitor.start();  // already running: nothing
    EXPECT_EQ(log.count("DoubleWifiMonitor started"), 1u);
    EXPECT_TRUE(p.isDWMonitorStatus());
    monitor.stop();  // a stop clears the status
    EXPECT_FALSE(p.isDWMonitorStatus());
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 0);
}

}  // namespace
