// The selection engine's records and probe threads, and the feature commands
// 9 to 14 that drive them. Probes bind to interface names that do not exist on
// this host, so they fail before any packet leaves.
#include "SlsTestSupport.h"

#include <dirent.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "control/ControlState.h"
#include "control/FeatureCommands.h"
#include "monitors/RssiStateMonitor.h"
#include "monitors/SlaTcpSocketMonitor.h"
#include "sls/ServiceHighRtt.h"

namespace {

using slstest::SlsTest;
using namespace std::chrono_literals;

constexpr const char* kWlan7 = "wlan7,0,wlan7,0x200000,1,0,0,0,ffffffffffff";
constexpr const char* kRmnet9 = "rmnet_data9,1,rmnet_data9,0x600000,0,0,0,0,ffffffffffff";
constexpr const char* kWlan8 = "wlan8,0,wlan8,0x400000,0,0,0,1,ffffffffffff";

size_t threadCount() {
    size_t n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
        closedir(dir);
    }
    return n;
}

// Threads other than the monitors' (the selection commands start the RSSI and
// TCP socket monitors, one thread each).
size_t probeThreads() {
    return threadCount() - (RssiStateMonitor::isInstance() ? 1 : 0) -
           (SlaTcpSocketMonitor::isInstance() ? 1 : 0);
}

struct Link { std::string name; bool running, threaded, alive; };

class SlsEngineTest : public SlsTest {
  protected:
    void SetUp() override {
        SlsTest::SetUp();
        std::thread([] {}).join();  // a sanitizer's helper thread starts with the first thread
        baseThreads = threadCount();
        set("ping_interval_ms", "20");
        setControlParameters(params);
        registerInterface(kWlan7);
        registerInterface(kRmnet9);
    }
    void TearDown() override {
        SlsTest::TearDown();
        EXPECT_EQ(baseThreads, threadCount()) << "a probe thread outlived the engine";
    }
    std::vector<Link> links() {
        std::vector<Link> out;
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (auto& e : engine->slsInterfaceMap()) {
            out.push_back({e.first, e.second->running, e.second->thread != InterfaceRtt::noThread(), e.second->alive});
        }
        return out;
    }
    std::string gamingText() { return params->getGamingUids(); }
    size_t baseThreads = 0;
};

TEST_F(SlsEngineTest, StartProbesEveryRegisteredLinkAndStopEndsEveryThread) {
    StartSlsServer("10123");
    EXPECT_EQ(1, params->isGamingRunning());
    auto l = links();
    ASSERT_EQ(2u, l.size());
    for (const Link& link : l) EXPECT_TRUE(link.running && link.threaded && link.alive) << link.name;
    EXPECT_EQ(baseThreads + 2, probeThreads());
    EXPECT_TRUE(RssiStateMonitor::isInstance() && SlaTcpSocketMonitor::isInstance());
    for (int i = 0; i < 200 && !(log->contains("Ping Miss for RTT interface (rmnet_data9)") &&
                                 log->contains("Ping Miss for RTT interface (wlan7)")); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_TRUE(log->contains("E/MUX-Vord-Tcping: Set interface wlan7 failed."));
    EXPECT_TRUE(log->contains("E/MUX-Vord-Tcping: Set interface rmnet_data9 failed."));
    EXPECT_TRUE(log->contains("Ping Miss for RTT interface (rmnet_data9)"));

    StartSlsServer("10456");  // already running: nothing
    EXPECT_EQ("10123", gamingText());
    StopSlsServer();
    EXPECT_TRUE(links().empty());
    EXPECT_EQ(baseThreads, threadCount());
    EXPECT_FALSE(RssiStateMonitor::isInstance() || SlaTcpSocketMonitor::isInstance());
    EXPECT_EQ(0, params->isGamingRunning());
    EXPECT_EQ("10123", gamingText());
    EXPECT_TRUE(log->contains("-X vexo_sls_uid_wlan7"));
}

TEST_F(SlsEngineTest, InterfaceChangesFollowOnlyVoiceAndSelectionMode) {
    registerInterface(kWlan8);
    vord::test::TempRoot::writeAt(vord::resolvePath("/proc/sla/config"), "");
    engine->updateSlsInterfacemap("wlan8", true);  // neither mode: nothing
    EXPECT_TRUE(links().empty());

    setVoipStatus("10123");
    ASSERT_EQ(3u, links().size());
    pthread_t wlan7Thread;
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        wlan7Thread = engine->slsInterfaceMap()["wlan7"]->thread;
    }
    engine->updateSlsInterfacemap("wlan8", true);  // replaced, its thread ended first
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        EXPECT_TRUE(pthread_equal(wlan7Thread, engine->slsInterfaceMap()["wlan7"]->thread));
    }
    EXPECT_EQ(baseThreads + 3, probeThreads());
    engine->calcInterface();
    const std::string chosen = current();
    ASSERT_FALSE(chosen.empty());
    engine->updateSlsInterfacemap(chosen.c_str(), false);
    EXPECT_EQ("", current());
    EXPECT_TRUE(log->contains("m_slsInterfaceMap del " + chosen + " success!"));
    EXPECT_EQ(2u, links().size());
    EXPECT_EQ(baseThreads + 2, probeThreads());

    setVoipStatus("10456");  // a call runs already
    EXPECT_EQ("10123", gamingText());
    setVoipStatus("0");
    EXPECT_FALSE(params->isVoipRunning());
    EXPECT_EQ(baseThreads, threadCount());
    EXPECT_EQ(std::string("voip_uid=10123\0voip_enable=1\0voip_enable=0\0voip_uid=0\0", 54),
              vord::test::readWholeFile(vord::resolvePath("/proc/sla/config")));
}

