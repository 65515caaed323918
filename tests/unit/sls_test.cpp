// Link selection: the per-link RTT model (smoothing, misses, levels and their
// hysteresis); the decision (ranking and tie rules, the hysteresis window, the
// game-mode check, the VoIP probe target) on the process-wide engine with a
// hand-driven clock and recorders in place of the rule switch and the socket
// destruction; and the records' probe threads with the feature commands 9 to 14
// that drive them. Probes bind to interface names that do not exist on this
// host, so they fail before any packet leaves.
#include "UnitSupport.h"

#include <sys/time.h>

#include <chrono>

#include "control/ControlState.h"
#include "control/FeatureCommands.h"
#include "lifecycle/MainLoopWakeup.h"
#include "monitors/MonitorAdapters.h"
#include "monitors/RssiStateMonitor.h"
#include "monitors/SlaTcpSocketMonitor.h"
#include "sls/PingThread.h"
#include "sls/ServiceHighRtt.h"
#include "sls/SmartLinkSelection.h"

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using unittest::kRmnet;
using unittest::kWlan0;
using unittest::kWlan1;

using Hist = std::vector<uint32_t>;

class SlsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unittest::stubRuleTools();
        gettimeofday(&clock, nullptr);
        engine = SmartLinkSelection::instance();
        engine->setClock([this] { return clock; });
        engine->setSwitchActions(
            [this](const char* ifname) { switches.push_back(ifname); return 0; },
            [this](const char* uid) { kills.push_back(uid); return 0; });
        log = std::make_unique<vord::LogCapture>();
    }

    void TearDown() override {
        SmartLinkSelection::finalize();
        log.reset();
        unittest::clearRegistry();
        const std::pair<const char*, const char*> defaults[] = {
            {"t_hyst_s", "0"}, {"alpha_percent", "50"}, {"min_ping_times", "5"}, {"n_hyst", "1"},
            {"rtt_server", VORD_DEFAULT_RTT_SERVER}, {"ping_interval_ms", "1000"}};
        for (const auto& kv : defaults) params->setValue(kv.first, kv.second);
        params->setRttServerPort(443);
        params->setGamingRunning(0);
        params->setVoipRunning(false);
        params->setServiceHighRtt(false);
        params->setGamingAiModeCheckRtt(false);
        params->setGamingUids("");
        params->populateGamingUids();
    }

    void set(const char* key, const char* value) { ASSERT_TRUE(params->setValue(key, value)) << key; }

    std::unique_ptr<InterfaceRtt> make(const char* name, int minPingTimes = 5) {
        return std::unique_ptr<InterfaceRtt>(InterfaceRtt::create(name, minPingTimes, true));
    }
    // A record without a probe thread, at `level` (0: not measured).
    InterfaceRtt* addLink(const char* name, int level) {
        InterfaceRtt* r = InterfaceRtt::create(name, 5, true);
        r->level = level;
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        delete engine->slsInterfaceMap()[name];
        engine->slsInterfaceMap()[name] = r;
        return r;
    }
    void setLevels(std::initializer_list<std::pair<const char*, int>> levels) {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (const auto& l : levels) engine->slsInterfaceMap()[l.first]->level = l.second;
    }
    std::string current() {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        return engine->currentInterface() ? engine->currentInterface()->ifname : "";
    }
    // Moves the clock on by `seconds`, then runs one decision (or loop step).
    void after(int seconds, void (SmartLinkSelection::*step)() = &SmartLinkSelection::calcInterface) {
        clock.tv_sec += seconds;
        (engine->*step)();
    }

    Parameters* params = Parameters::instance();
    SmartLinkSelection* engine = nullptr;
    timeval clock{};
    std::vector<std::string> switches, kills;
    std::unique_ptr<vord::LogCapture> log;
};

using InterfaceRttTest = SlsTest;

