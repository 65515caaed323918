// The daemon's process-wide parameter store.
//
// Holds the tuning values (built-in defaults overridden by vord.conf), the run-time
// flags set by the control commands, the UID and gateway lists, and the interface
// registry with its mark slots. Created by the first instance() call on the main
// thread and never destroyed.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "registry/InterfaceInfo.h"

// Indexes of Parameters::get(). 0 to 10 are bound to configuration keys of the
// same names; 11 to 28 are reserved and read as 0.
enum OperId : int32_t {
    SLAEnabled = 0,
    wifi_threshold = 1,
    wan_threshold = 2,
    mini_est_interval = 3,
    mini_stale_interval = 4,
    ideal_est_window = 5,
    mini_rate_window = 6,
    CellularSockAssignRate = 7,
    SockActiveTime = 8,
    SockStaleTime = 9,
    update_pm_freq = 10,
    OPER_ID_LAST = 28,
};

// The built-in probe server ("rtt_server"): a public DNS resolver that answers on
// TCP port 443.
#define VORD_DEFAULT_RTT_SERVER "1.1.1.1"
#define VORD_DEFAULT_RTT_PORT 443
// The probe server of links without IPv4 ("ipv6_probe_server"): the same
// resolver's IPv6 address, on the same port.
#define VORD_DEFAULT_RTT_SERVER6 "2606:4700:4700::1111"

class Parameters {
  public:
    static constexpr int kOperValues = 29;
    static constexpr int kMaxInterfaceParams = 4;
    // Largest "best_est_cache_size" taken; larger values are clamped to it.
    static constexpr int kMaxBestEstCacheSize = 3600;
    // Largest configuration file read; a larger one is a failed read.
    static constexpr size_t kMaxConfFileSize = 64 * 1024;

    // The process-wide store, created (and vord.conf read) on first use.
    static Parameters* instance();

    // Builds a store: defaults, then "/vendor/etc/sla/vord.conf", then the mark
    // slots. instance() uses it; tests build private stores with it.
    Parameters();
    ~Parameters();
    Parameters(const Parameters&) = delete;
    Parameters& operator=(const Parameters&) = delete;

    // ---- configuration file and values ----
    void init();
    void readVordConfFile(const char* path);
    void fromVector(std::vector<std::string>& lines);
    static std::string& trim(std::string& s);
    bool setValue(const char* key, const char* value);

    int get(int id) const;  // m_operValues[id], or -1 outside 0..28
    int getSLAVendorProp();
    char* getStatsProtocols(char* buf);  // "protocols=<value>" into a 512-byte buffer
    char* getStatsPorts(char* buf);      // "ports=<value>" into a 512-byte buffer

    int getEstimatePackNum() const { return m_estimatePackNum.load(); }
    int getMinRatioChange() const { return m_minRatioChange.load(); }
    int getBestEstCacheSize() const { return m_bestEstCacheSize.load(); }
    int getInitWwanPercentage() const { return m_initWwanPercentage.load(); }
    uint32_t getMaxEstimateBytes() const { return m_maxEstimateBytes.load(); }
    uint32_t getWifiDominantCap() const { return m_wifiDominantCap.load(); }
    void setWifiDominantCap(uint32_t v) { m_wifiDominantCap.store(v); }
    uint32_t getWifiDominantTrigger() const { return m_wifiDominantTrigger.load(); }
    void setWifiDominantTrigger(uint32_t v) { m_wifiDominantTrigger.store(v); }
    int getRttEntryThreshold() const { return m_rttEntryThreshold.load(); }
    int getRttExitThreshold() const { return m_rttExitThreshold.load(); }
    int getRuleCommandTimeoutS() const { return m_ruleCommandTimeoutS.load(); }
    int getNumInterfaces() const { return m_numInterfaces.load(); }

    // Link-selection tuning ("ping_period_ms" .. "gaming_poll_freq_cnt").
    int getPingPeriodMs() const { return m_pingPeriodMs.load(); }
    int getRttNoresponseTimeoutMs() const { return m_rttNoresponseTimeoutMs.load(); }
    int getRttHist() const { return m_rttHist.load(); }
    int getRttW2cThWifiMs() const { return m_rttW2cThWifiMs.load(); }
    int getRttW2cThCMs() const { return m_rttW2cThCMs.load(); }
    int getRttDeltaMs() const { return m_rttDeltaMs.load(); }
    int getRttC2wThWifiMs() const { return m_rttC2wThWifiMs.load(); }
    int getRttC2wThWifiMinMs() const { return m_rttC2wThWifiMinMs.load(); }
    int getRttC2wThCMs() const { return m_rttC2wThCMs.load(); }
    int getTHystS() const { return m_tHystS.load(); }
    int getMinPingTimes() const { return m_minPingTimes.load(); }
    void setMinPingTimes(int v) { m_minPingTimes.store(v); }
    int getPingIntervalMs() const { return m_pingIntervalMs.load(); }
    int getAlphaPercent() const { return m_alphaPercent.load(); }
    int getNHyst() const { return m_nHyst.load(); }
    void setNHyst(int v) { m_nHyst.store(v); }
    int getRttMinCapMs() const { return m_rttMinCapMs.load(); }
    int getGamingPollFreqCnt() const { return m_gamingPollFreqCnt.load(); }
    int getRttServerPort() const { return m_rttServerPort.load(); }
    // "ipv6_rules": 1 (default) mirrors every rule group in the IPv6 tables.
    int getIpv6Rules() const { return m_ipv6Rules.load(); }
    void setRttServerPort(int port) { m_rttServerPort.store(port); }

