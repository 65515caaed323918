// Ratio evaluation: once per main-loop period, estimate every aggregated link's
// rate, turn the rates into shares of new connections, and have the ratio rules
// rewritten when the shares moved by more than "min_ratio_change".
//
// A link that is down (setLinkDown) gets no new connections: the shares are
// computed as always, then a down link's share goes to the links that are up, in
// proportion to their shares (equally when they have none).
//
// The widths of the arithmetic below (uint32 sums, float shares, the odd double
// comparison) are deliberate: the shares feed rules that are compared against a
// threshold, and the results must match to the last bit.

#define LOG_TAG "MUX-Vord-SlaStatsImpl"

#include <log/log.h>

#include <math.h>
#include <string.h>
#include <sys/time.h>

#include <mutex>

#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "sla/SlaStatsImpl.h"

namespace {

// The rule update of the ratio rules ("vexo_SLA").
int applyThroughRuleManager(std::map<std::string, linkStatsWrapper_t*>& copies) {
    return IptablesManager::instance()->set_SLA_ratio_iptables(copies);
}

bool isCellular(const InterfaceInfo_t* record) { return record->metered; }

// Interface names in the ratio log line are rotated by 17 within the printable
// range, so the line does not spell them out.
std::string scrambledName(const char* name) {
    std::string out(name);
    for (char& ch : out) {
        unsigned c = static_cast<unsigned char>(ch);
        unsigned q = c + 17 < 127 ? 0 : (c - 15) / 96;
        ch = static_cast<char>(c + 17 - 96 * q);
    }
    return out;
}

}  // namespace

uint32_t SlaStatsImpl::getMaxLinkRateFromHistory(linkHistory_t& history, uint32_t rate,
                                                 Parameters* params) {
    const int size = params->getBestEstCacheSize();
    if (size <= 0) return rate;
    if (history.rates.size() < static_cast<size_t>(size)) {
        history.rates.push_back(rate);
        if (rate > history.maxRate) history.maxRate = rate;
        return history.maxRate;
    }
    const uint32_t old = history.rates.front();
    history.rates.pop_front();
    history.rates.push_back(rate);
    if (old != history.maxRate) {
        if (rate > history.maxRate) history.maxRate = rate;
    } else if (history.maxRate == 0) {
        history.maxRate = rate;
    } else {
        uint32_t best = 0;
        for (uint32_t r : history.rates) best = r > best ? r : best;
        history.maxRate = best;
    }
    return history.maxRate;
}

void SlaStatsImpl::evalAndSetSLAInterfaceRatio() {
    Parameters* params = Parameters::instance();
    const uint32_t wifiThreshold = static_cast<uint32_t>(params->get(wifi_threshold));
    const uint32_t packNum = static_cast<uint32_t>(params->getEstimatePackNum());
    const uint32_t wanThreshold = static_cast<uint32_t>(params->get(wan_threshold));

    uint32_t cellSum = 0, wifiSum = 0, wifiMax = 0;
    uint32_t cellCount = 0, wifiCount = 0;
    {
        std::lock_guard<std::mutex> registryLock(g_interfaceMapMutex);
        std::lock_guard<std::mutex> mapLock(g_slaMapMutex);
        for (auto& entry : m_slaInterfaceMap) {
            linkStatsWrapper_t* w = entry.second;
            if (w == nullptr || w->stats == nullptr) continue;
            const InterfaceInfo_t* record = params->findInterface(entry.first);
            if (record == nullptr) continue;
            const bool cellular = isCellular(record);

            uint32_t rate = w->stats->linkRateEstimate(&w->packCount, w->ifname);
            if (w->packCount < packNum) rate = 0;
            w->linkRate = rate;
            if (rate < wanThreshold && cellular) {
                rate = 0;
                w->linkRate = 0;
            }
            const uint32_t best = getMaxLinkRateFromHistory(w->history, rate, params);
            if (w->linkRate == 0) w->linkRate = best;

            if (cellular) {
                cellSum += w->linkRate;
                cellCount += 1;
            } else {
                wifiSum += w->linkRate;
                if (w->linkRate > wifiMax) wifiMax = w->linkRate;
                wifiCount += 1;
            }
        }
    }

    const SLA_ratio_calc_process mode =
        (wifiSum > wifiThreshold || (wifiCount >= 2 && cellCount == 0)) ? SLA_CALC_WLAN_ONLY
                                                                        : SLA_CALC_WLAN_WWAN;
    // The cascade also carries the dual Wi-Fi selection status (set by the dual
    // Wi-Fi monitor): a change of it alone rewrites the rules as well.
    const int dualWifiStatus = params->getDoubleWifiSelectStatus();
    const bool changed = calcSlaRatios(mode, static_cast<float>(cellSum),
                                       static_cast<float>(wifiSum), static_cast<float>(wifiMax));
    if (changed || dualWifiStatus != m_appliedDualWifiStatus) {
        m_appliedDualWifiStatus = dualWifiStatus;
        applyRatios();
    }
}

