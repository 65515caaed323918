// The parameter store: defaults, the configuration file, the values and flags.

#define LOG_TAG "MUX-Vord-SlaParameters"

#include "config/Parameters.h"

#include <log/log.h>

#include <cutils/properties.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vord/RootPath.h>

#include "config/LogText.h"

namespace {

constexpr const char* kVordConfPath = "/vendor/etc/sla/vord.conf";
constexpr const char* kEnabledProperty = "vendor.sla.enabled";

Parameters* g_parameters = nullptr;

// Names of m_operValues[0..10], in OperId order.
const char* const kOperKeys[] = {
    "SLAEnabled",       "wifi_threshold",     "wan_threshold",          "mini_est_interval",
    "mini_stale_interval", "ideal_est_window", "mini_rate_window",      "CellularSockAssignRate",
    "SockActiveTime",   "SockStaleTime",      "update_pm_freq",
};

// Periods whose value decides how long something sleeps or runs. A value outside
// its range (a negative period read as an unsigned one, or one of weeks) would
// stall the daemon while it still looks alive: it is refused with a warning and
// the value in force is kept.
struct PeriodRange {
    const char* key;
    int min;
    int max;
    const char* unit;
};
const PeriodRange kPeriodRanges[] = {
    {"mini_est_interval", 0, 60000, "ms"},
    {"ping_interval_ms", 0, 60000, "ms"},
    {"t_hyst_s", 0, 3600, "s"},
    {"rule_command_timeout_s", 1, 3600, "s"},
    {"stall_poll_ms", 0, 60000, "ms"},
    {"stall_threshold_ms", 0, 60000, "ms"},
};

// False, with a warning, when `key` is a period and `value` is outside its range.
bool periodInRange(const std::string& key, int value) {
    for (const PeriodRange& r : kPeriodRanges) {
        if (key != r.key) continue;
        if (value >= r.min && value <= r.max) return true;
        ALOGW("%s=%d is outside %d..%d %s: refused, the value in force is kept", r.key, value,
              r.min, r.max, r.unit);
        return false;
    }
    return true;
}

}  // namespace

std::mutex g_interfaceMapMutex;

Parameters* Parameters::instance() {
    if (g_parameters == nullptr) {
        g_parameters = new Parameters();
        g_parameters->populateSlauidwhitelist();
    }
    return g_parameters;
}

Parameters::Parameters() {
    init();
    readVordConfFile(kVordConfPath);
    initValidInterfaceMark();
}

Parameters::~Parameters() {
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        for (auto& entry : m_interfaceInfoMap) free(entry.second);
        m_interfaceInfoMap.clear();
    }
    for (interfaceMark* slot : m_interfaceMarks) delete slot;
    m_interfaceMarks.clear();
}

void Parameters::init() {
    char value[PROPERTY_VALUE_MAX];
    property_get(kEnabledProperty, value, "0");
    for (auto& v : m_operValues) v.store(0);
    m_operValues[SLAEnabled] = atoi(value);
    m_operValues[wifi_threshold] = 1600;
    m_operValues[wan_threshold] = 500;
    m_operValues[mini_est_interval] = 1000;
    m_operValues[mini_stale_interval] = 1500;
    m_operValues[ideal_est_window] = 500;
    m_operValues[mini_rate_window] = 50;
    m_operValues[CellularSockAssignRate] = 50;
    m_operValues[SockActiveTime] = 2000;
    m_operValues[SockStaleTime] = 0;
    m_operValues[update_pm_freq] = 500;

    std::lock_guard<std::mutex> lock(m_listMutex);
    m_gamingUids.clear();
    m_slaUidWhitelist.clear();
    m_dwUidWhitelist.clear();
    m_ddUidWhitelist.clear();
    m_ifaceNames.clear();
    m_wifiGateways.clear();
    m_protocols = "http,https";
    m_ports = "80,443";
    m_estimatePackNum = 5;
    m_minRatioChange = 2;
    m_bestEstCacheSize = 0;
    m_initWwanPercentage = 0;
    m_gamingRunning = 0;
    m_serviceHighRtt = false;
    m_gamingAiModeCheckRtt = false;
    m_voipRunning = false;
    m_dwMonitorStatus = false;
    m_gamingUidsText.clear();
    m_gamingWhitelist.clear();
    m_rttServer = VORD_DEFAULT_RTT_SERVER;
    m_ipv6ProbeServer = VORD_DEFAULT_RTT_SERVER6;
    m_rttServerPort = 443;
    // Keys without a built-in value start at 0; the shipped vord.conf carries them.
    m_pingPeriodMs = 0;
    m_rttNoresponseTimeoutMs = 0;
    m_rttHist = 0;
    m_rttW2cThWifiMs = 0;
    m_rttW2cThCMs = 0;
    m_rttDeltaMs = 0;
    m_rttC2wThWifiMs = 0;
    m_rttC2wThWifiMinMs = 0;
    m_rttC2wThCMs = 0;
    m_tHystS = 0;
    m_minPingTimes = 5;
    m_pingIntervalMs = 1000;
    m_alphaPercent = 50;
    m_nHyst = 1;
    m_rttMinCapMs = 10;
    m_gamingPollFreqCnt = 5;
    m_linkEvents = 1;
    m_stallPollMs = 200;
    m_stallThresholdMs = 300;
    m_gamingUidList.clear();
    m_uidWhitelist.clear();
    m_dwUidWhitelistText.clear();
    m_ddUidWhitelistText.clear();
    for (auto& p : m_ifaceParams) p.clear();
    m_numInterfaces = 0;
    m_rttEntryThreshold = 70;
    m_rttExitThreshold = 120;
    m_ruleCommandTimeoutS = 30;
    m_wifiDominantCap = 85;
    m_wifiDominantTrigger = 90;
    m_maxEstimateBytes = 102400;
    m_interfaceMode = "1";
    m_doubleWifiSelectStatus = 0;
}

