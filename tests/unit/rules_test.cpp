// The rule manager's command sequences (IPv4, each mirrored by its IPv6 twin),
// the aggregation cascade, text from outside that would add arguments to a rule
// command, and the command runner. Do-nothing stand-ins for the tools sit in the
// sandbox root; the commands are read back as issued from the log.
#include "UnitSupport.h"

#include <algorithm>
#include <map>

#include <signal.h>

#include "DaemonProcess.h"
#include "counters/Counters.h"
#include "counters/RuleFailure.h"
#include "rules/IptablesManager.h"
#include "rules/StartupSweep.h"
#include "rules/execnetd.h"

namespace {

using Strings = std::vector<std::string>;
using unittest::addRecord;
using unittest::kRmnet;
using unittest::kWlan0;
using unittest::kWlan1;
using vord::test::waitFor;

#define IPT "/system/bin/iptables-wrapper-1.0 -w -t mangle "

class RulesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        unittest::stubRuleTools();
        manager = IptablesManager::instance();
        log = std::make_unique<vord::LogCapture>();
    }
    void TearDown() override {
        log.reset();
        unittest::clearRegistry();
        for (const char* empty : {"sla", "dw", "dd", "gaming"}) setList(empty, "");
        params->populateWifiGateway("");
        params->setGamingRunning(0);
        params->setDoubleWifiSelectStatus(0);
        params->setValue("ipv6_rules", "1");
        unittest::stubRuleTools();
    }
    void setList(const std::string& list, const char* text) {
        if (list == "sla") { params->setuidwhitelist(text); params->populateSlauidwhitelist(); }
        if (list == "dw") { params->setDWUidWhitelist(text); params->populateDWUidWhitelist(); }
        if (list == "dd") { params->setDDUidWhitelist(text); params->populateDDUidWhitelist(); }
        if (list == "gaming") { params->setGamingUids(text); params->populateGamingUids(); }
    }
    // The IPv4 commands issued since the last call, as written; the IPv6 ones go
    // to `v6` and, unless `mirrored` is cleared, must be the IPv4 ones through the
    // IPv6 tools, in the same order.
    Strings commands() {
        Strings v4;
        all.clear();
        v6.clear();
        const std::string pass = "SEND SLA NDC COMMAND - PASS  ", ip4 = "/system/bin/ip-wrapper-1.0 -4 ";
        for (const std::string& line : log->grep(pass)) {
            const std::string cmd = line.substr(line.find(pass) + pass.size());
            all.push_back(cmd);
            (cmd.find("ip6tables") != std::string::npos || cmd.find("-wrapper-1.0 -6 ") != std::string::npos ? v6 : v4)
                .push_back(cmd);
        }
        log->clear();
        Strings twins;
        for (const std::string& cmd : v4) {
            const bool ip = cmd.compare(0, ip4.size(), ip4) == 0;  // else "/system/bin/iptables..."
            twins.push_back((ip ? "/system/bin/ip-wrapper-1.0 -6 " : "/system/bin/ip6tables") + cmd.substr(ip ? ip4.size() : 20));
        }
        EXPECT_TRUE(!mirrored || v6 == twins) << ::testing::PrintToString(v6);
        return v4;
    }
    // Sets the "vexo_SLA" cascade for `ratios`; its result.
    int setRatios(const std::map<std::string, float>& ratios) {
        std::map<std::string, linkStatsWrapper_t> links;
        std::map<std::string, linkStatsWrapper_t*> slaMap;
        for (const auto& r : ratios) {
            snprintf(links[r.first].ifname, sizeof(links[r.first].ifname), "%s", r.first.c_str());
            links[r.first].ratio = r.second;
            slaMap[r.first] = &links[r.first];
        }
        return manager->set_SLA_ratio_iptables(slaMap);
    }
    // The cascade's commands for `ratios`, its rules cut to "probability -j target".
    Strings cascade(const std::map<std::string, float>& ratios) {
        commands();
        EXPECT_EQ(setRatios(ratios), 0);
        const std::string rule = IPT "-A vexo_SLA -p tcp -m state --state NEW -m statistic --mode random --probability ";
        Strings out = commands();
        for (std::string& r : out) r = r.compare(0, rule.size(), rule) == 0 ? r.substr(rule.size()) : r;
        return out;
    }

    Parameters* params = Parameters::instance();
    IptablesManager* manager = nullptr;
    std::unique_ptr<vord::LogCapture> log;
    Strings all, v6;  // of the last commands() call: every command, the IPv6 ones
    bool mirrored = true;
};

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
                       nat + "-A vexo_nat_POSTROUTING_MUX -o wlan0 -j MASQUERADE", IPT "-F vexo_MUX_wapper"}));
    // Each IPv6 group right after its IPv4 group: the mark chain's (9), then the entry chain's.
    ASSERT_EQ(all.size(), 20u);
    EXPECT_TRUE(all[9] == v6[0] && all[18] == IPT "-F vexo_MUX_wapper" && all[19] == v6[9]);
}

