// Link-rate estimator and the best-recent-estimate cache.
#include <gtest/gtest.h>

#include <memory>

#include <vord/LogCapture.h>

#include "SlaTestSupport.h"
#include "sla/SlaStatsData.h"
#include "sla/SlaStatsImpl.h"

using namespace slatest;

class SlaEstimateTest : public ::testing::Test {
  protected:
    uint32_t estimate(unsigned* packs = nullptr, bool wlan = true) {
        SlaStatsData data(block.get(), wlan, &params);
        return data.linkRateEstimate(packs, nullptr);
    }
    Parameters params;  // defaults: ideal 500 ms, mini_rate_window 50 ms, stale 1500 ms
    std::unique_ptr<sla::StatsBlock> block{new sla::StatsBlock()};
    unsigned packs = 99;
};

TEST_F(SlaEstimateTest, OneIntervalOf500msAcrossTheRingEnd) {
    const uint64_t now = nowMs();
    block->magic = sla::kStatsMagic;
    block->index = 1;
    setRecord(block.get(), 0, now - 100, 64000, sla::kKindInterval);
    setRecord(block.get(), 1278, now - 600, 0, sla::kKindStart);
    EXPECT_EQ(1000u, estimate(&packs));
    EXPECT_EQ(1u, packs);
}

TEST_F(SlaEstimateTest, TakesAnIntervalOnlyWhenItBringsTheSpanCloserToTheIdeal) {
    // Newest first: 300 ms then 300 ms -> both taken (overshoot 100 <= shortfall 200).
    writeIntervals(block.get(), {300, 300}, 38400);
    EXPECT_EQ(((76800u * 8000u) >> 10) / 600u, estimate(&packs));
    EXPECT_EQ(2u, packs);
    // 450 ms (older) then 300 ms: overshoot 250 > shortfall 200, only the newest is taken.
    writeIntervals(block.get(), {450, 300}, 38400);
    EXPECT_EQ(((38400u * 8000u) >> 10) / 300u, estimate(&packs));
    EXPECT_EQ(1u, packs);
}

TEST_F(SlaEstimateTest, ShortSpanCountsOnlyAboveTheByteCap) {
    writeIntervals(block.get(), {40}, 200000);
    EXPECT_EQ(((200000u * 8000u) >> 10) / 40u, estimate(&packs));
    writeIntervals(block.get(), {40}, 50000);
    EXPECT_EQ(0u, estimate(&packs));
    EXPECT_EQ(1u, packs);
}

TEST_F(SlaEstimateTest, ByteCapStopsCollecting) {
    // 60000-byte intervals: two reach the 102400-byte cap, the third is not read.
    writeIntervals(block.get(), {100, 100, 100}, 60000);
    EXPECT_EQ(((120000u * 8000u) >> 10) / 200u, estimate(&packs));
    EXPECT_EQ(2u, packs);
}

TEST_F(SlaEstimateTest, SkipsKind1WhenSeekingTheStartAndPassesOverFlaggedRecords) {
    const uint64_t now = nowMs();
    block->magic = sla::kStatsMagic;
    setRecord(block.get(), 0, now - 700, 0, sla::kKindStart);
    setRecord(block.get(), 1, now - 400, 9999, sla::kKindSkip);   // not an interval start
    setRecord(block.get(), 2, now - 300, 7777, sla::kKindInterval, 1);  // flagged
    setRecord(block.get(), 3, now - 200, 64000, sla::kKindInterval);
    block->index = 4;
    // Slot 3's interval starts at the flagged record (100 ms); the flagged
    // record closes no interval of its own, so its bytes never count.
    EXPECT_EQ(((64000u * 8000u) >> 10) / 100u, estimate(&packs));
    EXPECT_EQ(1u, packs);

    setRecord(block.get(), 2, now - 300, 7777, sla::kKindSkip);
    // Now the start of slot 3's interval is slot 0, 500 ms earlier.
    EXPECT_EQ(1000u, estimate(&packs));
}

TEST_F(SlaEstimateTest, StaleEmptyOrEndlessRingsGiveNoRate) {
    writeIntervals(block.get(), {500}, 64000, /*ageMs=*/1600);
    EXPECT_EQ(0u, estimate(&packs));
    EXPECT_EQ(0u, packs);

    // Walks stop after one full pass over a ring of fresh records.
    const uint64_t now = nowMs();
    block->magic = sla::kStatsMagic;
    block->index = 7;
    // Every record fresh and of kind 1 except the newest, which closes an
    // interval whose start is never found.
    for (uint32_t s = 0; s < sla::kStatsRecordCount; ++s) setRecord(block.get(), s, now, 1, sla::kKindSkip);
    setRecord(block.get(), 6, now, 1000, sla::kKindInterval);
    EXPECT_EQ(0u, estimate(&packs));
    // Every record fresh and none closing an interval.
    for (uint32_t s = 0; s < sla::kStatsRecordCount; ++s) setRecord(block.get(), s, now, 1, sla::kKindStart);
    EXPECT_EQ(0u, estimate(&packs));
    EXPECT_EQ(0u, packs);
}

TEST_F(SlaEstimateTest, BadMagicAndOutOfRangeIndexAreLoggedAndGiveNoRate) {
    vord::LogCapture log;
    writeIntervals(block.get(), {500}, 64000);
    block->magic = 0;
    EXPECT_EQ(0u, estimate(&packs));
    EXPECT_EQ(99u, packs);  // untouched when the block is not ready
    EXPECT_TRUE(log.contains("E/MUX-Vord-SlaStatsData: SLA stat colletct is not ready"));

    block->magic = sla::kStatsMagic;
    block->index = 1280;
    EXPECT_EQ(0u, estimate(&packs, /*wlan=*/false));
    EXPECT_TRUE(log.contains("WWAN:Index(1279) out of bound!"));
    block->index = 0;  // newest is slot 1278: empty here
    EXPECT_EQ(0u, estimate(&packs));
}

TEST_F(SlaEstimateTest, HistoryCacheKeepsTheBestOfTheLastEstimates) {
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    linkHistory_t history;
    EXPECT_EQ(0u, impl->getMaxLinkRateFromHistory(history, 0, &params));  // cache off
    EXPECT_TRUE(history.rates.empty());

    params.setValue("best_est_cache_size", "3");
    std::vector<uint32_t> got;
    for (uint32_t rate : {900u, 0u, 0u, 0u}) got.push_back(impl->getMaxLinkRateFromHistory(history, rate, &params));
    EXPECT_EQ((std::vector<uint32_t>{900, 900, 900, 0}), got);
    // Maximum recomputed when the best drops out.
    for (uint32_t rate : {500u, 700u, 600u, 100u}) impl->getMaxLinkRateFromHistory(history, rate, &params);
    EXPECT_EQ(600u, impl->getMaxLinkRateFromHistory(history, 50, &params));
    SlaStatsImpl::finalize();
}
