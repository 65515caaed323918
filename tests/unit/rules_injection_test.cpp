// Text from outside that would add arguments to a rule command never reaches one.

#include "RulesFixture.h"

#include <map>

namespace {

// True when some argument the tools received holds a blank, i.e. two words were
// passed as one, or one of the words planted by the tests arrived.
bool sawForeignText(const std::string& argv) {
    for (const char* word : {"DROP", "reboot", ";", "[1]", "$("}) {
        if (argv.find(word) != std::string::npos) return true;
    }
    bool inArg = false;
    for (char c : argv) {
        if (c == '[') inArg = true;
        if (c == ']') inArg = false;
        if (inArg && c == ' ') return true;
    }
    return false;
}

}  // namespace

TEST_F(RulesTest, InjectedInterfaceTextNeverReachesACommand) {
    // Records that the registry would have refused, planted directly.
    addRawRecord("wlan1 -j DROP", "wlan1", "0x400000", false, true);
    addRawRecord("rmnet_data0;reboot", "rmnet_data0", "0x600000", true, false);
    addRawRecord("wlan0", "main;reboot", "0x200000", false, false);
    addRawRecord("ccmni0", "ccmni0", "0x800000 -j DROP", false, false);
    params->setuidwhitelist("10123");
    params->populateSlauidwhitelist();
    params->setDWUidWhitelist("10300");
    params->populateDWUidWhitelist();
    params->setGamingRunning(1);

    for (const char* name : {"wlan1 -j DROP", "rmnet_data0;reboot", "wlan0", "ccmni0"}) {
        manager->updateInterfaceIptables(name, true);
        manager->updateInterfaceIptables(name, false);
    }
    EXPECT_EQ(manager->setup_SLS_iptables_UID_chains(), -1);
    EXPECT_EQ(manager->set_SLS_interface("wlan0 -j DROP"), -1);
    EXPECT_EQ(manager->set_SLS_interface("$(reboot)"), -1);

    linkStatsWrapper_t bad;
    snprintf(bad.ifname, sizeof(bad.ifname), "%s", "wlan1 -j DROP");
    bad.ratio = 1.0f;
    std::map<std::string, linkStatsWrapper_t*> slaMap{{bad.ifname, &bad}};
    EXPECT_EQ(manager->set_SLA_ratio_iptables(slaMap), -1);

    EXPECT_FALSE(sawForeignText(argvSeen())) << argvSeen();
    EXPECT_GE(log->count("refused interface name \"wlan1 -j DROP\""), 1u);
    EXPECT_GE(log->count("refused route table \"main;reboot\""), 1u);
    EXPECT_GE(log->count("refused mark \"0x800000 -j DROP\""), 1u);
}

TEST_F(RulesTest, InjectedUidsAndGatewaysNeverReachACommand) {
    addRecord("rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff");
    params->setuidwhitelist("1 -j ACCEPT,10123;reboot,10200");
    params->populateSlauidwhitelist();
    params->setGamingUids("1 -j ACCEPT,$(reboot),10456");
    params->populateGamingUids();
    params->populateWifiGateway("1.1.1.1 -j DROP,10.0.0.1;x,192.168.1.1");

    manager->setup_mux_whitelist();
    manager->setup_sla_uid_whitelist();
    manager->create_SLS_iptables_UID_for_interface(params->findInterface("rmnet_data0"));

    std::string argv = argvSeen();
    EXPECT_FALSE(sawForeignText(argv)) << argv;
    // The good entries still get their rules.
    EXPECT_NE(argv.find("[--uid-owner] [10200]"), std::string::npos);
    EXPECT_NE(argv.find("[--uid-owner] [10456]"), std::string::npos);
    EXPECT_NE(argv.find("[-d] [192.168.1.1]"), std::string::npos);
}
