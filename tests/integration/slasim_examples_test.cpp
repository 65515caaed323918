// The examples of `sla_stats_sim --help`, run as printed against the real daemon
// with its default configuration: the daemon reads every link's rate and spreads
// new connections as the help says.
#include <stdlib.h>

#include <cmath>
#include <sstream>
#include <thread>
#include <vector>

#include "DaemonTest.h"

namespace vord {
namespace test {
namespace {

struct Example {
    const char* line;  // as printed by --help
    double wlan0Share;
    std::vector<unsigned> rates;  // kbit/s the daemon must read
};

const Example kExamples[] = {
    {"sla_stats_sim wlan0=1200kbit rmnet_data0=600kbit", 0.75, {1200, 600}},
    {"sla_stats_sim wlan0=8mbit rmnet_data0=4mbit", 1.0, {8192, 4096}},
};

// The numbers that follow each occurrence of `key` in `text`.
std::vector<double> numbersAfter(const std::string& text, const std::string& key) {
    std::vector<double> out;
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        out.push_back(atof(text.c_str() + at + key.size()));
    }
    return out;
}

TEST(SlaStatsSimHelp, ListsExactlyTheExamplesTested) {
    std::string help;
    ASSERT_EQ(shell(binPath("sla_stats_sim") + " --help", &help), 0);
    std::vector<std::string> printed;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 16, "  sla_stats_sim ") == 0) printed.push_back(line.substr(2));
    }
    std::vector<std::string> tested;
    for (const Example& e : kExamples) tested.push_back(e.line);
    EXPECT_EQ(printed, tested) << help;
}

// The interval the simulator starts with, or its refusal, for the daemon's limits
// (vord.conf in the root when given, else the defaults).
TEST(SlaStatsSimHelp, IntervalFitsTheDaemonsEstimatorOrIsRefused) {
    const struct {
        const char* conf;  // nullptr: none
        const char* args;
        int status;
        const char* output;
    } cases[] = {
        {nullptr, "wlan0=1200kbit rmnet_data0=600kbit", 124, "record interval 100 ms"},
        {nullptr, "wlan0=8mbit rmnet_data0=4mbit", 124, "record interval 18 ms"},
        {nullptr, "--interval 100 wlan0=8mbit", 2, "use --interval 18 or shorter"},
        {nullptr, "wlan0=100mbit", 2, "the highest readable rate is 75000 kbit"},
        {"estimate_pack_num=10 # x\nideal_est_window = 400\n", "wlan0=1200kbit", 124,
         "record interval 40 ms"},
        {"estimate_pack_num=10\n", "wlan0=2mbit", 124, "record interval 32 ms"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        TempRoot root;
        if (c.conf != nullptr) root.writeConf(c.conf);
        std::string out;
        EXPECT_EQ(shell("timeout 0.5 " + binPath("sla_stats_sim") + " --no-config --root " +
                            root.path() + " " + c.args + " </dev/null",
                        &out),
                  c.status);
        EXPECT_NE(out.find(c.output), std::string::npos) << out;
    }
}

class SlaStatsSimExample : public DaemonTest, public ::testing::WithParamInterface<size_t> {
  protected:
    std::unique_ptr<Spawned> sim;
};

TEST_P(SlaStatsSimExample, DaemonReadsTheRatesAndSpreadsConnections) {
    const Example& example = kExamples[GetParam()];
    root.installRecordingTool("iptables-wrapper-1.0");
    root.installRecordingTool("ip-wrapper-1.0");

    // The example's words as printed; the root comes from VORD_ROOT.
    std::vector<std::string> words;
    std::istringstream split(example.line);
    for (std::string w; split >> w;) words.push_back(w);
    words[0] = binPath(words[0]);
    sim = std::make_unique<Spawned>(words, root.at("/sim.log"), root.path());
    auto simLog = [&] { return root.readFile("/sim.log"); };
    ASSERT_TRUE(waitFor([&] { return simLog().find("config channel") != std::string::npos; },
                        std::chrono::seconds(10)))
        << simLog();

    ASSERT_NO_FATAL_FAILURE(startDaemon(""));  // no vord.conf: the defaults
    ASSERT_TRUE(client.connect(std::chrono::seconds(10)) && client.send(1, "wlan0,rmnet_data0"));

    // The ratio lines (at most one burst every 6 s) show each link's rate.
    auto readAll = [&] {
        const std::vector<double> seen = numbersAfter(daemon.log(), "LRE = ");
        for (unsigned rate : example.rates) {
            bool found = false;
            for (double r : seen) found = found || std::abs(r - rate) <= 0.05 * rate;
            if (!found) return false;
        }
        return true;
    };
    EXPECT_TRUE(waitFor(readAll, std::chrono::seconds(20))) << daemon.log() << simLog();

    // The newest cascade: wlan0's share first, the cellular link's rule after it.
    const std::vector<double> p = numbersAfter(root.recordedCommands(), "--probability ");
    ASSERT_GE(p.size(), 2u) << root.recordedCommands();
    EXPECT_NEAR(p[p.size() - 2], example.wlan0Share, 0.01) << root.recordedCommands();
    EXPECT_NE(root.recordedCommands().rfind("-j vexo_fw_rmnet_data0_wrapper"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(HelpExamples, SlaStatsSimExample,
                         ::testing::Range<size_t>(0, sizeof(kExamples) / sizeof(kExamples[0])));

}  // namespace
}  // namespace test
}  // namespace vord
