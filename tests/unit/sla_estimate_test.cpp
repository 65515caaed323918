// Link-rate estimator and the best-recent-estimate cache.
#include <gtest/gtest.h>

#include <vord/LogCapture.h>

#include "SlaTestSupport.h"
#include "sla/SlaStatsData.h"

using namespace slatest;

namespace {

constexpr uint32_t kbit(uint64_t bytes, uint32_t ms) { return uint32_t(((bytes * 8000) >> 10) / ms); }

class SlaEstimateTest : public ::testing::Test {
  protected:
    uint32_t estimate(bool wlan = true) {
        return SlaStatsData(block.get(), wlan, &params).linkRateEstimate(&packs, nullptr);
    }
    Parameters params;  // ideal window 500 ms, mini_rate_window 50 ms, stale after 1500 ms
    std::unique_ptr<sla::StatsBlock> block{new sla::StatsBlock()};
    unsigned packs = 99;
};

TEST_F(SlaEstimateTest, RateOverTheIntervalsNearestTheIdealWindow) {
    struct Case { const char* what; std::vector<Rec> recs; uint32_t rate; unsigned packs; };
    const Case cases[] = {
        {"one 500 ms interval", {{510, 0, S}, {10, 64000, I}}, 1000, 1},
        {"300 then 300: overshoot 100 <= shortfall 200",
         {{610, 0, S}, {310, 38400, I}, {10, 38400, I}}, kbit(76800, 600), 2},
        {"450 then 300: overshoot 250 > shortfall 200",
         {{760, 0, S}, {310, 38400, I}, {10, 38400, I}}, kbit(38400, 300), 1},
        {"40 ms above the byte cap", {{50, 0, S}, {10, 200000, I}}, kbit(200000, 40), 1},
        {"40 ms under mini_rate_window", {{50, 0, S}, {10, 50000, I}}, 0, 1},
        {"byte cap stops collecting",
         {{310, 0, S}, {210, 60000, I}, {110, 60000, I}, {10, 60000, I}}, kbit(120000, 200), 2},
        {"kind-1 records are no interval start", {{510, 0, S}, {210, 9999, K}, {10, 64000, I}}, 1000, 1},
        {"flagged records close no interval",
         {{710, 0, S}, {310, 7777, I, 1}, {10, 64000, I}}, kbit(64000, 300), 1},
        {"stale", {{2100, 0, S}, {1600, 64000, I}}, 0, 0},
    };
    for (const Case& c : cases) {
        writeRecords(block.get(), c.recs);
        EXPECT_EQ(c.rate, estimate()) << c.what;
        EXPECT_EQ(c.packs, packs) << c.what;
    }
}

TEST_F(SlaEstimateTest, UnreadyOutOfRangeAndEndlessBlocksGiveNoRate) {
    vord::LogCapture log;
    writeRecords(block.get(), {{510, 0, S}, {10, 64000, I}});
    block->magic = 0;
    EXPECT_EQ(0u, estimate());
    EXPECT_EQ(99u, packs);
    EXPECT_TRUE(log.contains("E/MUX-Vord-SlaStatsData: SLA stat colletct is not ready"));

    block->magic = sla::kStatsMagic;
    block->index = sla::kStatsRecordCount + 1;
    EXPECT_EQ(0u, estimate(/*wlan=*/false));
    EXPECT_TRUE(log.contains("E/MUX-Vord-SlaStatsData: WWAN:Index(1279) out of bound!"));

    // A ring of fresh empty kind-1 records, the newest closing an interval or
    // not: walks end after one pass, with no rate.
    for (uint8_t newest : {K, I}) {
        std::vector<Rec> ring(sla::kStatsRecordCount, Rec{0, 0, K});
        ring.back().kind = newest;
        writeRecords(block.get(), ring);
        EXPECT_EQ(0u, estimate()) << int(newest);
    }
}

TEST_F(SlaEstimateTest, HistoryCacheKeepsTheBestOfTheLastEstimates) {
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    linkHistory_t history;
    params.setValue("best_est_cache_size", "3");
    std::vector<uint32_t> got;
    for (uint32_t rate : {900u, 0u, 0u, 0u, 500u, 700u, 600u, 100u, 50u})
        got.push_back(impl->getMaxLinkRateFromHistory(history, rate, &params));
    // The best drops out after three more estimates; the maximum is then recomputed.
    EXPECT_EQ((std::vector<uint32_t>{900, 900, 900, 0, 500, 700, 700, 700, 600}), got);
    SlaStatsImpl::finalize();
}

}  // namespace
