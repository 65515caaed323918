// Link aggregation: the rate estimator over statistics blocks built in memory or
// in files, the best-recent-estimate cache, shares from rates and the change
// test, the per-period driver, the module's configuration lines and the block
// mapping (a block cut short while mapped is skipped, never read).
#include "UnitSupport.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "sla/SlaStatsBlock.h"
#include "sla/SlaStatsData.h"
#include "sla/SlaStatsImpl.h"

namespace {

using namespace std::string_literals;

constexpr uint8_t S = sla::kKindStart, K = sla::kKindSkip, I = sla::kKindInterval;

// A record `ageMs` before now.
struct Rec { uint64_t ageMs; uint32_t bytes; uint8_t kind; uint8_t flag = 0; };

// Writes `recs` oldest first from the ring's last slot on, so every walk over
// them crosses the ring end; the newest record is the last one.
void writeRecords(sla::StatsBlock* b, const std::vector<Rec>& recs) {
    memset(b, 0, sizeof(*b));
    b->magic = sla::kStatsMagic;
    const uint64_t now = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::system_clock::now().time_since_epoch()).count());
    uint32_t slot = sla::kStatsRecordCount - 1;
    for (const Rec& r : recs) {
        b->records[slot] = sla::StatsRecord{now - r.ageMs, r.bytes, 0, r.kind, r.flag};
        slot = (slot + 1) % sla::kStatsRecordCount;
    }
    b->index = slot;
}

// Five 100 ms intervals of 1000 kbit/s (12800 bytes each), the newest 10 ms old.
std::vector<Rec> steadyRecords() {
    return {{510, 0, S}, {410, 12800, I}, {310, 12800, I}, {210, 12800, I}, {110, 12800, I}, {10, 12800, I}};
}

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
    const struct { const char* what; std::vector<Rec> recs; uint32_t rate; unsigned packs; } cases[] = {
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
        {"flagged records close no interval", {{710, 0, S}, {310, 7777, I, 1}, {10, 64000, I}}, kbit(64000, 300), 1},
        {"stale", {{2100, 0, S}, {1600, 64000, I}}, 0, 0},
    };
    for (const auto& c : cases) {
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
    block->magic = sla::kStatsMagic;
    block->index = sla::kStatsRecordCount + 1;
    EXPECT_EQ(0u, estimate(/*wlan=*/false));
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

void registerInterface(const std::string& name, bool metered) {
    unittest::addRecord(name + (metered ? ",1," : ",0,") + name + ",0x200000,0,0,0,0,ffffffffffff");
}

// A fresh SlaStatsImpl with a plain file as the module's config channel; the
// registry, the block files and the channel are removed afterwards.
class SlaFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        close(open(config.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
        impl = SlaStatsImpl::instance();
    }
    void TearDown() override {
        SlaStatsImpl::finalize();
        const auto registry = Parameters::instance()->interfaceInfoMap();  // no other thread runs now
        for (const auto& e : registry) Parameters::instance()->delOldInterfacetoMap(e.first.c_str());
        for (const char* name : {"wlan0", "wlan1", "wlan2", "rmnet_data0"})
            unlink(vord::resolvePath(std::string("/proc/sla/") + name + "_mmap").c_str());
        unlink(config.c_str());
    }
    // Writes the block file "/proc/sla/<name>_mmap" in place: a mapping of it sees
    // the records (none: a block that is not ready).
    void blockFile(const std::string& name, const std::vector<Rec>& recs = {}) {
        sla::StatsBlock b{};
        if (!recs.empty()) writeRecords(&b, recs);
        const int fd = open(vord::resolvePath("/proc/sla/" + name + "_mmap").c_str(), O_WRONLY | O_CREAT, 0644);
        EXPECT_EQ(ssize_t(sizeof(b)), pwrite(fd, &b, sizeof(b), 0));
        close(fd);
    }
    void link(const char* name, bool metered, const std::vector<Rec>& recs = {}) {
        registerInterface(name, metered);
        blockFile(name, recs);
    }
    // The caller holds g_slaMapMutex.
    linkStatsWrapper_t* wrapper(const char* name) { return impl->slaInterfaceMap().at(name); }

    std::string config = vord::resolvePath("/proc/sla/config");
    SlaStatsImpl* impl = nullptr;
};

struct Link { const char* name; bool metered; uint32_t rate; };

// Links (wlan0 first), the shares wanted in link order, whether that is a change
// and every link's share before.
struct RatioCase { std::vector<Link> links; std::vector<float> want; bool changed = true; float old = 0; };

void PrintTo(const RatioCase& c, std::ostream* os) {  // names the cases in ctest
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
            (l.metered ? cell : wifi) += l.rate;
            cellular |= l.metered;
            if (!l.metered) wifiMax = std::max<float>(wifiMax, l.rate);
        }
    }
    EXPECT_EQ(c.changed, impl->calcSlaRatios(cellular ? SLA_CALC_WLAN_WWAN : SLA_CALC_WLAN_ONLY, cell, wifi, wifiMax));
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

using SlaTest = SlaFixture;

