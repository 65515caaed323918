// The rule manager's command sequences, the aggregation cascade, text from
// outside that would add arguments to a rule command, and the command runner.
#include "RulesFixture.h"

#include <unistd.h>

#include <algorithm>
#include <map>
#include <thread>

#include "rules/execnetd.h"

namespace {

using unittest::kRmnet;
using unittest::kWlan0;
using unittest::kWlan1;

TEST_F(RulesTest, AddingWlan0IssuesItsCommandsInOrder) {
    addRecord(kWlan0);
    manager->updateInterfaceIptables("wlan0", true);
    const std::string nat = "/system/bin/iptables-wrapper-1.0 -w -t nat ";
    const std::string ipRule = "/system/bin/ip-wrapper-1.0 -4 rule ";
    EXPECT_EQ(commands(),
              (Strings{IPT "-N vexo_fw_wlan0", IPT "-F vexo_fw_wlan0",
                       IPT "-A vexo_fw_wlan0 -j MARK --set-mark 0x200000/0x00E00000",
                       IPT "-A vexo_fw_wlan0 -j CONNMARK --save-mark --ctmask 0x00E00000",
                       IPT "-A vexo_fw_wlan0 -j ACCEPT",
                       ipRule + "del fwmark 0x200000/0x0CE00000 prio 14999",
                       ipRule + "add fwmark 0x200000/0x0CE00000 table wlan0 prio 14999",
                       nat + "-D vexo_nat_POSTROUTING_MUX -o wlan0 -j MASQUERADE",
                       nat + "-A vexo_nat_POSTROUTING_MUX -o wlan0 -j MASQUERADE",
                       IPT "-F vexo_MUX_wapper"}));
}

TEST_F(RulesTest, SlaveAndCellularInterfacesGetWrapperChainsFilledFromTheirLists) {
    setList(&Parameters::setuidwhitelist, &Parameters::populateSlauidwhitelist, "10200");
    setList(&Parameters::setDWUidWhitelist, &Parameters::populateDWUidWhitelist, "10300");
    // rmnet_data0 is cellular by name, though not metered.
    for (const char* record : {kWlan0, kWlan1, "rmnet_data0,0,rmnet_data0,0x600000,0,0,0,0,ff"}) {
        addRecord(record);
    }
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) {
        manager->updateInterfaceIptables(name, true);
    }
    const Strings seen = commands();
    auto has = [&](const std::string& cmd) {
        return std::find(seen.begin(), seen.end(), IPT + cmd) != seen.end();
    };
    EXPECT_FALSE(has("-N vexo_fw_wlan0_wrapper"));
    EXPECT_TRUE(has("-N vexo_fw_wlan1_wrapper"));
    EXPECT_TRUE(has("-N vexo_fw_rmnet_data0_wrapper"));
    EXPECT_TRUE(has("-A vexo_fw_wlan1_wrapper -m owner --uid-owner 10300 -j vexo_fw_wlan1"));
    EXPECT_TRUE(
        has("-A vexo_fw_rmnet_data0_wrapper -m owner --uid-owner 10200 -j vexo_fw_rmnet_data0"));
}

TEST_F(RulesTest, LinkSelectionChainsAndTheSwitch) {
    addRecord(kWlan0);
    setList(&Parameters::setGamingUids, &Parameters::populateGamingUids, "10123,10456");
    commands();
    EXPECT_EQ(manager->setup_SLS_iptables_UID_chains(), 0);
    EXPECT_EQ(commands(),
              (Strings{IPT "-N vexo_sls_wlan0", IPT "-F vexo_sls_wlan0",
                       IPT "-A vexo_sls_wlan0 -p udp ! --dport 53 -j vexo_fw_wlan0",
                       IPT "-A vexo_sls_wlan0 -p tcp -j vexo_fw_wlan0",
                       IPT "-A vexo_sls_wlan0 -j ACCEPT", IPT "-N vexo_sls_uid_wlan0",
                       IPT "-F vexo_sls_uid_wlan0",
                       IPT "-A vexo_sls_uid_wlan0 -m owner --uid-owner 10123 -j vexo_sls_wlan0",
                       IPT "-A vexo_sls_uid_wlan0 -m owner --uid-owner 10456 -j vexo_sls_wlan0"}));
    // The switch leaves one rule: flush, then one jump (two blanks after the tool).
    const std::string sls = "/system/bin/iptables-wrapper-1.0  -w -t mangle ";
    EXPECT_EQ(manager->set_SLS_interface("wlan1"), 0);
    EXPECT_EQ(commands(),
              (Strings{sls + "-F vexo_SLS", sls + "-A vexo_SLS -j vexo_sls_uid_wlan1"}));
}

