// The dual Wi-Fi monitor in the link lab, through the daemon and vordctl: it
// moves the aggregation cascade off a cut Wi-Fi link and back. (The TCP socket
// monitor's probe target is followed in the selection lab test.)
#include <gtest/gtest.h>

#include <stdio.h>

#include <cstdlib>
#include <sstream>

#include "LinkLab.h"

namespace {

using namespace vord::test;

using namespace std::chrono_literals;

// The daemon runs as on the device: not root, with only its two capabilities.
class MonitorsE2E : public LabTest {
  protected:
    MonitorsE2E() { leastPrivilege = true; }
};

TEST_F(MonitorsE2E, DualWifiMonitorMovesTheCascadeOffACutLinkAndBack) {
    ASSERT_NO_FATAL_FAILURE(buildLab({{"wlan0", 5}, {"wlan1", 5}}));
    ASSERT_TRUE(lab->setProbeServer("fill"));  // probes complete in one round trip
    auto sim = startSimulator(root, "wlan0=800kbit\nwlan1=800kbit\n");
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=200\nideal_est_window=1000\nping_interval_ms=300\n"));
    // "wlan0=P wlan1=P" of the "vexo_SLA" cascade in the kernel, in rule order.
    auto cascade = [&] {
        std::istringstream rules(mangle());
        std::string out;
        for (std::string l; std::getline(rules, l);) {
            const size_t p = l.find("--probability "), j = l.find("-j vexo_fw_wlan");
            if (l.compare(0, 12, "-A vexo_SLA ") != 0 || p == std::string::npos || j == std::string::npos) continue;
            char rule[32];
            snprintf(rule, sizeof(rule), "%s%s=%.2f", out.empty() ? "" : " ", l.substr(j + 11, 5).c_str(),
                     std::atof(l.c_str() + p + 14));
            out += rule;
        }
        return out;
    };
    vordctl("ifaces wlan0,wlan1");
    ASSERT_TRUE(waitFor([&] { return cascade() == "wlan0=0.50 wlan1=1.00"; }, 20s)) << cascade() << "\n" << daemon->log();

    vordctl("dw-monitor 1");
    ASSERT_TRUE(daemon->waitForLog("DoubleWifiMonitor started", 5s));
    ASSERT_TRUE(lab->cut("wlan1"));
    ASSERT_TRUE(waitFor([&] { return cascade() == "wlan0=1.00 wlan1=0.00"; }, 20s)) << cascade() << "\n" << daemon->log();
    EXPECT_EQ(daemon->countLog("dual Wi-Fi selection 1 (wlan0 only), was 0"), 1u);
    ASSERT_TRUE(lab->restore("wlan1"));
    ASSERT_TRUE(waitFor([&] { return cascade() == "wlan0=0.50 wlan1=1.00"; }, 20s)) << cascade() << "\n" << daemon->log();
    vordctl("dw-monitor 0");
    ASSERT_TRUE(daemon->waitForLog("DoubleWifiMonitor stopped")) << daemon->log();
    EXPECT_TRUE(daemon->stopThroughProperty()) << daemon->log();
}

}  // namespace
