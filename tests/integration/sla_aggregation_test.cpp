// Link aggregation end to end: the daemon with the statistics simulator standing
// in for the kernel module, and a recording stand-in for the rule tool.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <sstream>
#include <thread>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

using std::chrono::seconds;

struct Rule {
    double probability;
    std::string target;
};

class SlaAggregationTest : public DaemonTest {
  protected:
    void TearDown() override {
        if (simPid > 0) {
            ::kill(simPid, SIGTERM);
            waitpid(simPid, nullptr, 0);
        }
    }

    void startSimulator() {
        std::string bin = binPath("sla_stats_sim"), rootDir = root.path(), rates = root.at("/sim/rates");
        std::string log = root.at("/sim/out.log");
        simPid = fork();
        if (simPid == 0) {
            int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(fd, STDOUT_FILENO);
            dup2(fd, STDERR_FILENO);
            int null = open("/dev/null", O_RDONLY);
            dup2(null, STDIN_FILENO);
            execl(bin.c_str(), bin.c_str(), "--root", rootDir.c_str(), "--rates-file", rates.c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        ASSERT_TRUE(waitFor([&] { return simLog().find("config channel") != std::string::npos; }, seconds(10)))
            << simLog();
    }

    std::string simLog() const { return root.readFile("/sim/out.log"); }

    template <typename Pred>
    static bool waitFor(Pred pred, std::chrono::milliseconds timeout) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < deadline) {
            if (pred()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return pred();
    }

    // The ratio rules written so far, in order.
    std::vector<Rule> ratioRules() const {
        std::vector<Rule> rules;
        std::stringstream ss(root.recordedCommands());
        std::string line;
        while (std::getline(ss, line)) {
            if (line.find("-A vexo_SLA -p tcp") == std::string::npos) continue;
            Rule r;
            char target[128] = {};
            size_t at = line.find("--probability ");
            if (at == std::string::npos ||
                sscanf(line.c_str() + at, "--probability %lf -j %127s", &r.probability, target) != 2) {
                continue;
            }
            r.target = target;
            rules.push_back(r);
        }
        return rules;
    }

    // True when the newest cascade is wlan0 with `wlan0` (and the cellular link
    // with the rest, always 1 once Wi-Fi has taken its share).
    bool newestCascadeIs(double wlan0) const {
        std::vector<Rule> rules = ratioRules();
        if (rules.size() < 2) return false;
        const Rule& w = rules[rules.size() - 2];
        const Rule& c = rules.back();
        return w.target == "vexo_fw_wlan0" && std::abs(w.probability - wlan0) <= 0.01 &&
               c.target == "vexo_fw_rmnet_data0_wrapper" && std::abs(c.probability - 1.0) < 1e-6;
    }

    pid_t simPid = -1;
};

TEST_F(SlaAggregationTest, RulesFollowSimulatedRatesAndIgnoreSmallMoves) {
    root.installRecordingTool("iptables-wrapper-1.0");
    root.installRecordingTool("ip-wrapper-1.0");
    // wlan0 at twice the rate of the metered rmnet_data0, both under the byte cap
    // of one estimate at five 100 ms records.
    root.writeFile("/sim/rates", "wlan0=1200kbit\nrmnet_data0=600kbit\n");
    ASSERT_NO_FATAL_FAILURE(startSimulator());
    ASSERT_NO_FATAL_FAILURE(
        startDaemon("mini_est_interval=200\nideal_est_window=1000\nwan_threshold=100\n"));
    ASSERT_TRUE(client.connect(seconds(10)));
    ASSERT_TRUE(client.send(1, "wlan0,rmnet_data0"));

    // Below "wifi_threshold" (1600): Wi-Fi takes 1200/1600 of new connections and
    // the cellular rule, after it, all that is left.
    ASSERT_TRUE(waitFor([&] { return newestCascadeIs(0.75); }, seconds(15)))
        << root.recordedCommands() << daemon.log();
    const std::string sim = simLog();
    EXPECT_NE(std::string::npos, sim.find("config: iface=rmnet_data0\nconfig: iface=wlan0\nconfig: enable=1"))
        << sim;

    // 1180 kbit/s moves 1.25 % of the share: measured, but not applied.
    std::this_thread::sleep_for(seconds(1));
    const size_t before = ratioRules().size();
    root.writeFile("/sim/rates", "wlan0=1180kbit\nrmnet_data0=600kbit\n");
    ASSERT_TRUE(waitFor([&] {  // ratio lines come at most every 6 s
        const std::string log = daemon.log();
        for (size_t at = log.find("LRE = "); at != std::string::npos; at = log.find("LRE = ", at + 1)) {
            unsigned rate = 0;
            if (sscanf(log.c_str() + at, "LRE = %u", &rate) == 1 && rate >= 1170 && rate < 1190) return true;
        }
        return false;
    }, seconds(15))) << daemon.log();
    EXPECT_EQ(before, ratioRules().size()) << root.recordedCommands();

    // 800 kbit/s: Wi-Fi's share drops to 0.5 and the cascade is rewritten.
    root.writeFile("/sim/rates", "wlan0=800kbit\nrmnet_data0=600kbit\n");
    EXPECT_TRUE(waitFor([&] { return newestCascadeIs(0.5); }, seconds(15))) << root.recordedCommands();
    EXPECT_GT(ratioRules().size(), before);

    EXPECT_TRUE(daemon.stopThroughProperty());
    EXPECT_TRUE(waitFor([&] { return simLog().find("config: enable=0") != std::string::npos; }, seconds(5)));
}

}  // namespace
}  // namespace test
}  // namespace vord