std::string& Parameters::trim(std::string& s) {
    // A "#" at index p >= 1 cuts the line to its first p - 1 characters: the
    // character just before the "#" goes with the comment.
    size_t p = s.find('#');
    if (p != std::string::npos && p >= 1) s.erase(p - 1);
    size_t first = s.find_first_not_of(" \t");
    if (first == std::string::npos) {
        s.clear();
        return s;
    }
    size_t last = s.find_last_not_of(" \t");
    s = s.substr(first, last - first + 1);
    return s;
}

void Parameters::readVordConfFile(const char* path) {
    // Only a regular file of at most kMaxConfFileSize bytes is read, opened
    // without blocking (a FIFO in its place must not hold the start), line by
    // line. A path that opens but cannot be read whole (a directory, an I/O error)
    // is a failed read, not an empty file. The lines apply once the file is read.
    const std::string file = vord::resolvePath(path);
    std::string why;
    std::vector<std::string> lines;
    int fd = open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat st;
    if (fd < 0) {
        why = strerror(errno);
    } else if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        why = "not a regular file";
    } else {
        std::string pending;
        size_t total = 0;
        char buf[4096];
        for (;;) {
            ssize_t n = read(fd, buf, sizeof(buf));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                why = strerror(errno);
                break;
            }
            total += static_cast<size_t>(n);
            if (total > kMaxConfFileSize) {
                why = "larger than " + std::to_string(kMaxConfFileSize) + " bytes";
                break;
            }
            if (n == 0 && !pending.empty()) pending.push_back('\n');  // the last line needs no line feed
            pending.append(buf, static_cast<size_t>(n));
            size_t start = 0;
            for (size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
                std::string line = pending.substr(start, end - start);
                trim(line);
                if (!line.empty() && line[0] != '#') lines.push_back(line);
            }
            pending.erase(0, start);
            if (n == 0) break;
        }
    }
    if (fd >= 0) close(fd);
    if (!why.empty()) {
        ALOGE("read vord conf file failed!");
        if (fd >= 0) ALOGW("%s: %s; the built-in values stay in force", path, why.c_str());
        return;
    }
    fromVector(lines);
}

void Parameters::fromVector(std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        std::string key = line.substr(0, eq);
        std::string value = line.substr(eq + 1);
        trim(key);
        trim(value);
        setValue(key.c_str(), value.c_str());
    }
}

