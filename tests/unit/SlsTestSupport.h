// Link-selection tests: the process-wide store and engine, a hand-driven clock,
// and recorders in place of the rule switch and the socket destruction.
#pragma once

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/time.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "TempRoot.h"
#include "config/Parameters.h"
#include "sls/SmartLinkSelection.h"

namespace slstest {

// Registry parameter strings: name,metered,table,mark,default,cost,bias,slave,bssid.
constexpr const char* kWlan0 = "wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff";
constexpr const char* kWlan1 = "wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff";
constexpr const char* kRmnet = "rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff";

class SlsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* tool : {"iptables-wrapper-1.0", "ip-wrapper-1.0"}) {
            vord::test::TempRoot::writeAt(vord::resolvePath("/system/bin/") + tool, "#!/bin/sh\n", 0755);
        }
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
        {
            std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
            for (auto& entry : params->interfaceInfoMap()) free(entry.second);
            params->interfaceInfoMap().clear();
        }
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

    void registerInterface(const char* paramString) {
        InterfaceInfo_t* record = params->parseInterfaceParams(paramString);
        ASSERT_NE(record, nullptr) << paramString;
        ASSERT_EQ(params->addNewInterfacetoMap(record), 1);
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
