// Link aggregation: the channel to the kernel module's statistics ("/proc/sla")
// and the per-period evaluation of the links' connection shares.
//
// The module is configured by NUL-terminated lines written to "/proc/sla/config"
// and fills one statistics block per interface ("/proc/sla/<ifname>_mmap"),
// which is mapped read-only. Each managed interface has one linkStatsWrapper_t
// in m_slaInterfaceMap; the map is rebuilt from the interface registry whenever
// an interface comes or goes.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <set>
#include <string>

#include "sla/LinkStats.h"
#include "sla/SlaStatsData.h"

class Parameters;

enum SLA_ratio_calc_process : int32_t {
    SLA_CALC_WLAN_ONLY = 0,  // Wi-Fi links carry everything; cellular shares are 0
    SLA_CALC_WLAN_WWAN = 1,  // Wi-Fi shares scaled by "wifi_threshold", cellular shares the rest
};

class SlaStatsImpl {
  public:
    // Takes the ratios to the rules. It gets private copies of the wrappers
    // (name, ratio and rate; no statistics view) and may take any lock.
    using RatioApplier = std::function<int(std::map<std::string, linkStatsWrapper_t*>&)>;

    static SlaStatsImpl* instance();
    static void finalize();

    // ---- kernel statistics channel ----
    bool enableSLA(bool enable);
    int writeStatsConfFile(const char* line);
    bool initMmap();
    // Maps one interface's block. With `blockFd`, it also receives the block's
    // open file when that file can shrink under the mapping (see SlaStatsData),
    // else -1.
    void* getStatsMmap(std::string ifname, int* blockFd = nullptr);
    void freeMmap();
    bool updateSlaInterfacemap(const char* ifname, bool add);
    void enableSlaVoipState(bool enable, const char* uid);
    int getSlaVoipState(char* address, char* port);

    // ---- ratio evaluation ----
    uint32_t getMaxLinkRateFromHistory(linkHistory_t& history, uint32_t rate, Parameters* params);
    void evalAndSetSLAInterfaceRatio();
    bool calcSlaRatios(SLA_ratio_calc_process mode, float cellSum, float wifiSum, float wifiMax);

    // A link down (link events: no carrier, administratively down, removed, no
    // IPv4 address) gets no new connections until it is back: from the next
    // evaluation on its share is 0 and the others share what it had. True when
    // the link has an aggregation record and its state changed.
    bool setLinkDown(const std::string& ifname, bool down);

    // Replaces the rule update (the rule manager by default; an empty function
    // restores it). For tests and benchmarks; call it while no evaluation runs.
    void setRatioApplier(RatioApplier applier);

    // The aggregation map. Callers hold g_slaMapMutex while they use it or any
    // wrapper in it.
    std::map<std::string, linkStatsWrapper_t*>& slaInterfaceMap() { return m_slaInterfaceMap; }

  private:
    SlaStatsImpl() = default;
    ~SlaStatsImpl() = default;
    SlaStatsImpl(const SlaStatsImpl&) = delete;
    SlaStatsImpl& operator=(const SlaStatsImpl&) = delete;

    // Hands copies of the current ratios to the rule update, outside our locks.
    void applyRatios();
    // Moves the shares of the links that are down to the others; false when no
    // link is down. Caller holds g_slaMapMutex.
    bool giveDownSharesAway();
    // Releases one wrapper with its view and mapping. Caller holds g_slaMapMutex.
    static void releaseWrapper(linkStatsWrapper_t* wrapper);

    std::map<std::string, linkStatsWrapper_t*> m_slaInterfaceMap;
    int64_t m_lastRatioLogTime = 0;  // seconds; last burst of ratio log lines
    // The dual Wi-Fi selection status when the ratio rules were last written.
    int m_appliedDualWifiStatus = 0;
    // Links that are down (g_slaMapMutex).
    std::set<std::string> m_downLinks;
    RatioApplier m_ratioApplier;
};
