// The monitors in the real daemon: started and stopped by their commands many
// times with every feature without leaving a thread behind, and stopped at
// shutdown.
#include <net/if.h>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

class MonitorsTest : public DaemonTest {
  protected:
    void SetUp() override {
        // The monitors probe "wlan0" and "wlan1": on a host that has them a probe
        // could leave the machine.
        for (const char* name : {"wlan0", "wlan1"}) {
            if (if_nametoindex(name) != 0) GTEST_SKIP() << "host has an interface " << name;
        }
        root.installRecordingTool("iptables-wrapper-1.0");
        root.installRecordingTool("ip-wrapper-1.0");
        ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=100\nping_interval_ms=100\n"));
        ASSERT_TRUE(client.connect());
        ASSERT_TRUE(client.send(1, "wlan0,wlan1"));
        ASSERT_TRUE(daemon.waitForLog("m_interfaceInfoMap add wlan1 success!")) << daemon.log();
        ASSERT_TRUE(waitFor([&] { return threadCount(daemon.pid()) > 0; }));
        baseline = threadCount(daemon.pid());
    }

    int baseline = 0;
};

// Fifty rounds of the dual Wi-Fi monitor, then of every feature, leave no thread
// behind.
TEST_F(MonitorsTest, FiftyRoundsOfEachFeatureLeaveNoThreadBehind) {
    auto expectBaseline = [&](int extra) {
        EXPECT_TRUE(waitFor([&] { return threadCount(daemon.pid()) == baseline + extra; }))
                << threadCount(daemon.pid()) << " threads, " << baseline << " before";
    };
    for (int i = 1; i <= 50; ++i) {
        ASSERT_TRUE(client.send(6, "1"));
        ASSERT_TRUE(client.send(6, "1"));  // already running: nothing
        ASSERT_TRUE(client.send(6, "0"));
        ASSERT_TRUE(daemon.waitForLog("DoubleWifiMonitor stopped", std::chrono::seconds(10), i))
                << daemon.log();
    }
    ASSERT_TRUE(client.send(6, "0"));  // not running: nothing
    ASSERT_TRUE(client.send(12, "sync"));
    ASSERT_TRUE(daemon.waitForLog("msg.message=[sync]"));
    EXPECT_EQ(daemon.countLog("DoubleWifiMonitor started"), 50u);
    EXPECT_EQ(daemon.countLog("DoubleWifiMonitor stopped"), 50u);
    expectBaseline(0);

    for (int i = 1; i <= 50; ++i) {
        const std::pair<int, const char*> sequence[] = {
                {9, "10123"}, {10, ""},                      // link selection
                {11, "10123"}, {11, "0"},                    // voice call
                {13, "10123"}, {14, "1"}, {14, "0"}, {13, "0"},  // game mode and its check
                {13, "10123"}, {14, "1"}, {13, "0"},         // game mode off with the check on
                {6, "1"}, {6, "0"},                          // dual Wi-Fi monitor
        };
        for (const auto& c : sequence) ASSERT_TRUE(client.send(c.first, c.second));
        ASSERT_TRUE(daemon.waitForLog("DoubleWifiMonitor stopped", std::chrono::seconds(20), 50 + i))
                << daemon.log();
    }
    EXPECT_EQ(daemon.countLog("RssiStateMonitor started"), 200u);
    EXPECT_EQ(daemon.countLog("RssiStateMonitor stopped"), 200u);
    EXPECT_EQ(daemon.countLog("SlaTcpSocketMonitor polling"), 150u);
    EXPECT_EQ(daemon.countLog("SlaTcpSocketMonitor stopped"), 150u);
    expectBaseline(0);
}

TEST_F(MonitorsTest, ShutdownDuringGameModeVoiceCallAndDualWifiMonitorIsClean) {
    ASSERT_TRUE(client.send(13, "10123"));
    ASSERT_TRUE(client.send(14, "1"));
    ASSERT_TRUE(client.send(11, "10456"));
    ASSERT_TRUE(client.send(6, "1"));
    ASSERT_TRUE(daemon.waitForLog("DoubleWifiMonitor started"));
    // Two probes, the RSSI, TCP socket and dual Wi-Fi monitors.
    ASSERT_TRUE(waitFor([&] { return threadCount(daemon.pid()) == baseline + 5; }))
            << threadCount(daemon.pid()) << " threads, " << baseline << " before";
    client.close();
    ASSERT_TRUE(daemon.stopThroughProperty()) << daemon.log();
    const std::string log = daemon.log();
    for (const char* monitor : {"SlaTcpSocketMonitor", "RssiStateMonitor", "DoubleWifiMonitor"}) {
        const size_t stopped = log.find(std::string(monitor) + " stopped");
        ASSERT_NE(stopped, std::string::npos) << monitor << "\n" << log;
        EXPECT_LT(stopped, log.find("Vord exiting")) << monitor;
    }
    // Only the control thread is gone besides the monitors and probes.
    EXPECT_TRUE(waitFor([&] { return threadCount(daemon.pid()) == baseline - 1; }))
            << threadCount(daemon.pid()) << " threads, " << baseline << " before";
}

}  // namespace
}  // namespace test
}  // namespace vord