    // Failover ("link_events", "stall_poll_ms", "stall_threshold_ms"): link and
    // address notifications fail a link at once; the TCP socket monitor watches
    // the gaming UIDs' connections for stalls. 0 turns each off.
    bool linkEventsEnabled() const { return m_linkEvents.load() != 0; }
    int getStallPollMs() const { return m_stallPollMs.load(); }
    int getStallThresholdMs() const { return m_stallThresholdMs.load(); }
    bool stallDetectionEnabled() const { return getStallPollMs() > 0 && getStallThresholdMs() > 0; }

    // String values, returned as copies (safe against a concurrent replacement).
    std::string getProtocols() const;
    std::string getPorts() const;
    std::string getRttServer() const;
    // "ipv6_probe_server": an IPv6 literal; anything else is refused with a log
    // line and the value in force kept.
    std::string getIpv6ProbeServer() const;
    std::string getGamingWhitelist() const;
    std::string getGamingUidList() const;
    std::string getIfaceParams(int i) const;  // "interface_<i>", empty outside 0..3
    std::string getInterfaceMode() const;

    // ---- run-time flags ----
    int isGamingRunning() const { return m_gamingRunning.load(); }
    void setGamingRunning(int v) { m_gamingRunning.store(v); }
    bool isServiceHighRtt() const { return m_serviceHighRtt.load(); }
    void setServiceHighRtt(bool v) { m_serviceHighRtt.store(v); }
    bool isGamingAiModeCheckRtt() const { return m_gamingAiModeCheckRtt.load(); }
    void setGamingAiModeCheckRtt(bool v) { m_gamingAiModeCheckRtt.store(v); }
    bool isVoipRunning() const { return m_voipRunning.load(); }
    void setVoipRunning(bool v) { m_voipRunning.store(v); }
    bool isDWMonitorStatus() const { return m_dwMonitorStatus.load(); }
    void setDWMonitorStatus(bool v) { m_dwMonitorStatus.store(v); }
    int getDoubleWifiSelectStatus() const { return m_doubleWifiSelectStatus.load(); }
    void setDoubleWifiSelectStatus(int v) { m_doubleWifiSelectStatus.store(v); }

    // ---- UID lists and gateways ----
    // Text setters: replace the text when `text` is not null; never parse.
    void setuidwhitelist(const char* text);
    void setDWUidWhitelist(const char* text);
    void setDDUidWhitelist(const char* text);
    void setGamingUids(const char* text);
    void setGamingRttServer(const char* text);
    std::string getGamingUids() const;  // the gaming UID text
    std::string getUidWhitelistText() const;
    std::string getDWUidWhitelistText() const;
    std::string getDDUidWhitelistText() const;

    // Parse operations: rebuild a parsed list from its text. Over-long entries,
    // and UID entries that are not decimal digits (gateways that are not IP
    // address literals), are refused with an error line and left out.
    void populateSlauidwhitelist();
    void populateDWUidWhitelist();
    void populateDDUidWhitelist();
    void populateGamingUids();
    void populateWifiGateway(const char* text);

    // Snapshots of the parsed lists, taken under the list lock.
    std::vector<std::string> gamingUidList() const;
    std::vector<std::string> slaUidWhitelist() const;
    std::vector<std::string> dwUidWhitelist() const;
    std::vector<std::string> ddUidWhitelist() const;
    std::vector<std::string> wifiGateways() const;

    // ---- interface registry and mark slots ----
    void initValidInterfaceMark();
    std::string getValidInterfaceMark(const char* name);
    void releaseValidInterfaceMark(const char* name);
    InterfaceInfo_t* parseInterfaceParams(std::string params);
    int validateInterfaceParams(InterfaceInfo_t* info);
    int addNewInterfacetoMap(InterfaceInfo_t* info);
    int delOldInterfacetoMap(const char* name);

