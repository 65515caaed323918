// Link selection through the real daemon with recording stand-in tools, as the
// status snapshot and the daemon's threads show it. The interface names do not
// exist on this host, so every probe fails at binding, before any packet. The
// chains, voice calls, game mode and RTT reports are pinned down by unit tests
// and run through the daemon and the real kernel in the link lab.
#include <signal.h>

#include <thread>

#include "DaemonTest.h"

namespace {

using namespace vord;
using namespace vord::test;

using namespace std::chrono_literals;

TEST_F(DaemonTest, SelectionStartAndStopShowInTheSnapshotAndTheProbeThreads) {
    root.writeFile("/proc/sla/config", "");
    // Without link events: no link-event monitor, so the threads are as they always were.
    ASSERT_NO_FATAL_FAILURE(startDaemon("mini_est_interval=50\nping_interval_ms=50\nt_hyst_s=0\nmin_ping_times=2\nlink_events=0\n"));
    EXPECT_EQ(0u, daemon.countLog("LinkEventMonitor"));
    ASSERT_TRUE(client.connect(5s) && client.send(1, "wlan7,rmnet_data9"));
    ASSERT_TRUE(daemon.waitForLog("preinterfacelist is rmnet_data9"));
    const int idleThreads = threadCount(daemon.pid());
    auto waitThreads = [&](int n) { return waitFor([&] { return threadCount(daemon.pid()) == n; }, 5s); };
    ASSERT_TRUE(waitSnapshot([](const status::Snapshot& s) { return s.links.size() == 2; })) << status::format(last);
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
    // Every probe fails at binding: both links count misses and sit at level 1.
    EXPECT_TRUE(waitSnapshot([](const status::Snapshot& s) {
        if (s.mode != "gaming" || !s.engine || s.gamingUids != 2 || s.links.size() != 2) return false;
        for (const status::LinkStatus& l : s.links) {
            if (!l.probed || l.rttMs != -1 || l.level != 1 || l.misses < 1) return false;
        }
        return true;
    })) << status::format(last);
    // Command 1 takes a link's selection record (and its probe) away with its
    // registry record, and brings both back.
    ASSERT_TRUE(client.send(1, "wlan7"));
    EXPECT_TRUE(daemon.waitForLog("m_slsInterfaceMap del rmnet_data9 success!")) << daemon.log();
    EXPECT_TRUE(waitThreads(idleThreads + 3)) << threadCount(daemon.pid());
    ASSERT_TRUE(client.send(1, "wlan7,rmnet_data9"));
    EXPECT_TRUE(daemon.waitForLog("m_slsInterfaceMap add rmnet_data9 success!")) << daemon.log();
    EXPECT_TRUE(waitThreads(idleThreads + 4)) << threadCount(daemon.pid());

    ASSERT_TRUE(client.send(10, ""));
    EXPECT_TRUE(waitThreads(idleThreads)) << threadCount(daemon.pid());
    EXPECT_TRUE(waitSnapshot([](const status::Snapshot& s) {
        return s.mode == "off" && s.links.size() == 2 && !s.links[0].probed && !s.links[1].probed;
    })) << status::format(last);
    const size_t failures = daemon.countLog("Set interface wlan7 failed.");
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(failures, daemon.countLog("Set interface wlan7 failed."));
    client.close();
    // Any signal that would end the process runs the property's teardown, then
    // exits 0. The stop kept the gaming UIDs: their sockets go at shutdown, in order.
    EXPECT_EQ(daemon.signal(SIGUSR2), 0);
    EXPECT_EQ("", missingInOrder(daemon.log(), {"SIGUSR2 received: cleaning up, then exiting", "Mux disabled",
                                                "destroying TCP sockets: 10123", "destroying TCP sockets: 10456",
                                                "Vord exiting"}));
    EXPECT_NE(root.recordedCommands().find("-X vexo_SLS"), std::string::npos);
}

}  // namespace