TEST_F(InterfaceRttTest, FirstSampleThenTwoSlowOnesMoveWifiOneBandDown) {
    auto r = make("wlan0");
    const struct { int raw, speed, level; Hist longH; } steps[] = {
        {80, 80, 11, {80}}, {200, 80, 11, {80, 200}}, {200, 140, 9, {80, 200, 200}}};
    for (const auto& s : steps) {
        r->setSpeed(s.raw);
        EXPECT_EQ(std::make_pair(s.speed, s.level), std::make_pair(r->speed, r->level)) << s.raw;
        EXPECT_EQ(s.longH, r->m_longpreviousSpeed);
        EXPECT_EQ(s.longH, r->m_shortpreviousSpeed);
    }
    EXPECT_EQ(140, r->levelSpeed);
}

TEST_F(InterfaceRttTest, LevelBandsAndTheirTwentyMsHysteresis) {
    // Fresh records: any first level is taken at once. Each band's last speed,
    // its level and the next band's level; then failed, unmeasured, negative.
    const struct { const char* name; int upTo, level, next; } edges[] = {
        {"rmnet_data0", 89, 10, 8}, {"rmnet_data0", 189, 8, 6}, {"rmnet_data0", 289, 6, 4}, {"rmnet_data0", 389, 4, 2},
        {"wlan0", 119, 11, 9},      {"wlan0", 219, 9, 7},       {"wlan0", 319, 7, 5},       {"wlan0", 419, 5, 3},
        {"wlan0", -1, 1, 0},        {"ccmni0", -7, 0, 0}};
    for (const auto& e : edges) {
        for (int above : {0, 1}) {
            auto r = make(e.name);
            r->speed = e.upTo + above;
            r->caclInterfaceLevel();
            EXPECT_EQ(above ? e.next : e.level, r->level) << e.name << " " << r->speed;
        }
    }
    // One band down needs 20 ms more than the speed of the last accepted level
    // (110); a jump over two bands is taken at once.
    auto r = make("wlan0");
    r->level = 11;
    r->levelSpeed = 110;
    const struct { int speed, level, levelSpeed; } steps[] = {{125, 11, 110}, {130, 9, 130}, {331, 5, 331}};
    for (const auto& s : steps) {
        r->speed = s.speed;
        r->caclInterfaceLevel();
        EXPECT_EQ(std::make_pair(s.level, s.levelSpeed), std::make_pair(r->level, r->levelSpeed)) << s.speed;
    }
}

TEST_F(InterfaceRttTest, FiveMissesFailTheLinkAndOneSampleBringsItBack) {
    auto r = make("wlan0");
    r->setSpeed(100);
    for (int i = 0; i < 4; ++i) r->setSpeed(-1);
    EXPECT_EQ(4, r->missCount);
    EXPECT_EQ(std::make_pair(100, 11), std::make_pair(r->speed, r->level));  // bridged with the last sample
    r->setSpeed(-1);
    EXPECT_EQ(std::make_pair(-1, 1), std::make_pair(r->speed, r->level));
    r->setSpeed(-1);  // at the limit
    EXPECT_EQ((Hist{100, 100, 100, 100, 100, 500, 500}), r->m_longpreviousSpeed);
    EXPECT_EQ((Hist{100, 500, 500}), r->m_shortpreviousSpeed);

    r->setSpeed(50);
    EXPECT_EQ(4, r->missCount);
    // short (100+500+500)/3 = 366, long 1500/7 = 214: 183 + 107.
    EXPECT_EQ(std::make_pair(290, 7), std::make_pair(r->speed, r->level));
}

