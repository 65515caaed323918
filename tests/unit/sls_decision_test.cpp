// The selection decision: ranking and tie rules, the hysteresis window, the
// game-mode check and the VoIP probe target.
#include "SlsTestSupport.h"

#include "monitors/MonitorAdapters.h"

#include <string>

namespace {

using slstest::SlsTest;
using Strings = std::vector<std::string>;

std::string fastest(SmartLinkSelection* engine) {
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    InterfaceRtt* best = engine->getFastestInterface();
    return best ? best->ifname : "";
}

TEST_F(SlsTest, RankingAndTieRules) {
    engine->calcInterface();  // an empty map changes nothing
    EXPECT_TRUE(log->contains("E/MUX-Vord-SlaPing: calcInterface SLA_RTT Fastest Interface returned NULL"));
    EXPECT_TRUE(switches.empty());
    for (const char* record : {slstest::kWlan0, slstest::kWlan1, slstest::kRmnet}) registerInterface(record);
    params->setGamingUids("10123,10456");
    params->populateGamingUids();
    // Nothing selected: the higher level wins, a tie goes to the primary link.
    struct Case { int wlan0, wlan1, rmnet; const char* best; };
    for (const Case& c : {Case{9, 0, 10, "rmnet_data0"}, Case{9, 0, 8, "wlan0"}, Case{11, 11, 8, "wlan0"},
                          Case{0, 3, 0, "wlan1"}, Case{0, 0, 0, "wlan0"}}) {
        addLink("wlan0", c.wlan0);
        addLink("wlan1", c.wlan1);
        addLink("rmnet_data0", c.rmnet);
        EXPECT_EQ(c.best, fastest(engine)) << c.wlan0 << "/" << c.wlan1 << "/" << c.rmnet;
    }
    // Before any sample the primary is switched to at once.
    engine->calcInterface();
    EXPECT_EQ("wlan0", current());
    EXPECT_EQ(Strings{"wlan0"}, switches);
    EXPECT_EQ((Strings{"10123", "10456"}), kills);
    EXPECT_TRUE(log->contains("calcInterface SLA_RTT_SELECTED current =  wlan0 , prvious = NULL"));
    // With wlan1 current, a tie at 11 keeps it: the current Wi-Fi link wins.
    setLevel("wlan1", 11);
    setLevel("wlan0", 5);
    engine->calcInterface();
    setLevel("wlan0", 11);
    engine->calcInterface();
    EXPECT_EQ("wlan1", current());
    EXPECT_EQ((Strings{"wlan0", "wlan1"}), switches);
}

TEST_F(SlsTest, HysteresisHoldsASwitchForTheWindowUnlessTheCurrentLinkFails) {
    set("t_hyst_s", "10");
    addLink("wlan0", 11);
    addLink("rmnet_data0", 0);
    engine->calcInterface();  // switch at T
    ASSERT_EQ(Strings{"wlan0"}, switches);
    setLevel("rmnet_data0", 10);
    setLevel("wlan0", 9);
    advance(3);
    engine->calcInterface();
    EXPECT_EQ("wlan0", current());
    EXPECT_TRUE(log->contains("SLA_LINK in cycle, switch not allowed-----*** calc 3000  config delta 10000"));
    advance(7);
    engine->calcInterface();
    EXPECT_EQ("rmnet_data0", current());
    EXPECT_TRUE(log->contains("SLA_LINK time elapsed, ready for switch calc 10000  config delta 10000"));
    EXPECT_EQ((Strings{"wlan0", "rmnet_data0"}), switches);

    // The current link fails 3 s after the last switch: the count is cleared.
    setLevel("rmnet_data0", 1);
    setLevel("wlan0", 9);
    advance(3);
    engine->calcInterface();
    EXPECT_EQ("wlan0", current());
    EXPECT_TRUE(log->contains("SLA_LINK in cycle, but good to switch - calc 3000  config delta 10000"));
    EXPECT_EQ(3u, switches.size());
}

TEST_F(SlsTest, TwoSwitchesPerWindowWithNHystTwo) {
    set("t_hyst_s", "10");
    params->setNHyst(2);
    addLink("wlan0", 11);
    addLink("rmnet_data0", 0);
    engine->calcInterface();  // no previous link: taken whatever the count
    setLevel("rmnet_data0", 10);
    setLevel("wlan0", 9);
    advance(1);
    engine->calcInterface();
    setLevel("wlan0", 11);
    advance(1);
    engine->calcInterface();  // count 2 reached: refused
    EXPECT_EQ((Strings{"wlan0", "rmnet_data0"}), switches);
    EXPECT_EQ("rmnet_data0", current());
    EXPECT_EQ(1u, log->count("switch not allowed"));
}

TEST_F(SlsTest, VoipPeerBecomesTheProbeTargetOnlyWhileTheServerIsTheDefault) {
    vord::test::TempRoot::writeAt(vord::resolvePath("/proc/sla/sla_voip_state"), "16777343,20480");
    engine->setVoipIpAddressAndPort();  // no call
    EXPECT_EQ(VORD_DEFAULT_RTT_SERVER, params->getRttServer());
    params->setVoipRunning(true);
    params->setGamingRttServer("10.1.2.3");
    engine->setVoipIpAddressAndPort();  // not the default server
    EXPECT_EQ("10.1.2.3", params->getRttServer());
    EXPECT_EQ(443, params->getRttServerPort());
    params->setGamingRttServer(VORD_DEFAULT_RTT_SERVER);
    engine->setVoipIpAddressAndPort();
    EXPECT_EQ("127.0.0.1", params->getRttServer());
    EXPECT_EQ(80, params->getRttServerPort());

    // Zero fields change nothing.
    params->setGamingRttServer(VORD_DEFAULT_RTT_SERVER);
    vord::test::TempRoot::writeAt(vord::resolvePath("/proc/sla/sla_voip_state"), "16777343,65536");
    engine->setVoipIpAddressAndPort();
    EXPECT_EQ(VORD_DEFAULT_RTT_SERVER, params->getRttServer());
}

TEST_F(SlsTest, GameModeCheckEndsAfterSixSecondsOnWifiAndACellularLinkResetsTheTimer) {
    registerInterface(slstest::kWlan0);
    registerInterface(slstest::kRmnet);
    params->setGamingRunning(2);
    params->setGamingAiModeCheckRtt(true);
    addLink("wlan0", 11);
    addLink("rmnet_data0", 0);
    engine->slsChooseInterface();  // on wlan0: the timer starts
    advance(5);
    engine->slsChooseInterface();
    setLevel("rmnet_data0", 10);
    setLevel("wlan0", 5);
    advance(1);
    engine->slsChooseInterface();  // switched to rmnet_data0: timer reset
    EXPECT_TRUE(log->contains("gamingAiModeCheck reset timer"));
    setLevel("wlan0", 11);
    setLevel("rmnet_data0", 2);
    advance(1);
    engine->slsChooseInterface();  // back on wlan0: the timer starts again
    advance(5);
    engine->slsChooseInterface();
    EXPECT_TRUE(params->isGamingAiModeCheckRtt());
    advance(1);
    engine->slsChooseInterface();
    EXPECT_FALSE(params->isGamingAiModeCheckRtt());
    EXPECT_TRUE(log->contains("gamingAiModeCheck timeout exit tcping check"));
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    EXPECT_TRUE(engine->slsInterfaceMap().empty());
    EXPECT_EQ(nullptr, engine->currentInterface());
}

TEST_F(SlsTest, SnapshotShowsTheStateWithoutWaiting) {
    addLink("wlan0", 11)->speed = 42;
    engine->calcInterface();
    SlsState state;
    ASSERT_TRUE(SmartLinkSelection::trySnapshotState(state));
    EXPECT_TRUE(state.exists);
    EXPECT_EQ("wlan0", state.current);
    EXPECT_EQ(1, state.switchCount);
    ASSERT_EQ(1u, state.links.size());
    EXPECT_EQ(42, state.links[0].speed);
    {
        // A probe holds the lock: the state published by the last step, at once.
        std::lock_guard<std::mutex> busy(g_slsMapMutex);
        engine->slsInterfaceMap().begin()->second->speed = 99;
        SlsState published;
        EXPECT_TRUE(SmartLinkSelection::trySnapshotState(published));
        EXPECT_EQ("wlan0", published.current);
        EXPECT_EQ(42, published.links.at(0).speed);
    }
}

// The RSSI monitor's penalty sink against the real engine.
TEST_F(SlsTest, PenaltySinkWritesOnlyExistingRecordsAndNothingWithoutTheEngine) {
    InterfaceRtt* wlan7 = addLink("wlan7", 0);
    auto sink = vord::makeSelectionPenaltySink();
    EXPECT_EQ(sink->write({{"wlan7", 30}, {"wlan9", 60}}), 1);
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        EXPECT_EQ(wlan7->rssiPenaltyMs, 30);
        EXPECT_EQ(engine->slsInterfaceMap().count("wlan9"), 0u);  // no record made up
    }
    SmartLinkSelection::finalize();
    EXPECT_EQ(sink->write({{"wlan7", 60}}), -1);
    EXPECT_FALSE(SmartLinkSelection::isInstance());  // not created by the write
}

}  // namespace