TEST_F(SlsEngineTest, RepeatedStartsAndThreadDestoryWithoutThreads) {
    engine->initPingThreads();
    EXPECT_EQ(2u, links().size());
    engine->threadDestory();
    for (const Link& link : links()) EXPECT_FALSE(link.alive || link.threaded) << link.name;
    for (int i = 0; i < 3; ++i) {
        engine->initPingThreads();
        engine->threadStop();
        engine->createRttThreads();
        engine->threadResume();
        EXPECT_EQ(baseThreads + 2, probeThreads()) << "start " << i;
    }
}

TEST_F(SlsEngineTest, GameModeTables) {
    setGameAiModeCheckRtt("1");  // before game mode: nothing
    EXPECT_FALSE(params->isGamingAiModeCheckRtt());
    setGameAiModeEnable("10123,10456");
    EXPECT_EQ(2, params->isGamingRunning());
    EXPECT_EQ(2, params->getNHyst());
    EXPECT_EQ(2, params->getMinPingTimes());
    EXPECT_TRUE(links().empty());  // no probes yet
    EXPECT_TRUE(RssiStateMonitor::isInstance() && SlaTcpSocketMonitor::isInstance());
    StartSlsServer("10789");       // game mode runs: nothing
    EXPECT_EQ("10123,10456", gamingText());
    setGameAiModeCheckRtt("1");
    EXPECT_TRUE(params->isGamingAiModeCheckRtt());
    EXPECT_EQ(2u, links().size());
    EXPECT_EQ(baseThreads + 2, probeThreads());
    setGameAiModeCheckRtt("0");
    EXPECT_TRUE(links().empty());
    setGameAiModeCheckRtt("1");
    StopSlsServer();  // ends game mode; its hysteresis values stay
    EXPECT_EQ(0, params->isGamingRunning());
    EXPECT_EQ(2, params->getNHyst());
    EXPECT_TRUE(links().empty());
    EXPECT_EQ(baseThreads, threadCount());

    setGameAiModeEnable("10123");
    setGameAiModeCheckRtt("1");
    setGameAiModeEnable("0");
    EXPECT_EQ(0, params->isGamingRunning());
    EXPECT_FALSE(params->isGamingAiModeCheckRtt());
    EXPECT_EQ(1, params->getNHyst());
    EXPECT_EQ(5, params->getMinPingTimes());
    EXPECT_EQ(baseThreads, threadCount());
    EXPECT_EQ(1u, log->count("setGameAiModeEnable disable"));
}

TEST_F(SlsEngineTest, RttReportRaisesProbingOnceAndBadPayloadsChangeNothing) {
    struct Case { const char* text; bool raised; };
    for (const Case& c : {Case{"120", false}, Case{"121", true}, Case{"-1", true}, Case{" +130x", true},
                          Case{"abc", false}, Case{"99999999999", false}, Case{"", false}}) {
        params->setServiceHighRtt(false);
        updateSlsInterfacesRtt(c.text);
        EXPECT_EQ(c.raised, params->isServiceHighRtt()) << c.text;
        EXPECT_TRUE(log->contains(std::string("update Sls Interfaces Rtt is ") + c.text + " ")) << c.text;
    }
    EXPECT_EQ(3u, log->count("is not a 32-bit decimal number"));
    // Once raised, later reports change nothing until a stop clears the flag.
    StartSlsServer("10123");
    params->setServiceHighRtt(true);
    engine->threadStop();
    updateSlsInterfacesRtt("500");
    for (const Link& link : links()) EXPECT_FALSE(link.running);
    params->setServiceHighRtt(false);
    updateSlsInterfacesRtt("500");
    for (const Link& link : links()) EXPECT_TRUE(link.running);
    StopSlsServer();
    EXPECT_FALSE(params->isServiceHighRtt());
}

// Control thread, main loop, a monitor and the probe threads all at once.
TEST_F(SlsEngineTest, StartStopAddRemoveStormLeavesNoThreadAndNoRace) {
    set("ping_interval_ms", "1");
    std::atomic<bool> stop{false};
    std::thread loop([&] {
        while (!stop) {
            engine->slsChooseInterface();
            std::this_thread::sleep_for(1ms);
        }
    });
    std::thread monitor([&] {
        while (!stop) {
            enterServiceHighRtt(params);
            SlsState state;
            SmartLinkSelection::trySnapshotState(state);
            std::lock_guard<std::mutex> lock(g_slsMapMutex);
            for (auto& e : engine->slsInterfaceMap()) e.second->rssiPenaltyMs = 1;
        }
    });
    std::mt19937 rng(7);
    const auto end = std::chrono::steady_clock::now() + 2s;
    while (std::chrono::steady_clock::now() < end) {
        switch (rng() % 8) {
            case 0: StartSlsServer("10123"); break;
            case 1: StopSlsServer(); break;
            case 2: setVoipStatus(rng() % 2 ? "10123" : "0"); break;
            case 3: setGameAiModeEnable(rng() % 2 ? "10123" : "0"); break;
            case 4: setGameAiModeCheckRtt(rng() % 2 ? "1" : "0"); break;
            case 5: params->setServiceHighRtt(false); updateSlsInterfacesRtt("300"); break;
            case 6:
                if (params->addNewInterfacetoMap(params->parseInterfaceParams(kWlan8)) == 1) {
                    engine->updateSlsInterfacemap("wlan8", true);
                }
                break;
            default:
                engine->updateSlsInterfacemap("wlan8", false);
                params->delOldInterfacetoMap("wlan8");
                break;
        }
    }
    stop = true;
    loop.join();
    monitor.join();
    StopSlsServer();
    setVoipStatus("0");
    setGameAiModeEnable("0");
}

}  // namespace