TEST_F(InterfaceRttTest, RawRecordsAlphaExtremesHistoryLengthsAndNames) {
    auto raw = make("wlan0", 1);
    raw->setSpeed(70);
    raw->setSpeed(-1);
    EXPECT_EQ(std::make_pair(-1, 0), std::make_pair(raw->speed, raw->level));
    EXPECT_TRUE(raw->m_longpreviousSpeed.empty());
    auto empty = make("rmnet_data0");  // a miss on an empty history counts as 500
    empty->setSpeed(-1);
    EXPECT_EQ(std::make_pair(500, 2), std::make_pair(empty->speed, empty->level));
    EXPECT_EQ((Hist{500}), empty->m_longpreviousSpeed);

    // Long average 25, short 30: alpha weighs the long one.
    const std::pair<const char*, int> alphas[] = {{"100", 25}, {"0", 30}, {"50", 27}};
    for (const auto& c : alphas) {
        params->setValue("alpha_percent", c.first);
        auto r = make("wlan0");
        r->m_longpreviousSpeed = {10, 20, 30, 40};
        r->m_shortpreviousSpeed = {20, 30, 40};
        r->setSpeed(1000);
        EXPECT_EQ(c.second, r->speed) << "alpha " << c.first;
    }
    auto r = make("wlan0");
    for (int i = 1; i <= 12; ++i) r->setSpeed(i * 10);
    EXPECT_EQ((Hist{30, 40, 50, 60, 70, 80, 90, 100, 110, 120}), r->m_longpreviousSpeed);
    EXPECT_EQ((Hist{100, 110, 120}), r->m_shortpreviousSpeed);
    // Names of up to 14 characters.
    EXPECT_STREQ("rmnet_data0123", make("rmnet_data0123")->ifname);
    EXPECT_EQ(nullptr, InterfaceRtt::create("rmnet_data01234", 5, false));
    EXPECT_EQ(nullptr, InterfaceRtt::create("", 5, false));
}

std::string fastest(SmartLinkSelection* engine) {
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    InterfaceRtt* best = engine->getFastestInterface();
    return best ? best->ifname : "";
}

TEST_F(SlsTest, RankingAndTieRules) {
    engine->calcInterface();  // an empty map changes nothing
    EXPECT_TRUE(switches.empty());
    for (const char* record : {kWlan0, kWlan1, kRmnet}) unittest::addRecord(record);
    params->setGamingUids("10123,10456");
    params->populateGamingUids();
    // Nothing selected: the higher level wins, a tie goes to the primary link.
    const struct { int wlan0, wlan1, rmnet; const char* best; } cases[] = {
        {9, 0, 10, "rmnet_data0"}, {9, 0, 8, "wlan0"}, {11, 11, 8, "wlan0"}, {0, 3, 0, "wlan1"}, {0, 0, 0, "wlan0"}};
    for (const auto& c : cases) {
        addLink("wlan0", c.wlan0);
        addLink("wlan1", c.wlan1);
        addLink("rmnet_data0", c.rmnet);
        EXPECT_EQ(c.best, fastest(engine)) << c.wlan0 << "/" << c.wlan1 << "/" << c.rmnet;
    }
    // Before any sample the primary is switched to at once, and the gaming UIDs' sockets are destroyed.
    engine->calcInterface();
    EXPECT_EQ("wlan0", current());
    EXPECT_EQ(Strings{"wlan0"}, switches);
    EXPECT_EQ((Strings{"10123", "10456"}), kills);
    // A tie at 11 keeps the current Wi-Fi link, whether wlan0 or wlan1.
    setLevels({{"wlan0", 11}, {"wlan1", 11}});
    engine->calcInterface();
    EXPECT_EQ("wlan0", current());
    setLevels({{"wlan0", 5}});
    engine->calcInterface();  // to wlan1
    setLevels({{"wlan0", 11}});
    engine->calcInterface();
    EXPECT_EQ((Strings{"wlan0", "wlan1"}), switches);
}

