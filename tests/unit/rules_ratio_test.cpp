// The aggregation cascade in vexo_SLA.

#include "RulesFixture.h"

#include <map>

namespace {

class RatioTest : public RulesTest {
  protected:
    void link(const char* name, float ratio) {
        wrappers.emplace_back(new linkStatsWrapper_t());
        snprintf(wrappers.back()->ifname, sizeof(wrappers.back()->ifname), "%s", name);
        wrappers.back()->ratio = ratio;
        slaMap[name] = wrappers.back().get();
    }

    // The rules written after the flush, as "probability target".
    Strings cascade() {
        EXPECT_EQ(manager->set_SLA_ratio_iptables(slaMap), 0);
        loggedRatios = log->grep("Updated Ratio: ");
        Strings seen = commands(), rules;
        const std::string head = IPT
            "-A vexo_SLA -p tcp -m state --state NEW -m statistic --mode "
            "random --probability ";
        EXPECT_EQ(seen.at(0), IPT "-F vexo_SLA");
        for (size_t i = 1; i < seen.size(); ++i) {
            EXPECT_EQ(seen[i].compare(0, head.size(), head), 0) << seen[i];
            std::string rest = seen[i].substr(head.size());
            rules.push_back(rest.replace(rest.find(" -j "), 4, " "));
        }
        return rules;
    }

    Strings loggedRatios;
    std::map<std::string, linkStatsWrapper_t*> slaMap;
    std::vector<std::unique_ptr<linkStatsWrapper_t>> wrappers;
};

}  // namespace

TEST_F(RatioTest, CascadeOrderProbabilitiesAndTargets) {
    addRecord("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    addRecord("wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff");
    addRecord("rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff");
    link("rmnet_data0", 0.25f);
    link("wlan0", 0.5f);
    link("wlan1", 0.25f);
    EXPECT_EQ(cascade(), (Strings{"0.500000 vexo_fw_wlan0", "0.500000 vexo_fw_wlan1_wrapper",
                                  "0.000000 vexo_fw_rmnet_data0_wrapper"}));

    // The metered link takes what is left; unregistered links and null wrappers
    // get no rule.
    slaMap.erase("wlan1");
    wrappers[0]->ratio = 0.4f;
    wrappers[1]->ratio = 0.6f;
    link("wlan5", 0.4f);
    slaMap["ccmni0"] = nullptr;
    EXPECT_EQ(cascade(),
              (Strings{"0.600000 vexo_fw_wlan0", "1.000000 vexo_fw_rmnet_data0_wrapper"}));
}

TEST_F(RatioTest, DualWifiOverrideAfterTheLoggedRatio) {
    addRecord("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    addRecord("wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff");
    link("wlan0", 0.3f);
    link("wlan1", 0.7f);
    params->setDoubleWifiSelectStatus(1);
    EXPECT_EQ(cascade(), (Strings{"1.000000 vexo_fw_wlan0", "0.000000 vexo_fw_wlan1_wrapper"}));
    // wlan1 sees 0.7 / (1 - 1.0): nothing left, so 1.0 before the override.
    EXPECT_EQ(loggedRatios, (Strings{"I/MUX-Vord-iptablesManager: Updated Ratio: 0.300000",
                                     "I/MUX-Vord-iptablesManager: Updated Ratio: 1.000000"}));
    params->setDoubleWifiSelectStatus(2);
    EXPECT_EQ(cascade(), (Strings{"0.000000 vexo_fw_wlan0", "1.000000 vexo_fw_wlan1_wrapper"}));
}
