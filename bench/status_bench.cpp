// Cost of one status snapshot update per main-loop period with four links: the
// gathering under the locks, the change test and, when something changed, the
// atomic rewrite of the file. Compare with BM_EvaluationPeriodFourLinks of
// sla_bench, the rest of the loop's work per period.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include <vord/LogCapture.h>
#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "counters/Counters.h"
#include "sla/SlaStatsBlock.h"
#include "sla/SlaStatsImpl.h"
#include "status/StatusCollector.h"
#include "status/StatusWriter.h"

namespace {

std::string g_root;
const char* const kNames[] = {"rmnet_data0", "rmnet_data1", "wlan0", "wlan1"};

// Four registered links with mapped (empty) statistics blocks and set rates.
class FourLinks {
  public:
    FourLinks() {
        params = Parameters::instance();
        for (int i = 0; i < 4; ++i) {
            std::string path = g_root + "/proc/sla/" + kNames[i] + "_mmap";
            int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
            if (fd < 0 || ftruncate(fd, sla::kStatsBlockSize) != 0) abort();
            close(fd);
            auto* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
            snprintf(info->name, sizeof(info->name), "%s", kNames[i]);
            snprintf(info->routeTable, sizeof(info->routeTable), "%s", kNames[i]);
            snprintf(info->fwmark, sizeof(info->fwmark), "0x%x", 0x200000 * (i + 1));
            info->metered = i < 2;
            params->addNewInterfacetoMap(info);
        }
        sla = SlaStatsImpl::instance();
        sla->enableSLA(true);
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        uint32_t rate = 400;
        for (auto& e : sla->slaInterfaceMap()) {
            e.second->linkRate = rate;
            e.second->ratio = 0.25f;
            rate += 300;
        }
    }
    ~FourLinks() {
        SlaStatsImpl::finalize();
        for (const char* name : kNames) {
            params->delOldInterfacetoMap(name);
            unlink((g_root + "/proc/sla/" + name + "_mmap").c_str());
        }
    }
    Parameters* params;
    SlaStatsImpl* sla;
};

// Nothing changed since the last period: gather, compare, no write.
void BM_SnapshotUpdateUnchanged(benchmark::State& state) {
    vord::LogCapture quiet;
    FourLinks links;
    vord::status::StatusWriter writer(vord::status::kSnapshotPath);
    vord::status::Snapshot last, next;
    vord::status::collect(links.params, links.sla, last, &last);
    writer.update(last, 1000, 1000);
    int writes = 0;
    for (auto _ : state) {
        vord::status::collect(links.params, links.sla, last, &next);
        writes += writer.update(next, 1000, 1000);  // same time: no heartbeat due
        last = std::move(next);
    }
    state.counters["writes"] = writes;
}
BENCHMARK(BM_SnapshotUpdateUnchanged)->Unit(benchmark::kMicrosecond);

// A counter moved since the last period: gather, compare, rewrite the file.
void BM_SnapshotUpdateChanged(benchmark::State& state) {
    vord::LogCapture quiet;
    FourLinks links;
    vord::status::StatusWriter writer(vord::status::kSnapshotPath);
    vord::status::Snapshot last, next;
    int writes = 0;
    for (auto _ : state) {
        vord::bump(vord::counters().controlRecordsServed);
        vord::status::collect(links.params, links.sla, last, &next);
        writes += writer.update(next, 1000, 1000);
        last = std::move(next);
    }
    state.counters["writes"] = writes;
}
BENCHMARK(BM_SnapshotUpdateChanged)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    // A private sandbox root: no real configuration file, a plain file as the
    // module's config channel, the snapshot under <root>/data/vendor/vord.
    char tmpl[] = "/tmp/vord-status-bench-XXXXXX";
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

    unlink((g_root + "/data/vendor/vord/status").c_str());
    unlink((g_root + "/proc/sla/config").c_str());
    unlink((g_root + "/vendor/etc/sla/vord.conf").c_str());
    for (const char* dir : {"/data/vendor/vord", "/data/vendor", "/data", "/vendor/etc/sla", "/vendor/etc",
                            "/vendor", "/proc/sla", "/proc", ""}) {
        rmdir((g_root + dir).c_str());
    }
    return 0;
}