TEST_F(SlsTest, HysteresisHoldsASwitchForTheWindowUnlessTheCurrentLinkFails) {
    set("t_hyst_s", "10");
    addLink("wlan0", 11);
    addLink("rmnet_data0", 0);
    engine->calcInterface();  // switch at T
    ASSERT_EQ(Strings{"wlan0"}, switches);
    setLevels({{"rmnet_data0", 10}, {"wlan0", 9}});
    after(3);
    EXPECT_EQ("wlan0", current());
    after(7);
    EXPECT_EQ("rmnet_data0", current());
    // The current link fails 3 s after the last switch: the count is cleared.
    setLevels({{"rmnet_data0", 1}, {"wlan0", 9}});
    after(3);
    EXPECT_EQ("wlan0", current());
    EXPECT_EQ((Strings{"wlan0", "rmnet_data0", "wlan0"}), switches);
    // Two switches per window with n_hyst 2: the third is refused, unless
    // nothing is selected (the current link left).
    params->setNHyst(2);
    log->clear();
    setLevels({{"rmnet_data0", 10}, {"wlan0", 9}});
    after(1);
    setLevels({{"wlan0", 11}});
    after(1);
    EXPECT_EQ(4u, switches.size());
    EXPECT_EQ(1u, log->count("switch not allowed"));
    params->setGamingRunning(1);
    engine->updateSlsInterfacemap("rmnet_data0", false);
    after(0);
    EXPECT_EQ((Strings{"wlan0", "rmnet_data0", "wlan0", "rmnet_data0", "wlan0"}), switches);
}

TEST_F(SlsTest, VoipPeerBecomesTheProbeTargetOnlyWhileTheServerIsTheDefault) {
    const std::string state = vord::resolvePath("/proc/sla/sla_voip_state");
    auto target = [&] { return params->getRttServer() + ":" + std::to_string(params->getRttServerPort()); };
    vord::test::TempRoot::writeAt(state, "16777343,20480");
    engine->setVoipIpAddressAndPort();  // no call
    EXPECT_EQ(VORD_DEFAULT_RTT_SERVER ":443", target());
    params->setVoipRunning(true);
    params->setGamingRttServer("10.1.2.3");
    engine->setVoipIpAddressAndPort();  // not the default server
    EXPECT_EQ("10.1.2.3:443", target());
    params->setGamingRttServer(VORD_DEFAULT_RTT_SERVER);
    engine->setVoipIpAddressAndPort();
    EXPECT_EQ("127.0.0.1:80", target());
    // A last octet of 128 or more: the value is above INT32_MAX.
    params->setGamingRttServer(VORD_DEFAULT_RTT_SERVER);
    vord::test::TempRoot::writeAt(state, "3355443210,20480");
    engine->setVoipIpAddressAndPort();
    EXPECT_EQ("10.0.0.200:80", target());
    // A zero field, no comma, under 4 bytes, no file: nothing changes.
    for (const char* text : {"16777343,65536", "1234567", "1,2", ""}) {
        params->setGamingRttServer(VORD_DEFAULT_RTT_SERVER);
        params->setRttServerPort(443);
        if (*text != '\0') vord::test::TempRoot::writeAt(state, text);
        if (*text == '\0') unlink(state.c_str());
        engine->setVoipIpAddressAndPort();
        EXPECT_EQ(VORD_DEFAULT_RTT_SERVER ":443", target()) << text;
    }
    EXPECT_TRUE(log->contains("open voip state file failed:"));
}

TEST_F(SlsTest, GameModeCheckEndsAfterSixSecondsOnWifiAndACellularLinkOrAnEndedCheckResetsTheTimer) {
    const auto choose = &SmartLinkSelection::slsChooseInterface;
    unittest::addRecord(kWlan0);
    unittest::addRecord(kRmnet);
    params->setGamingRunning(2);
    params->setGamingAiModeCheckRtt(true);
    addLink("wlan0", 11);
    addLink("rmnet_data0", 0);
    after(0, choose);  // on wlan0: the timer starts
    params->setGamingAiModeCheckRtt(false);  // a command ends that check mid-dwell
    after(10, choose);
    params->setGamingAiModeCheckRtt(true);  // the next check dwells afresh
    after(0, choose);
    after(5, choose);
    setLevels({{"rmnet_data0", 10}, {"wlan0", 5}});
    after(1, choose);  // switched to rmnet_data0: timer reset
    setLevels({{"wlan0", 11}, {"rmnet_data0", 2}});
    after(1, choose);  // back on wlan0: the timer starts again
    after(5, choose);
    EXPECT_TRUE(params->isGamingAiModeCheckRtt());
    after(1, choose);
    EXPECT_FALSE(params->isGamingAiModeCheckRtt());
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    EXPECT_TRUE(engine->slsInterfaceMap().empty());
    EXPECT_EQ(nullptr, engine->currentInterface());
}

