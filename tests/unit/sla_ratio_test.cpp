// Share computation, change test, per-period driver and its locking.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include <vord/LogCapture.h>

#include "SlaTestSupport.h"
#include "sla/SlaStatsImpl.h"

using namespace slatest;

class SlaRatioTest : public SlaFixture {
  protected:
    // Registers the links (name, metered, rate), maps their blocks and sets the rates.
    void links(std::initializer_list<std::tuple<const char*, bool, uint32_t>> list) {
        for (const auto& l : list) {
            registerInterface(std::get<0>(l), std::get<1>(l));
            blocks.emplace_back(new BlockFile(std::get<0>(l)));
        }
        ASSERT_TRUE(impl->enableSLA(true));
        for (const auto& l : list) set(std::get<0>(l), std::get<2>(l));
    }
    void set(const char* name, uint32_t rate, float ratio = -1) {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        linkStatsWrapper_t* w = impl->slaInterfaceMap().at(name);
        w->linkRate = rate;
        if (ratio >= 0) w->ratio = ratio;
    }
    float ratio(const char* name) {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        return impl->slaInterfaceMap().at(name)->ratio;
    }

    std::vector<std::unique_ptr<BlockFile>> blocks;
};

TEST_F(SlaRatioTest, DominantWifiLinkIsCappedOtherwiseSharesFollowRates) {
    links({{"wlan0", false, 900}, {"wlan1", false, 100}});
    EXPECT_TRUE(impl->calcSlaRatios(SLA_CALC_WLAN_ONLY, 0, 1000, 900));
    EXPECT_FLOAT_EQ(0.80f, ratio("wlan0"));
    EXPECT_FLOAT_EQ(0.20f, ratio("wlan1"));
    EXPECT_EQ(85u, Parameters::instance()->getWifiDominantTrigger());
    EXPECT_EQ(80u, Parameters::instance()->getWifiDominantCap());

    set("wlan0", 800);
    set("wlan1", 200);
    impl->calcSlaRatios(SLA_CALC_WLAN_ONLY, 0, 1000, 800);
    EXPECT_FLOAT_EQ(0.8f, ratio("wlan0"));
    EXPECT_FLOAT_EQ(0.2f, ratio("wlan1"));
}

TEST_F(SlaRatioTest, ThreeWifiLinksUseTheLowerTriggerAndCap) {
    links({{"wlan0", false, 900}, {"wlan1", false, 50}, {"wlan2", false, 50}});
    impl->calcSlaRatios(SLA_CALC_WLAN_ONLY, 0, 1000, 900);  // 0.9 > 0.80: capped at 0.75
    EXPECT_FLOAT_EQ(0.75f, ratio("wlan0"));
    EXPECT_FLOAT_EQ(0.125f, ratio("wlan1"));
    EXPECT_FLOAT_EQ(0.125f, ratio("wlan2"));
}

TEST_F(SlaRatioTest, WifiScaledByThresholdCellularSharesTheRest) {
    links({{"rmnet_data0", true, 1000}, {"wlan0", false, 800}});
    impl->calcSlaRatios(SLA_CALC_WLAN_WWAN, 1000, 800, 800);
    EXPECT_FLOAT_EQ(0.5f, ratio("wlan0"));
    EXPECT_FLOAT_EQ(0.5f, ratio("rmnet_data0"));

    // A cellular link without a rate gets what the Wi-Fi share leaves.
    set("rmnet_data0", 0);
    impl->calcSlaRatios(SLA_CALC_WLAN_WWAN, 0, 800, 800);
    EXPECT_FLOAT_EQ(0.5f, ratio("wlan0"));
    EXPECT_FLOAT_EQ(0.5f, ratio("rmnet_data0"));

    // No rate anywhere: Wi-Fi takes everything.
    set("wlan0", 0);
    impl->calcSlaRatios(SLA_CALC_WLAN_WWAN, 0, 0, 0);
    EXPECT_FLOAT_EQ(1.0f, ratio("wlan0"));
    EXPECT_FLOAT_EQ(0.0f, ratio("rmnet_data0"));
}

