// Text from outside that would add arguments to a rule command never reaches one.

#include "RulesFixture.h"

#include <map>

namespace {

// Registers a record as is, bypassing the registry's own checks.
void addRawRecord(Parameters* params, const char* name, const char* table, const char* mark,
                  bool slave) {
    auto* record = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    snprintf(record->name, sizeof(record->name), "%s", name);
    snprintf(record->routeTable, sizeof(record->routeTable), "%s", table);
    snprintf(record->fwmark, sizeof(record->fwmark), "%s", mark);
    record->slave = slave;
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    params->interfaceInfoMap()[name] = record;
}

}  // namespace

TEST_F(RulesTest, InjectedTextNeverReachesACommand) {
    addRawRecord(params, "wlan1 -j DROP", "wlan1", "0x400000", true);
    addRawRecord(params, "rmnet_data0;reboot", "rmnet_data0", "0x600000", false);
    addRawRecord(params, "wlan0", "main;reboot", "0x200000", false);
    addRawRecord(params, "ccmni0", "ccmni0", "0x800000 -j DROP", false);
    addRecord("rmnet_data1,1,rmnet_data1,0x600000,0,0,0,0,ffffffffffff");
    setList(&Parameters::setuidwhitelist, &Parameters::populateSlauidwhitelist,
            "1 -j ACCEPT,10123;reboot,10200");
    setList(&Parameters::setDWUidWhitelist, &Parameters::populateDWUidWhitelist, "10300");
    setList(&Parameters::setGamingUids, &Parameters::populateGamingUids,
            "1 -j DROP,$(reboot),10456");
    params->populateWifiGateway("1.1.1.1 -j DROP,10.0.0.1;x,192.168.1.1");
    params->setGamingRunning(1);

    for (const char* name :
         {"wlan1 -j DROP", "rmnet_data0;reboot", "wlan0", "ccmni0", "rmnet_data1"}) {
        manager->updateInterfaceIptables(name, true);
        manager->updateInterfaceIptables(name, false);
    }
    EXPECT_EQ(manager->set_SLS_interface("wlan0 -j DROP"), -1);
    linkStatsWrapper_t bad;
    snprintf(bad.ifname, sizeof(bad.ifname), "%s", "wlan1 -j DROP");
    std::map<std::string, linkStatsWrapper_t*> slaMap{{bad.ifname, &bad}};
    EXPECT_EQ(manager->set_SLA_ratio_iptables(slaMap), -1);

    for (const char* refusal :
         {"refused interface name \"wlan1 -j DROP\"", "refused route table \"main;reboot\"",
          "refused mark \"0x800000 -j DROP\""}) {
        EXPECT_TRUE(log->contains(refusal)) << refusal;
    }
    std::string all;
    for (const std::string& cmd : commands()) all += cmd + "\n";
    for (const char* planted : {"DROP", "reboot", ";", "$(", "uid-owner 1 "}) {
        EXPECT_EQ(all.find(planted), std::string::npos) << planted << " in\n" << all;
    }
    // The good entries still get their rules.
    for (const char* good :
         {"uid-owner 10200 -j vexo_fw_rmnet_data1", "uid-owner 10456 -j vexo_sls_rmnet_data1",
          "-d 192.168.1.1 -j RETURN"}) {
        EXPECT_NE(all.find(good), std::string::npos) << good;
    }
}
