// The rule tree in a real (namespaced) network stack, driven through the daemon:
// the base tree, a second daemon after a killed one, the whitelist entry chain,
// the per-interface rules as interfaces come and go, and nothing left after stop.
#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "LinkLab.h"

namespace {

using namespace vord::test;

using Strings = std::vector<std::string>;

class RulesE2E : public LabTest {
  protected:
    // The lines of `cmd`'s output that begin with `head`, without it.
    Strings linesAfter(const std::string& cmd, const std::string& head) const {
        Strings out;
        std::istringstream text(lab->exec(cmd));
        for (std::string l; std::getline(text, l);) {
            if (l.compare(0, head.size(), head) == 0) out.push_back(l.substr(head.size()));
        }
        return out;
    }
    Strings rules(const std::string& table, const std::string& chain) const {
        return linesAfter("iptables-save -t " + table, "-A " + chain + " ");
    }
    bool hasChain(const std::string& chain) const {
        return !linesAfter("iptables-save -t mangle", ":" + chain + " ").empty();
    }
    Strings fwmarkRules() const { return linesAfter("ip rule show", "14999:\tfrom all "); }

    void expectBaseTree() const {
        EXPECT_EQ(rules("mangle", "vexo_MUX"),
                  (Strings{"-j vexo_SLS",
                           "-m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark "
                           "--nfmask 0xffffffff --ctmask 0xffffffff",
                           "-j vexo_SLA"}));
        for (const char* chain : {"vexo_SLA", "vexo_SLS", "vexo_MUX_wapper"}) {
            EXPECT_TRUE(hasChain(chain) && rules("mangle", chain).empty()) << chain;
        }
        EXPECT_EQ(rules("mangle", "OUTPUT"), (Strings{"-j vexo_MUX_wapper"}));
        EXPECT_EQ(rules("nat", "POSTROUTING"), (Strings{"-j vexo_nat_POSTROUTING_MUX"}));
    }
};

TEST_F(RulesE2E, BaseTreeWhitelistAndInterfaceRulesComeAndGo) {
    ASSERT_NO_FATAL_FAILURE(buildLab({{"wlan0", 0}, {"wlan1", 0}, {"rmnet_data0", 0}}));
    // Block files the daemon maps at once.
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) {
        root.writeFile(std::string("/proc/sla/") + name + "_mmap", std::string(20480, '\0'));
    }
    const std::string conf = "mini_est_interval=100\nuid_whitelist=10123,10456\n";
    ASSERT_NO_FATAL_FAILURE(startDaemon(conf));  // it serves once the base tree is built
    expectBaseTree();
    daemon->kill();
    ASSERT_NO_FATAL_FAILURE(startDaemon(conf));
    expectBaseTree();  // still one hook of each kind

    vordctl("gateway 192.168.1.1");
    const Strings entry{"-d 192.168.1.1/32 -j RETURN", "-m owner --uid-owner 10123 -j vexo_MUX",
                        "-m owner --uid-owner 10456 -j vexo_MUX"};
    // No log line follows the last command of the rebuild: poll the chain.
    EXPECT_TRUE(waitFor([&] { return rules("mangle", "vexo_MUX_wapper") == entry; }))
        << ::testing::PrintToString(rules("mangle", "vexo_MUX_wapper"));

    vordctl("ifaces wlan0,wlan1,rmnet_data0");
    ASSERT_TRUE(daemon->waitForLog("preinterfacelist is rmnet_data0")) << daemon->log();
    const Strings names{"wlan0", "wlan1", "rmnet_data0"}, marks{"0x200000", "0x400000", "0x600000"};
    Strings fwmarks, masquerades;
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(rules("mangle", "vexo_fw_" + names[i]),
                  (Strings{"-j MARK --set-xmark " + marks[i] + "/0xe00000",
                           "-j CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xe00000",
                           "-j ACCEPT"}));
        EXPECT_EQ(hasChain("vexo_fw_" + names[i] + "_wrapper"), i > 0) << names[i];
        fwmarks.push_back("fwmark " + marks[i] + "/0xce00000 lookup " + names[i]);
        masquerades.push_back("-o " + names[i] + " -j MASQUERADE");
    }
    EXPECT_EQ(fwmarkRules(), fwmarks);
    EXPECT_EQ(rules("nat", "vexo_nat_POSTROUTING_MUX"), masquerades);
    EXPECT_EQ(rules("mangle", "vexo_MUX_wapper"), entry);

    vordctl("ifaces wlan0");
    ASSERT_TRUE(daemon->waitForLog("preinterfacelist is wlan0", std::chrono::seconds(10), 2)) << daemon->log();
    for (const char* gone : {"vexo_fw_wlan1", "vexo_fw_wlan1_wrapper", "vexo_fw_rmnet_data0",
                             "vexo_fw_rmnet_data0_wrapper"}) {
        EXPECT_FALSE(hasChain(gone)) << gone;
    }
    EXPECT_EQ(rules("mangle", "vexo_fw_wlan0").size(), 3u);
    // The removal empties the cascade; the next ratio evaluation may already have
    // rewritten it, for the remaining link only.
    const std::string log = daemon->log();
    EXPECT_NE(log.find("iptables-wrapper-1.0 -w -t mangle -F vexo_SLA", log.find("remove Interfaces is wlan1")),
              std::string::npos);
    for (const std::string& rule : rules("mangle", "vexo_SLA")) {
        EXPECT_NE(rule.find("-j vexo_fw_wlan0"), std::string::npos) << rule;
    }
    EXPECT_EQ(rules("nat", "vexo_nat_POSTROUTING_MUX"), (Strings{masquerades[0]}));
    EXPECT_EQ(fwmarkRules(), (Strings{fwmarks[0]}));

    ASSERT_TRUE(daemon->stopThroughProperty()) << daemon->log();
    EXPECT_EQ(lab->exec("iptables-save | grep vexo_"), "");
    EXPECT_EQ(fwmarkRules(), Strings{});
}

}  // namespace
