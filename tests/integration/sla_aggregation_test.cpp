// Link aggregation end to end: the daemon with the statistics simulator standing
// in for the kernel module, and a recording stand-in for the rule tool.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <thread>
#include <vector>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

using std::chrono::seconds;

// What follows each occurrence of `key` in `text`, in order; points into `text`.
std::vector<const char*> after(const std::string& text, const char* key) {
    std::vector<const char*> out;
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        out.push_back(text.c_str() + at + strlen(key));
    }
    return out;
}

class SlaAggregationTest : public DaemonTest {
  protected:
    std::string simLog() const { return root.readFile("/sim/out.log"); }

    // True when the newest cascade gives wlan0 `wlan0` of new connections and
    // the cellular link, after it, all that is left.
    bool newestCascadeIs(double wlan0) const {
        const std::string cmds = root.recordedCommands();
        std::vector<const char*> p = after(cmds, "--probability ");
        double w = 0, c = 0;
        int wOk = 0, cOk = 0;
        if (p.size() >= 2) sscanf(p[p.size() - 2], "%lf -j vexo_fw_wlan0\n%n", &w, &wOk);
        if (p.size() >= 2) sscanf(p.back(), "%lf -j vexo_fw_rmnet_data0_wrapper\n%n", &c, &cOk);
        return wOk > 0 && cOk > 0 && std::abs(w - wlan0) <= 0.01 && c == 1.0;
    }
    size_t ruleCount() const { return after(root.recordedCommands(), "--probability ").size(); }

    std::unique_ptr<Spawned> sim;
};

TEST_F(SlaAggregationTest, RulesFollowSimulatedRatesAndIgnoreSmallMoves) {
    root.installRecordingTool("iptables-wrapper-1.0");
    root.installRecordingTool("ip-wrapper-1.0");
    // wlan0 at twice the rate of the metered rmnet_data0, both under the byte cap
    // of one estimate at five 100 ms records.
    sim = startSimulator(root, "wlan0=1200kbit\nrmnet_data0=600kbit\n");
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=200\nideal_est_window=1000\nwan_threshold=100\n"));
    ASSERT_TRUE(client.connect(seconds(10)));
    ASSERT_TRUE(client.send(1, "wlan0,rmnet_data0"));

    // Below "wifi_threshold" (1600): Wi-Fi takes 1200/1600 of new connections.
    ASSERT_TRUE(waitFor([&] { return newestCascadeIs(0.75); }, seconds(15)))
        << root.recordedCommands() << daemon.log();

    // 1180 kbit/s moves 1.25 % of the share: measured, but not applied.
    std::this_thread::sleep_for(seconds(1));
    const size_t before = ruleCount();
    root.writeFile("/sim/rates", "wlan0=1180kbit\nrmnet_data0=600kbit\n");
    ASSERT_TRUE(waitFor([&] {  // ratio lines come at most every 6 s
        const std::string log = daemon.log();
        for (const char* rate : after(log, "LRE = ")) {
            if (atoi(rate) >= 1170 && atoi(rate) < 1190) return true;
        }
        return false;
    }, seconds(15))) << daemon.log();
    EXPECT_EQ(before, ruleCount()) << root.recordedCommands();

    // 800 kbit/s: Wi-Fi's share drops to 0.5 and the cascade is rewritten.
    root.writeFile("/sim/rates", "wlan0=800kbit\nrmnet_data0=600kbit\n");
    EXPECT_TRUE(waitFor([&] { return newestCascadeIs(0.5); }, seconds(15))) << root.recordedCommands();
    EXPECT_TRUE(daemon.stopThroughProperty());
    EXPECT_TRUE(waitFor([&] { return simLog().find("config: enable=0") != std::string::npos; }, seconds(5)));
}

}  // namespace
}  // namespace test
}  // namespace vord