TEST_F(SlsTest, SnapshotShowsTheStateWithoutWaiting) {
    addLink("wlan0", 11)->speed = 42;
    engine->calcInterface();
    // The lock is held (a switch in progress): the state published by the last step, at once.
    std::lock_guard<std::mutex> busy(g_slsMapMutex);
    engine->slsInterfaceMap().begin()->second->speed = 99;
    SlsState state;
    ASSERT_TRUE(SmartLinkSelection::trySnapshotState(state));
    EXPECT_TRUE(state.exists);
    EXPECT_EQ("wlan0", state.current);
    EXPECT_EQ(1, state.switchCount);
    ASSERT_EQ(1u, state.links.size());
    EXPECT_EQ(42, state.links[0].speed);
}

std::string lastSwitch() {
    SlsState state;
    SmartLinkSelection::trySnapshotState(state);
    const SlsLastSwitch& w = state.lastSwitch;
    return w.from + ">" + w.to + " " + w.reason + ": " + w.detail;
}

TEST_F(SlsTest, LinkEventsFailOnlyTheirLinkAtOnceAndABounceDoesNotFlap) {
    InterfaceRtt* wlan0 = addLink("wlan0", 11);
    InterfaceRtt* rmnet = addLink("rmnet_data0", 10);
    engine->calcInterface();
    EXPECT_EQ(">wlan0 initial: no link was selected", lastSwitch());
    vord::sleepUnlessWoken(0s);  // no wake-up pending
    engine->linkDown("wlan0", LinkFailCause::Carrier);
    engine->linkDown("wlan0", LinkFailCause::AdminDown);  // still down: nothing new
    EXPECT_TRUE(vord::sleepUnlessWoken(5s)) << "the main loop was not woken";
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        EXPECT_EQ(std::make_tuple(-1, 1, 5), std::make_tuple(wlan0->speed, wlan0->level, wlan0->missCount));
        EXPECT_EQ(std::make_tuple(0, 10, 0), std::make_tuple(rmnet->speed, rmnet->level, rmnet->missCount));
    }
    EXPECT_EQ(1u, log->count("wlan0 lost carrier: link failed"));
    engine->calcInterface();
    EXPECT_EQ("wlan0>rmnet_data0 carrier-lost: wlan0 lost carrier", lastSwitch());
    // Back: probed at once, alive only through samples; one sample does not win.
    engine->linkUp("wlan0");
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        EXPECT_TRUE(wlan0->probeNow && !wlan0->down);
        wlan0->setSpeed(40);
    }
    engine->calcInterface();
    EXPECT_EQ("rmnet_data0", current());
    // A confirmed stall fails the current link; then the other is the better one.
    engine->linkStalled("rmnet_data0");
    engine->calcInterface();
    EXPECT_EQ("rmnet_data0>wlan0 stall: rmnet_data0 stalled (a probe got no answer)", lastSwitch());
    EXPECT_EQ((Strings{"wlan0", "rmnet_data0", "wlan0"}), switches);
    // A down link is left out while another is up, even at a level above it.
    setLevels({{"rmnet_data0", 0}, {"wlan0", 11}});
    engine->linkDown("wlan0", LinkFailCause::AddressLost);
    engine->calcInterface();
    EXPECT_EQ("wlan0>rmnet_data0 address-lost: wlan0 lost its last IPv4 address", lastSwitch());
    vord::setMainLoopWakeupsEnabled(false);  // "link_events" off: the loop keeps its period
    vord::sleepUnlessWoken(0s);
    addLink("wlan1", 11);
    engine->linkStalled("wlan1");
    EXPECT_EQ(1u, log->count("wlan1 stalled"));
    EXPECT_FALSE(vord::sleepUnlessWoken(1ms));
    vord::setMainLoopWakeupsEnabled(true);
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

