// Gathering the status snapshot.

#include "status/StatusCollector.h"

#include <sys/socket.h>
#include <unistd.h>

#include <mutex>

#include "config/Parameters.h"
#include "counters/Counters.h"
#include "counters/RuleFailure.h"
#include "sla/SlaStatsImpl.h"
#include "status/SelectionState.h"

namespace vord {
namespace status {

namespace {

struct AggregationEntry {
    std::string name;
    uint32_t rateKbps;
    float share;
};

LinkStatus* findLink(std::vector<LinkStatus>& links, const std::string& name) {
    for (LinkStatus& l : links) {
        if (l.name == name) return &l;
    }
    return nullptr;
}

const LinkStatus* findLink(const std::vector<LinkStatus>& links, const std::string& name) {
    return findLink(const_cast<std::vector<LinkStatus>&>(links), name);
}

void collectRegistry(Parameters* params, std::vector<LinkStatus>* links) {
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    for (const auto& entry : params->interfaceInfoMap()) {
        const InterfaceInfo_t* info = entry.second;
        if (info == nullptr) continue;
        LinkStatus l;
        l.name = entry.first;
        l.mark = info->fwmark;
        l.table = info->routeTable;
        l.metered = info->metered;
        l.slave = info->slave;
        links->push_back(std::move(l));
    }
}

void collectAggregation(SlaStatsImpl* sla, std::vector<LinkStatus>* links) {
    std::vector<AggregationEntry> entries;
    {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        entries.reserve(sla->slaInterfaceMap().size());
        for (const auto& entry : sla->slaInterfaceMap()) {
            const linkStatsWrapper_t* w = entry.second;
            if (w != nullptr) entries.push_back({entry.first, w->linkRate, w->ratio});
        }
    }
    for (const AggregationEntry& e : entries) {
        LinkStatus* l = findLink(*links, e.name);
        if (l == nullptr) continue;  // left the registry meanwhile
        l->aggregated = true;
        l->rateKbps = e.rateKbps;
        l->share = e.share;
    }
}

void collectSelection(const Snapshot& previous, Snapshot* out) {
    EngineState engine;
    switch (readSelectionEngine(&engine)) {
        case EngineRead::None:
            out->engine = false;
            return;
        case EngineRead::Busy:
            // Nothing published yet: show what was read last time.
            out->engine = previous.engine;
            out->current = previous.current;
            out->switches = previous.switches;
            out->lastSwitch = previous.lastSwitch;
            for (LinkStatus& l : out->links) {
                const LinkStatus* p = findLink(previous.links, l.name);
                if (p == nullptr || !p->probed) continue;
                l.probed = true;
                l.rttMs = p->rttMs;
                l.level = p->level;
                l.misses = p->misses;
                l.rssiPenaltyMs = p->rssiPenaltyMs;
                l.probing = p->probing;
                l.probeFamily = p->probeFamily;
            }
            return;
        case EngineRead::Read:
            break;
    }
    out->engine = true;
    out->current = engine.current;
    out->switches = engine.switchCount;
    out->lastSwitch = engine.lastSwitch;
    for (const EngineLink& e : engine.links) {
        LinkStatus* l = findLink(out->links, e.ifname);
        if (l == nullptr) continue;
        l->probed = true;
        l->rttMs = e.speed;
        l->level = e.level;
        l->misses = e.missCount;
        l->rssiPenaltyMs = e.rssiPenaltyMs;
        l->probing = e.running;
        l->probeFamily = e.probeFamily == AF_INET6 ? "ipv6" : e.probeFamily == AF_INET ? "ipv4" : "none";
    }
}

uint64_t load(const std::atomic<uint64_t>& c) {
    return c.load(std::memory_order_relaxed);
}

}  // namespace

std::string selectionMode(int gamingRunning, bool voipRunning) {
    std::string mode = gamingRunning == 1 ? "gaming" : gamingRunning == 2 ? "game-mode" : "";
    if (voipRunning) mode += mode.empty() ? "voice-call" : "+voice-call";
    return mode.empty() ? "off" : mode;
}

void collect(Parameters* params, SlaStatsImpl* sla, const Snapshot& previous, Snapshot* out) {
    Snapshot s;
    s.pid = getpid();
    s.periodMs = params->get(mini_est_interval);

    collectRegistry(params, &s.links);
    if (sla != nullptr) collectAggregation(sla, &s.links);
    collectSelection(previous, &s);

    s.mode = selectionMode(params->isGamingRunning(), params->isVoipRunning());
    s.probeServer = params->getRttServer();
    s.probePort = params->getRttServerPort();

    s.slaWhitelist = static_cast<uint32_t>(params->slaUidWhitelist().size());
    const std::vector<std::string> gaming = params->gamingUidList();
    s.gamingUids = static_cast<uint32_t>(gaming.size());
    for (const std::string& uid : gaming) s.gamingUidList += (s.gamingUidList.empty() ? "" : ",") + uid;
    s.dwWhitelist = static_cast<uint32_t>(params->dwUidWhitelist().size());
    s.ddWhitelist = static_cast<uint32_t>(params->ddUidWhitelist().size());
    s.gateways = static_cast<uint32_t>(params->wifiGateways().size());
    s.dwMonitor = params->isDWMonitorStatus();
    s.dwSelect = params->getDoubleWifiSelectStatus();
    s.ipv6Rules = params->getIpv6Rules() != 0;

    const Counters& c = counters();
    s.controlServed = load(c.controlRecordsServed);
    s.controlRefused = load(c.controlRecordsRefused);
    s.ruleCommandsRun = load(c.ruleCommandsRun);
    s.ruleCommandsNotStarted = load(c.ruleCommandsNotStarted);
    s.ruleCommandsFailed = load(c.ruleCommandsFailed);
    s.ipv6RuleCommandsRun = load(c.ipv6RuleCommandsRun);
    s.ipv6RuleCommandsNotStarted = load(c.ipv6RuleCommandsNotStarted);
    s.ipv6RuleGroupsFailed = load(c.ipv6RuleGroupsFailed);
    s.socketsDestroyed = load(c.socketsDestroyed);
    s.linkSwitches = load(c.linkSwitches);
    RuleFailure failure = lastRuleFailure();
    s.lastFailedCommand = std::move(failure.command);
    s.lastFailedResult = std::move(failure.result);
    s.lastFailedOutput = std::move(failure.output);
    *out = std::move(s);
}

}  // namespace status
}  // namespace vord
