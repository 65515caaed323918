// Link aggregation and the status snapshot of the real daemon, with the
// statistics simulator standing in for the kernel module and a recording
// stand-in for the rule tool; `vordctl status` reading the snapshot.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <set>
#include <thread>

#include "DaemonTest.h"

namespace {

using namespace vord;
using namespace vord::test;

using std::chrono::milliseconds;
using std::chrono::seconds;
using status::LinkStatus;
using status::Snapshot;

const LinkStatus* findLink(const Snapshot& s, const std::string& name) {
    for (const LinkStatus& l : s.links) {
        if (l.name == name) return &l;
    }
    return nullptr;
}

// wlan0 at twice the rate of the metered rmnet_data0: the cascade carries the
// shares those rates give (a small move is left alone: unit tests); the snapshot follows the
// links, their rates, the whitelist and gateway, an interface removal and the
// shutdown; `vordctl status` shows the running and then the stopped daemon. The
// IPv6 tool refuses every command: one line per rule group says so, and the
// IPv4 rules are what they are without it.
TEST_F(DaemonTest, RulesAndSnapshotFollowSimulatedRatesInterfacesAndShutdown) {
    root.installRecordingTool("ip6tables-wrapper-1.0", "ip6tables: no IPv6 here", 1);
    // Both rates under the byte cap of one estimate at five 100 ms records.
    auto sim = startSimulator(root, "wlan0=1200kbit\nrmnet_data0=600kbit\n");
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=200\nideal_est_window=1000\nwan_threshold=100\n"));
    ASSERT_TRUE(waitSnapshot([](const Snapshot& s) { return s.state == "running" && s.links.empty(); }))
        << daemon.log();
    const uint64_t served = last.controlServed;

    ASSERT_TRUE(client.connect(seconds(10)) && client.send(1, "wlan0,rmnet_data0"));
    // Below "wifi_threshold" (1600): Wi-Fi takes 1200/1600 of new connections.
    const std::vector<std::pair<std::string, double>> cascade{{"vexo_fw_wlan0", 0.75}, {"vexo_fw_rmnet_data0_wrapper", 1}};
    EXPECT_TRUE(waitFor([&] { return newestCascadeIs(cascade) && newestCascadeIs(cascade, "ip6tables-wrapper-1.0"); },
                        seconds(15)))
        << root.recordedCommands() << daemon.log();
    ASSERT_TRUE(waitSnapshot([](const Snapshot& s) {
        const LinkStatus* w = findLink(s, "wlan0");
        const LinkStatus* r = findLink(s, "rmnet_data0");
        return s.links.size() == 2 && w && r && w->aggregated && r->aggregated && w->rateKbps >= 1150 &&
               w->rateKbps <= 1250 && r->rateKbps >= 570 && r->rateKbps <= 630;
    })) << status::format(last);
    EXPECT_NEAR(0.75, findLink(last, "wlan0")->share, 0.03);
    EXPECT_NEAR(0.25, findLink(last, "rmnet_data0")->share, 0.03);
    const LinkStatus* r = findLink(last, "rmnet_data0");
    EXPECT_EQ("0x400000 rmnet_data0 metered", r->mark + " " + r->table + (r->metered ? " metered" : " unmetered"));
    EXPECT_FALSE(findLink(last, "wlan0")->metered);
    EXPECT_GT(last.ruleCommandsRun, 0u);

    ASSERT_TRUE(client.send(2, "10123,10456") && client.send(4, "192.168.1.1"));
    EXPECT_TRUE(waitSnapshot([&](const Snapshot& s) {
        return s.slaWhitelist == 2 && s.gateways == 1 && s.controlServed == served + 3;
    })) << status::format(last);

    // 800 kbit/s: Wi-Fi's share drops to 0.5 and the cascade is rewritten.
    root.writeFile("/sim/rates", "wlan0=800kbit\nrmnet_data0=600kbit\n");
    EXPECT_TRUE(waitFor([&] { return newestCascadeIs({{"vexo_fw_wlan0", 0.5}, {"vexo_fw_rmnet_data0_wrapper", 1}}); },
                        seconds(15)))
        << root.recordedCommands();
    EXPECT_TRUE(waitSnapshot([](const Snapshot& s) {
        const LinkStatus* l = findLink(s, "wlan0");
        return l && l->rateKbps >= 770 && l->rateKbps <= 830;
    })) << status::format(last);

    ASSERT_TRUE(client.send(1, "wlan0"));
    EXPECT_TRUE(waitSnapshot([](const Snapshot& s) { return s.links.size() == 1 && s.links[0].name == "wlan0"; }))
        << status::format(last);

    std::string out;
    EXPECT_EQ(0, vordctl(root, "status", &out)) << out;
    EXPECT_NE(out.find("loop period 200 ms"), std::string::npos) << out;
    EXPECT_NE(out.find("; IPv6 groups failed "), std::string::npos) << out;
    EXPECT_NE(out.find("output: ip6tables: no IPv6 here\\x0a\n"), std::string::npos) << out;
    EXPECT_EQ(0, vordctl(root, "status --json", &out)) << out;
    EXPECT_NE(out.find("\"state\":\"running\""), std::string::npos) << out;
    EXPECT_NE(out.find(",\"ipv6_rule_groups_failed\":"), std::string::npos) << out;
    Spawned watcher({binPath("vordctl"), "status", "--watch"}, root.at("/watch.out"), root.path());
    EXPECT_TRUE(waitFor([&] { return countOf(root.readFile("/watch.out"), "loop period") >= 2; }, seconds(5)))
        << root.readFile("/watch.out");
    const int ws = watcher.stop(SIGINT);
    EXPECT_TRUE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0) << ws;