constexpr const char* kWlan7 = "wlan7,0,wlan7,0x200000,1,0,0,0,ffffffffffff";
constexpr const char* kRmnet9 = "rmnet_data9,1,rmnet_data9,0x600000,0,0,0,0,ffffffffffff";
constexpr const char* kWlan8 = "wlan8,0,wlan8,0x400000,0,0,0,1,ffffffffffff";

// Probe threads are counted by the threads themselves: a thread just joined
// can still be listed under /proc for a moment.
class SlsEngineTest : public SlsTest {
  protected:
    void SetUp() override {
        SlsTest::SetUp();
        set("ping_interval_ms", "20");
        setControlParameters(params);
        unittest::addRecord(kWlan7);
        unittest::addRecord(kRmnet9);
    }
    void TearDown() override {
        SlsTest::TearDown();
        EXPECT_EQ(0, liveProbeThreads()) << "a probe thread outlived the engine";
    }
    // The probed links as "name:RTA" (running, thread, alive; '-' where not) and
    // the probe threads beyond the monitors', e.g. "rmnet_data9:RTA wlan7:RTA +2".
    std::string links() {
        std::string out;
        {
            std::lock_guard<std::mutex> lock(g_slsMapMutex);
            for (auto& e : engine->slsInterfaceMap()) {
                const InterfaceRtt* r = e.second;
                out += e.first + ":" + (r->running ? "R" : "-") + (r->thread != InterfaceRtt::noThread() ? "T" : "-") +
                       (r->alive ? "A" : "-") + " ";
            }
        }
        return out + "+" + std::to_string(liveProbeThreads());
    }
    // Running mode, n_hyst, min_ping_times, the game-mode check.
    std::string mode() {
        return std::to_string(params->isGamingRunning()) + " " + std::to_string(params->getNHyst()) + " " +
               std::to_string(params->getMinPingTimes()) + (params->isGamingAiModeCheckRtt() ? " check" : "");
    }
    pthread_t threadOf(const char* name) {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        return engine->slsInterfaceMap()[name]->thread;
    }
};

TEST_F(SlsEngineTest, StartProbesEveryRegisteredLinkOnceAndStopEndsEveryThread) {
    StartSlsServer("10123");
    StartSlsServer("10456");  // already running: nothing
    EXPECT_EQ("10123", params->getGamingUids());
    EXPECT_EQ("rmnet_data9:RTA wlan7:RTA +2", links());
    EXPECT_TRUE(RssiStateMonitor::isInstance() && SlaTcpSocketMonitor::isInstance());
    StopSlsServer();
    EXPECT_EQ("+0", links());
    EXPECT_FALSE(RssiStateMonitor::isInstance() || SlaTcpSocketMonitor::isInstance());
}

TEST_F(SlsEngineTest, InterfaceChangesFollowOnlyVoiceAndSelectionMode) {
    unittest::addRecord(kWlan8);
    engine->updateSlsInterfacemap("wlan8", true);  // neither mode: nothing
    EXPECT_EQ("+0", links());
    setVoipStatus("10123");
    const pthread_t wlan7Thread = threadOf("wlan7");
    engine->updateSlsInterfacemap("wlan8", true);  // replaced, its thread ended first; wlan7's stays
    EXPECT_TRUE(pthread_equal(wlan7Thread, threadOf("wlan7")));
    EXPECT_EQ("rmnet_data9:RTA wlan7:RTA wlan8:RTA +3", links());
    engine->calcInterface();
    const std::string chosen = current();
    ASSERT_FALSE(chosen.empty());
    engine->updateSlsInterfacemap(chosen.c_str(), false);  // the current link leaves
    EXPECT_EQ("", current());
    EXPECT_EQ(std::string::npos, links().find(chosen));
    EXPECT_EQ(2, liveProbeThreads());
    // The framework removed the selected link: the decision runs at once.
    EXPECT_TRUE(vord::sleepUnlessWoken(5s));
    engine->calcInterface();
    SlsState state;
    SmartLinkSelection::trySnapshotState(state);
    EXPECT_EQ(chosen + " framework-removed", state.lastSwitch.from + " " + state.lastSwitch.reason);
    setVoipStatus("0");
}

