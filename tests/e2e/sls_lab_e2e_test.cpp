// Link selection end to end in the link lab: the real daemon, vordctl, the real
// kernel and rule tools, links with real delays that can lose their carrier, be
// cut, or carry traffic to a server that stalls.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LinkLab.h"
#include "status/StatusText.h"

namespace {

using namespace vord;
using namespace vord::test;

using namespace std::chrono_literals;

const char* const kConf = "mini_est_interval=100\nping_interval_ms=200\nmin_ping_times=3\nt_hyst_s=2\n";
const char* const kSnapshot = "/data/vendor/vord/status";

// The RTTs the daemon logged for `link` ("TCPing cacla rtt is N,device is LINK").
std::vector<int> probeResults(const std::string& log, const std::string& link) {
    std::vector<int> out;
    std::istringstream lines(log);
    for (std::string l; std::getline(lines, l);) {
        const size_t at = l.find("TCPing cacla rtt is "), dev = l.rfind(",device is ");
        if (at != std::string::npos && dev != std::string::npos && l.substr(dev + 11) == link) {
            out.push_back(std::atoi(l.c_str() + at + 20));
        }
    }
    return out;
}

// The median of the kernel's RTTs the daemon logged for `link` within 1 ms + 5 %
// of the emulated `want` (a busy host may stretch a few).
void expectProbeRtt(const std::string& log, const std::string& link, int want) {
    std::vector<int> got = probeResults(log, link);
    ASSERT_FALSE(got.empty()) << link;
    std::sort(got.begin(), got.end());
    EXPECT_LE(std::abs(got[got.size() / 2] - want), 1 + want / 20.0) << link << ": " << ::testing::PrintToString(got);
}

// The daemon runs as on the device: not root, with only its two capabilities.
class SlsLabE2E : public LabTest {
  protected:
    SlsLabE2E() { leastPrivilege = true; }
};

// Selection of the faster link; a switch when it loses its carrier and when it
// goes silent under the game's traffic (moving the game's IPv4 and IPv6
// connections), none when only the game's server stalls; then a voice call,
// and a shutdown that leaves no rule behind in either family.
TEST_F(SlsLabE2E, SelectionCutVoiceCallAndShutdown) {
    // 40 ms and 30 ms round trips; without selection traffic takes rmnet_data0.
    // The probe server answers as a TLS server answers bytes that are not a
    // handshake: an alert record, then it closes.
    ASSERT_NO_FATAL_FAILURE(buildLab({{"wlan0", 20}, {"rmnet_data0", 15}}, "rmnet_data0"));
    ASSERT_TRUE(lab->setProbeServer("close"));
    root.writeFile("/proc/sla/config", "");
    ASSERT_NO_FATAL_FAILURE(startDaemon(kConf));
    auto snapshot = [&](status::Snapshot* out) { return status::parse(root.readFile(kSnapshot), out, nullptr); };
    auto chainsGone = [&] { return (mangle() + mangle(true)).find("vexo_sls_") == std::string::npos; };
    auto probes = [&] { return daemon->countLog("TCPing cacla rtt is "); };
    // True when probing has stopped: no new probe result for a while.
    auto probingStopped = [&] {
        const size_t before = probes();
        std::this_thread::sleep_for(1200ms);
        return probes() == before;
    };
    vordctl("ifaces wlan0,rmnet_data0");
    vordctl("sls-start 10123");
    ASSERT_TRUE(daemon->waitForLog(",device is wlan0", 20s, 4)) << daemon->log();
    ASSERT_TRUE(daemon->waitForLog(",device is rmnet_data0", 20s, 4));
    expectProbeRtt(daemon->log(), "wlan0", 40);
    expectProbeRtt(daemon->log(), "rmnet_data0", 30);
    ASSERT_TRUE(daemon->waitForLog("calcInterface SLA_RTT_SELECTED perform switch wlan0 ", 10s)) << daemon->log();
    for (bool v6 : {false, true}) EXPECT_NE(mangle(v6).find("-A vexo_SLS -j vexo_sls_uid_wlan0"), std::string::npos) << mangle(v6);

    status::Snapshot before;
    ASSERT_TRUE(waitFor([&] { return snapshot(&before) && before.current == "wlan0"; }, 5s));

    // The game and another app, each over IPv4 and over IPv6.
    auto game = lab->startClient(10123), game6 = lab->startClient(10123, true);
    auto other = lab->startClient(10456), other6 = lab->startClient(10456, true);
    for (LabClient* app : {game.get(), game6.get()})
        EXPECT_EQ("wlan0", LabClient::linkOf(app->waitForLine("connected ", 5s))) << app->output();
    for (LabClient* app : {other.get(), other6.get()})
        EXPECT_EQ("rmnet_data0", LabClient::linkOf(app->waitForLine("connected ", 5s))) << app->output();

    ASSERT_TRUE(daemon->waitForLog("probe target 198.18.0.10:8080", 5s)) << daemon->log();
    // The reaction times are the benchmark's business.
    const std::string toCell = "calcInterface SLA_RTT_SELECTED perform switch rmnet_data0 ",
                      toWifi = "calcInterface SLA_RTT_SELECTED perform switch wlan0 ";
    // Switched away from wlan0 for `reason`, the game's connections destroyed once
    // more and back over rmnet_data0; the other UID's never.
    auto leftWlan0 = [&](const std::string& reason, size_t switched, size_t aborted) {
        ASSERT_TRUE(daemon->waitForLog(toCell, 15s, switched)) << daemon->log();
        EXPECT_TRUE(waitFor([&] { return mangle(true).find("-A vexo_SLS -j vexo_sls_uid_rmnet_data0") != std::string::npos; }, 2s))
            << mangle(true);
        status::Snapshot after;
        EXPECT_TRUE(waitFor([&] {
            return snapshot(&after) && after.current == "rmnet_data0" && after.lastSwitch.reason == reason &&
                   after.lastSwitch.from == "wlan0" &&
                   std::any_of(after.links.begin(), after.links.end(),
                               [](const status::LinkStatus& l) { return l.name == "wlan0" && l.level == 1; });
        }, 3s)) << root.readFile(kSnapshot);
        EXPECT_EQ(after.linkSwitches, before.linkSwitches + 2 * switched - 1);
        for (LabClient* app : {game.get(), game6.get()}) {
            EXPECT_NE("", app->waitForLine("connection aborted: ECONNABORTED", 5s, aborted)) << app->output();
            EXPECT_EQ("rmnet_data0", LabClient::linkOf(app->waitForLine("reconnected ", 5s, aborted))) << app->output();
            EXPECT_EQ(aborted, app->linesStartingWith("connection aborted").size()) << app->output();
        }
        for (LabClient* app : {other.get(), other6.get()}) EXPECT_TRUE(app->linesStartingWith("connection").empty()) << app->output();
    };
    // wlan0 loses its carrier (the radio lost its access point).
    ASSERT_TRUE(lab->setCarrier("wlan0", false));
    ASSERT_NO_FATAL_FAILURE(leftWlan0("carrier-lost", 1, 1));
    EXPECT_NE(game6->waitForLine("reconnected ", 1s).find(" peer=[fd66:66:2::2]:"), std::string::npos) << game6->output();
    EXPECT_EQ(1u, daemon->countLog("wlan0 lost carrier: link failed")) << daemon->log();
    ASSERT_TRUE(lab->setCarrier("wlan0", true));
    ASSERT_TRUE(daemon->waitForLog(toWifi, 20s, 2)) << daemon->log();  // back through its probes
    // wlan0 goes silent while the game talks: its stall is confirmed by a probe.
    for (LabClient* app : {game.get(), game6.get()}) ASSERT_NE("", app->waitForLine("reconnected ", 5s, 2));
    ASSERT_TRUE(lab->cut("wlan0"));
    ASSERT_NO_FATAL_FAILURE(leftWlan0("stall", 2, 3));
    ASSERT_TRUE(lab->restore("wlan0"));
    ASSERT_TRUE(daemon->waitForLog(toWifi, 20s, 3)) << daemon->log();
    // Only the game's server stalls: the probe server still answers over wlan0.
    for (LabClient* app : {game.get(), game6.get()}) ASSERT_NE("", app->waitForLine("reconnected ", 5s, 4));
    const std::string serverStall[] = {"iptables %s INPUT -d 198.18.0.10 -p tcp --dport 8080 -j DROP",
                                       "ip6tables %s INPUT -d 2001:2::10 -p tcp --dport 8080 -j DROP"};
    auto stallServer = [&](const char* op) {
        for (const std::string& rule : serverStall) {
            char cmd[128];
            snprintf(cmd, sizeof(cmd), rule.c_str(), op);
            ASSERT_EQ("", lab->exec(cmd, true));
        }
    };
    ASSERT_NO_FATAL_FAILURE(stallServer("-I"));
    EXPECT_TRUE(daemon->waitForLog("wlan0 answers: the game's server stalled, not the link", 10s)) << daemon->log();
    EXPECT_EQ(2u, daemon->countLog(toCell));
    ASSERT_NO_FATAL_FAILURE(stallServer("-D"));

    vordctl("sls-stop");
    EXPECT_TRUE(waitFor(chainsGone, 5s)) << mangle();
    EXPECT_TRUE(probingStopped());

    // A voice call, with wlan0 back (game mode's tables and probes: unit tests).
    ASSERT_TRUE(lab->restore("wlan0"));
    using namespace std::string_literals;
    const size_t onWlan = daemon->countLog(",device is wlan0");
    vordctl("voip 10123");
    EXPECT_TRUE(waitFor([&] { return root.readFile("/proc/sla/config").find("voip_uid=10123\0voip_enable=1\0"s) != std::string::npos; }, 5s));
    EXPECT_TRUE(daemon->waitForLog(",device is wlan0", 10s, onWlan + 2));
    EXPECT_TRUE(waitFor([&] { return !chainsGone(); }, 5s));
    vordctl("voip 0");
    EXPECT_TRUE(waitFor([&] { return root.readFile("/proc/sla/config").find("voip_enable=0\0voip_uid=0\0"s) != std::string::npos; }, 5s));
    EXPECT_TRUE(waitFor(chainsGone, 5s)) << mangle();
    EXPECT_TRUE(probingStopped());

    // Shutdown leaves no rule behind.
    EXPECT_TRUE(daemon->stopThroughProperty()) << daemon->log();
    status::Snapshot last;  // the final snapshot keeps the last switch
    EXPECT_TRUE(snapshot(&last) && last.state == "stopped" && last.lastSwitch.valid) << root.readFile(kSnapshot);
    EXPECT_EQ("", lab->exec("iptables-save | grep vexo_") + lab->exec("ip6tables-save | grep vexo_"));
    for (const char* rules : {"ip rule", "ip -6 rule"}) EXPECT_EQ(std::string::npos, lab->exec(rules).find("fwmark")) << lab->exec(rules);
}

// An IPv6-only rmnet_data0 (no IPv4 address) is probed over IPv6, at the lab's
// IPv6 probe server, ranked by that RTT and chosen over a slower wlan0: the
// game's IPv6 connection moves to it.
TEST_F(SlsLabE2E, Ipv6OnlyCellularIsProbedOverIpv6RankedAndChosen) {
    // 30 ms round trip on rmnet_data0, 160 ms on wlan0 (one Wi-Fi level lower).
    ASSERT_NO_FATAL_FAILURE(buildLab({{"wlan0", 80}, {"rmnet_data0", 15, true}}, "wlan0"));
    ASSERT_TRUE(lab->setProbeServer("fill"));  // each exchange one round trip
    root.writeFile("/proc/sla/config", "");
    ASSERT_NO_FATAL_FAILURE(startDaemon(kConf));
    auto game6 = lab->startClient(10123, true);
    ASSERT_EQ("wlan0", LabClient::linkOf(game6->waitForLine("connected ", 5s))) << game6->output();
    vordctl("ifaces wlan0,rmnet_data0");
    vordctl("sls-start 10123");
    ASSERT_TRUE(daemon->waitForLog("perform switch rmnet_data0 ", 20s)) << daemon->log();
    ASSERT_TRUE(daemon->waitForLog(",device is rmnet_data0", 10s, 4));
    EXPECT_EQ(1u, daemon->countLog("rmnet_data0 has no IPv4 address: probing it over IPv6 ([2606:4700:4700::1111]:443)"))
        << daemon->log();
    expectProbeRtt(daemon->log(), "rmnet_data0", 30);
    // Destroyed at the switch, the game's connection comes back over rmnet_data0.
    EXPECT_TRUE(waitFor([&] {
        const std::vector<std::string> again = game6->linesStartingWith("reconnected ");
        return !again.empty() && LabClient::linkOf(again.back()) == "rmnet_data0";
    }, 5s)) << game6->output();

    status::Snapshot s;
    ASSERT_TRUE(waitFor([&] { return status::parse(root.readFile(kSnapshot), &s, nullptr) && s.current == "rmnet_data0"; }, 3s))
        << root.readFile(kSnapshot);
    for (const status::LinkStatus& l : s.links) {
        const bool cell = l.name == "rmnet_data0";
        EXPECT_EQ(cell ? "ipv6" : "ipv4", l.probeFamily) << l.name;
        EXPECT_EQ(cell ? 10 : 9, l.level) << l.name;  // the cellular and Wi-Fi bands of 30 and 160 ms
    }
    std::string table;
    ASSERT_EQ(0, test::vordctl(root, "status", &table));
    EXPECT_NE(table.find(" IPv6\n"), std::string::npos) << table;
}

}  // namespace