    ASSERT_TRUE(daemon.stopThroughProperty());
    ASSERT_TRUE(waitSnapshot([](const Snapshot& s) { return s.state == "stopped"; }, seconds(5)));
    // One line per IPv6 group that the refusals left incomplete (teardowns only
    // delete, so they have none): as many as such groups ran, not one per command.
    const std::string cmds = root.recordedCommands(), ip6t = "ip6tables-wrapper-1.0 -w -t mangle ";
    // The entry chain is flushed by each rebuild, and by the start and the stop.
    EXPECT_EQ(countOf(cmds, ip6t + "-F vexo_MUX_wapper") - 2, daemon.countLog("setup_mux_whitelist IPv6 rules incomplete"));
    EXPECT_EQ(countOf(cmds, ip6t + "-A vexo_fw_wlan0 -j ACCEPT"),
              daemon.countLog("E/MUX-Vord-iptablesManager: create_MUX_FWMARK_chain_for_iface IPv6 rules for wlan0 "
                              "incomplete: 5 of 9 commands failed, the first \"/system/bin/ip6tables-wrapper-1.0 -w -t "
                              "mangle -F vexo_fw_wlan0\" exited with status 1: ip6tables: no IPv6 here; IPv4 rules unaffected"));
    EXPECT_EQ(last.ipv6RuleGroupsFailed, daemon.countLog("; IPv4 rules unaffected"));
    // Nor per failed command (only the start-up sweep's two listings log theirs).
    EXPECT_EQ(0u, daemon.countLog("FAIL - ip6tables")) << daemon.log();
    EXPECT_EQ(2u, daemon.countLog("(exit 1): /system/bin/ip6tables")) << daemon.log();
    EXPECT_EQ(last.ipv6RuleCommandsRun, countOf(cmds, "ip6tables-wrapper-1.0 ") + countOf(cmds, "ip-wrapper-1.0 -6 "));
    ASSERT_EQ(1u, last.links.size());
    EXPECT_FALSE(last.links[0].aggregated);  // aggregation is released at shutdown
    EXPECT_EQ(3, vordctl(root, "status", &out));
    EXPECT_NE(out.find("has stopped"), std::string::npos) << out;
    EXPECT_TRUE(waitFor([&] { return countOf(root.readFile("/sim/out.log"), "config: enable=0") > 0; }, seconds(5)));
}