TEST_F(RulesTest, RatioCascade) {
    for (const char* record : {kWlan0, kWlan1, kRmnet}) addRecord(record);
    const struct {
        std::map<std::string, float> ratios;
        int dualWifiStatus;
        Strings rules;  // after the flush: "probability -j target"
    } cases[] = {
        {{{"rmnet_data0", 0.25f}, {"wlan0", 0.5f}, {"wlan1", 0.25f}}, 0,
         {"0.500000 -j vexo_fw_wlan0", "0.500000 -j vexo_fw_wlan1_wrapper",
          "0.000000 -j vexo_fw_rmnet_data0_wrapper"}},
        // The metered link takes what is left; an unregistered link gets no rule.
        {{{"rmnet_data0", 0.4f}, {"wlan0", 0.6f}, {"wlan5", 0.4f}}, 0,
         {"0.600000 -j vexo_fw_wlan0", "1.000000 -j vexo_fw_rmnet_data0_wrapper"}},
        {{{"wlan0", 0.3f}, {"wlan1", 0.7f}}, 1,
         {"1.000000 -j vexo_fw_wlan0", "0.000000 -j vexo_fw_wlan1_wrapper"}},
    };
    for (const auto& c : cases) {
        std::map<std::string, linkStatsWrapper_t> links;
        std::map<std::string, linkStatsWrapper_t*> slaMap;
        for (const auto& r : c.ratios) {
            snprintf(links[r.first].ifname, sizeof(links[r.first].ifname), "%s", r.first.c_str());
            links[r.first].ratio = r.second;
            slaMap[r.first] = &links[r.first];
        }
        Strings expected{IPT "-F vexo_SLA"};
        for (const std::string& rule : c.rules) {
            expected.push_back(IPT "-A vexo_SLA -p tcp -m state --state NEW -m statistic --mode "
                                   "random --probability " + rule);
        }
        params->setDoubleWifiSelectStatus(c.dualWifiStatus);
        commands();
        EXPECT_EQ(manager->set_SLA_ratio_iptables(slaMap), 0);
        EXPECT_EQ(commands(), expected);
    }
}

// Registers a record as is, bypassing the registry's own checks.
void addRawRecord(Parameters* params, const char* name, const char* table, const char* mark) {
    auto* record = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    snprintf(record->name, sizeof(record->name), "%s", name);
    snprintf(record->routeTable, sizeof(record->routeTable), "%s", table);
    snprintf(record->fwmark, sizeof(record->fwmark), "%s", mark);
    record->slave = true;
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    params->interfaceInfoMap()[name] = record;
}

TEST_F(RulesTest, InjectedTextNeverReachesACommand) {
    addRawRecord(params, "wlan1 -j DROP", "wlan1", "0x400000");
    addRawRecord(params, "rmnet_data0;reboot", "rmnet_data0", "0x600000");
    addRawRecord(params, "wlan0", "main;reboot", "0x200000");
    addRawRecord(params, "ccmni0", "ccmni0", "0x800000 -j DROP");
    addRecord("rmnet_data1,1,rmnet_data1,0x600000,0,0,0,0,ffffffffffff");
    setList(&Parameters::setuidwhitelist, &Parameters::populateSlauidwhitelist,
            "1 -j ACCEPT,10123;reboot,10200");
    setList(&Parameters::setGamingUids, &Parameters::populateGamingUids, "$(reboot),10456");
    params->setGamingRunning(1);

    for (const char* name : {"wlan1 -j DROP", "rmnet_data0;reboot", "wlan0", "ccmni0"}) {
        manager->updateInterfaceIptables(name, true);
        manager->updateInterfaceIptables(name, false);
    }
    manager->updateInterfaceIptables("rmnet_data1", true);
    EXPECT_EQ(manager->set_SLS_interface("wlan0 -j DROP"), -1);
    linkStatsWrapper_t bad;
    snprintf(bad.ifname, sizeof(bad.ifname), "%s", "wlan1 -j DROP");
    std::map<std::string, linkStatsWrapper_t*> slaMap{{bad.ifname, &bad}};
    EXPECT_EQ(manager->set_SLA_ratio_iptables(slaMap), -1);

    for (const char* refusal : {"refused interface name \"wlan1 -j DROP\"",
                                "refused route table \"main;reboot\"",
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
         {"uid-owner 10200 -j vexo_fw_rmnet_data1", "uid-owner 10456 -j vexo_sls_rmnet_data1"}) {
        EXPECT_NE(all.find(good), std::string::npos) << good;
    }
}

// Interface changes on the control thread while the main loop rewrites the cascade
// and switches links: no race, no lock-order inversion (run under TSan).
TEST_F(RulesTest, InterfaceChangesRaceWithCascadeAndSwitch) {
    addRecord(kWlan0);
    setList(&Parameters::setGamingUids, &Parameters::populateGamingUids, "10123");
    params->setGamingRunning(1);
    std::thread control([this] {
        for (int i = 0; i < 4; ++i) {
            addRecord(kRmnet);
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

TEST(Execnetd, SplitsAtBlanksRunsWithoutAShellAndLogsOutputAsErrorPairs) {
    // "argv-tool" records its arguments as "[a][b]..." and prints a line on each stream.
    const std::string argv = vord::resolvePath("/record/argv");
    const std::string marker = vord::resolvePath("/record/injected");
    vord::test::TempRoot::writeAt(vord::resolvePath("/system/bin/argv-tool"),
                                  "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done > '" +
                                      argv + "'\necho 'chain exists'\necho 'no rule' >&2\n",
                                  0755);
    const std::string cmd = "/system/bin/argv-tool  -w   a;touch " + marker + " $(id) 'q' |";
    vord::LogCapture log;
    EXPECT_EQ(execnetd(cmd.c_str()), 0);
    EXPECT_EQ(vord::test::readWholeFile(argv), "[-w][a;touch][" + marker + "][$(id)]['q'][|]");
    EXPECT_NE(access(marker.c_str(), F_OK), 0);
    const std::string tag = "E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL ";
    EXPECT_EQ(log.lines(),
              (Strings{"I/MUX-Vord-iptablesManager: SEND SLA NDC COMMAND - PASS  " + cmd,
                       tag + "- chain exists", tag + "cmd - " + cmd, tag + "- no rule",
                       tag + "cmd - " + cmd}));
    log.clear();
    EXPECT_EQ(execnetd("/system/bin/no-such-tool -w"), -1);
    EXPECT_TRUE(log.contains("SEND SLA NDC COMMAND - FAIL  /system/bin/no-such-tool -w"));
}

}  // namespace
