// The link lab itself: delays as set, cuts, routing, the application client,
// the daemon inside the lab, and a teardown that leaves nothing behind.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>

#include "LinkLab.h"

namespace vord {
namespace test {
namespace {

using namespace std::chrono_literals;

bool pathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// True while `pid` runs (not gone, not a zombie).
bool running(pid_t pid) {
    const std::string stat = readWholeFile("/proc/" + std::to_string(pid) + "/stat");
    const size_t paren = stat.rfind(')');
    return paren != std::string::npos && stat.compare(paren + 2, 1, "Z") != 0;
}

// A counter of one link in the lab's status ("dropped", "up_packets", ...).
long statusField(const LinkLab& lab, const std::string& link, const std::string& field) {
    std::istringstream lines(lab.status());
    for (std::string l; std::getline(lines, l);) {
        if (l.compare(0, link.size() + 1, link + " ") != 0) continue;
        const size_t at = l.find(" " + field + "=");
        if (at != std::string::npos) return std::atol(l.c_str() + at + field.size() + 2);
    }
    return -1;
}

class LinkLabE2E : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string why = LinkLab::unavailable();
        if (!why.empty()) GTEST_SKIP() << "*** SKIPPED: " << why << " ***";
    }
};

// One lab through every phase: delays, routing and the application client, cuts,
// the probe exchange in fill mode, the daemon inside the lab, and the teardown.
TEST_F(LinkLabE2E, DelaysRoutesCutsFillModeDaemonAndTeardown) {
    const std::vector<LinkLab::Link> links = {{"wlan0", 20}, {"wlan1", 25}, {"rmnet_data0", 15}};
    auto lab = std::make_unique<LinkLab>(links, "wlan0");
    ASSERT_EQ(lab->error(), "");
    // The kernel RTT of each link is twice its one-way delay.
    auto expectRtt = [&](const std::string& link, int oneWayMs) {
        const long want = 2000L * oneWayMs, slack = 1000 + want / 20;
        long rtt = -1;
        // A probe again when a busy machine stretched one sample.
        for (int attempt = 0; attempt < 3 && (rtt < 0 || std::labs(rtt - want) > slack);
             ++attempt) {
            rtt = lab->probeRttUs(link);
        }
        EXPECT_NEAR(rtt, want, slack) << link;
    };
    for (const LinkLab::Link& l : links) expectRtt(l.name, l.oneWayMs);
    // Every probe left through its own link and address.
    const std::string connections = lab->connectionLog();
    for (size_t i = 0; i < links.size(); ++i) {
        EXPECT_NE(connections.find("echo accept peer=10.66." + std::to_string(i + 1) + ".2:"),
                  std::string::npos)
            << connections;
        EXPECT_NE(connections.find(" link=" + links[i].name + "\n"), std::string::npos) << connections;
    }
    ASSERT_TRUE(lab->setDelay("wlan0", 5));
    ASSERT_TRUE(lab->setDelay("rmnet_data0", 5));
    expectRtt("wlan0", 5);
    EXPECT_NE(lab->status().find("wlan0 delay=5ms rtt=10ms state=up"), std::string::npos)
        << lab->status();
    EXPECT_FALSE(lab->setDelay("wlan7", 5));

    // Tables named after the links; the app client follows the main route.
    EXPECT_EQ(lab->exec("ip route show table wlan0"), "default via 10.66.1.1 dev wlan0 \n");
    EXPECT_EQ(lab->exec("ip route show table rmnet_data0"),
              "default via 10.66.3.1 dev rmnet_data0 \n");
    EXPECT_NE(lab->exec("ip route show").find("default via 10.66.1.1 dev wlan0"), std::string::npos);
    auto app = lab->startClient(10123);
    const std::string first = app->waitForLine("connected ", 5s);
    ASSERT_NE(first, "") << app->output();
    EXPECT_EQ(LabClient::linkOf(first), "wlan0") << first;
    EXPECT_NE(lab->exec("ss -tne dst 198.18.0.10").find("uid:10123"), std::string::npos);
    // Its socket destroyed after the main route moved: it reconnects there.
    lab->exec("ip route replace default via 10.66.3.1 dev rmnet_data0");
    lab->exec("ss -K dst 198.18.0.10");
    EXPECT_NE(app->waitForLine("connection aborted: ECONNABORTED", 5s), "") << app->output();
    const std::string again = app->waitForLine("reconnected ", 5s);
    EXPECT_EQ(LabClient::linkOf(again), "rmnet_data0") << app->output();
    EXPECT_NE(lab->connectionLog().find("app accept peer=10.66.3.2:"), std::string::npos);

    // A cut drops both ways; the other links are untouched; a restore carries again.
    ASSERT_TRUE(lab->cut("wlan0"));
    const long delivered = statusField(*lab, "wlan0", "down_packets");
    EXPECT_EQ(lab->probeRttUs("wlan0", 1, 300), -1);
    EXPECT_GT(lab->probeRttUs("rmnet_data0", 1, 300), 0);
    EXPECT_NE(lab->status().find("wlan0 delay=5ms rtt=10ms state=cut"), std::string::npos);
    EXPECT_GT(statusField(*lab, "wlan0", "dropped"), 0) << lab->status();
    const std::string fromPeer = "timeout 1 bash -c 'exec 3<>/dev/tcp/10.66.1.2/9'";
    const long dropped = statusField(*lab, "wlan0", "dropped");
    lab->execPeer(fromPeer);
    EXPECT_GT(statusField(*lab, "wlan0", "dropped"), dropped);
    EXPECT_EQ(statusField(*lab, "wlan0", "down_packets"), delivered);
    ASSERT_TRUE(lab->restore("wlan0"));
    EXPECT_NE(lab->execPeer(fromPeer).find("refused"), std::string::npos);  // a reset came back
    EXPECT_GT(lab->probeRttUs("wlan0", 1, 1000), 0);
    // The app's connection over a cut link stalls, then carries on when restored.
    const size_t events = app->linesStartingWith("connection").size();
    ASSERT_TRUE(lab->cut("rmnet_data0"));
    std::this_thread::sleep_for(400ms);
    ASSERT_TRUE(lab->restore("rmnet_data0"));
    const long before = statusField(*lab, "rmnet_data0", "down_packets");
    std::this_thread::sleep_for(400ms);
    EXPECT_GT(statusField(*lab, "rmnet_data0", "down_packets"), before);
    EXPECT_EQ(app->linesStartingWith("connection").size(), events) << app->output();
    EXPECT_FALSE(lab->cut("wlan9"));

    // The daemon's probe exchange: 58 bytes out, a receive of up to 60 with
    // MSG_WAITALL bounded by its time-out; fill mode answers it in one round trip.
    const std::string daemonLike = "--receive 60 --timeout 300 --exchanges 3";
    const std::string exact = lab->probe("wlan0", daemonLike);
    EXPECT_GE(LinkLab::field(exact, "elapsed_ms"), 3 * 300) << exact;  // each at the time-out
    ASSERT_TRUE(lab->setProbeEcho(true));
    EXPECT_NE(lab->status().find(" probe-echo fill\n"), std::string::npos);
    const std::string fill = lab->probe("wlan0", daemonLike);
    EXPECT_EQ(LinkLab::field(fill, "exchanges"), 3) << fill;
    EXPECT_LT(LinkLab::field(fill, "elapsed_ms"), 3 * 300) << fill;
    EXPECT_NEAR(LinkLab::field(fill, "rtt_us"), 10000, 1500) << fill;
    EXPECT_EQ(LinkLab::field(lab->probe("wlan0"), "exchanges"), 10) << "echo intact in fill mode";

    // The daemon runs inside the lab with the real rule tools.
    {
        TempRoot root;
        lab->installTools(root);
        root.writeConf("mini_est_interval=100\n");
        DaemonProcess daemon(root);
        daemon.setCommandPrefix(lab->commandPrefix());
        daemon.start();
        ASSERT_TRUE(daemon.waitUntilServing(20s)) << daemon.log();
        EXPECT_NE(lab->exec("iptables-save -t mangle").find(":vexo_MUX "), std::string::npos);
        std::string pids, comms;
        shell("ip netns pids " + lab->name(), &pids);
        std::istringstream list(pids);
        for (std::string pid; list >> pid;) comms += readWholeFile("/proc/" + pid + "/comm");
        EXPECT_NE(comms.find("vord\n"), std::string::npos) << comms;
        EXPECT_TRUE(daemon.stopThroughProperty()) << daemon.log();
        EXPECT_EQ(lab->exec("iptables-save | grep vexo_"), "");
    }

    // Down leaves no namespace, process or file behind.
    const std::string name = lab->name();
    const std::string status = lab->status();
    const pid_t relay = std::atoi(status.substr(status.find(" pid ") + 5).c_str());
    ASSERT_TRUE(relay > 0 && running(relay)) << status;
    LabClient peerProcess({LinkLab::tool(), "exec", name, "--peer", "--", "sleep", "60"});
    ASSERT_TRUE(waitFor([&] { return readWholeFile("/proc/" + std::to_string(peerProcess.pid()) + "/comm") == "sleep\n"; }));
    ASSERT_TRUE(lab->down());
    std::string netns;
    shell("ip netns list", &netns);
    EXPECT_EQ(netns.find(name), std::string::npos) << netns;
    EXPECT_FALSE(pathExists("/etc/netns/" + name));
    EXPECT_FALSE(pathExists("/run/vord-linklab/" + name));
    EXPECT_FALSE(running(relay));
    EXPECT_EQ(waitpid(app->pid(), nullptr, WNOHANG), app->pid()) << "client still running";
    EXPECT_EQ(waitpid(peerProcess.pid(), nullptr, WNOHANG), peerProcess.pid());
    EXPECT_TRUE(lab->down()) << "a second down succeeds";
}

}  // namespace
}  // namespace test
}  // namespace vord
