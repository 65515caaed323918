// CPU cost of one link-selection decision step with four links. The rule switch
// and the socket destruction are no-op stand-ins; the log goes to /dev/null, so
// the formatting and writing of its lines (about seven per step) are included.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <string>

#include "QuietStderr.h"
#include "config/Parameters.h"
#include "sls/SmartLinkSelection.h"

namespace {

const char* const kLinks[] = {"rmnet_data0", "rmnet_data1", "wlan0", "wlan1"};

// `flip`: the two best links trade places every step, so every step switches
// (t_hyst_s 0); otherwise the step finds the current link still best.
void runCalcInterface(benchmark::State& state, bool flip) {
    Parameters* params = Parameters::instance();
    params->setValue("t_hyst_s", "0");
    params->setGamingUids("10123,10456");
    params->populateGamingUids();
    SmartLinkSelection* engine = SmartLinkSelection::instance();
    int switches = 0, kills = 0;
    engine->setSwitchActions([&](const char*) { return ++switches, 0; },
                             [&](const char*) { return ++kills, 0; });
    const int levels[] = {10, 8, 9, 7};
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (int i = 0; i < 4; ++i) {
            InterfaceRtt* r = InterfaceRtt::create(kLinks[i], 5, true);
            r->level = levels[i];
            engine->slsInterfaceMap()[kLinks[i]] = r;
        }
    }
    QuietStderr quiet;
    bool top = true;
    for (auto _ : state) {
        if (flip) {
            std::lock_guard<std::mutex> lock(g_slsMapMutex);
            engine->slsInterfaceMap()["rmnet_data0"]->level = top ? 10 : 8;
            engine->slsInterfaceMap()["rmnet_data1"]->level = top ? 8 : 10;
            top = !top;
        }
        engine->calcInterface();
    }
    state.counters["switches"] = switches;
    SmartLinkSelection::finalize();
}

void BM_CalcInterfaceFourLinksNoSwitch(benchmark::State& state) { runCalcInterface(state, false); }
void BM_CalcInterfaceFourLinksSwitchEveryStep(benchmark::State& state) { runCalcInterface(state, true); }
BENCHMARK(BM_CalcInterfaceFourLinksNoSwitch);
BENCHMARK(BM_CalcInterfaceFourLinksSwitchEveryStep);

}  // namespace

int main(int argc, char** argv) {
    // A private sandbox root with an empty configuration file.
    char tmpl[] = "/tmp/vord-sls-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return 1;
    const std::string root = tmpl;
    setenv("VORD_ROOT", tmpl, 1);
    for (const char* dir : {"/vendor", "/vendor/etc", "/vendor/etc/sla"}) mkdir((root + dir).c_str(), 0755);
    close(open((root + "/vendor/etc/sla/vord.conf").c_str(), O_WRONLY | O_CREAT, 0644));

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    unlink((root + "/vendor/etc/sla/vord.conf").c_str());
    for (const char* dir : {"/vendor/etc/sla", "/vendor/etc", "/vendor", ""}) rmdir((root + dir).c_str());
    return 0;
}
