// The link lab itself: delays as set over IPv4 and IPv6 (an IPv6-only link
// carries no IPv4), cuts, routing, the application client, the probe server's
// modes and a teardown that leaves nothing behind. The daemon inside the lab
// (and the carrier, which it follows) is the other end-to-end tests' business.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>

#include "LinkLab.h"

namespace {

using namespace vord::test;

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

class LinkLabE2E : public LabTest {};

// One lab through every phase: delays, routing and the application client, cuts,
// the probe exchange in each probe-server mode, and the teardown.
TEST_F(LinkLabE2E, DelaysRoutesCutsProbeServerModesAndTeardown) {
    const std::vector<LinkLab::Link> links = {{"wlan0", 20}, {"wlan1", 25}, {"rmnet_data0", 15, true}};
    ASSERT_NO_FATAL_FAILURE(buildLab(links, "wlan0"));
    // A counter of one link in the lab's status ("dropped", ...).
    auto counter = [&](const std::string& link, const std::string& field) {
        const std::string status = lab->status();
        const size_t line = status.find("\n" + link + " ");
        return line == std::string::npos ? -1 : LinkLab::field(status.substr(line, status.find('\n', line + 1) - line), field);
    };
    auto rttUs = [&](const std::string& link, const std::string& args = "") {
        return LinkLab::field(lab->probe(link, args), "rtt_us");
    };
    // The kernel RTT of each link is twice its one-way delay; a probe again when a
    // busy machine stretched one sample.
    auto expectRtt = [&](const std::string& link, int oneWayMs, const std::string& args = "") {
        const long want = 2000L * oneWayMs, slack = 1000 + want / 20;
        long rtt = -1;
        for (int attempt = 0; attempt < 3 && std::labs(rtt - want) > slack; ++attempt) rtt = rttUs(link, args);
        EXPECT_NEAR(rtt, want, slack) << link << args;
    };
    // Over IPv6 a socket bound to a link that does not carry the main route finds
    // one only through the link's oif rule.
    for (const LinkLab::Link& l : links) {
        if (!l.ipv6Only) expectRtt(l.name, l.oneWayMs);
        expectRtt(l.name, l.oneWayMs, "-6");
    }
    EXPECT_EQ(rttUs("rmnet_data0", "--exchanges 1 --timeout 300"), -1);  // no IPv4 there
    // Every probe left through its own link and address.
    const std::string connections = lab->connectionLog();
    for (size_t i = 0; i < links.size(); ++i) {
        const std::string n = std::to_string(i + 1);
        EXPECT_EQ(connections.find("echo accept peer=10.66." + n + ".2:") != std::string::npos, !links[i].ipv6Only);
        EXPECT_NE(connections.find("echo accept peer=[fd66:66:" + n + "::2]:"), std::string::npos);
        EXPECT_NE(connections.find(" link=" + links[i].name + "\n"), std::string::npos) << connections;
    }
    ASSERT_TRUE(lab->setDelay("wlan0", 5));
    expectRtt("wlan0", 5);
    EXPECT_NE(lab->status().find("wlan0 delay=5ms rtt=10ms state=up"), std::string::npos) << lab->status();
    EXPECT_FALSE(lab->setDelay("wlan7", 5));

    // The app client follows the main route, in each family.
    auto app = lab->startClient(10123);
    EXPECT_EQ(LabClient::linkOf(app->waitForLine("connected ", 5s)), "wlan0") << app->output();
    EXPECT_EQ(lab->connections(10123, 3, true), "connections=3 failed=0 wlan0=3\n");

    // A cut drops what comes in; the other links are untouched; a restore carries again.
    ASSERT_TRUE(lab->cut("wlan0"));
    EXPECT_EQ(rttUs("wlan0", "--exchanges 1 --timeout 300"), -1);
    EXPECT_GT(rttUs("rmnet_data0", "-6 --exchanges 1 --timeout 300"), 0);
    EXPECT_NE(lab->status().find("wlan0 delay=5ms rtt=10ms state=cut"), std::string::npos);
    EXPECT_GT(counter("wlan0", "dropped"), 0) << lab->status();
    ASSERT_TRUE(lab->restore("wlan0"));
    EXPECT_GT(rttUs("wlan0", "--exchanges 1 --timeout 1000"), 0);
    EXPECT_FALSE(lab->cut("wlan9"));

    // The daemon's probe exchange (58 bytes out, a receive of up to 60 with
    // MSG_WAITALL bounded by its time-out) in each probe-server mode: exact
    // echoes (each exchange waits for the time-out), fill completes it in one
    // round trip, close answers and ends at once, silent never answers.
    const std::string daemonLike = "--receive 60 --timeout 300 --exchanges 3";
    EXPECT_GE(LinkLab::field(lab->probe("wlan0", daemonLike), "elapsed_ms"), 3 * 300);
    ASSERT_TRUE(lab->setProbeServer("fill"));
    const std::string fill = lab->probe("wlan0", daemonLike);
    EXPECT_EQ(LinkLab::field(fill, "exchanges"), 3) << fill;
    EXPECT_NEAR(LinkLab::field(fill, "rtt_us"), 10000, 1500) << fill;
    EXPECT_EQ(LinkLab::field(lab->probe("wlan0"), "exchanges"), 10) << "echo intact in fill mode";
    ASSERT_TRUE(lab->setProbeServer("close"));
    EXPECT_LT(LinkLab::field(lab->probe("wlan0", daemonLike), "elapsed_ms"), 300);
    ASSERT_TRUE(lab->setProbeServer("silent"));
    EXPECT_NE(lab->probe("wlan0", daemonLike).find("no exchange"), std::string::npos);

    // Down leaves no namespace, process or file behind.
    const std::string name = lab->name(), status = lab->status();
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
