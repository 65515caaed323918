// Shares from rates, the change test, the ratio log and the per-period driver.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include <vord/LogCapture.h>

#include "SlaTestSupport.h"

using namespace slatest;

namespace {

struct Link { const char* name; bool metered; uint32_t rate; };

// Links (wlan0 first), the shares wanted in link order, whether that is a change
// and every link's share before.
struct RatioCase { std::vector<Link> links; std::vector<float> want; bool changed = true; float old = 0; };

void PrintTo(const RatioCase& c, std::ostream* os) {
    for (const Link& l : c.links) *os << l.name << "=" << l.rate << ",";
}

class SlaRatioTest : public SlaFixture, public ::testing::WithParamInterface<RatioCase> {};

// Wi-Fi alone shares by rate, a dominant link pinned at the cap; with cellular
// links Wi-Fi takes rate / wifi_threshold (1600) and cellular the rest.
TEST_P(SlaRatioTest, SharesFromRates) {
    const RatioCase& c = GetParam();
    for (const Link& l : c.links) link(l.name, l.metered);
    ASSERT_TRUE(impl->enableSLA(true));
    float cell = 0, wifi = 0, wifiMax = 0;
    bool cellular = false;
    {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        for (const Link& l : c.links) {
            wrapper(l.name)->linkRate = l.rate;
            wrapper(l.name)->ratio = c.old;
            (l.metered ? cell : wifi) += static_cast<float>(l.rate);
            cellular |= l.metered;
            if (!l.metered) wifiMax = std::max(wifiMax, static_cast<float>(l.rate));
        }
    }
    vord::LogCapture log;
    EXPECT_EQ(c.changed,
              impl->calcSlaRatios(cellular ? SLA_CALC_WLAN_WWAN : SLA_CALC_WLAN_ONLY, cell, wifi, wifiMax));
    // The name in the ratio line is scrambled: "wlan0" reads "(}r\x7FA".
    EXPECT_TRUE(log.contains("LRE = " + std::to_string(c.links[0].rate) + ", iterf = \x28\x7D\x72\x7F\x41"));
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    for (size_t i = 0; i < c.links.size(); ++i)
        EXPECT_FLOAT_EQ(c.want[i], wrapper(c.links[i].name)->ratio) << c.links[i].name;
}

INSTANTIATE_TEST_SUITE_P(
    Rates, SlaRatioTest,
    ::testing::Values(RatioCase{{{"wlan0", false, 900}, {"wlan1", false, 100}}, {0.80f, 0.20f}},
                      RatioCase{{{"wlan0", false, 800}, {"wlan1", false, 200}}, {0.8f, 0.2f}},
                      RatioCase{{{"wlan0", false, 900}, {"wlan1", false, 50}, {"wlan2", false, 50}},
                                {0.75f, 0.125f, 0.125f}},
                      RatioCase{{{"wlan0", false, 800}, {"rmnet_data0", true, 1000}}, {0.5f, 0.5f}},
                      RatioCase{{{"wlan0", false, 800}, {"rmnet_data0", true, 0}}, {0.5f, 0.5f}},
                      RatioCase{{{"wlan0", false, 0}, {"wlan1", false, 0}, {"rmnet_data0", true, 0}},
                                {0.5f, 0.5f, 0.0f}},
                      RatioCase{{{"wlan0", false, 510}, {"wlan1", false, 490}}, {0.51f, 0.49f}, false, 0.5f},
                      RatioCase{{{"wlan0", false, 600}, {"wlan1", false, 400}}, {0.6f, 0.4f}, true, 0.5f}));

using SlaEvaluationTest = SlaFixture;

TEST_F(SlaEvaluationTest, InterfaceCommandsWhileTheLoopEvaluates) {
    impl->setRatioApplier([](std::map<std::string, linkStatsWrapper_t*>&) { return 0; });
    const std::vector<Rec> recs = steadyRecords();
    writeRecords(link("wlan0", false), recs);
    writeRecords(blockFile("wlan1"), recs);
    link("rmnet_data0", true);
    ASSERT_TRUE(impl->enableSLA(true));

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
    while (!done) impl->evalAndSetSLAInterfaceRatio();
    control.join();
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    EXPECT_EQ(2u, impl->slaInterfaceMap().size());
}

TEST_F(SlaEvaluationTest, ADualWifiStatusChangeAloneRewritesTheRules) {
    int applied = 0;
    impl->setRatioApplier([&](std::map<std::string, linkStatsWrapper_t*>&) { return ++applied, 0; });
    const std::vector<Rec> recs = steadyRecords();
    writeRecords(link("wlan0", false), recs);
    writeRecords(link("wlan1", false), recs);
    ASSERT_TRUE(impl->enableSLA(true));
    Parameters* params = Parameters::instance();
    const int statuses[] = {0, 0, 1, 1, 2, 0, 0};  // steady rates throughout
    const int wanted[] = {1, 1, 2, 2, 3, 4, 4};
    for (size_t i = 0; i < 7; ++i) {
        params->setDoubleWifiSelectStatus(statuses[i]);
        impl->evalAndSetSLAInterfaceRatio();
        EXPECT_EQ(applied, wanted[i]) << "evaluation " << i;
    }
    params->setDoubleWifiSelectStatus(0);
}

}  // namespace