bool SlaStatsImpl::calcSlaRatios(SLA_ratio_calc_process mode, float cellSum, float wifiSum,
                                 float wifiMax) {
    Parameters* params = Parameters::instance();
    const uint32_t thr = static_cast<uint32_t>(params->get(wifi_threshold));
    const uint32_t minChange = static_cast<uint32_t>(params->getMinRatioChange());
    std::map<std::string, float> oldRatio;

    // At most one burst of ratio lines every 6 seconds.
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const int64_t nowS = tv.tv_sec;
    const uint64_t sinceLog = static_cast<uint64_t>(nowS - m_lastRatioLogTime);
    const bool logRatios = sinceLog >= 6;
    if (logRatios) m_lastRatioLogTime = nowS;

    // One locked section for the whole computation: the Wi-Fi count, the shares
    // and the redistribution all see the same map.
    std::lock_guard<std::mutex> registryLock(g_interfaceMapMutex);
    std::lock_guard<std::mutex> mapLock(g_slaMapMutex);

    uint32_t n = 0;
    for (const auto& entry : m_slaInterfaceMap) {
        const InterfaceInfo_t* record = params->findInterface(entry.first);
        if (entry.second != nullptr && record != nullptr && !isCellular(record)) ++n;
    }

    // When the fastest Wi-Fi link carries more than the trigger share of all
    // Wi-Fi throughput, its share is pinned at the cap (5 points below).
    bool dominant = false;
    if (n == 0) {
        params->setWifiDominantCap(85);
        params->setWifiDominantTrigger(90);
    } else {
        const uint32_t trigger = 95 - 5 * n;
        params->setWifiDominantTrigger(trigger);
        params->setWifiDominantCap(90 - 5 * n);
        dominant = wifiSum != 0 && n != 1 &&
                   static_cast<double>(static_cast<float>(trigger)) / 100.0 <
                       static_cast<double>(wifiMax / wifiSum);
    }
    const uint32_t cap = params->getWifiDominantCap();

    float remaining = 1.0f;
    uint32_t zeroCount = 0;
    // With no threshold the Wi-Fi shares are 0, so cellular links share everything.
    const float k = thr != 0 ? 1.0f - wifiSum / static_cast<float>(thr) : 1.0f;

    for (auto& entry : m_slaInterfaceMap) {
        linkStatsWrapper_t* w = entry.second;
        if (w == nullptr) continue;
        const InterfaceInfo_t* record = params->findInterface(entry.first);
        if (record == nullptr) continue;
        oldRatio[entry.first] = w->ratio;
        const bool cellular = isCellular(record);
        const float L = static_cast<float>(w->linkRate);
        float s;
        if (mode == SLA_CALC_WLAN_WWAN) {
            if (cellular) {
                s = cellSum != 0 ? k * (L / cellSum) : 0.0f;
            } else {
                s = thr != 0 ? L / static_cast<float>(thr) : 0.0f;
            }
        } else if (mode == SLA_CALC_WLAN_ONLY) {
            if (!dominant) {
                s = wifiSum != 0 ? L / wifiSum : 0.0f;
            } else {
                const double p = static_cast<double>(static_cast<float>(cap)) / 100.0;
                s = L == wifiMax ? static_cast<float>(p)
                                 : static_cast<float>((1.0 - p) / static_cast<double>(n - 1));
            }
        } else {
            ALOGE("%s unexpected behavior in calc ratio", "calcSlaRatios");
            zeroCount += 1;
            continue;
        }
        // In Wi-Fi-only mode a cellular link's share still counts against the
        // remainder although the link itself gets nothing.
        w->ratio = (mode == SLA_CALC_WLAN_ONLY && cellular) ? 0.0f : s;
        remaining -= s;
        if (s == 0) zeroCount += 1;
    }

    // Links without a rate share what is left; with no rate anywhere, the
    // Wi-Fi links share everything equally.
    const bool bothZero = wifiSum == 0 && cellSum == 0;
    float change = 0.0f;
    for (auto& entry : m_slaInterfaceMap) {
        linkStatsWrapper_t* w = entry.second;
        if (w == nullptr) continue;
        if (w->linkRate == 0 && zeroCount != 0 && remaining > 0) {
            if (!bothZero) {
                w->ratio = remaining / static_cast<float>(zeroCount);
            } else {
                const InterfaceInfo_t* record = params->findInterface(entry.first);
                if (record == nullptr) continue;
                w->ratio = (isCellular(record) || n == 0) ? 0.0f
                                                          : remaining / static_cast<float>(n);
            }
        }
        auto old = oldRatio.find(entry.first);
        change += fabsf((old != oldRatio.end() ? old->second : 0.0f) - w->ratio);
        if (logRatios) {
            ALOGI("%s SLA_RATIO oldRatio = %f, new ratio = %f, LRE = %u, iterf = %s",
                  "calcSlaRatios", static_cast<double>(old != oldRatio.end() ? old->second : 0.0f),
                  static_cast<double>(w->ratio), w->linkRate, scrambledName(entry.first.c_str()).c_str());
        }
    }

    if (giveDownSharesAway()) {
        change = 0.0f;
        for (const auto& entry : m_slaInterfaceMap) {
            auto old = oldRatio.find(entry.first);
            if (entry.second != nullptr) change += fabsf((old != oldRatio.end() ? old->second : 0.0f) - entry.second->ratio);
        }
    }
    return static_cast<double>(change) * 0.5 >
           static_cast<double>(static_cast<float>(minChange) / 100.0f);
}

