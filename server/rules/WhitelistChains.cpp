// Whitelist chains: vexo_MUX_wapper decides which packets enter the steering tree;
// the wrapper chains decide which UIDs the cascade may send to a metered,
// secondary or cellular interface.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include <log/log.h>

#include <string.h>

#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "rules/RuleCommand.h"

using rules::kIptables;
using rules::run;

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

int addUidRules(const char* func, const std::vector<std::string>& uids) {
    int result = 0;
    for (const std::string& uid : uids) {
        if (!rules::checkUid(func, uid.c_str())) {
            result += -1;
            continue;
        }
        result += run("%s -w -t mangle -A vexo_MUX_wapper -m owner --uid-owner %s -j vexo_MUX",
                      kIptables, uid.c_str());
    }
    return result;
}

}  // namespace

// Runs under g_iptablesMutex so that a rebuild is one group of commands like any
// other; no caller holds that mutex.
int IptablesManager::setup_mux_whitelist() {
    static const char* const kFunc = "setup_mux_whitelist";
    Parameters* params = Parameters::instance();
    const std::vector<std::string> gateways = params->wifiGateways();
    const std::vector<std::string> gaming = params->gamingUidList();
    const std::vector<std::string> dw = params->dwUidWhitelist();
    const std::vector<std::string> dd = params->ddUidWhitelist();
    const std::vector<std::string> sla = params->slaUidWhitelist();

    std::lock_guard<std::mutex> lock(g_iptablesMutex);
    int result = run("%s -w -t mangle -F vexo_MUX_wapper", kIptables);
    // Gateways first: traffic to them is never steered, whatever its UID.
    for (const std::string& gateway : gateways) {
        if (!rules::checkGateway(kFunc, gateway.c_str())) {
            result += -1;
            continue;
        }
        result +=
            run("%s -w -t mangle -A vexo_MUX_wapper -d %s -j RETURN", kIptables, gateway.c_str());
    }
    result += addUidRules(kFunc, gaming);
    result += addUidRules(kFunc, dw);
    result += addUidRules(kFunc, dd);
    result += addUidRules(kFunc, sla);
    return result;
}

// Walks the registry under g_interfaceMapMutex and takes g_iptablesMutex for the
// walk (the process-wide order), so the rebuild does not interleave with another
// group of commands.
int IptablesManager::fillWrapperChains(const char* func, bool (*serves)(const InterfaceInfo_t&),
                                       const std::vector<std::string>& uids) {
    int result = 0;
    std::lock_guard<std::mutex> mapLock(g_interfaceMapMutex);
    std::lock_guard<std::mutex> rulesLock(g_iptablesMutex);
    for (auto& entry : Parameters::instance()->interfaceInfoMap()) {
        const InterfaceInfo_t* info = entry.second;
        if (info == nullptr || !serves(*info)) continue;
        char wrapper[rules::kChainSize];
        if (!rules::checkInterfaceName(func, info->name) ||
            !rules::chainName(wrapper, func, "vexo_fw_%s_wrapper", info->name)) {
            result += -1;
            continue;
        }
        result += run("%s -w -t mangle -F %s ", kIptables, wrapper);
        for (const std::string& uid : uids) {
            if (!rules::checkUid(func, uid.c_str())) {
                result += -1;
                continue;
            }
            result += run("%s -w -t mangle -A %s -m owner --uid-owner %s -j vexo_fw_%s", kIptables,
                          wrapper, uid.c_str(), info->name);
        }
    }
    return result;
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