// Each gateway goes to the rules of its family only. With IPv6 off, or its tool
// missing, the IPv4 commands are what they were; a missing tool is one warning.
TEST_F(RulesTest, GatewaysByFamilyAndIpv6OffOrMissing) {
    params->populateWifiGateway("192.168.1.1,fd00::1");
    mirrored = false;
    const Strings v4{IPT "-F vexo_MUX_wapper", IPT "-A vexo_MUX_wapper -d 192.168.1.1 -j RETURN"};
    const std::string ip6t = "/system/bin/ip6tables-wrapper-1.0 -w -t mangle ";
    const Strings both{ip6t + "-F vexo_MUX_wapper", ip6t + "-A vexo_MUX_wapper -d fd00::1 -j RETURN"};
    for (const std::string state : {"on", "off", "missing"}) {
        params->setValue("ipv6_rules", state == "off" ? "0" : "1");
        if (state == "missing") unlink(vord::resolvePath("/system/bin/ip6tables-wrapper-1.0").c_str());
        manager->setup_mux_whitelist();
        const size_t warnings = log->count("W/MUX-Vord-iptablesManager: setup_mux_whitelist IPv6 rules skipped: "
                                           "/system/bin/ip6tables-wrapper-1.0 cannot be run (No such file");
        EXPECT_EQ(commands(), v4) << state;
        EXPECT_EQ(v6, state == "on" ? both : Strings()) << state;
        EXPECT_EQ(warnings, state == "missing" ? 1u : 0u) << state;
    }
}

TEST_F(RulesTest, SlaveAndCellularInterfacesGetWrapperChainsFilledFromTheirLists) {
    setList("sla", "10200");
    setList("dw", "10300");
    // rmnet_data0 is cellular by name, though not metered.
    for (const char* record : {kWlan0, kWlan1, "rmnet_data0,0,rmnet_data0,0x600000,0,0,0,0,ff"}) addRecord(record);
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) manager->updateInterfaceIptables(name, true);
    const Strings seen = commands();
    auto count = [&](const std::string& cmd) { return std::count(seen.begin(), seen.end(), IPT + cmd); };
    EXPECT_EQ(0, count("-N vexo_fw_wlan0_wrapper"));  // each of the others at least once
    for (const char* cmd : {"-N vexo_fw_wlan1_wrapper", "-N vexo_fw_rmnet_data0_wrapper",
                            "-A vexo_fw_wlan1_wrapper -m owner --uid-owner 10300 -j vexo_fw_wlan1",
                            "-A vexo_fw_rmnet_data0_wrapper -m owner --uid-owner 10200 -j vexo_fw_rmnet_data0"})
        EXPECT_LT(0, count(cmd)) << cmd;
}

