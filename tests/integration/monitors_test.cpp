// The monitors in the real daemon: started and stopped by their commands many
// times with every feature without leaving a thread behind, and stopped at
// shutdown.
#include <net/if.h>

#include "DaemonTest.h"

namespace {

using namespace vord::test;

// Fifty rounds of every feature leave no thread behind; then a shutdown while
// game mode, a voice call and the dual Wi-Fi monitor run stops them all.
TEST_F(DaemonTest, FiftyRoundsOfEachFeatureThenShutdownWhileAllRun) {
    // The monitors probe "wlan0" and "wlan1": on a host that has them a probe
    // could leave the machine.
    for (const char* name : {"wlan0", "wlan1"}) {
        if (if_nametoindex(name) != 0) GTEST_SKIP() << "host has an interface " << name;
    }
    // IPv4 rules only: the rounds are about threads, and half the rule commands
    // keep them quick on a busy machine.
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=100\nping_interval_ms=100\nipv6_rules=0\n"));
    ASSERT_TRUE(client.connect() && client.send(1, "wlan0,wlan1"));
    ASSERT_TRUE(daemon.waitForLog("m_interfaceInfoMap add wlan1 success!")) << daemon.log();
    const int baseline = threadCount(daemon.pid());
    auto expectThreads = [&](int n) {
        EXPECT_TRUE(waitFor([&] { return threadCount(daemon.pid()) == n; }))
                << threadCount(daemon.pid()) << " threads, " << baseline << " before";
    };
    for (int i = 1; i <= 50; ++i) {
        const std::pair<int, const char*> sequence[] = {
                {9, "10123"}, {10, ""},                      // link selection
                {11, "10123"}, {11, "10456"}, {11, "0"},     // voice call; a second start does nothing
                {14, "1"},                                   // the check before game mode does nothing
                {13, "10123"}, {14, "1"}, {14, "0"}, {13, "0"},  // game mode and its check
                {13, "10123"}, {14, "1"}, {13, "0"},         // game mode off with the check on
                {6, "1"}, {6, "1"}, {6, "0"}, {6, "0"},      // dual Wi-Fi monitor; a second start or stop does nothing
        };
        for (const auto& c : sequence) ASSERT_TRUE(client.send(c.first, c.second));
        ASSERT_TRUE(daemon.waitForLog("DoubleWifiMonitor stopped", std::chrono::seconds(20), i)) << daemon.log();
    }
    ASSERT_TRUE(client.send(12, "sync"));
    ASSERT_TRUE(daemon.waitForLog("msg.message=[sync]"));
    EXPECT_EQ(daemon.countLog("DoubleWifiMonitor started"), 50u);
    EXPECT_EQ(daemon.countLog("DoubleWifiMonitor stopped"), 50u);
    EXPECT_EQ(daemon.countLog("RssiStateMonitor started"), 200u);
    EXPECT_EQ(daemon.countLog("RssiStateMonitor stopped"), 200u);
    EXPECT_EQ(daemon.countLog("SlaTcpSocketMonitor polling"), 150u);
    EXPECT_EQ(daemon.countLog("SlaTcpSocketMonitor stopped"), 150u);
    EXPECT_EQ(daemon.countLog("setGameAiModeCheckRtt enable"), 100u);
    EXPECT_EQ(daemon.countLog("SLS GAMING Demo UID = 10456"), 0u);
    expectThreads(baseline);

    const char* const monitors[] = {"SlaTcpSocketMonitor stopped", "RssiStateMonitor stopped",
                                    "DoubleWifiMonitor stopped"};
    size_t stops[3];
    for (int i = 0; i < 3; ++i) stops[i] = daemon.countLog(monitors[i]);
    // No game-mode check here: its end on Wi-Fi would take the call's probes with it.
    for (const auto& c : {std::pair<int, const char*>{13, "10123"}, {11, "10456"}, {6, "1"}}) {
        ASSERT_TRUE(client.send(c.first, c.second));
    }
    ASSERT_TRUE(daemon.waitForLog("DoubleWifiMonitor started", std::chrono::seconds(10), 51));
    expectThreads(baseline + 5);  // two probes, the RSSI, TCP socket and dual Wi-Fi monitors
    client.close();
    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();
    const std::string log = daemon.log(), beforeExit = log.substr(0, log.find("Vord exiting"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(stops[i] + 1, countOf(beforeExit, monitors[i])) << monitors[i];
    expectThreads(baseline - 1);  // only the control thread is gone besides them
}

}  // namespace
