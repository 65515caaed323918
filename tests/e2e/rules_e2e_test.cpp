// The rule tree in a real (namespaced) network stack, driven through the daemon.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "DaemonProcess.h"
#include "NetNamespace.h"
#include "TempRoot.h"

using namespace vord::test;
using Strings = std::vector<std::string>;

namespace {

// A short loop period keeps the stop through the property quick.
constexpr const char* kConf = "mini_est_interval=100\n";

// Logged by the control thread, which starts once the base tree is built.
constexpr const char* kServing = "Created socket success";

Strings lines(const std::string& text) {
    Strings out;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line)) out.push_back(line);
    return out;
}

// The rules of `chain` in an iptables-save dump, in order, without "-A chain ".
Strings rulesOf(const std::string& dump, const std::string& chain) {
    Strings out;
    const std::string head = "-A " + chain + " ";
    for (const std::string& l : lines(dump)) {
        if (l.compare(0, head.size(), head) == 0) out.push_back(l.substr(head.size()));
    }
    return out;
}

bool hasChain(const std::string& dump, const std::string& chain) {
    for (const std::string& l : lines(dump)) {
        if (l.compare(0, chain.size() + 2, ":" + chain + " ") == 0) return true;
    }
    return false;
}

// Everything of the daemon: chain names, hooks and routing rules begin "vexo_" or
// carry the priority 14999.
Strings leftovers(const NetNamespace& ns) {
    Strings out;
    for (const std::string& l : lines(ns.exec("iptables-save"))) {
        if (l.find("vexo_") != std::string::npos) out.push_back(l);
    }
    for (const std::string& l : lines(ns.exec("ip rule show"))) {
        if (l.compare(0, 6, "14999:") == 0) out.push_back(l);
    }
    return out;
}

class RulesE2E : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "\n*** END-TO-END RULE TESTS SKIPPED: they need root for network "
                            "namespaces and iptables. Run ctest as root. ***\n";
        }
        ns = std::make_unique<NetNamespace>();
        ASSERT_EQ(ns->error(), "") << "network namespace set-up failed";
        ns->installTools(root);
        root.writeConf(kConf);
    }

    // Starts a daemon and waits until it serves, which it does only after building
    // the base tree (`nth`: the how-many-th daemon in this root's log). A command's
    // PASS line is logged as it starts, so it cannot tell that the command is done.
    std::unique_ptr<DaemonProcess> startDaemon(size_t nth = 1) {
        auto d = std::make_unique<DaemonProcess>(root);
        d->start();
        EXPECT_TRUE(d->waitForLog(kServing, std::chrono::seconds(20), nth)) << d->log();
        return d;
    }

    // Polls until `chain` of `table` holds `expected`; returns what it holds last.
    Strings waitForRules(const std::string& table, const std::string& chain,
                         const Strings& expected) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        Strings seen;
        do {
            seen = rulesOf(ns->exec("iptables-save -t " + table), chain);
            if (seen == expected) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        } while (std::chrono::steady_clock::now() < deadline);
        return seen;
    }

    // Sends one control command: through vordctl when it is built, else directly.
    void send(int id, const std::string& name, const std::string& payload) {
        std::string vordctl = binPath("vordctl");
        if (access(vordctl.c_str(), X_OK) == 0) {
            ShellResult r = shell("VORD_ROOT='" + root.path() + "' '" + vordctl + "' " + name +
                                  " '" + payload + "'");
            ASSERT_EQ(r.status, 0) << r.output;
            return;
        }
        ControlClient client(root);
        ASSERT_TRUE(client.connect());
        ASSERT_TRUE(client.send(id, payload));
    }

    void expectBaseTree() {
        std::string mangle = ns->exec("iptables-save -t mangle");
        EXPECT_EQ(rulesOf(mangle, "vexo_MUX"),
                  (Strings{"-j vexo_SLS",
                           "-m state --state RELATED,ESTABLISHED -j CONNMARK --restore-mark "
                           "--nfmask 0xffffffff --ctmask 0xffffffff",
                           "-j vexo_SLA"}));
        for (const char* chain : {"vexo_SLA", "vexo_SLS", "vexo_MUX_wapper"}) {
            EXPECT_TRUE(hasChain(mangle, chain)) << chain << "\n" << mangle;
            EXPECT_TRUE(rulesOf(mangle, chain).empty()) << chain << "\n" << mangle;
        }
        EXPECT_EQ(rulesOf(mangle, "OUTPUT"), (Strings{"-j vexo_MUX_wapper"})) << mangle;
        std::string nat = ns->exec("iptables-save -t nat");
        EXPECT_TRUE(hasChain(nat, "vexo_nat_POSTROUTING_MUX")) << nat;
        EXPECT_EQ(rulesOf(nat, "POSTROUTING"), (Strings{"-j vexo_nat_POSTROUTING_MUX"})) << nat;
    }

    TempRoot root;
    std::unique_ptr<NetNamespace> ns;
};

}  // namespace