TEST_F(RulesTest, LinkSelectionChainsAndTheSwitch) {
    addRecord(kWlan0);
    setList("gaming", "10123,10456");
    commands();
    EXPECT_EQ(manager->setup_SLS_iptables_UID_chains(), 0);
    EXPECT_EQ(commands(),
              (Strings{IPT "-N vexo_sls_wlan0", IPT "-F vexo_sls_wlan0",
                       IPT "-A vexo_sls_wlan0 -p udp ! --dport 53 -j vexo_fw_wlan0",
                       IPT "-A vexo_sls_wlan0 -p tcp -j vexo_fw_wlan0", IPT "-A vexo_sls_wlan0 -j ACCEPT",
                       IPT "-N vexo_sls_uid_wlan0", IPT "-F vexo_sls_uid_wlan0",
                       IPT "-A vexo_sls_uid_wlan0 -m owner --uid-owner 10123 -j vexo_sls_wlan0",
                       IPT "-A vexo_sls_uid_wlan0 -m owner --uid-owner 10456 -j vexo_sls_wlan0"}));
    // The switch leaves one rule: flush, then one jump (two blanks after the tool).
    const std::string sls = "/system/bin/iptables-wrapper-1.0  -w -t mangle ";
    EXPECT_EQ(manager->set_SLS_interface("wlan1"), 0);
    EXPECT_EQ(commands(), (Strings{sls + "-F vexo_SLS", sls + "-A vexo_SLS -j vexo_sls_uid_wlan1"}));
}

TEST_F(RulesTest, RatioCascade) {
    for (const char* record : {kWlan0, kWlan1, kRmnet}) addRecord(record);
    EXPECT_EQ(cascade({{"rmnet_data0", 0.25f}, {"wlan0", 0.5f}, {"wlan1", 0.25f}}),
              (Strings{IPT "-F vexo_SLA", "0.500000 -j vexo_fw_wlan0", "0.500000 -j vexo_fw_wlan1_wrapper",
                       "0.000000 -j vexo_fw_rmnet_data0_wrapper"}));
    // The metered link takes what is left; an unregistered link gets no rule.
    EXPECT_EQ(cascade({{"rmnet_data0", 0.4f}, {"wlan0", 0.6f}, {"wlan5", 0.4f}}),
              (Strings{IPT "-F vexo_SLA", "0.600000 -j vexo_fw_wlan0", "1.000000 -j vexo_fw_rmnet_data0_wrapper"}));
    params->setDoubleWifiSelectStatus(1);  // wlan0 only
    EXPECT_EQ(cascade({{"wlan0", 0.3f}, {"wlan1", 0.7f}}),
              (Strings{IPT "-F vexo_SLA", "1.000000 -j vexo_fw_wlan0", "0.000000 -j vexo_fw_wlan1_wrapper"}));
}

// Registers a record as is, bypassing the registry's own checks.
void addRawRecord(const char* name, const char* table, const char* mark) {
    auto* record = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    snprintf(record->name, sizeof(record->name), "%s", name);
    snprintf(record->routeTable, sizeof(record->routeTable), "%s", table);
    snprintf(record->fwmark, sizeof(record->fwmark), "%s", mark);
    record->slave = true;
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    Parameters::instance()->interfaceInfoMap()[name] = record;
}

