// The rule tree in a real (namespaced) network stack, driven through the daemon:
// the base tree, the whitelist entry chain,
// the per-interface rules as interfaces come and go, and nothing left after stop;
// then signals and crashes in the middle of an add, a switch and a probe.
#include <gtest/gtest.h>

#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <set>
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
    // Every vord chain, rule and policy rule in the kernel.
    std::string leftovers() const { return lab->exec("iptables-save | grep vexo_; ip rule show | grep ^14999:"); }

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

// Each run starts a daemon (which sweeps what the run before left), gives it
// links, holds it in the middle of an interface add, a switch or a probe, and
// ends it there: SIGTERM and SIGINT leave no rule and exit 0; after a SIGKILL the
// next run, given fewer links, has exactly its own rules and no duplicate, and
// its own ending leaves nothing.
TEST_F(RulesE2E, SignalsAndCrashesInAnAddASwitchAndAProbe) {
    using namespace std::chrono_literals;
    ASSERT_NO_FATAL_FAILURE(buildLab({{"wlan0", 5}, {"wlan1", 5}, {"rmnet_data0", 5}}));
    ASSERT_TRUE(lab->setProbeEcho(true));
    for (const char* name : {"wlan0", "wlan1", "rmnet_data0"}) {
        root.writeFile(std::string("/proc/sla/") + name + "_mmap", std::string(20480, '\0'));
    }
    // The iptables stand-in stops before a command holding the text of
    // "/pause-at" (its pid in "/paused") until that file is removed.
    const std::string pauseAt = root.at("/pause-at"), paused = root.at("/paused");
    root.writeFile("/system/bin/iptables-wrapper-1.0",
                   "#!/bin/sh\npat=$(cat " + pauseAt + " 2>/dev/null)\ncase \"$pat|$*\" in ?*\"|\"*\"$pat\"*)\n"
                   "  echo $$ > " + paused + "; while [ -e " + pauseAt + " ]; do sleep 0.02; done;;\nesac\n"
                   "exec iptables \"$@\"\n", 0755);
    const std::string conf = "mini_est_interval=100\nping_interval_ms=200\nmin_ping_times=2\nt_hyst_s=0\n";
    struct Run {
        const char* point;
        int sig;
        const char* links;
    };
    const Run runs[] = {{"add", SIGTERM, "wlan0,wlan1,rmnet_data0"}, {"add", SIGKILL, "wlan0,wlan1,rmnet_data0"},
                        {"add", SIGINT, "wlan0,wlan1"},       {"switch", SIGTERM, "wlan0,wlan1"},
                        {"switch", SIGKILL, "wlan0,wlan1,rmnet_data0"}, {"switch", SIGINT, "wlan0"},
                        {"probe", SIGTERM, "wlan0,wlan1"},    {"probe", SIGKILL, "wlan0,wlan1,rmnet_data0"},
                        {"probe", SIGINT, "wlan0,wlan1"}};
    for (const Run& run : runs) {
        SCOPED_TRACE(std::string(run.point) + " " + strsignal(run.sig) + " " + run.links);
        const std::string point = run.point;
        if (point == "probe") {
            ASSERT_TRUE(lab->setDelay("wlan0", 30) && lab->setDelay("wlan1", 30));
        }
        unlink(paused.c_str());
        if (point != "probe") root.writeFile("/pause-at", point == "add" ? "-N vexo_fw_wlan1" : "-A vexo_SLS ");
        ASSERT_NO_FATAL_FAILURE(startDaemon(conf));
        const size_t probes = countOf(lab->connectionLog(), "echo accept");
        vordctl(std::string("ifaces ") + run.links);
        if (point != "add") {
            const std::string links = run.links, last = links.substr(links.rfind(',') + 1);
            ASSERT_TRUE(daemon->waitForLog("preinterfacelist is " + last)) << daemon->log();
            vordctl("sls-start 10123");
        }
        if (point == "probe") {
            EXPECT_TRUE(waitFor([&] { return countOf(lab->connectionLog(), "echo accept") > probes; }, 5s));
        } else {
            ASSERT_TRUE(waitFor([&] { return !readWholeFile(paused).empty(); }, 20s)) << daemon->log();
        }
        // What a crash or the run before left is gone (every chain and policy
        // rule is of a listed link), and nothing is doubled.
        const std::string listed = std::string(",") + run.links + ",";
        // The link of a per-link chain ("vexo_sls_uid_X", "vexo_fw_X_wrapper", ...)
        // or policy rule ("... lookup X"); "" for the others.
        auto linkOf = [](const std::string& l) -> std::string {
            if (l.compare(0, 6, "14999:") == 0) return l.substr(l.rfind(' ') + 1);
            for (const std::string head : {":vexo_sls_uid_", ":vexo_sls_", ":vexo_fw_"}) {
                if (l.compare(0, head.size(), head) != 0) continue;
                std::string link = l.substr(head.size(), l.find(' ') - head.size());
                return link.size() > 8 && link.compare(link.size() - 8, 8, "_wrapper") == 0 ? link.substr(0, link.size() - 8) : link;
            }
            return "";
        };
        std::set<std::string> seen;
        std::istringstream in(lab->exec("iptables-save; ip rule show"));
        for (std::string l; std::getline(in, l);) {
            const bool ours = l.find("vexo_") != std::string::npos || l.compare(0, 6, "14999:") == 0;
            EXPECT_TRUE(!ours || seen.insert(l).second) << "twice: " << l;
            EXPECT_TRUE(linkOf(l).empty() || listed.find("," + linkOf(l) + ",") != std::string::npos) << l;
        }

        ASSERT_EQ(kill(daemon->pid(), run.sig), 0);
        if (run.sig == SIGKILL) {
            const pid_t tool = std::atoi(readWholeFile(paused).c_str());
            if (tool > 0) kill(tool, SIGKILL);  // the tool dies with it
            daemon->kill();
            unlink(pauseAt.c_str());
            continue;
        }
        unlink(pauseAt.c_str());  // the held command goes on, then the teardown
        EXPECT_EQ(daemon->waitExit(), 0) << daemon->log();
        EXPECT_EQ(leftovers(), "");
    }
}

}  // namespace