TEST_F(RulesE2E, BaseTreeSurvivesAKilledDaemonAndGoesAwayOnStop) {
    auto first = startDaemon();
    expectBaseTree();

    first->kill();
    auto second = startDaemon(2);
    expectBaseTree();

    ASSERT_TRUE(second->stopThroughProperty()) << second->log();
    EXPECT_EQ(leftovers(*ns), Strings{});
}

TEST_F(RulesE2E, InterfaceListBuildsAndRemovesPerInterfaceRules) {
    auto daemon = startDaemon();
    ASSERT_TRUE(daemon->waitUntilServing()) << daemon->log();

    send(1, "ifaces", "wlan0,wlan1,rmnet_data0");
    ASSERT_TRUE(daemon->waitForLog("preinterfacelist is rmnet_data0")) << daemon->log();
    std::string mangle = ns->exec("iptables-save -t mangle");
    const Strings names{"wlan0", "wlan1", "rmnet_data0"};
    const Strings marks{"0x200000", "0x400000", "0x600000"};
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(rulesOf(mangle, "vexo_fw_" + names[i]),
                  (Strings{"-j MARK --set-xmark " + marks[i] + "/0xe00000",
                           "-j CONNMARK --save-mark --nfmask 0xffffffff --ctmask 0xe00000",
                           "-j ACCEPT"}))
            << mangle;
    }
    EXPECT_FALSE(hasChain(mangle, "vexo_fw_wlan0_wrapper")) << mangle;
    EXPECT_TRUE(hasChain(mangle, "vexo_fw_wlan1_wrapper")) << mangle;
    EXPECT_TRUE(hasChain(mangle, "vexo_fw_rmnet_data0_wrapper")) << mangle;
    Strings routing;
    for (const std::string& l : lines(ns->exec("ip rule show"))) {
        if (l.compare(0, 6, "14999:") == 0) routing.push_back(l);
    }
    std::sort(routing.begin(), routing.end());
    EXPECT_EQ(routing, (Strings{"14999:\tfrom all fwmark 0x200000/0xce00000 lookup wlan0",
                                "14999:\tfrom all fwmark 0x400000/0xce00000 lookup wlan1",
                                "14999:\tfrom all fwmark 0x600000/0xce00000 lookup rmnet_data0"}));
    EXPECT_EQ(rulesOf(ns->exec("iptables-save -t nat"), "vexo_nat_POSTROUTING_MUX"),
              (Strings{"-o wlan0 -j MASQUERADE", "-o wlan1 -j MASQUERADE",
                       "-o rmnet_data0 -j MASQUERADE"}));

    send(1, "ifaces", "wlan0");
    ASSERT_TRUE(daemon->waitForLog("preinterfacelist is wlan0", std::chrono::seconds(10), 2))
        << daemon->log();
    mangle = ns->exec("iptables-save -t mangle");
    for (const char* gone : {"vexo_fw_wlan1", "vexo_fw_wlan1_wrapper", "vexo_fw_rmnet_data0",
                             "vexo_fw_rmnet_data0_wrapper"}) {
        EXPECT_FALSE(hasChain(mangle, gone)) << gone << "\n" << mangle;
    }
    EXPECT_EQ(rulesOf(mangle, "vexo_fw_wlan0").size(), 3u) << mangle;
    EXPECT_TRUE(rulesOf(mangle, "vexo_SLA").empty()) << mangle;
    EXPECT_EQ(rulesOf(ns->exec("iptables-save -t nat"), "vexo_nat_POSTROUTING_MUX"),
              (Strings{"-o wlan0 -j MASQUERADE"}));
    EXPECT_EQ(ns->exec("ip rule show | grep '^14999:'"),
              "14999:\tfrom all fwmark 0x200000/0xce00000 lookup wlan0\n");

    ASSERT_TRUE(daemon->stopThroughProperty()) << daemon->log();
    EXPECT_EQ(leftovers(*ns), Strings{});
}

TEST_F(RulesE2E, GatewayAndUidWhitelistFillTheEntryChain) {
    root.writeConf(std::string(kConf) + "uid_whitelist=10123,10456\n");
    auto daemon = startDaemon();
    ASSERT_TRUE(daemon->waitUntilServing()) << daemon->log();

    send(4, "gateway", "192.168.1.1");
    const Strings expected{"-d 192.168.1.1/32 -j RETURN", "-m owner --uid-owner 10123 -j vexo_MUX",
                           "-m owner --uid-owner 10456 -j vexo_MUX"};
    EXPECT_EQ(waitForRules("mangle", "vexo_MUX_wapper", expected), expected) << daemon->log();

    ASSERT_TRUE(daemon->stopThroughProperty()) << daemon->log();
    EXPECT_EQ(leftovers(*ns), Strings{});
}