TEST_F(RulesTest, InjectedTextNeverReachesACommand) {
    addRawRecord("wlan1 -j DROP", "wlan1", "0x400000");
    addRawRecord("rmnet_data0;reboot", "rmnet_data0", "0x600000");
    addRawRecord("wlan0", "main;reboot", "0x200000");
    addRawRecord("ccmni0", "ccmni0", "0x800000 -j DROP");
    addRawRecord("ccmni1", "main", "0x800000");  // a kernel table: never a rule's target
    addRecord("rmnet_data1,1,rmnet_data1,0x600000,0,0,0,0,ffffffffffff");
    setList("sla", "1 -j ACCEPT,10123;reboot,10200");
    setList("gaming", "$(reboot),10456");
    params->setGamingRunning(1);
    for (const char* name : {"wlan1 -j DROP", "rmnet_data0;reboot", "wlan0", "ccmni0", "ccmni1"}) {
        manager->updateInterfaceIptables(name, true);
        manager->updateInterfaceIptables(name, false);
    }
    manager->updateInterfaceIptables("rmnet_data1", true);
    EXPECT_EQ(manager->set_SLS_interface("wlan0 -j DROP"), -1);
    EXPECT_EQ(setRatios({{"wlan1 -j DROP", 0.5f}}), -1);
    for (const char* refusal : {"refused interface name \"wlan1 -j DROP\"", "refused route table \"main;reboot\"",
                                "refused mark \"0x800000 -j DROP\"", "refused route table \"main\""})
        EXPECT_TRUE(log->contains(refusal)) << refusal;
    std::string all;
    for (const std::string& cmd : commands()) all += cmd + "\n";
    for (const char* planted : {"DROP", "reboot", ";", "$(", "uid-owner 1 ", "table main"})
        EXPECT_EQ(all.find(planted), std::string::npos) << planted << " in\n" << all;
    // The good entries still get their rules.
    for (const char* good : {"uid-owner 10200 -j vexo_fw_rmnet_data1", "uid-owner 10456 -j vexo_sls_rmnet_data1"})
        EXPECT_NE(all.find(good), std::string::npos) << good;
}

TEST(Execnetd, SplitsAtBlanksRunsWithoutAShellAndLogsOutput) {
    // "argv-tool" records its arguments as "[a][b]..." and prints a line on each stream.
    const std::string argv = vord::resolvePath("/record/argv");
    const std::string marker = vord::resolvePath("/record/injected");
    vord::test::TempRoot::writeAt(vord::resolvePath("/system/bin/argv-tool"),
                                  "#!/bin/sh\nfor a in \"$@\"; do printf '[%s]' \"$a\"; done > '" + argv +
                                      "'\necho 'chain exists'\necho 'no rule' >&2\n",
                                  0755);
    const std::string cmd = "/system/bin/argv-tool  -w   a;touch " + marker + " $(id) 'q' |";
    vord::LogCapture log;
    EXPECT_EQ(execnetd(cmd.c_str()), 0);
    EXPECT_EQ(vord::test::readWholeFile(argv), "[-w][a;touch][" + marker + "][$(id)]['q'][|]");
    EXPECT_NE(access(marker.c_str(), F_OK), 0);
    // Each output line is logged as an error, with the command after it.
    EXPECT_EQ(log.count("E/MUX-Vord-iptablesManager:  SLA EXECNETD FAIL cmd - " + cmd), 2u);
    EXPECT_TRUE(log.contains("SLA EXECNETD FAIL - no rule"));
    log.clear();
    std::string listing;  // collected, not logged
    EXPECT_EQ(execnetd(cmd.c_str(), nullptr, &listing), 0);
    EXPECT_EQ(listing, "chain exists\nno rule\n");
    EXPECT_FALSE(log.contains("SLA EXECNETD FAIL"));
    EXPECT_EQ(execnetd("/system/bin/no-such-tool -w"), -1);
    EXPECT_TRUE(log.contains("SEND SLA NDC COMMAND - FAIL  /system/bin/no-such-tool -w"));
}

