// The aggregation cascade in vexo_SLA.

#include "RulesFixture.h"

#include <map>

namespace {

class RatioTest : public RulesTest {
  protected:
    void link(const char* name, float ratio) {
        auto wrapper = std::make_unique<linkStatsWrapper_t>();
        snprintf(wrapper->ifname, sizeof(wrapper->ifname), "%s", name);
        wrapper->ratio = ratio;
        slaMap[name] = wrapper.get();
        wrappers.push_back(std::move(wrapper));
    }

    // The rules written, as "probability target".
    Strings cascade() {
        EXPECT_EQ(manager->set_SLA_ratio_iptables(slaMap), 0);
        loggedRatios = log->grep("Updated Ratio: ");
        Strings seen = commands();
        EXPECT_FALSE(seen.empty());
        if (seen.empty()) return seen;
        EXPECT_EQ(seen[0], IPT "-F vexo_SLA");
        const std::string head =
            IPT "-A vexo_SLA -p tcp -m state --state NEW -m statistic --mode random --probability ";
        Strings rules;
        for (size_t i = 1; i < seen.size(); ++i) {
            EXPECT_EQ(seen[i].compare(0, head.size(), head), 0) << seen[i];
            std::string rest = seen[i].substr(head.size());
            size_t jump = rest.find(" -j ");
            rules.push_back(rest.substr(0, jump) + " " + rest.substr(jump + 4));
        }
        return rules;
    }

    Strings loggedRatios;
    std::map<std::string, linkStatsWrapper_t*> slaMap;
    std::vector<std::unique_ptr<linkStatsWrapper_t>> wrappers;
};

}  // namespace

TEST_F(RatioTest, NonMeteredFirstAndWrappersForSecondaryAndCellular) {
    addRecord("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    addRecord("wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff");
    addRecord("rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff");
    link("rmnet_data0", 0.25f);
    link("wlan0", 0.5f);
    link("wlan1", 0.25f);
    EXPECT_EQ(cascade(), (Strings{"0.500000 vexo_fw_wlan0", "0.500000 vexo_fw_wlan1_wrapper",
                                  "0.000000 vexo_fw_rmnet_data0_wrapper"}));
}

TEST_F(RatioTest, MeteredRuleTakesWhatIsLeft) {
    addRecord("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    addRecord("rmnet_data0,1,rmnet_data0,0x600000,0,0,0,0,ffffffffffff");
    link("wlan0", 0.6f);
    link("rmnet_data0", 0.4f);
    EXPECT_EQ(cascade(), (Strings{"0.600000 vexo_fw_wlan0", "1.000000 vexo_fw_rmnet_data0_wrapper"}));

    // An unregistered link, or a null wrapper, gets no rule.
    slaMap.erase("rmnet_data0");
    link("wlan5", 0.4f);
    slaMap["ccmni0"] = nullptr;
    EXPECT_EQ(cascade(), (Strings{"0.600000 vexo_fw_wlan0"}));
}

TEST_F(RatioTest, DualWifiOverrideAfterTheLoggedRatio) {
    addRecord("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    addRecord("wlan1,0,wlan1,0x400000,0,0,0,1,ffffffffffff");
    link("wlan0", 0.3f);
    link("wlan1", 0.7f);
    params->setDoubleWifiSelectStatus(1);
    EXPECT_EQ(cascade(), (Strings{"1.000000 vexo_fw_wlan0", "0.000000 vexo_fw_wlan1_wrapper"}));
    // Logged before the override: wlan1 sees 0.7 / (1 - 1.0), nothing left, so 1.0.
    EXPECT_EQ(loggedRatios,
              (Strings{"I/MUX-Vord-iptablesManager: Updated Ratio: 0.300000",
                       "I/MUX-Vord-iptablesManager: Updated Ratio: 1.000000"}));
    params->setDoubleWifiSelectStatus(2);
    EXPECT_EQ(cascade(), (Strings{"0.000000 vexo_fw_wlan0", "1.000000 vexo_fw_wlan1_wrapper"}));
}
