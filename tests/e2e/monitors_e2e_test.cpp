// The monitors in the link lab, through the daemon: the game's own server
// becomes the probe target, and the dual Wi-Fi monitor moves the aggregation
// cascade off a cut Wi-Fi link and back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "LinkLab.h"

namespace vord {
namespace test {
namespace {

using namespace std::chrono_literals;

class MonitorsE2E : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = LinkLab::unavailable();
        if (!why.empty()) GTEST_SKIP() << "*** SKIPPED: " << why << " ***";
        lab = std::make_unique<LinkLab>(std::vector<LinkLab::Link>{{"wlan0", 5}, {"wlan1", 5}});
        ASSERT_EQ(lab->error(), "");
        ASSERT_TRUE(lab->setProbeEcho(true));  // probes complete in one round trip
        lab->installTools(root);
    }
    void TearDown() override {
        sim.reset();
        daemon.reset();
        lab.reset();
    }

    void startDaemon(const std::string& conf) {
        root.writeConf(conf);
        daemon = std::make_unique<DaemonProcess>(root);
        daemon->setCommandPrefix(lab->commandPrefix());
        daemon->start();
        ASSERT_TRUE(daemon->waitUntilServing(20s)) << daemon->log();
        ASSERT_TRUE(client.connect(10s));
    }

    // "wlan0=P wlan1=P" of the "vexo_SLA" cascade in the kernel, in rule order.
    std::string cascade() const {
        std::istringstream rules(lab->exec("iptables-save -t mangle"));
        std::string out;
        for (std::string l; std::getline(rules, l);) {
            if (l.compare(0, 12, "-A vexo_SLA ") != 0) continue;
            const size_t p = l.find("--probability ");
            const size_t j = l.find("-j vexo_fw_");
            if (p == std::string::npos || j == std::string::npos) continue;
            std::string target = l.substr(j + 11);
            target = target.substr(0, target.find('_') == 5 ? 5 : target.size());
            char prob[16];
            snprintf(prob, sizeof(prob), "%.2f", std::atof(l.c_str() + p + 14));
            out += (out.empty() ? "" : " ") + target + "=" + prob;
        }
        return out;
    }

    TempRoot root;
    std::unique_ptr<LinkLab> lab;
    std::unique_ptr<DaemonProcess> daemon;
    ControlClient client{root};
    std::unique_ptr<Spawned> sim;
};

TEST_F(MonitorsE2E, GameTrafficMakesItsServerTheProbeTarget) {
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=200\nping_interval_ms=300\n"));
    ASSERT_TRUE(client.send(1, "wlan0,wlan1"));
    auto game = lab->startClient(10123);
    ASSERT_NE(game->waitForLine("connected ", 5s), "") << game->output();

    ASSERT_TRUE(client.send(9, "10123"));
    ASSERT_TRUE(daemon->waitForLog("probe target 198.18.0.10:8080", 5s)) << daemon->log();
    // The probes of both links now reach the application server.
    EXPECT_TRUE(waitFor(
            [&] {
                const std::string log = lab->connectionLog();
                return log.find("app accept peer=10.66.1.2:") != std::string::npos &&
                       log.find("app accept peer=10.66.2.2:") != std::string::npos;
            },
            10s))
            << lab->connectionLog();
    ASSERT_TRUE(client.send(10, ""));
    ASSERT_TRUE(daemon->waitForLog("SlaTcpSocketMonitor stopped", 10s));
    EXPECT_TRUE(daemon->stopThroughProperty()) << daemon->log();
}

TEST_F(MonitorsE2E, DualWifiMonitorMovesTheCascadeOffACutLinkAndBack) {
    sim = startSimulator(root, "wlan0=800kbit\nwlan1=800kbit\n");
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=200\nideal_est_window=1000\n"));
    ASSERT_TRUE(client.send(1, "wlan0,wlan1"));
    ASSERT_TRUE(waitFor([&] { return cascade() == "wlan0=0.50 wlan1=1.00"; }, 20s))
            << cascade() << "\n" << daemon->log();

    ASSERT_TRUE(client.send(6, "1"));
    ASSERT_TRUE(daemon->waitForLog("DoubleWifiMonitor started", 5s));
    ASSERT_TRUE(lab->cut("wlan1"));
    ASSERT_TRUE(waitFor([&] { return cascade() == "wlan0=1.00 wlan1=0.00"; }, 20s))
            << cascade() << "\n" << daemon->log();
    EXPECT_EQ(daemon->countLog("dual Wi-Fi selection 1 (wlan0 only), was 0"), 1u);

    ASSERT_TRUE(lab->restore("wlan1"));
    ASSERT_TRUE(waitFor([&] { return cascade() == "wlan0=0.50 wlan1=1.00"; }, 20s))
            << cascade() << "\n" << daemon->log();

    ASSERT_TRUE(client.send(6, "0"));
    ASSERT_TRUE(daemon->waitForLog("DoubleWifiMonitor stopped", 10s)) << daemon->log();
    EXPECT_TRUE(daemon->stopThroughProperty()) << daemon->log();
}

}  // namespace
}  // namespace test
}  // namespace vord