// The runner waits for the tool's exit, not the end of its output; a tool still
// running at the deadline is killed with its children. Non-zero exits and kills
// count as failures, the last one kept with its output.
TEST(Execnetd, WaitsForTheExitKillsAtTheDeadlineAndCountsFailures) {
    const std::string pids = vord::resolvePath("/record/pids");
    vord::test::TempRoot::writeAt(
            vord::resolvePath("/system/bin/odd-tool"),
            "#!/bin/sh\ncase \"$1\" in\n"
            "fail) echo 'RTNETLINK answers: File exists'; exit 2;;\n"      // fails at once
            "leave) sleep 60 & echo $! > '" + pids + "'; exit 0;;\n"       // its child holds the output
            "hang) sleep 60 & echo $! > '" + pids + "'; wait;;\nesac\n",  // runs past the deadline
            0755);
    const auto failed = [] { return vord::counters().ruleCommandsFailed.load(); };
    // Running, not a zombie waiting for the reaper.
    const auto child = [&] { return std::stoi(vord::test::readWholeFile(pids)); };
    const auto alive = [&] {
        const std::string stat = vord::test::readWholeFile("/proc/" + std::to_string(child()) + "/stat");
        return !stat.empty() && stat.find(") Z ") == std::string::npos;
    };
    const uint64_t before = failed();
    vord::LogCapture log;
    EXPECT_EQ(execnetd("/system/bin/odd-tool fail"), 0);
    EXPECT_EQ(failed(), before + 1);
    vord::RuleFailure last = vord::lastRuleFailure();
    EXPECT_EQ(last.command + "|" + last.result + "|" + last.output,
              "/system/bin/odd-tool fail|exit 2|RTNETLINK answers: File exists\\x0a");
    EXPECT_TRUE(log.contains("E/MUX-Vord-iptablesManager: execnetd command failed (exit 2): /system/bin/odd-tool fail"));

    EXPECT_EQ(execnetd("/system/bin/odd-tool leave"), 0);
    EXPECT_TRUE(alive());  // returned while the child still held the pipe
    kill(child(), SIGKILL);
    EXPECT_EQ(failed(), before + 1);

    setRuleCommandTimeout(1);
    EXPECT_EQ(execnetd("/system/bin/odd-tool hang"), 0);
    setRuleCommandTimeout(kDefaultRuleCommandTimeoutSeconds);
    EXPECT_EQ(failed(), before + 2);
    EXPECT_EQ(vord::lastRuleFailure().result, "killed after 1 s");
    EXPECT_TRUE(waitFor([&] { return !alive(); })) << "the tool's child outlived the kill";
}

// From the tools' listings: owned chains (and only they) lose their jumps, then
// are flushed, then deleted; every rule at the daemon's priority goes.
TEST(StartupSweep, TakesOwnedChainsHooksAndRulesAtThePriorityOnly) {
    const std::string nat =
        "-P POSTROUTING ACCEPT\n-N vexo_nat_POSTROUTING_MUX\n-N other\n-N vexo_fw_wlan1\n-N vexo_x;reboot\n"
        "-A POSTROUTING -j vexo_nat_POSTROUTING_MUX\n-A POSTROUTING -o eth0 -j vexo_fw_wlan1\n"
        "-A other -j vexo_fw_wlan1\n-A other -j ACCEPT\n-A vexo_nat_POSTROUTING_MUX -o wlan1 -j MASQUERADE\n";
    EXPECT_EQ(rules::chainSweep({"IPT", "nat"}, nat),
              (Strings{"IPT -w -t nat -D POSTROUTING -j vexo_nat_POSTROUTING_MUX", "IPT -w -t nat -D other -j vexo_fw_wlan1",
                       "IPT -w -t nat -F vexo_nat_POSTROUTING_MUX", "IPT -w -t nat -F vexo_fw_wlan1",
                       "IPT -w -t nat -X vexo_nat_POSTROUTING_MUX", "IPT -w -t nat -X vexo_fw_wlan1"}));
    const std::string rules =
        "0:\tfrom all lookup local\n14999:\tfrom all fwmark 0x200000/0xce00000 lookup wlan0\n"
        "149990:\tfrom all lookup main\n14999:\tfrom all fwmark 0x400000/0xce00000 lookup wlan1\n";
    EXPECT_EQ(rules::ruleSweep({"IP", "-4"}, rules), (Strings(2, "IP -4 rule del prio 14999")));
    EXPECT_EQ(rules::chainSweep({"IPT", "mangle"}, ""), Strings{});
}

}  // namespace
