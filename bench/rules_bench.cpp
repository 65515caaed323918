// What the IPv6 rules cost: an interface add (mark, wrapper, routing and NAT
// rules, then the whitelist rebuilds) and one rewrite of the aggregation cascade,
// with IPv4 rules only (ipv6_rules=0) and dual-stack (ipv6_rules=1), side by
// side: wall time and rule commands per operation.
//
// As root the rule tools are the real iptables, ip6tables and ip, run in a
// private network namespace of this process (nothing reaches the host's tables);
// otherwise each tool is /bin/true, so only starting the processes is measured.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <string>

#include "QuietStderr.h"
#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "counters/Counters.h"

namespace {

bool g_realTools = false;

uint64_t commandsRun() { return vord::counters().ruleCommandsRun.load(); }

void addRecord(const char* params) {
    Parameters* p = Parameters::instance();
    InterfaceInfo_t* record = p->parseInterfaceParams(params);
    if (record != nullptr) p->addNewInterfacetoMap(record);
}

// Sets the family mode; the label says what ran.
void setUp(benchmark::State& state) {
    const bool dual = state.range(0) != 0;
    Parameters::instance()->setValue("ipv6_rules", dual ? "1" : "0");
    state.SetLabel(std::string(dual ? "dual-stack" : "IPv4 only") +
                   (g_realTools ? ", real tools" : ", /bin/true tools"));
}

// One add of a cellular link (mark chain and wrapper chain) while wlan0 is
// registered, the whitelists holding two UIDs; its removal is not timed.
void BM_InterfaceAdd(benchmark::State& state) {
    setUp(state);
    IptablesManager* manager = IptablesManager::instance();
    addRecord("rmnet_data0,1,rmnet_data0,0x400000,0,0,0,0,ffffffffffff");
    QuietStderr quiet;
    uint64_t commands = 0;
    for (auto _ : state) {
        const uint64_t before = commandsRun();
        manager->updateInterfaceIptables("rmnet_data0", true);
        commands += commandsRun() - before;
        state.PauseTiming();
        manager->updateInterfaceIptables("rmnet_data0", false);
        state.ResumeTiming();
    }
    Parameters::instance()->delOldInterfacetoMap("rmnet_data0");
    state.counters["commands"] = benchmark::Counter(static_cast<double>(commands),
                                                    benchmark::Counter::kAvgIterations);
}

// One rewrite of the cascade over wlan0 and rmnet_data0, the shares moving
// each time.
void BM_RatioRewrite(benchmark::State& state) {
    setUp(state);
    IptablesManager* manager = IptablesManager::instance();
    addRecord("rmnet_data0,1,rmnet_data0,0x400000,0,0,0,0,ffffffffffff");
    manager->updateInterfaceIptables("rmnet_data0", true);
    linkStatsWrapper_t wlan{}, rmnet{};
    snprintf(wlan.ifname, sizeof(wlan.ifname), "wlan0");
    snprintf(rmnet.ifname, sizeof(rmnet.ifname), "rmnet_data0");
    std::map<std::string, linkStatsWrapper_t*> slaMap{{"wlan0", &wlan}, {"rmnet_data0", &rmnet}};
    QuietStderr quiet;
    uint64_t commands = 0;
    bool flip = false;
    for (auto _ : state) {
        wlan.ratio = flip ? 0.625f : 0.5f;
        rmnet.ratio = 1.0f - wlan.ratio;
        flip = !flip;
        const uint64_t before = commandsRun();
        manager->set_SLA_ratio_iptables(slaMap);
        commands += commandsRun() - before;
    }
    manager->updateInterfaceIptables("rmnet_data0", false);
    Parameters::instance()->delOldInterfacetoMap("rmnet_data0");
    state.counters["commands"] = benchmark::Counter(static_cast<double>(commands),
                                                    benchmark::Counter::kAvgIterations);
}

BENCHMARK(BM_InterfaceAdd)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RatioRewrite)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void writeFile(const std::string& path, const std::string& text, mode_t mode) {
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr) return;
    fputs(text.c_str(), f);
    fclose(f);
    chmod(path.c_str(), mode);
}

}  // namespace

int main(int argc, char** argv) {
    char tmpl[] = "/tmp/vord-rules-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return 1;
    const std::string root = tmpl;
    setenv("VORD_ROOT", tmpl, 1);
    for (const char* dir : {"/vendor", "/vendor/etc", "/vendor/etc/sla", "/system", "/system/bin"})
        mkdir((root + dir).c_str(), 0755);
    writeFile(root + "/vendor/etc/sla/vord.conf", "uid_whitelist=10123,10456\n", 0644);
    // Before any thread exists: a network namespace of our own for the real tools.
    g_realTools = geteuid() == 0 && unshare(CLONE_NEWNET) == 0;
    for (const char* tool : {"iptables", "ip6tables", "ip"}) {
        const std::string path = root + "/system/bin/" + tool + "-wrapper-1.0";
        if (g_realTools) {
            writeFile(path, std::string("#!/bin/sh\nexec ") + tool + " \"$@\"\n", 0755);
        } else if (symlink("/bin/true", path.c_str()) != 0) {
            return 1;
        }
    }
    Parameters* params = Parameters::instance();
    params->populateSlauidwhitelist();
    addRecord("wlan0,0,wlan0,0x200000,1,0,0,0,ffffffffffff");
    {
        QuietStderr quiet;
        IptablesManager::instance()->updateInterfaceIptables("wlan0", true);
    }

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    {
        QuietStderr quiet;
        IptablesManager::clean_MUX_iptables();
    }
    std::string cleanup = "rm -rf '" + root + "'";
    return system(cleanup.c_str()) == 0 ? 0 : 1;
}