// With "mini_est_interval" 0 the loop rewrites the file as fast as it runs
// while the content keeps changing; a reader must only ever see whole snapshots. The reader pauses 50 us between reads, so that the
// test does not starve tests running next to it.
TEST_F(DaemonTest, AReaderNeverSeesAPartialSnapshot) {
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=0\n"));
    ASSERT_TRUE(waitSnapshot([](const Snapshot&) { return true; }));
    // Records that change the whitelist every 10 ms; reads between them.
    size_t reads = 0, bad = 0;
    std::set<int64_t> versions;
    std::string firstBad;
    ASSERT_TRUE(client.connect(seconds(10)));
    for (int i = 0; i < 180; ++i) {
        if (i < 150) client.send(2, i % 2 ? "10123" : "10123,10456");
        for (const auto end = std::chrono::steady_clock::now() + milliseconds(10); std::chrono::steady_clock::now() < end;) {
            Snapshot s;
            std::string error;
            ++reads;
            if (status::parse(root.readFile(kSnapshot), &s, &error)) {
                versions.insert(s.updatedMonoMs * 1000000 + static_cast<int64_t>(s.controlServed));
            } else if (bad++ == 0) {
                firstBad = error;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    }
    EXPECT_EQ(0u, bad) << "of " << reads << " reads; first: " << firstBad;
    EXPECT_GT(versions.size(), 20u) << "the daemon should have rewritten the file many times";
    EXPECT_TRUE(daemon.stopThroughProperty());
}

// Only a regular file is read (a FIFO does not block), control bytes are shown
// escaped, and a live pid counts only when it is a vord process.
TEST(VordctlStatus, MissingMalformedStuckGoneAndForeignSnapshots) {
    TempRoot root;
    // A live process named vord whose snapshot was last written five seconds ago,
    // one gone, and a live process that is not vord (a reused pid).
    ASSERT_EQ(0, symlink("/bin/sleep", root.at("/vord").c_str()));
    Spawned vord({root.at("/vord"), "60"}, root.at("/vord.log"));
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    Snapshot stuck;
    stuck.pid = vord.pid();
    stuck.periodMs = 1000;
    stuck.updatedMonoMs = now.tv_sec * 1000 + now.tv_nsec / 1000000 - 5000;
    stuck.lastFailedCommand = "/system/bin/ip-wrapper-1.0 rule add";
    stuck.lastFailedResult = "exit 2";
    stuck.lastSwitch = {true, 1763859839000, "wlan0", "rmnet_data0", "stall", "wlan0 stalled"};
    Snapshot gone = stuck, foreign = stuck;
    if ((gone.pid = fork()) == 0) _exit(0);
    waitpid(gone.pid, nullptr, 0);
    foreign.pid = getpid();
    std::string escape = status::format(stuck);
    escape.replace(escape.find("probe_server=") + 13, 0, "\x1b[2J");
    const std::string path = root.at("/data/vendor/vord/status");
    const struct {
        std::string content;  // none when empty; "fifo": a FIFO
        const char* args;
        int status;
        std::vector<std::string> shown;
    } cases[] = {
        {"", "status --json", 1, {"{\"error\":\"no status snapshot at " + path + " (is vord running?)\""}},
        {"version=1\npid=1\n", "status", 1, {"is malformed: no end line"}},
        {escape, "status", 3, {"older than three loop periods", "LINK", "probe target \\x1b[2J:0",
                               "Last failed rule command (exit 2): /system/bin/ip-wrapper-1.0 rule add",
                               "Last switch  wlan0 -> rmnet_data0 at "}},
        {status::format(gone), "status --json", 3,
         {"is not running", "\"live\":false", "\"from\":\"wlan0\",\"to\":\"rmnet_data0\",\"reason\":\"stall\""}},
        {status::format(foreign), "status", 3, {"is not running: that pid is now \""}},
        {"fifo", "status", 1, {"the status snapshot " + path + " is not a regular file"}},
        {"fifo", "status --file", 2, {"--file needs a path"}},
    };
    for (const auto& c : cases) {
        if (c.content == "fifo") {
            unlink(path.c_str());
            ASSERT_EQ(0, mkfifo(path.c_str(), 0644));
        } else if (!c.content.empty()) {
            root.writeFile("/data/vendor/vord/status", c.content);
        }
        std::string out;
        EXPECT_EQ(c.status, vordctl(root, c.args, &out)) << out;
        for (const std::string& text : c.shown) EXPECT_NE(out.find(text), std::string::npos) << text << "\n" << out;
        EXPECT_EQ(out.find('\x1b'), std::string::npos) << out;
    }
}

}  // namespace
