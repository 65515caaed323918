// Link selection through the real daemon with recording stand-in tools. The
// interface names do not exist on this host, so every probe fails at binding,
// before any packet.
#include "DaemonTest.h"
#include "status/StatusText.h"

namespace vord {
namespace test {
namespace {

using namespace std::chrono_literals;

const char* const kConf =
    "mini_est_interval=50\nping_interval_ms=50\nt_hyst_s=0\nmin_ping_times=2\n";

class SlsDaemonTest : public DaemonTest {
  protected:
    void SetUp() override {
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) root.installRecordingTool(tool);
        root.writeFile("/proc/sla/config", "");
        ASSERT_NO_FATAL_FAILURE(startDaemon(kConf));
        ASSERT_TRUE(client.connect(5s));
        ASSERT_TRUE(client.send(1, "wlan7,rmnet_data9"));
        ASSERT_TRUE(daemon.waitForLog("preinterfacelist is rmnet_data9"));
        idleThreads = threadCount(daemon.pid());
        ASSERT_GT(idleThreads, 0);
    }
    void TearDown() override {
        client.close();
        if (daemon.alive()) {
            EXPECT_TRUE(daemon.stopThroughProperty());
        }
    }
    // The recorded commands since the last call.
    std::string newCommands() {
        std::string all = root.recordedCommands();
        std::string fresh = all.substr(std::min(seen, all.size()));
        seen = all.size();
        return fresh;
    }
    bool waitThreads(int n) {
        return waitFor([&] { return threadCount(daemon.pid()) == n; }, 5s);
    }
    int idleThreads = 0;
    size_t seen = 0;
    status::Snapshot last;
    // Waits until the status snapshot parses and satisfies `pred`; `last` keeps the newest.
    template <typename Pred>
    bool waitSnapshot(Pred pred) {
        return waitFor([&] {
            return status::parse(root.readFile("/data/vendor/vord/status"), &last, nullptr) && pred(last);
        });
    }
};

TEST_F(SlsDaemonTest, StartSelectsAndStopRemovesTheChainsAndEveryProbeThread) {
    newCommands();
    ASSERT_TRUE(waitSnapshot([](const status::Snapshot& s) { return s.links.size() == 2; }))
        << status::format(last);
    EXPECT_EQ("off", last.mode);
    for (const status::LinkStatus& l : last.links) EXPECT_FALSE(l.probed) << l.name;
    ASSERT_TRUE(client.send(9, "10123,10456"));
    // Both links fail their probes; at level 1 the tie goes to the last one in key
    // order, nothing being selected yet.
    ASSERT_TRUE(daemon.waitForLog("calcInterface SLA_RTT_SELECTED perform switch ", 10s));
    // Two probe threads, the RSSI monitor and the TCP socket monitor.
    EXPECT_TRUE(waitThreads(idleThreads + 4)) << threadCount(daemon.pid());
    EXPECT_TRUE(daemon.waitForLog("Set interface wlan7 failed."));
    EXPECT_TRUE(daemon.waitForLog("SLA_RTT_SELECTED  UID destroying sockets = 10456"));
    std::string cmds = newCommands();
    for (const char* expected :
         {"-w -t mangle -A vexo_sls_uid_wlan7 -m owner --uid-owner 10123 -j vexo_sls_wlan7",
          "-w -t mangle -A vexo_sls_uid_rmnet_data9 -m owner --uid-owner 10456 -j vexo_sls_rmnet_data9",
          "-w -t mangle -A vexo_SLS -j vexo_sls_uid_"}) {
        EXPECT_NE(std::string::npos, cmds.find(expected)) << expected << "\n" << cmds;
    }
    // Every probe fails at binding: both links count misses and sit at level 1.
    EXPECT_TRUE(waitSnapshot([](const status::Snapshot& s) {
        if (s.mode != "gaming" || !s.engine || s.gamingUids != 2 || s.links.size() != 2) return false;
        for (const status::LinkStatus& l : s.links) {
            if (!l.probed || l.rttMs != -1 || l.level != 1 || l.misses < 1) return false;
        }
        return true;
    })) << status::format(last);

    ASSERT_TRUE(client.send(10, ""));
    EXPECT_TRUE(waitThreads(idleThreads)) << threadCount(daemon.pid());
    // wlan7 comes last in key order: its chains go last.
    for (int i = 0; i < 100 && root.recordedCommands().find("-X vexo_sls_uid_wlan7") == std::string::npos; ++i) {
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_TRUE(waitSnapshot([](const status::Snapshot& s) {
        return s.mode == "off" && s.links.size() == 2 && !s.links[0].probed && !s.links[1].probed;
    })) << status::format(last);
    cmds = newCommands();
    for (const char* expected : {"-w -t mangle -X vexo_sls_uid_wlan7", "-w -t mangle -X vexo_sls_rmnet_data9"}) {
        EXPECT_NE(std::string::npos, cmds.find(expected)) << expected << "\n" << cmds;
    }
    const size_t failures = daemon.countLog("Set interface wlan7 failed.");
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(failures, daemon.countLog("Set interface wlan7 failed."));
}

TEST_F(SlsDaemonTest, VoiceCallGameModeAndRttReport) {
    ASSERT_TRUE(client.send(11, "10123"));
    ASSERT_TRUE(client.send(11, "10456"));  // a call runs already: ignored
    EXPECT_TRUE(waitThreads(idleThreads + 3));  // two probes and the RSSI monitor
    // A link added during the call gets its record and thread at once.
    ASSERT_TRUE(client.send(1, "wlan7,rmnet_data9,wlan8"));
    EXPECT_TRUE(daemon.waitForLog("m_slsInterfaceMap add wlan8 success!"));
    EXPECT_TRUE(waitThreads(idleThreads + 4));
    ASSERT_TRUE(client.send(1, "wlan7,rmnet_data9"));
    EXPECT_TRUE(daemon.waitForLog("m_slsInterfaceMap del wlan8 success!"));
    ASSERT_TRUE(client.send(11, "0"));
    EXPECT_TRUE(waitThreads(idleThreads));
    const std::string config = root.readFile("/proc/sla/config");
    using namespace std::string_literals;
    EXPECT_NE(std::string::npos, config.find("voip_uid=10123\0voip_enable=1\0"s));
    EXPECT_EQ(config.find("voip_enable=1"), config.rfind("voip_enable=1"));  // the second start ignored
    EXPECT_EQ("voip_enable=0\0voip_uid=0\0"s, config.substr(config.size() - 25));

    ASSERT_TRUE(client.send(14, "1"));  // before game mode: nothing
    ASSERT_TRUE(client.send(13, "10123"));
    EXPECT_TRUE(daemon.waitForLog("setGameAiModeEnable enable"));
    EXPECT_TRUE(waitThreads(idleThreads + 2));  // no probes in game mode alone: the monitors
    ASSERT_TRUE(client.send(14, "1"));
    EXPECT_TRUE(daemon.waitForLog("setGameAiModeCheckRtt enable"));
    EXPECT_TRUE(waitThreads(idleThreads + 4));
    ASSERT_TRUE(client.send(12, "abc"));
    EXPECT_TRUE(daemon.waitForLog("update Sls Interfaces Rtt is abc "));
    EXPECT_EQ(1u, daemon.countLog("is not a 32-bit decimal number"));
    ASSERT_TRUE(client.send(10, ""));
    EXPECT_TRUE(waitThreads(idleThreads));
    EXPECT_EQ(1u, daemon.countLog("setGameAiModeCheckRtt enable"));
}

}  // namespace
}  // namespace test
}  // namespace vord
