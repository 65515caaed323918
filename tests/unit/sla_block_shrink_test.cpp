// A statistics block file cut short while it is mapped is skipped, never read.
#include <gtest/gtest.h>

#include <unistd.h>

#include <vord/LogCapture.h>

#include "SlaTestSupport.h"

using namespace slatest;

namespace {

using SlaBlockShrinkTest = SlaFixture;

TEST_F(SlaBlockShrinkTest, ShrunkenBlockIsSkippedWithOneLineAndReadAgainWhenWhole) {
    sla::StatsBlock* block = link("wlan0", false);
    const std::vector<Rec> recs = {{600, 0, S}, {500, 12800, I}, {400, 12800, I}, {300, 12800, I},
                                   {200, 12800, I}, {100, 12800, I}};
    writeRecords(block, recs);
    ASSERT_TRUE(impl->initMmap());
    impl->setRatioApplier([](std::map<std::string, linkStatsWrapper_t*>&) { return 0; });
    const std::string path = vord::resolvePath("/proc/sla/wlan0_mmap");
    auto estimate = [&] {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        linkStatsWrapper_t* w = wrapper("wlan0");
        return w->stats->linkRateEstimate(&w->packCount, w->ifname);
    };
    EXPECT_EQ(1000u, estimate());  // 12800 bytes per 100 ms

    vord::LogCapture log;
    for (off_t size : {off_t(0), off_t(4096), off_t(sla::kStatsBlockSize - 1)}) {
        ASSERT_EQ(0, truncate(path.c_str(), size));
        EXPECT_EQ(0u, estimate()) << size;  // would have faulted reading the mapping
        impl->evalAndSetSLAInterfaceRatio();
    }
    EXPECT_EQ(1u, log.count("E/MUX-Vord-SlaStatsData: WLAN: statistics block of wlan0 holds 0 of "
                            "20480 bytes; skipped until it is whole"))
        << ::testing::PrintToString(log.lines());

    ASSERT_EQ(0, truncate(path.c_str(), sla::kStatsBlockSize));
    writeRecords(block, recs);  // the writable test mapping covers the file again
    EXPECT_EQ(1000u, estimate());
    EXPECT_TRUE(log.contains("I/MUX-Vord-SlaStatsData: WLAN: statistics block of wlan0 is whole again"));
}

}  // namespace
