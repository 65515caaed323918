// Whitelist chains: vexo_MUX_wapper decides which packets enter the steering tree;
// the wrapper chains decide which UIDs the cascade may send to a metered,
// secondary or cellular interface.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include <log/log.h>

#include <string.h>

#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "rules/RuleFamily.h"

namespace {

bool servesSlaList(const InterfaceInfo_t& info) {
    return (info.metered || rules::isCellular(info.name)) && !info.slave;
}

bool servesDoubleWlanList(const InterfaceInfo_t& info) {
    return strncmp(info.name, "wlan", 4) == 0 && info.slave;
}

bool servesDoubleDataList(const InterfaceInfo_t& info) {
    return (info.metered || rules::isCellular(info.name)) && info.slave;
}

}  // namespace

// Runs under g_iptablesMutex so that a rebuild is one group of commands like any
// other; no caller holds that mutex. Each gateway goes into the rules of its own
// address family only.
int IptablesManager::setup_mux_whitelist() {
    static const char* const kFunc = "setup_mux_whitelist";
    Parameters* params = Parameters::instance();
    int refused = 0;
    std::vector<std::string> gateways[2];  // IPv4, IPv6
    for (const std::string& gateway : params->wifiGateways()) {
        if (rules::checkGateway(kFunc, gateway.c_str())) {
            gateways[gateway.find(':') != std::string::npos].push_back(gateway);
        } else {
            ++refused;
        }
    }
    std::vector<std::string> uids;
    for (const std::vector<std::string>& list : {params->gamingUidList(), params->dwUidWhitelist(),
                                                 params->ddUidWhitelist(), params->slaUidWhitelist()}) {
        for (const std::string& uid : rules::validUids(kFunc, list, &refused)) uids.push_back(uid);
    }

    std::lock_guard<std::mutex> lock(g_iptablesMutex);
    return -refused + rules::inBothFamilies(kFunc, "", [&](rules::Family& f) {
        const char* ipt = f.iptables();
        int sum = f.run("%s -w -t mangle -F vexo_MUX_wapper", ipt);
        // Gateways first: traffic to them is never steered, whatever its UID.
        for (const std::string& gateway : gateways[f.ipv6()]) {
            sum += f.run("%s -w -t mangle -A vexo_MUX_wapper -d %s -j RETURN", ipt, gateway.c_str());
        }
        for (const std::string& uid : uids) {
            sum += f.run("%s -w -t mangle -A vexo_MUX_wapper -m owner --uid-owner %s -j vexo_MUX",
                         ipt, uid.c_str());
        }
        return sum;
    });
}

// Walks the registry under g_interfaceMapMutex and takes g_iptablesMutex for the
// walk (the process-wide order), so the rebuild does not interleave with another
// group of commands.
int IptablesManager::fillWrapperChains(const char* func, bool (*serves)(const InterfaceInfo_t&),
                                       const std::vector<std::string>& list) {
    int refused = 0;
    std::lock_guard<std::mutex> mapLock(g_interfaceMapMutex);
    std::vector<std::pair<std::string, std::string>> wrappers;  // chain, interface
    for (auto& entry : Parameters::instance()->interfaceInfoMap()) {
        const InterfaceInfo_t* info = entry.second;
        if (info == nullptr || !serves(*info)) continue;
        char wrapper[rules::kChainSize];
        if (rules::checkInterfaceName(func, info->name) &&
            rules::chainName(wrapper, func, "vexo_fw_%s_wrapper", info->name)) {
            wrappers.emplace_back(wrapper, info->name);
        } else {
            ++refused;
        }
    }
    if (wrappers.empty()) return -refused;
    const std::vector<std::string> uids = rules::validUids(func, list, &refused);
    std::lock_guard<std::mutex> rulesLock(g_iptablesMutex);
    return -refused + rules::inBothFamilies(func, "", [&](rules::Family& f) {
        int sum = 0;
        for (const auto& [wrapper, name] : wrappers) {
            sum += f.run("%s -w -t mangle -F %s ", f.iptables(), wrapper.c_str());
            for (const std::string& uid : uids) {
                sum += f.run("%s -w -t mangle -A %s -m owner --uid-owner %s -j vexo_fw_%s",
                             f.iptables(), wrapper.c_str(), uid.c_str(), name.c_str());
            }
        }
        return sum;
    });
}

int IptablesManager::setup_sla_uid_whitelist() {
    return fillWrapperChains("setup_sla_uid_whitelist", servesSlaList,
                             Parameters::instance()->slaUidWhitelist());
}

int IptablesManager::setup_double_wlan_uid_whitelist() {
    return fillWrapperChains("setup_double_wlan_uid_whitelist", servesDoubleWlanList,
                             Parameters::instance()->dwUidWhitelist());
}

int IptablesManager::setup_double_data_uid_whitelist() {
    return fillWrapperChains("setup_double_data_uid_whitelist", servesDoubleDataList,
                             Parameters::instance()->ddUidWhitelist());
}
