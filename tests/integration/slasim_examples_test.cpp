// The examples of `sla_stats_sim --help`, run as printed: the record interval
// each gets for the daemon's limits. (The daemon reading the simulator's rates:
// status_snapshot_test.)
#include <sstream>
#include <vector>

#include "DaemonTest.h"

namespace {

using namespace vord::test;


// The interval the simulator starts with, or its refusal, for the daemon's limits
// (vord.conf in the root when given, else the defaults); the first rows are the
// help's examples.
TEST(SlaStatsSimHelp, ExamplesAndIntervalsFitTheDaemonsEstimatorOrAreRefused) {
    std::string help;
    ASSERT_EQ(shell(binPath("sla_stats_sim") + " --help", &help), 0);
    std::vector<std::string> printed;
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 16, "  sla_stats_sim ") == 0) printed.push_back(line.substr(2));
    }
    EXPECT_EQ(printed, (std::vector<std::string>{"sla_stats_sim wlan0=1200kbit rmnet_data0=600kbit",
                                                "sla_stats_sim wlan0=8mbit rmnet_data0=4mbit"}))
        << help;
    const struct {
        const char* conf;  // nullptr: none
        const char* args;
        int status;
        const char* output;
        const char* input = "";  // stdin lines
    } cases[] = {
        {nullptr, "wlan0=1200kbit rmnet_data0=600kbit", 124, "record interval 100 ms"},
        {nullptr, "wlan0=8mbit rmnet_data0=4mbit", 124, "record interval 18 ms"},
        {nullptr, "--interval 100 wlan0=8mbit", 2, "use --interval 18 or shorter"},
        {nullptr, "wlan0=100mbit", 2, "the highest readable rate is 75000 kbit"},
        {"estimate_pack_num=10 # x\nideal_est_window = 400\n", "wlan0=1200kbit", 124,
         "record interval 40 ms"},
        {"estimate_pack_num=10\n", "wlan0=2mbit", 124, "record interval 32 ms"},
        // Refused while running as at the start; the link keeps its rate.
        {nullptr, "wlan0=1000kbit", 124, "refused wlan0=102399998976kbit is more than vord can read",
         "wlan0=99999999mbit\\nwlan0=1000kbit\\n"},
        {nullptr, "--root /nonexistent wlan0=1kbit", 2, "the root /nonexistent is not a directory"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        TempRoot root;
        if (c.conf != nullptr) root.writeConf(c.conf);
        std::string out;
        EXPECT_EQ(shell(std::string("printf '") + c.input + "' | timeout 0.5 " + binPath("sla_stats_sim") +
                            " --no-config --root " + root.path() + " " + c.args,
                        &out),
                  c.status);
        EXPECT_NE(out.find(c.output), std::string::npos) << out;
    }
}

}  // namespace
