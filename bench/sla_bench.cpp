// Cost of the link-rate estimator and of one aggregation evaluation period.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <vord/LogCapture.h>

#include "config/Parameters.h"
#include "sla/SlaStatsBlock.h"
#include "sla/SlaStatsData.h"
#include "sla/SlaStatsImpl.h"

namespace {

std::string g_root;

uint64_t nowMs() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000u + static_cast<uint64_t>(tv.tv_usec) / 1000u;
}

// A start record and then `count` closing records `stepMs` apart, newest now.
void fillRing(sla::StatsBlock* b, uint32_t count, uint32_t stepMs, uint32_t bytes) {
    memset(b, 0, sizeof(*b));
    b->magic = sla::kStatsMagic;
    uint64_t ts = nowMs() - static_cast<uint64_t>(count) * stepMs;
    b->records[0] = {ts, 0, 0, sla::kKindStart, 0};
    for (uint32_t i = 1; i <= count; ++i) {
        ts += stepMs;
        b->records[i % sla::kStatsRecordCount] = {ts, bytes, 0, sla::kKindInterval, 0};
    }
    b->index = (count + 1) % sla::kStatsRecordCount;
}

// Worst case: every record of the ring closes a 1 ms interval and the ideal
// window is never reached, so the walk covers the whole ring.
void BM_LinkRateEstimateFullRing(benchmark::State& state) {
    Parameters params;
    params.setValue("ideal_est_window", "100000000");
    params.setValue("mini_stale_interval", "100000000");
    std::unique_ptr<sla::StatsBlock> block(new sla::StatsBlock());
    fillRing(block.get(), sla::kStatsRecordCount - 1, 1, 10);
    SlaStatsData data(block.get(), true, &params);
    unsigned packs = 0;
    for (auto _ : state) benchmark::DoNotOptimize(data.linkRateEstimate(&packs, nullptr));
    state.counters["packs"] = packs;
}
BENCHMARK(BM_LinkRateEstimateFullRing);

// The usual case: 100 ms records, default 500 ms window.
void BM_LinkRateEstimateDefaults(benchmark::State& state) {
    Parameters params;
    params.setValue("mini_stale_interval", "100000000");
    std::unique_ptr<sla::StatsBlock> block(new sla::StatsBlock());
    fillRing(block.get(), 20, 100, 6400);
    SlaStatsData data(block.get(), true, &params);
    unsigned packs = 0;
    for (auto _ : state) benchmark::DoNotOptimize(data.linkRateEstimate(&packs, nullptr));
    state.counters["packs"] = packs;
}
BENCHMARK(BM_LinkRateEstimateDefaults);

// The same estimate over a block file that could shrink under its mapping: the
// block is first copied out of the file with pread (what the daemon does for
// every block file outside procfs), so a short file can never fault.
void BM_LinkRateEstimateDefaultsFromFile(benchmark::State& state) {
    Parameters params;
    params.setValue("mini_stale_interval", "100000000");
    std::string path = g_root + "/proc/sla/bench_mmap";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ftruncate(fd, sla::kStatsBlockSize) != 0) {
        state.SkipWithError("cannot create block file");
        return;
    }
    void* a = mmap(nullptr, sla::kStatsBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    fillRing(static_cast<sla::StatsBlock*>(a), 20, 100, 6400);
    unsigned packs = 0;
    {
        SlaStatsData data(a, true, &params, fd);  // owns fd
        for (auto _ : state) benchmark::DoNotOptimize(data.linkRateEstimate(&packs, nullptr));
    }
    state.counters["packs"] = packs;
    munmap(a, sla::kStatsBlockSize);
    unlink(path.c_str());
}
BENCHMARK(BM_LinkRateEstimateDefaultsFromFile);

// One main-loop evaluation over four links with mapped block files; the rule
// update is a no-op stand-in.
void BM_EvaluationPeriodFourLinks(benchmark::State& state) {
    vord::LogCapture quiet;
    Parameters* params = Parameters::instance();
    params->setValue("mini_stale_interval", "100000000");
    const char* names[] = {"rmnet_data0", "rmnet_data1", "wlan0", "wlan1"};
    const uint32_t bytes[] = {3200, 1600, 12800, 6400};
    std::vector<void*> maps;
    for (int i = 0; i < 4; ++i) {
        std::string path = g_root + "/proc/sla/" + names[i] + "_mmap";
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (fd < 0 || ftruncate(fd, sla::kStatsBlockSize) != 0) {
            state.SkipWithError("cannot create block file");
            return;
        }
        void* a = mmap(nullptr, sla::kStatsBlockSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        fillRing(static_cast<sla::StatsBlock*>(a), 20, 100, bytes[i]);
        maps.push_back(a);

        auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
        snprintf(info->name, sizeof(info->name), "%s", names[i]);
        snprintf(info->routeTable, sizeof(info->routeTable), "%s", names[i]);
        snprintf(info->fwmark, sizeof(info->fwmark), "0x%x", 0x200000 * (i + 1));
        info->metered = i < 2;
        params->addNewInterfacetoMap(info);
    }
    SlaStatsImpl* impl = SlaStatsImpl::instance();
    int applied = 0;
    impl->setRatioApplier([&](std::map<std::string, linkStatsWrapper_t*>&) { return ++applied, 0; });
    impl->enableSLA(true);
    for (auto _ : state) impl->evalAndSetSLAInterfaceRatio();
    state.counters["rule_updates"] = applied;
    SlaStatsImpl::finalize();
    for (int i = 0; i < 4; ++i) {
        params->delOldInterfacetoMap(names[i]);
        munmap(maps[i], sla::kStatsBlockSize);
    }
}
BENCHMARK(BM_EvaluationPeriodFourLinks);

}  // namespace

int main(int argc, char** argv) {
    // A private sandbox root: no real configuration file, a plain file as the
    // module's config channel.
    char tmpl[] = "/tmp/vord-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return 1;
    g_root = tmpl;
    setenv("VORD_ROOT", tmpl, 1);
    for (const char* dir : {"/proc", "/proc/sla", "/vendor", "/vendor/etc", "/vendor/etc/sla"}) {
        mkdir((g_root + dir).c_str(), 0755);
    }
    close(open((g_root + "/proc/sla/config").c_str(), O_WRONLY | O_CREAT, 0644));
    close(open((g_root + "/vendor/etc/sla/vord.conf").c_str(), O_WRONLY | O_CREAT, 0644));

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    for (const char* name : {"rmnet_data0", "rmnet_data1", "wlan0", "wlan1"}) {
        unlink((g_root + "/proc/sla/" + name + "_mmap").c_str());
    }
    unlink((g_root + "/proc/sla/config").c_str());
    unlink((g_root + "/vendor/etc/sla/vord.conf").c_str());
    for (const char* dir : {"/vendor/etc/sla", "/vendor/etc", "/vendor", "/proc/sla", "/proc", ""}) {
        rmdir((g_root + dir).c_str());
    }
    return 0;
}