TEST_F(SlaTest, InterfaceCommandsWhileTheLoopEvaluates) {
    impl->setRatioApplier([](std::map<std::string, linkStatsWrapper_t*>&) { return 0; });
    link("wlan0", false, steadyRecords());
    blockFile("wlan1", steadyRecords());
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

TEST_F(SlaTest, ADualWifiStatusChangeOrALinkGoingDownRewritesTheRules) {
    int applied = 0;
    std::string shares;  // "wlan0=0.50 wlan1=0.50", "(down)" after a link that is down
    impl->setRatioApplier([&](std::map<std::string, linkStatsWrapper_t*>& copies) {
        shares.clear();
        for (const auto& e : copies) {
            char one[64];
            snprintf(one, sizeof(one), "%s%s=%.2f%s", shares.empty() ? "" : " ", e.first.c_str(),
                     static_cast<double>(e.second->ratio), e.second->down ? "(down)" : "");
            shares += one;
        }
        return ++applied, 0;
    });
    link("wlan0", false, steadyRecords());
    link("wlan1", false, steadyRecords());
    ASSERT_TRUE(impl->enableSLA(true));
    const std::pair<int, int> steps[] = {{0, 1}, {0, 1}, {1, 2}, {1, 2}, {2, 3}, {0, 4}, {0, 4}};  // status, applied
    for (const auto& s : steps) {
        Parameters::instance()->setDoubleWifiSelectStatus(s.first);
        impl->evalAndSetSLAInterfaceRatio();  // steady rates throughout
        EXPECT_EQ(s.second, applied) << "status " << s.first;
    }
    Parameters::instance()->setDoubleWifiSelectStatus(0);
    // A link without carrier gets no new connections; the other takes its share.
    EXPECT_TRUE(impl->setLinkDown("wlan0", true));
    EXPECT_FALSE(impl->setLinkDown("wlan0", true));
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ("wlan0=0.00(down) wlan1=1.00", shares);
    EXPECT_TRUE(impl->setLinkDown("wlan0", false));
    impl->evalAndSetSLAInterfaceRatio();
    EXPECT_EQ("wlan0=0.50 wlan1=0.50", shares);
}

TEST_F(SlaTest, ConfigLinesInOrderAndAnInterfaceChangeDisablesFirst) {
    EXPECT_TRUE(impl->enableSLA(true));
    link("wlan0", false);
    link("rmnet_data0", true);
    unittest::addRecord("wlan1,0,t_wlan1,0x400000,0,0,0,0,ffffffffffff");  // the name, not the table
    EXPECT_TRUE(impl->updateSlaInterfacemap("wlan1", true));
    // Each line ends in its NUL byte.
    EXPECT_EQ("protocols=http,https\0ports=80,443\0enable=1\0enable=0\0protocols=http,https\0ports=80,443\0"
              "iface=rmnet_data0\0iface=wlan0\0iface=wlan1\0enable=1\0"s,
              vord::test::readWholeFile(config));
}

TEST_F(SlaTest, ShortBlockUnreadFifoOrMissingModuleAreLoggedAndNothingBlocks) {
    registerInterface("wlan0", false);
    // An empty block file would fault on the first read.
    close(open(vord::resolvePath("/proc/sla/wlan0_mmap").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    vord::LogCapture log;
    EXPECT_FALSE(impl->initMmap());
    EXPECT_EQ(3u, log.count("is shorter than the statistics block"));
    unlink(vord::resolvePath("/proc/sla/wlan0_mmap").c_str());
    // A config channel nobody reads fails instead of blocking.
    unlink(config.c_str());
    ASSERT_EQ(0, mkfifo(config.c_str(), 0644));
    EXPECT_EQ(-1, impl->writeStatsConfFile("enable=1"));
    EXPECT_TRUE(log.contains("open stats config file failed:No such device or address"));
    // No module at all.
    vord::test::TempRoot bare;
    ASSERT_EQ(0, rmdir(bare.at("/proc/sla").c_str()));
    std::string previous = getenv("VORD_ROOT");
    setenv("VORD_ROOT", bare.path().c_str(), 1);
    EXPECT_FALSE(impl->enableSLA(true));
    impl->evalAndSetSLAInterfaceRatio();
    setenv("VORD_ROOT", previous.c_str(), 1);
    EXPECT_EQ(4u, log.count("E/MUX-Vord-SlaStatsImpl: open stats config file failed:No such file or directory"));
    EXPECT_EQ(3u, log.count("E/MUX-Vord-SlaStatsImpl: open mmap file failed:No such file or directory"));
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    ASSERT_EQ(1u, impl->slaInterfaceMap().size());
    EXPECT_EQ(nullptr, wrapper("wlan0")->stats);
}

// A block cut short while mapped is skipped (with one line, whatever its size;
// the daemon's side of it is an integration test) and read again once whole.
TEST_F(SlaTest, ShrunkenBlockIsSkippedAndReadAgainWhenWhole) {
    link("wlan0", false, steadyRecords());
    ASSERT_TRUE(impl->initMmap());
    const std::string path = vord::resolvePath("/proc/sla/wlan0_mmap");
    auto estimate = [&] {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        linkStatsWrapper_t* w = wrapper("wlan0");
        return w->stats->linkRateEstimate(&w->packCount, w->ifname);
    };
    EXPECT_EQ(1000u, estimate());
    vord::LogCapture log;
    for (off_t size : {off_t(0), off_t(sla::kStatsBlockSize - 1)}) {
        ASSERT_EQ(0, truncate(path.c_str(), size));
        EXPECT_EQ(0u, estimate()) << size;  // would have faulted reading the mapping
    }
    EXPECT_EQ(1u, log.count("skipped until it is whole"));
    blockFile("wlan0", steadyRecords());  // whole again
    EXPECT_EQ(1000u, estimate());
    EXPECT_TRUE(log.contains("I/MUX-Vord-SlaStatsData: WLAN: statistics block of wlan0 is whole again"));
}

}  // namespace
