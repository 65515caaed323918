// The three monitors, driven round by round with scripted seams.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <string.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "monitors/DoubleWifiMonitor.h"
#include "monitors/DualWifiChoice.h"
#include "monitors/GameEndpointTally.h"
#include "monitors/MonitorAdapters.h"
#include "monitors/RssiStateMonitor.h"
#include "monitors/SlaTcpSocketMonitor.h"

namespace {

class MonitorTest : public ::testing::Test {
  protected:
    MonitorTest() { unlink(vord::resolvePath("/vendor/etc/sla/vord.conf").c_str()); }
    void registerLinks(std::initializer_list<const char*> names) {
        for (const char* name : names) p.UpdateInterface(name, true);
    }
    void gaming() { p.setGamingUids("10123"); p.populateGamingUids(); }
    Parameters p;
};

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

TEST(RssiPenalty, SignalTable) {
    const std::pair<int, int> table[] = {{0, 0},    {3, 0},    {-65, 0},   {-66, 10},  {-72, 10},
                                         {-73, 30}, {-78, 30}, {-79, 60},  {-84, 60},  {-85, 100},
                                         {-128, 100}};
    for (const auto& r : table) EXPECT_EQ(RssiStateMonitor::penaltyForSignal(r.first), r.second) << r.first;
}

TEST_F(MonitorTest, RssiQueriesWifiLinksWithValidBssidAndLogsChangesOnly) {
    registerLinks({"wlan0", "wlan1", "rmnet_data0"});
    p.UpdateInterfaceBssid("AA:BB:CC:DD:EE:FF");  // wlan1 keeps the unknown BSSID
    auto station = std::make_unique<ScriptedStation>();
    auto sink = std::make_unique<RecordingSink>();
    ScriptedStation* s = station.get();
    RecordingSink* k = sink.get();
    s->signal["wlan0"] = -70;
    RssiStateMonitor monitor(&p, std::move(station), std::move(sink));
    vord::LogCapture log;
    monitor.tick();
    EXPECT_EQ(s->asked, std::vector<std::string>{"wlan0 AABBCCDDEEFF"});
    ASSERT_EQ(k->writes.size(), 1u);
    EXPECT_EQ(k->writes[0], (std::map<std::string, int>{{"wlan0", 10}, {"wlan1", 0}}));
    EXPECT_EQ(log.count("wlan0 signal -70 dBm: RTT penalty 10 ms (was 0 ms)"), 1u);
    monitor.tick();  // unchanged: written again, not logged again
    EXPECT_EQ(k->writes.size(), 2u);
    EXPECT_EQ(log.count("RTT penalty"), 1u);
    s->signal["wlan0"] = -90;
    monitor.tick();
    EXPECT_EQ(monitor.penalties().at("wlan0"), 100);
    s->signal["wlan0"] = 0;  // a failed read
    monitor.tick();
    EXPECT_EQ(monitor.penalties().at("wlan0"), 0);
    EXPECT_EQ(log.count("RTT penalty"), 3u);

    p.UpdateInterfaceBssid("GG:BB:CC:DD:EE:FF");  // malformed: never passed on
    s->asked.clear();
    monitor.tick();
    EXPECT_TRUE(s->asked.empty());
}

TEST_F(MonitorTest, RssiWithoutNl80211LogsOnceAndStaysIdle) {
    registerLinks({"wlan0"});
    p.UpdateInterfaceBssid("AA:BB:CC:DD:EE:FF");
    auto station = std::make_unique<ScriptedStation>();
    station->available = false;
    ScriptedStation* s = station.get();
    auto sink = std::make_unique<RecordingSink>();
    RecordingSink* k = sink.get();
    vord::LogCapture log;
    RssiStateMonitor monitor(&p, std::move(station), std::move(sink));
    monitor.start();
    monitor.tick();
    monitor.stop();  // an idle thread still stops at once
    EXPECT_TRUE(s->asked.empty());
    EXPECT_TRUE(k->writes.empty());
    EXPECT_EQ(log.count("nl80211 is not available"), 1u);
}

struct Socket {
    inet_diag_msg msg;
    std::vector<uint8_t> info;  // exactly the delivered length
    bool withInfo = true;
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

void feed(vord::GameEndpointTally& tally, const std::vector<Socket>& sockets) {
    for (const Socket& s : sockets) {
        // Exactly the delivered length on the heap: a read past it trips AddressSanitizer.
        std::unique_ptr<uint8_t[]> block(new uint8_t[s.info.size() + 1]);
        memcpy(block.get(), s.info.data(), s.info.size());
        tally.add(&s.msg, s.withInfo ? block.get() : nullptr, s.withInfo ? uint32_t(s.info.size()) : 0);
    }
}

std::string endpointText(const vord::GameEndpoint& e) {
    char text[INET_ADDRSTRLEN];
    in_addr a{};
    a.s_addr = e.addr;
    return std::string(inet_ntop(AF_INET, &a, text, sizeof(text))) + ":" + std::to_string(e.port);
}

TEST(GameEndpointTally, BusiestGamingEndpointWins) {
    vord::GameEndpointTally tally({10123, 10456});
    Socket noInfo = tcpSocket(10123, "198.51.100.9", 443, 0, 0, 0);
    noInfo.withInfo = false;
    feed(tally, {
                        // two connections to one server add up: 700 + 500
                        tcpSocket(10123, "203.0.113.5", 7000, 400, 300, 30000),
                        tcpSocket(10123, "203.0.113.5", 7000, 200, 300, 90000),
                        tcpSocket(10456, "198.51.100.7", 443, 1000, 100, 20000),
                        // another UID, loopback, IPv6, short tcp_info: not counted
                        tcpSocket(1000, "192.0.2.1", 443, 900000, 0, 1000),
                        tcpSocket(10123, "127.0.0.1", 9000, 900000, 0, 1000),
                        tcpSocket(10123, "2001:db8::1", 443, 900000, 0, 1000),
                        tcpSocket(10123, "192.0.2.2", 443, 900000, 900000, 1000,
                                  offsetof(tcp_info, tcpi_bytes_acked) + 4),
                        noInfo,
                });
    vord::GameEndpoint game;
    ASSERT_TRUE(tally.busiest(&game));
    EXPECT_EQ(endpointText(game), "203.0.113.5:7000");
    EXPECT_EQ(game.bytes, 1200u);
    EXPECT_EQ(game.rttMs, 30);  // the busier of its two connections
    EXPECT_EQ(game.uid, 10123u);

    vord::GameEndpointTally mapped({10123});
    Socket rttCut = tcpSocket(10123, "::ffff:203.0.113.8", 5000, 10, 10, 250000);
    rttCut.info.resize(offsetof(tcp_info, tcpi_rtt));  // rtt not delivered, nor the byte counters
    feed(mapped, {rttCut});
    EXPECT_FALSE(mapped.busiest(&game));
    feed(mapped, {tcpSocket(10123, "::ffff:203.0.113.8", 5000, 10, 10, 250000)});
    ASSERT_TRUE(mapped.busiest(&game));
    EXPECT_EQ(endpointText(game), "203.0.113.8:5000");
    EXPECT_EQ(game.rttMs, 250);
}

struct ScriptedDump : vord::TcpInfoSource {
    std::vector<Socket> sockets;
    int result = 0;
    std::promise<void>* called = nullptr;
    int dump(const Reader& reader) override {
        if (called != nullptr) std::exchange(called, nullptr)->set_value();
        if (result != 0) return result;
        for (const Socket& s : sockets) reader(&s.msg, s.info.data(), uint32_t(s.info.size()));
        return 0;
    }
};

TEST_F(MonitorTest, TcpMonitorTargetsTheGameServerAndActsOnHighRttOnce) {
    gaming();
    auto source = std::make_unique<ScriptedDump>();
    ScriptedDump* d = source.get();
    d->sockets = {tcpSocket(10123, "203.0.113.5", 7000, 5000, 5000, 80000),
                  tcpSocket(10123, "203.0.113.6", 443, 100, 100, 10000)};
    int highRttCalls = 0;
    SlaTcpSocketMonitor monitor(&p, std::move(source), [&](Parameters* params) {
        ++highRttCalls;
        params->setServiceHighRtt(true);  // as enterServiceHighRtt does
    });
    vord::LogCapture log;
    monitor.tick();
    EXPECT_EQ(p.getRttServer(), "203.0.113.5");
    EXPECT_EQ(p.getRttServerPort(), 7000);
    EXPECT_EQ(log.count("probe target 203.0.113.5:7000"), 1u);
    d->sockets[0] = tcpSocket(10123, "203.0.113.5", 7000, 6000, 6000, 120999);
    monitor.tick();  // 120 ms: not above 120
    EXPECT_EQ(highRttCalls, 0);
    d->sockets[0] = tcpSocket(10123, "203.0.113.5", 7000, 7000, 7000, 121000);
    for (int i = 0; i < 3; ++i) monitor.tick();
    EXPECT_EQ(highRttCalls, 1);
    EXPECT_EQ(log.count("probe target"), 1u);  // unchanged target is not logged again
    p.setServiceHighRtt(false);  // cleared by a stop command
    monitor.tick();
    EXPECT_EQ(highRttCalls, 2);
}

TEST_F(MonitorTest, TcpMonitorWithoutGameTrafficOrDumpKeepsTheTarget) {
    gaming();
    auto source = std::make_unique<ScriptedDump>();
    ScriptedDump* d = source.get();
    d->sockets = {tcpSocket(10999, "203.0.113.5", 7000, 5000, 5000, 300000)};
    int highRttCalls = 0;
    SlaTcpSocketMonitor monitor(&p, std::move(source), [&](Parameters*) { ++highRttCalls; });
    vord::LogCapture log;
    monitor.tick();
    d->result = -EPERM;
    monitor.tick();
    monitor.tick();
    EXPECT_EQ(p.getRttServer(), VORD_DEFAULT_RTT_SERVER);
    EXPECT_EQ(p.getRttServerPort(), 443);
    EXPECT_EQ(highRttCalls, 0);
    EXPECT_EQ(log.count("cannot read the live TCP sockets"), 1u);
}

TEST_F(MonitorTest, TcpMonitorPollsOnlyAfterResume) {
    gaming();
    auto source = std::make_unique<ScriptedDump>();
    std::promise<void> called;
    source->called = &called;
    SlaTcpSocketMonitor monitor(&p, std::move(source), nullptr);
    monitor.start();
    EXPECT_FALSE(monitor.isPolling());
    monitor.resumePolling();
    EXPECT_EQ(called.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    monitor.stop();
    EXPECT_FALSE(monitor.isRunning());
}

// The daemon's source sees a loopback connection of this process with its UID,
// port and a tcp_info that covers the byte counters.
TEST(SockDiagTcpInfoSource, DeliversOwnConnectionWithTcpInfo) {
    int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    ASSERT_EQ(listen(server, 1), 0);
    ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
    int accepted = accept(server, nullptr, nullptr);
    ASSERT_GE(accepted, 0);
    uint32_t infoLen = 0;
    bool seen = false;
    const int result = vord::makeSockDiagTcpInfoSource()->dump(
            [&](const inet_diag_msg* msg, const uint8_t* info, uint32_t n) {
                if (msg->id.idiag_dport == addr.sin_port && msg->idiag_uid == getuid()) {
                    seen = true;
                    infoLen = info != nullptr ? n : 0;
                }
            });
    for (int fd : {accepted, client, server}) close(fd);
    if (result != 0) GTEST_SKIP() << "no sock_diag for TCP here: " << strerror(-result);
    EXPECT_TRUE(seen);
    EXPECT_GE(infoLen, offsetof(tcp_info, tcpi_bytes_received) + sizeof(uint64_t));
}

TEST(DualWifiChoice, CandidatePerRoundAndThreeRoundHysteresis) {
    const int rows[][3] = {
            {40, 60, 0},  {40, 81, 0},  // twice as slow but < 50 ms worse
            {60, 120, 0}, {60, 130, 1}, {130, 60, 2}, {-1, 50, 2},
            {50, -1, 1},  {-1, -1, 0},  {0, 49, 0}, {0, 50, 1},  // the margin is 50 ms
    };
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
    EXPECT_FALSE(p.isDWMonitorStatus());
    monitor.start();
    EXPECT_TRUE(p.isDWMonitorStatus());
    monitor.stop();
    EXPECT_FALSE(p.isDWMonitorStatus());

    pr->rtt = {{"wlan0", 40}, {"wlan1", -1}};
    monitor.tick();  // wlan1 not registered: nothing probed
    EXPECT_TRUE(pr->probed.empty());
    registerLinks({"wlan1"});
    p.setGamingRttServer("192.0.2.10");
    p.setRttServerPort(8443);
    vord::LogCapture log;
    for (int i = 0; i < 2; ++i) monitor.tick();
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 0);
    monitor.tick();
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 1);  // wlan1 failed three rounds
    EXPECT_EQ(pr->probed[0], "wlan0 192.0.2.10:8443");
    EXPECT_EQ(pr->probed[1], "wlan1 192.0.2.10:8443");
    EXPECT_EQ(log.count("dual Wi-Fi selection 1 (wlan0 only), was 0"), 1u);
    pr->rtt = {{"wlan0", 300}, {"wlan1", 40}};
    for (int i = 0; i < 3; ++i) monitor.tick();
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 2);
    p.UpdateInterface("wlan1", false);  // a link leaves: back to 0 at once
    monitor.tick();
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 0);
    p.setDoubleWifiSelectStatus(2);
    monitor.start();
    monitor.stop();  // a stop clears the status
    EXPECT_EQ(p.getDoubleWifiSelectStatus(), 0);
}

}  // namespace