bool SlaStatsImpl::giveDownSharesAway() {
    float downShare = 0.0f, upTotal = 0.0f;
    size_t downCount = 0, upCount = 0;
    for (const auto& entry : m_slaInterfaceMap) {
        if (entry.second == nullptr) continue;
        if (m_downLinks.count(entry.first) != 0) {
            downShare += entry.second->ratio;
            downCount += 1;
        } else {
            upTotal += entry.second->ratio;
            upCount += 1;
        }
    }
    if (downCount == 0) return false;
    for (auto& entry : m_slaInterfaceMap) {
        linkStatsWrapper_t* w = entry.second;
        if (w == nullptr) continue;
        if (m_downLinks.count(entry.first) != 0) {
            w->ratio = 0.0f;
        } else if (upTotal > 0.0f) {
            w->ratio += downShare * (w->ratio / upTotal);
        } else {
            w->ratio += downShare / static_cast<float>(upCount);
        }
    }
    return true;
}

void SlaStatsImpl::setRatioApplier(RatioApplier applier) { m_ratioApplier = std::move(applier); }

bool SlaStatsImpl::setLinkDown(const std::string& ifname, bool down) {
    std::lock_guard<std::mutex> lock(g_slaMapMutex);
    const bool changed = down ? m_downLinks.insert(ifname).second : m_downLinks.erase(ifname) != 0;
    return changed && m_slaInterfaceMap.count(ifname) != 0;
}

void SlaStatsImpl::applyRatios() {
    // The rule update takes g_interfaceMapMutex and then g_iptablesMutex itself.
    // Holding g_slaMapMutex across it would invert the process-wide order
    // (registry, aggregation map, rules), so it gets private copies of the
    // names and ratios, taken under g_slaMapMutex, and runs with no lock of ours.
    std::map<std::string, linkStatsWrapper_t*> copies;
    {
        std::lock_guard<std::mutex> lock(g_slaMapMutex);
        for (const auto& entry : m_slaInterfaceMap) {
            const linkStatsWrapper_t* w = entry.second;
            if (w == nullptr) continue;
            auto* copy = new linkStatsWrapper_t();
            memcpy(copy->ifname, w->ifname, sizeof(copy->ifname));
            copy->linkRate = w->linkRate;
            copy->packCount = w->packCount;
            copy->ratio = w->ratio;
            copy->down = m_downLinks.count(entry.first) != 0;
            copies[entry.first] = copy;
        }
    }
    if (m_ratioApplier) {
        m_ratioApplier(copies);
    } else {
        applyThroughRuleManager(copies);
    }
    for (auto& entry : copies) delete entry.second;
}
