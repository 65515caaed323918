// The status snapshot of the real daemon, and `vordctl status` reading it.
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <thread>

#include "DaemonTest.h"
#include "status/StatusText.h"

namespace vord {
namespace test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using status::LinkStatus;
using status::Snapshot;

constexpr const char* kSnapshot = "/data/vendor/vord/status";

const LinkStatus* findLink(const Snapshot& s, const std::string& name) {
    for (const LinkStatus& l : s.links) {
        if (l.name == name) return &l;
    }
    return nullptr;
}

class StatusSnapshotTest : public DaemonTest {
  protected:
    // Waits until the snapshot on disk parses and satisfies `pred`; `last` keeps
    // the newest one read.
    template <typename Pred>
    bool waitSnapshot(Pred pred, milliseconds timeout = seconds(15)) {
        return waitFor([&] { return status::parse(root.readFile(kSnapshot), &last, nullptr) && pred(last); },
                       timeout);
    }

    Snapshot last;
    std::unique_ptr<Spawned> sim;
};

TEST_F(StatusSnapshotTest, FollowsInterfacesWhitelistRatesAndShutdown) {
    root.installRecordingTool("iptables-wrapper-1.0");
    root.installRecordingTool("ip-wrapper-1.0");
    sim = startSimulator(root, "wlan0=1200kbit\nrmnet_data0=600kbit\n");
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=200\nideal_est_window=1000\nwan_threshold=100\n"));
    ASSERT_TRUE(waitSnapshot([](const Snapshot& s) { return s.state == "running" && s.links.empty(); }))
        << daemon.log();
    EXPECT_EQ(200, last.periodMs);
    EXPECT_EQ("off", last.mode);
    EXPECT_EQ("1.1.1.1", last.probeServer);
    const uint64_t served = last.controlServed;

    ASSERT_TRUE(client.connect(seconds(10)));
    ASSERT_TRUE(client.send(1, "wlan0,rmnet_data0"));
    ASSERT_TRUE(waitSnapshot([](const Snapshot& s) {
        const LinkStatus* w = findLink(s, "wlan0");
        const LinkStatus* r = findLink(s, "rmnet_data0");
        return s.links.size() == 2 && w && r && w->aggregated && r->aggregated && w->rateKbps >= 1150 &&
               w->rateKbps <= 1250 && r->rateKbps >= 570 && r->rateKbps <= 630;
    })) << status::format(last);
    const LinkStatus& w = *findLink(last, "wlan0");
    const LinkStatus& r = *findLink(last, "rmnet_data0");
    EXPECT_EQ("0x200000", w.mark);
    EXPECT_EQ("wlan0", w.table);
    EXPECT_FALSE(w.metered);
    EXPECT_EQ("0x400000", r.mark);
    EXPECT_TRUE(r.metered);
    EXPECT_NEAR(0.75, w.share, 0.03);
    EXPECT_NEAR(0.25, r.share, 0.03);
    EXPECT_GT(last.ruleCommandsRun, 0u);

    ASSERT_TRUE(client.send(2, "10123,10456"));
    ASSERT_TRUE(client.send(4, "192.168.1.1"));
    EXPECT_TRUE(waitSnapshot([&](const Snapshot& s) {
        return s.slaWhitelist == 2 && s.gateways == 1 && s.controlServed == served + 3;
    })) << status::format(last);

    root.writeFile("/sim/rates", "wlan0=800kbit\nrmnet_data0=600kbit\n");
    EXPECT_TRUE(waitSnapshot([](const Snapshot& s) {
        const LinkStatus* l = findLink(s, "wlan0");
        return l && l->rateKbps >= 770 && l->rateKbps <= 830;
    })) << status::format(last);

    ASSERT_TRUE(client.send(1, "wlan0"));
    EXPECT_TRUE(waitSnapshot([](const Snapshot& s) { return s.links.size() == 1 && s.links[0].name == "wlan0"; }))
        << status::format(last);

    ASSERT_TRUE(daemon.stopThroughProperty());
    ASSERT_TRUE(waitSnapshot([](const Snapshot& s) { return s.state == "stopped"; }, seconds(5)));
    ASSERT_EQ(1u, last.links.size());
    EXPECT_FALSE(last.links[0].aggregated);  // aggregation is released at shutdown
}

// The daemon rewrites the file about as fast as its loop runs (a 1 ms period)
// while the content keeps changing; a reader must only ever see whole snapshots.
// The reader pauses 50 us between reads, so that the test does not starve tests
// running next to it.
TEST_F(StatusSnapshotTest, ReaderNeverSeesAPartialFile) {
    root.installRecordingTool("iptables-wrapper-1.0");
    root.installRecordingTool("ip-wrapper-1.0");
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=1\n"));
    ASSERT_TRUE(waitSnapshot([](const Snapshot&) { return true; }));

    std::atomic<bool> done{false};
    size_t reads = 0, bad = 0;
    std::set<int64_t> versions;
    std::string firstBad;
    std::thread reader([&] {
        while (!done.load()) {
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
    });
    ASSERT_TRUE(client.connect(seconds(10)));
    for (int i = 0; i < 150; ++i) {
        client.send(2, i % 2 ? "10123" : "10123,10456");
        std::this_thread::sleep_for(milliseconds(10));
    }
    std::this_thread::sleep_for(milliseconds(300));
    done = true;
    reader.join();
    EXPECT_EQ(0u, bad) << "of " << reads << " reads; first: " << firstBad;
    EXPECT_GT(versions.size(), 20u) << "the daemon should have rewritten the file many times";
    EXPECT_TRUE(daemon.stopThroughProperty());
}

TEST_F(StatusSnapshotTest, VordctlReportsMissingMalformedStuckGoneAndStopped) {
    std::string out;
    EXPECT_EQ(1, vordctl(root, "status", &out));
    EXPECT_NE(out.find("no status snapshot at " + root.at(kSnapshot) + " (is vord running?)"), std::string::npos)
        << out;

    root.writeFile(kSnapshot, "version=1\npid=1\n");
    EXPECT_EQ(1, vordctl(root, "status", &out));
    EXPECT_NE(out.find("is malformed: no end line"), std::string::npos) << out;

    // A live process whose snapshot was last written five seconds ago.
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    Snapshot s;
    s.pid = getpid();
    s.periodMs = 1000;
    s.updatedMonoMs = now.tv_sec * 1000 + now.tv_nsec / 1000000 - 5000;
    root.writeFile(kSnapshot, status::format(s));
    EXPECT_EQ(3, vordctl(root, "status", &out));
    EXPECT_NE(out.find("older than three loop periods"), std::string::npos) << out;
    EXPECT_NE(out.find("LINK"), std::string::npos) << "the table is still shown: " << out;

    pid_t child = fork();
    if (child == 0) _exit(0);
    waitpid(child, nullptr, 0);
    s.pid = child;
    root.writeFile(kSnapshot, status::format(s));
    EXPECT_EQ(3, vordctl(root, "status --json", &out));
    EXPECT_NE(out.find("is not running"), std::string::npos) << out;
    EXPECT_NE(out.find("\"live\":false"), std::string::npos) << out;

    // The real daemon: current while it runs, also under --watch; stopped after.
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=1000\n"));
    ASSERT_TRUE(waitSnapshot([&](const Snapshot& x) { return x.pid != child; }));
    EXPECT_EQ(0, vordctl(root, "status", &out)) << out;
    EXPECT_NE(out.find("loop period 1000 ms"), std::string::npos) << out;
    EXPECT_EQ(0, vordctl(root, "status --json", &out)) << out;
    EXPECT_NE(out.find("\"state\":\"running\""), std::string::npos) << out;

    Spawned watcher({binPath("vordctl"), "status", "--watch"}, root.at("/watch.out"), root.path());
    auto refreshes = [&] {
        const std::string text = root.readFile("/watch.out");
        size_t n = 0;
        for (size_t at = text.find("loop period"); at != std::string::npos; at = text.find("loop period", at + 1)) ++n;
        return n;
    };
    EXPECT_TRUE(waitFor([&] { return refreshes() >= 2; }, seconds(5))) << root.readFile("/watch.out");
    const int ws = watcher.stop(SIGINT);
    EXPECT_TRUE(WIFEXITED(ws) && WEXITSTATUS(ws) == 0) << ws;

    ASSERT_TRUE(daemon.stopThroughProperty());
    EXPECT_EQ(3, vordctl(root, "status", &out));
    EXPECT_NE(out.find("has stopped"), std::string::npos) << out;
}

}  // namespace
}  // namespace test
}  // namespace vord
