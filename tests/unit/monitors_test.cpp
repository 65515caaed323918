// The three monitors, driven round by round with scripted seams.
#include "UnitSupport.h"

#include <arpa/inet.h>
#include <linux/tcp.h>

#include <map>

#include "monitors/DoubleWifiMonitor.h"
#include "monitors/DualWifiChoice.h"
#include "monitors/GameEndpointTally.h"
#include "monitors/RssiStateMonitor.h"
#include "monitors/SlaTcpSocketMonitor.h"

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

TEST(RssiPenalty, SignalTable) {
    const std::pair<int, int> table[] = {{0, 0},   {3, 0},   {-65, 0},  {-66, 10}, {-72, 10},  {-73, 30},
                                         {-78, 30}, {-79, 60}, {-84, 60}, {-85, 100}, {-128, 100}};
    for (const auto& r : table) EXPECT_EQ(RssiStateMonitor::penaltyForSignal(r.first), r.second) << r.first;
}

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

Socket tcpSocket(uint32_t uid, const char* remote, uint16_t port, uint64_t acked, uint64_t received,
                 uint32_t rttUs, size_t infoLen = sizeof(tcp_info)) {
    Socket s{};
    s.msg.idiag_state = 1;  // established
    s.msg.idiag_uid = uid;
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
    EXPECT_TRUE(p.isDWMonitorStatus());
    monitor.stop();  // a stop clears the status
    EXPECT_FALSE(p.isDWMonitorStatus());
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 0);
}

}  // namespace