bool Parameters::setValue(const char* key, const char* value) {
    if (key == nullptr || value == nullptr) return false;
    const std::string k(key);
    for (int i = 0; i <= update_pm_freq; ++i) {
        if (k == kOperKeys[i]) {
            const int v = atoi(value);
            if (periodInRange(k, v)) m_operValues[i] = v;
            return true;
        }
    }
    struct IntKey {
        const char* name;
        std::atomic<int32_t>* member;
    };
    const IntKey intKeys[] = {
        {"estimate_pack_num", &m_estimatePackNum},
        {"min_ratio_change", &m_minRatioChange},
        {"best_est_cache_size", &m_bestEstCacheSize},
        {"init_wwan_percentage", &m_initWwanPercentage},
        {"ping_period_ms", &m_pingPeriodMs},
        {"rtt_noresponse_timeout_ms", &m_rttNoresponseTimeoutMs},
        {"rtt_hist", &m_rttHist},
        {"rtt_w2c_th_wifi_ms", &m_rttW2cThWifiMs},
        {"rtt_w2c_th_c_ms", &m_rttW2cThCMs},
        {"rtt_delta_ms", &m_rttDeltaMs},
        {"rtt_c2w_th_wifi_ms", &m_rttC2wThWifiMs},
        {"rtt_c2w_th_wifi_min_ms", &m_rttC2wThWifiMinMs},
        {"rtt_c2w_th_c_ms", &m_rttC2wThCMs},
        {"t_hyst_s", &m_tHystS},
        {"min_ping_times", &m_minPingTimes},
        {"ping_interval_ms", &m_pingIntervalMs},
        {"alpha_percent", &m_alphaPercent},
        {"n_hyst", &m_nHyst},
        {"rtt_min_cap_ms", &m_rttMinCapMs},
        {"gaming_poll_freq_cnt", &m_gamingPollFreqCnt},
        {"num_interfaces", &m_numInterfaces},
        {"rtt_entry_threshold", &m_rttEntryThreshold},
        {"rtt_exit_threshold", &m_rttExitThreshold},
        {"link_events", &m_linkEvents},
        {"stall_poll_ms", &m_stallPollMs},
        {"stall_threshold_ms", &m_stallThresholdMs},
        {"rule_command_timeout_s", &m_ruleCommandTimeoutS},
        {"ipv6_rules", &m_ipv6Rules},
    };
    for (const IntKey& ik : intKeys) {
        if (k == ik.name) {
            int v = atoi(value);
            // The cache holds one estimate per link and period; a huge size
            // would grow memory without bound.
            if (ik.member == &m_bestEstCacheSize && v > kMaxBestEstCacheSize) {
                ALOGW("best_est_cache_size %d is above the maximum of %d: %d is used", v,
                      kMaxBestEstCacheSize, kMaxBestEstCacheSize);
                v = kMaxBestEstCacheSize;
            }
            if (periodInRange(k, v)) ik.member->store(v);
            return true;
        }
    }
    if (k == "ipv6_probe_server") {
        in6_addr unused;
        if (inet_pton(AF_INET6, value, &unused) != 1) {
            ALOGE("ipv6_probe_server \"%s\" is not an IPv6 address: refused, the value in force is kept",
                  vord::escapeForLog(value, 64).c_str());
            return true;
        }
        std::lock_guard<std::mutex> lock(m_listMutex);
        m_ipv6ProbeServer = value;
        return true;
    }
    std::lock_guard<std::mutex> lock(m_listMutex);
    struct StringKey {
        const char* name;
        std::string* member;
    };
    const StringKey stringKeys[] = {
        {"protocols", &m_protocols},
        {"ports", &m_ports},
        {"gaming_whitelist", &m_gamingWhitelist},
        {"rtt_server", &m_rttServer},
        {"gaming_uid_list", &m_gamingUidList},
        {"uid_whitelist", &m_uidWhitelist},
        {"interface_0", &m_ifaceParams[0]},
        {"interface_1", &m_ifaceParams[1]},
        {"interface_2", &m_ifaceParams[2]},
        {"interface_3", &m_ifaceParams[3]},
    };
    for (const StringKey& sk : stringKeys) {
        if (k == sk.name) {
            *sk.member = value;
            return true;
        }
    }
    return false;
}

int Parameters::get(int id) const {
    if (id < 0 || id > OPER_ID_LAST) return -1;
    return m_operValues[id].load();
}

int Parameters::getSLAVendorProp() {
    char value[PROPERTY_VALUE_MAX];
    property_get(kEnabledProperty, value, "0");
    int v = atoi(value);
    m_operValues[SLAEnabled] = v;
    return v;
}

char* Parameters::getStatsProtocols(char* buf) {
    std::lock_guard<std::mutex> lock(m_listMutex);
    snprintf(buf, 512, "%s=%s", "protocols", m_protocols.c_str());
    return buf;
}

char* Parameters::getStatsPorts(char* buf) {
    std::lock_guard<std::mutex> lock(m_listMutex);
    snprintf(buf, 512, "%s=%s", "ports", m_ports.c_str());
    return buf;
}

#define VORD_STRING_GETTER(fn, member)                \
    std::string Parameters::fn() const {              \
        std::lock_guard<std::mutex> lock(m_listMutex); \
        return member;                                \
    }

VORD_STRING_GETTER(getProtocols, m_protocols)
VORD_STRING_GETTER(getPorts, m_ports)
VORD_STRING_GETTER(getRttServer, m_rttServer)
VORD_STRING_GETTER(getIpv6ProbeServer, m_ipv6ProbeServer)
VORD_STRING_GETTER(getGamingWhitelist, m_gamingWhitelist)
VORD_STRING_GETTER(getGamingUidList, m_gamingUidList)
VORD_STRING_GETTER(getInterfaceMode, m_interfaceMode)

#undef VORD_STRING_GETTER

std::string Parameters::getIfaceParams(int i) const {
    if (i < 0 || i >= kMaxInterfaceParams) return std::string();
    std::lock_guard<std::mutex> lock(m_listMutex);
    return m_ifaceParams[i];
}
