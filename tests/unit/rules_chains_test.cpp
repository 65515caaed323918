// Mark, whitelist and link-selection chains: the exact command sequences.

#include "RulesFixture.h"

namespace {
const char* const kWlan0 = "wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff";
const char* const kWlan1 = "wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff";
}  // namespace

TEST_F(RulesTest, AddingAndRemovingWlan0) {
    addRecord(kWlan0);
    manager->updateInterfaceIptables("wlan0", true);
    EXPECT_EQ(commands(),
              (Strings{IPT "-N vexo_fw_wlan0", IPT "-F vexo_fw_wlan0",
                       IPT "-A vexo_fw_wlan0 -j MARK --set-mark 0x200000/0x00E00000",
                       IPT "-A vexo_fw_wlan0 -j CONNMARK --save-mark --ctmask 0x00E00000",
                       IPT "-A vexo_fw_wlan0 -j ACCEPT",
                       IP_RULE "del fwmark 0x200000/0x0CE00000 prio 14999",
                       IP_RULE "add fwmark 0x200000/0x0CE00000 table wlan0 prio 14999",
                       "/system/bin/iptables-wrapper-1.0 -w -t nat -D vexo_nat_POSTROUTING_MUX -o "
                       "wlan0 -j MASQUERADE",
                       "/system/bin/iptables-wrapper-1.0 -w -t nat -A vexo_nat_POSTROUTING_MUX -o "
                       "wlan0 -j MASQUERADE",
                       IPT "-F vexo_MUX_wapper"}));
    manager->updateInterfaceIptables("wlan0", false);
    EXPECT_EQ(commands(),
              (Strings{IPT "-F vexo_SLA", IPT "-F vexo_fw_wlan0_wrapper",
                       IPT "-X vexo_fw_wlan0_wrapper", IPT "-F vexo_fw_wlan0",
                       IPT "-X vexo_fw_wlan0", IP_RULE "del fwmark 0x200000/0x0CE00000 prio 14999",
                       "/system/bin/iptables-wrapper-1.0 -w -t nat -D vexo_nat_POSTROUTING_MUX -o "
                       "wlan0 -j MASQUERADE"}));
    EXPECT_EQ(manager->updateInterfaceIptables("wlan7", true), 0);  // no record
    EXPECT_TRUE(commands().empty());
}

TEST_F(RulesTest, SecondaryAndCellularInterfacesGetWrapperChainsFilledFromTheirLists) {
    addRecord(kWlan0);
    addRecord(kWlan1);
    // Cellular by name though not metered; and a metered secondary one.
    addRecord("rmnet_data0,0,rmnet_data0,0x600000,0,0,0,0,ffffffffffff");
    addRecord("rmnet_data1,1,rmnet_data1,0x800000,0,0,0,1,ffffffffffff");
    params->populateWifiGateway("192.168.1.1");
    setList(&Parameters::setGamingUids, &Parameters::populateGamingUids, "10123");
    setList(&Parameters::setuidwhitelist, &Parameters::populateSlauidwhitelist, "10200,10123");
    setList(&Parameters::setDWUidWhitelist, &Parameters::populateDWUidWhitelist, "10300");
    setList(&Parameters::setDDUidWhitelist, &Parameters::populateDDUidWhitelist, "10400");
    commands();

    manager->updateInterfaceIptables("wlan1", true);
    Strings seen = commands();
    ASSERT_EQ(seen.size(), 25u);
    EXPECT_EQ(Strings(seen.begin() + 2, seen.begin() + 5),
              (Strings{IPT "-N vexo_fw_wlan1_wrapper", IPT "-F vexo_fw_wlan1_wrapper",
                       IPT "-A vexo_fw_wlan1 -j MARK --set-mark 0x400000/0x00E00000"}));
    const std::string own = "-m owner --uid-owner ";
    EXPECT_EQ(
        Strings(seen.begin() + 11, seen.end()),
        (Strings{IPT "-F vexo_MUX_wapper", IPT "-A vexo_MUX_wapper -d 192.168.1.1 -j RETURN",
                 IPT "-A vexo_MUX_wapper " + own + "10123 -j vexo_MUX",
                 IPT "-A vexo_MUX_wapper " + own + "10300 -j vexo_MUX",
                 IPT "-A vexo_MUX_wapper " + own + "10400 -j vexo_MUX",
                 IPT "-A vexo_MUX_wapper " + own + "10200 -j vexo_MUX",
                 IPT "-A vexo_MUX_wapper " + own + "10123 -j vexo_MUX",
                 IPT "-F vexo_fw_wlan1_wrapper ",
                 IPT "-A vexo_fw_wlan1_wrapper " + own + "10300 -j vexo_fw_wlan1",
                 IPT "-F vexo_fw_rmnet_data0_wrapper ",
                 IPT "-A vexo_fw_rmnet_data0_wrapper " + own + "10200 -j vexo_fw_rmnet_data0",
                 IPT "-A vexo_fw_rmnet_data0_wrapper " + own + "10123 -j vexo_fw_rmnet_data0",
                 IPT "-F vexo_fw_rmnet_data1_wrapper ",
                 IPT "-A vexo_fw_rmnet_data1_wrapper " + own + "10400 -j vexo_fw_rmnet_data1"}));
}

TEST_F(RulesTest, LinkSelectionChainsSwitchAndRemoval) {
    addRecord(kWlan0);
    setList(&Parameters::setGamingUids, &Parameters::populateGamingUids, "10123,10456");
    commands();
    EXPECT_EQ(manager->setup_SLS_iptables_UID_chains(), 0);
    EXPECT_EQ(
        commands(),
        (Strings{IPT "-N vexo_sls_wlan0", IPT "-F vexo_sls_wlan0",
                 IPT "-A vexo_sls_wlan0 -p udp ! --dport 53 -j vexo_fw_wlan0",
                 IPT "-A vexo_sls_wlan0 -p tcp -j vexo_fw_wlan0", IPT "-A vexo_sls_wlan0 -j ACCEPT",
                 IPT "-N vexo_sls_uid_wlan0", IPT "-F vexo_sls_uid_wlan0",
                 IPT "-A vexo_sls_uid_wlan0 -m owner --uid-owner 10123 -j vexo_sls_wlan0",
                 IPT "-A vexo_sls_uid_wlan0 -m owner --uid-owner 10456 -j vexo_sls_wlan0"}));

    // The switch leaves one rule: flush, then one jump (two blanks after the tool).
    EXPECT_EQ(manager->set_SLS_interface("wlan1"), 0);
    EXPECT_EQ(
        commands(),
        (Strings{
            "/system/bin/iptables-wrapper-1.0  -w -t mangle -F vexo_SLS",
            "/system/bin/iptables-wrapper-1.0  -w -t mangle -A vexo_SLS -j vexo_sls_uid_wlan1"}));

    // While gaming runs, a removed interface loses its selection chains first.
    params->setGamingRunning(1);
    manager->updateInterfaceIptables("wlan0", false);
    Strings seen = commands();
    ASSERT_EQ(seen.size(), 12u);
    EXPECT_EQ(
        Strings(seen.begin(), seen.begin() + 6),
        (Strings{"/system/bin/iptables-wrapper-1.0  -w -t mangle -D vexo_SLS -j vexo_sls_uid_wlan0",
                 IPT "-F vexo_sls_wlan0", IPT "-F vexo_sls_uid_wlan0", IPT "-X vexo_sls_wlan0",
                 IPT "-X vexo_sls_uid_wlan0", IPT "-F vexo_SLA"}));
}