TEST_F(SlaRatioTest, SmallMovesAreNotReportedAsChange) {
    links({{"wlan0", false, 510}, {"wlan1", false, 490}});
    set("wlan0", 510, 0.5f);
    set("wlan1", 490, 0.5f);
    EXPECT_FALSE(impl->calcSlaRatios(SLA_CALC_WLAN_ONLY, 0, 1000, 510));
    EXPECT_FLOAT_EQ(0.51f, ratio("wlan0"));
    set("wlan0", 600, 0.5f);
    set("wlan1", 400, 0.5f);
    EXPECT_TRUE(impl->calcSlaRatios(SLA_CALC_WLAN_ONLY, 0, 1000, 600));
}

TEST_F(SlaRatioTest, RatioLinesScrambleTheNameAndComeAtMostEverySixSeconds) {
    links({{"wlan0", false, 800}});
    vord::LogCapture log;
    impl->calcSlaRatios(SLA_CALC_WLAN_WWAN, 0, 800, 800);
    EXPECT_TRUE(log.contains("I/MUX-Vord-SlaStatsImpl: calcSlaRatios SLA_RATIO oldRatio = 0.000000, "
                             "new ratio = 0.500000, LRE = 800, iterf = \x28\x7D\x72\x7F\x41"));
    log.clear();
    impl->calcSlaRatios(SLA_CALC_WLAN_WWAN, 0, 800, 800);
    EXPECT_FALSE(log.contains("SLA_RATIO"));
}

TEST_F(SlaRatioTest, EvaluationEstimatesRatesAndHandsCopiesToTheRuleUpdate) {
    // Defaults: estimate_pack_num 5, wan_threshold 500, no estimate cache.
    std::vector<std::map<std::string, float>> applied;
    impl->setRatioApplier([&](std::map<std::string, linkStatsWrapper_t*>& copies) {
        std::map<std::string, float> got;
        for (auto& e : copies) {
            EXPECT_EQ(nullptr, e.second->stats);
            got[e.second->ifname] = e.second->ratio;
        }
        applied.push_back(got);
        return 0;
    });
    links({{"rmnet_data0", true, 0}, {"wlan0", false, 0}});
    // 1000 kbit/s and 500 kbit/s over five 100 ms intervals each.
    writeIntervals(blocks[0]->block, {100, 100, 100, 100, 100}, 6400);
    writeIntervals(blocks[1]->block, {100, 100, 100, 100, 100}, 12800);
    impl->evalAndSetSLAInterfaceRatio();
    ASSERT_EQ(1u, applied.size());
    EXPECT_FLOAT_EQ(0.625f, applied[0]["wlan0"]);
    EXPECT_FLOAT_EQ(0.375f, applied[0]["rmnet_data0"]);

    impl->evalAndSetSLAInterfaceRatio();  // same rates: nothing to apply
    EXPECT_EQ(1u, applied.size());

    // One interval is too few: Wi-Fi counts as 0 and cellular takes everything.
    writeIntervals(blocks[1]->block, {500}, 64000);
    impl->evalAndSetSLAInterfaceRatio();
    ASSERT_EQ(2u, applied.size());
    EXPECT_FLOAT_EQ(0.0f, applied[1]["wlan0"]);
    EXPECT_FLOAT_EQ(1.0f, applied[1]["rmnet_data0"]);
}

TEST_F(SlaRatioTest, InterfaceChangesWhileTheLoopEvaluates) {
    std::atomic<int> applies{0};
    impl->setRatioApplier([&](std::map<std::string, linkStatsWrapper_t*>&) { return ++applies; });
    links({{"wlan0", false, 0}, {"rmnet_data0", true, 0}});
    writeIntervals(blocks[0]->block, {100, 100, 100, 100, 100}, 12800);
    BlockFile wlan1("wlan1");
    writeIntervals(wlan1.block, {100, 100, 100, 100, 100}, 3200);

    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; i < 20; ++i) {
            registerInterface("wlan1", false);
            impl->updateSlaInterfacemap("wlan1", true);
            Parameters::instance()->delOldInterfacetoMap("wlan1");
            impl->updateSlaInterfacemap("wlan1", false);
        }
        done = true;
    });
    int periods = 0;
    while (!done) {
        impl->evalAndSetSLAInterfaceRatio();
        ++periods;
    }
    control.join();
    EXPECT_GT(periods, 0);
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    EXPECT_EQ(2u, impl->slaInterfaceMap().size());
}