    void populatIfaceslist(const char* ifaces);
    void UpdateInterface(const char* ifname, bool add);
    void UpdateInterfaceMode(const char* mode);
    void UpdateInterfaceBssid(const char* bssids);

    // The registry. Callers hold g_interfaceMapMutex for as long as they use the
    // map or any record in it; the map owns the records.
    std::map<std::string, InterfaceInfo_t*>& interfaceInfoMap() { return m_interfaceInfoMap; }
    // The record of `name`, or null. Caller holds g_interfaceMapMutex.
    InterfaceInfo_t* findInterface(const std::string& name) const;

    // Copies of the four mark slots, in slot order.
    std::vector<interfaceMark> markSlots() const;

  private:
    std::string getMeteredInterfaceSlaveStatus();
    // Rebuilds `target` from the entries of `source` that `refusal` finds no
    // reason to refuse; each refused one is logged after `funcName`.
    void parseList(const std::string& source, std::vector<std::string>& target,
                   const std::function<std::string(const std::string&)>& refusal,
                   const char* entryMsg, const char* funcName);

    // Guards every string and list member below against concurrent replacement.
    mutable std::mutex m_listMutex;
    // Guards the mark slots.
    mutable std::mutex m_markMutex;

    std::vector<std::string> m_gamingUids;
    std::vector<std::string> m_slaUidWhitelist;
    std::vector<std::string> m_dwUidWhitelist;
    std::vector<std::string> m_ddUidWhitelist;
    std::vector<std::string> m_ifaceNames;
    std::vector<std::string> m_wifiGateways;
    std::map<std::string, InterfaceInfo_t*> m_interfaceInfoMap;
    std::atomic<int32_t> m_operValues[kOperValues];
    std::string m_protocols;
    std::string m_ports;
    std::atomic<int32_t> m_estimatePackNum{5};
    std::atomic<int32_t> m_minRatioChange{2};
    std::atomic<int32_t> m_bestEstCacheSize{0};
    std::atomic<int32_t> m_initWwanPercentage{0};
    std::atomic<int32_t> m_gamingRunning{0};
    std::atomic<bool> m_serviceHighRtt{false};
    std::atomic<bool> m_gamingAiModeCheckRtt{false};
    std::atomic<bool> m_voipRunning{false};
    std::atomic<bool> m_dwMonitorStatus{false};
    std::string m_gamingUidsText;
    std::string m_gamingWhitelist;
    std::string m_rttServer;
    std::string m_ipv6ProbeServer = VORD_DEFAULT_RTT_SERVER6;
    std::atomic<int32_t> m_rttServerPort{443};
    std::atomic<int32_t> m_ipv6Rules{1};
    std::atomic<int32_t> m_pingPeriodMs{0};
    std::atomic<int32_t> m_rttNoresponseTimeoutMs{0};
    std::atomic<int32_t> m_rttHist{0};
    std::atomic<int32_t> m_rttW2cThWifiMs{0};
    std::atomic<int32_t> m_rttW2cThCMs{0};
    std::atomic<int32_t> m_rttDeltaMs{0};
    std::atomic<int32_t> m_rttC2wThWifiMs{0};
    std::atomic<int32_t> m_rttC2wThWifiMinMs{0};
    std::atomic<int32_t> m_rttC2wThCMs{0};
    std::atomic<int32_t> m_tHystS{0};
    std::atomic<int32_t> m_minPingTimes{5};
    std::atomic<int32_t> m_pingIntervalMs{1000};
    std::atomic<int32_t> m_alphaPercent{50};
    std::atomic<int32_t> m_nHyst{1};
    std::atomic<int32_t> m_rttMinCapMs{10};
    std::atomic<int32_t> m_gamingPollFreqCnt{5};
    std::atomic<int32_t> m_linkEvents{1};
    std::atomic<int32_t> m_stallPollMs{200};
    std::atomic<int32_t> m_stallThresholdMs{300};
    std::string m_gamingUidList;
    std::string m_uidWhitelist;
    std::string m_dwUidWhitelistText;
    std::string m_ddUidWhitelistText;
    std::string m_ifaceParams[kMaxInterfaceParams];
    std::atomic<int32_t> m_numInterfaces{0};
    std::atomic<int32_t> m_rttEntryThreshold{70};
    std::atomic<int32_t> m_rttExitThreshold{120};
    std::atomic<int32_t> m_ruleCommandTimeoutS{30};  // "rule_command_timeout_s"
    std::atomic<uint32_t> m_wifiDominantCap{85};
    std::atomic<uint32_t> m_wifiDominantTrigger{90};
    std::atomic<uint32_t> m_maxEstimateBytes{102400};
    std::string m_interfaceMode;
    std::atomic<int32_t> m_doubleWifiSelectStatus{0};
    std::vector<interfaceMark*> m_interfaceMarks;
};
