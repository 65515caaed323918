// Link-selection tests: the process-wide store and engine, a hand-driven clock,
// and recorders in place of the rule switch and the socket destruction.
#pragma once

#include <gtest/gtest.h>

#include <sys/time.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vord/LogCapture.h>
#include "UnitRegistry.h"
#include "sls/SmartLinkSelection.h"

namespace slstest {

using unittest::kRmnet;
using unittest::kWlan0;
using unittest::kWlan1;

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
        for (const char* key : {"t_hyst_s=0", "alpha_percent=50", "min_ping_times=5", "n_hyst=1",
                                "rtt_server=" VORD_DEFAULT_RTT_SERVER, "ping_interval_ms=1000"}) {
            std::string kv = key;
            params->setValue(kv.substr(0, kv.find('=')).c_str(), kv.substr(kv.find('=') + 1).c_str());
        }
        params->setRttServerPort(443);
        params->setGamingRunning(0);
        params->setVoipRunning(false);
        params->setServiceHighRtt(false);
        params->setGamingAiModeCheckRtt(false);
        params->setGamingUids("");
        params->populateGamingUids();
    }

    void set(const char* key, const char* value) { ASSERT_TRUE(params->setValue(key, value)) << key; }

    void registerInterface(const char* paramString) { unittest::addRecord(paramString); }

    // A record without a probe thread, at `level` (0: not measured).
    InterfaceRtt* addLink(const char* name, int level) {
        InterfaceRtt* r = InterfaceRtt::create(name, 5, true);
        r->level = level;
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        delete engine->slsInterfaceMap()[name];
        engine->slsInterfaceMap()[name] = r;
        return r;
    }
    void setLevel(const char* name, int level) {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        engine->slsInterfaceMap()[name]->level = level;
    }
    std::string current() {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        return engine->currentInterface() ? engine->currentInterface()->ifname : "";
    }
    void advance(int seconds) { clock.tv_sec += seconds; }

    Parameters* params = Parameters::instance();
    SmartLinkSelection* engine = nullptr;
    timeval clock{};
    std::vector<std::string> switches, kills;
    std::unique_ptr<vord::LogCapture> log;
};

}  // namespace slstest
