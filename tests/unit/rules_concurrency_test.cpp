// Interface changes on the control thread while the main loop rewrites the cascade
// and switches links: no race, no lock-order inversion (run under TSan).

#include "RulesFixture.h"

#include <map>
#include <thread>

TEST_F(RulesTest, InterfaceChangesRaceWithCascadeAndSwitch) {
    addRecord("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    setList(&Parameters::setGamingUids, &Parameters::populateGamingUids, "10123");
    params->setGamingRunning(1);
    std::thread control([this] {
        for (int i = 0; i < 4; ++i) {
            addRecord("rmnet_data0,1,rmnet_data0,0x400000,0,0,0,0,ffffffffffff");
            manager->updateInterfaceIptables("rmnet_data0", true);
            manager->updateInterfaceIptables("rmnet_data0", false);
            params->delOldInterfacetoMap("rmnet_data0");
        }
    });
    linkStatsWrapper_t wlan0, rmnet;
    snprintf(wlan0.ifname, sizeof(wlan0.ifname), "wlan0");
    snprintf(rmnet.ifname, sizeof(rmnet.ifname), "rmnet_data0");
    std::map<std::string, linkStatsWrapper_t*> slaMap{{"wlan0", &wlan0}, {"rmnet_data0", &rmnet}};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(manager->set_SLA_ratio_iptables(slaMap), 0);
        EXPECT_EQ(manager->set_SLS_interface(i % 2 ? "wlan0" : "rmnet_data0"), 0);
    }
    control.join();
}