TEST_F(SlsEngineTest, ARecordWhoseLinkLeftTheRegistryIsNeverChosenAndGoesAtTeardown) {
    engine->linkDown("rmnet_data9", LinkFailCause::Carrier);  // a record made while down starts failed
    setGameAiModeEnable("10123");
    setGameAiModeCheckRtt("1");
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        EXPECT_EQ(1, engine->slsInterfaceMap()["rmnet_data9"]->level);
    }
    engine->linkUp("rmnet_data9");
    params->delOldInterfacetoMap("wlan7");
    engine->updateSlsInterfacemap("wlan7", false);  // game mode 2: the map is not updated
    setLevels({{"wlan7", 11}, {"rmnet_data9", 2}});
    engine->calcInterface();
    EXPECT_EQ("rmnet_data9", current());
    setGameAiModeCheckRtt("0");
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        EXPECT_TRUE(engine->slsInterfaceMap().empty());
    }
    setGameAiModeEnable("0");
}

TEST_F(SlsEngineTest, GameModeTables) {
    setGameAiModeEnable("10123,10456");  // game mode without probes, with its own tables
    EXPECT_EQ("2 2 2", mode());
    EXPECT_EQ("+0", links());
    StartSlsServer("10789");  // game mode runs: nothing
    EXPECT_EQ("10123,10456", params->getGamingUids());
    setGameAiModeCheckRtt("1");
    EXPECT_EQ("2 2 2 check", mode());
    EXPECT_EQ("rmnet_data9:RTA wlan7:RTA +2", links());
    setGameAiModeCheckRtt("0");
    EXPECT_EQ("+0", links());
    StopSlsServer();  // ends game mode; its hysteresis values stay
    EXPECT_EQ("0 2 2", mode());
    setGameAiModeEnable("10123");
    setGameAiModeCheckRtt("1");
    setGameAiModeEnable("0");  // ends game mode, its probes and its tables
    EXPECT_EQ("0 1 5", mode());
    setGameAiModeEnable("10123");  // game mode without its check: the loop decides nothing
    addLink("wlan7", 11);
    engine->slsChooseInterface();
    EXPECT_TRUE(switches.empty());
    setGameAiModeEnable("0");
}

TEST_F(SlsEngineTest, RttReportRaisesProbingOnceAndBadPayloadsChangeNothing) {
    const std::pair<const char*, bool> cases[] = {{"120", false}, {"121", true},         {"-1", true},
                                                  {" +130x", true}, {"abc", false},      {"99999999999", false},
                                                  {"", false}};
    for (const auto& c : cases) {
        params->setServiceHighRtt(false);
        updateSlsInterfacesRtt(c.first);
        EXPECT_EQ(c.second, params->isServiceHighRtt()) << c.first;
    }
    EXPECT_EQ(3u, log->count("is not a 32-bit decimal number"));
    // Once raised, later reports change nothing until a stop clears the flag.
    StartSlsServer("10123");
    params->setServiceHighRtt(true);
    engine->threadStop();
    updateSlsInterfacesRtt("500");
    EXPECT_EQ("rmnet_data9:-TA wlan7:-TA +2", links());
    params->setServiceHighRtt(false);
    updateSlsInterfacesRtt("500");
    EXPECT_EQ("rmnet_data9:RTA wlan7:RTA +2", links());
    // The TCP socket monitor's hook acts only while some probing is paused.
    params->setServiceHighRtt(false);
    EXPECT_FALSE(vord::serviceHighRttAction()(params));
    EXPECT_FALSE(params->isServiceHighRtt());
    engine->threadStop();
    EXPECT_TRUE(vord::serviceHighRttAction()(params));
    StopSlsServer();
    EXPECT_FALSE(params->isServiceHighRtt());
    setGameAiModeEnable("10123");
    params->setServiceHighRtt(true);
    setGameAiModeEnable("0");  // game mode off clears it too
    EXPECT_FALSE(params->isServiceHighRtt());
}

}  // namespace
