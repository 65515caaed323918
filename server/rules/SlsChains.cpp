// Link selection chains: per interface a UID chain picking the gaming UIDs and a
// selection chain sending their TCP and non-DNS UDP to the mark chain; the switch
// points vexo_SLS at one interface's UID chain.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include <log/log.h>

#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "rules/RuleCommand.h"

using rules::kIptables;
using rules::run;

namespace {

struct SlsNames {
    char mark[rules::kChainSize];
    char select[rules::kChainSize];
    char uid[rules::kChainSize];
};

bool composeNames(SlsNames& names, const char* func, const char* ifname) {
    return rules::checkInterfaceName(func, ifname) &&
           rules::chainName(names.mark, func, "vexo_fw_%s", ifname) &&
           rules::chainName(names.select, func, "vexo_sls_%s", ifname) &&
           rules::chainName(names.uid, func, "vexo_sls_uid_%s", ifname);
}

}  // namespace

int IptablesManager::create_SLS_iptables_UID_for_interface(InterfaceInfo_t* info) {
    static const char* const kFunc = "create_SLS_iptables_UID_for_interface";
    if (info == nullptr) {
        ALOGE("%s, Creating UID Chain for a NULL iface", kFunc);
        return -1;
    }
    SlsNames names;
    if (!composeNames(names, kFunc, info->name)) return -1;
    std::vector<std::string> uids = Parameters::instance()->gamingUidList();
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(g_iptablesMutex);
        run("%s -w -t mangle -N %s", kIptables, names.select);
        result += run("%s -w -t mangle -F %s", kIptables, names.select);
        result += run("%s -w -t mangle -A %s -p udp ! --dport 53 -j %s", kIptables, names.select,
                      names.mark);
        result += run("%s -w -t mangle -A %s -p tcp -j %s", kIptables, names.select, names.mark);
        result += run("%s -w -t mangle -A %s -j ACCEPT", kIptables, names.select);
        run("%s -w -t mangle -N %s", kIptables, names.uid);
        result += run("%s -w -t mangle -F %s", kIptables, names.uid);
        for (const std::string& uid : uids) {
            if (!rules::checkUid(kFunc, uid.c_str())) {
                result += -1;
                continue;
            }
            result += run("%s -w -t mangle -A %s -m owner --uid-owner %s -j %s", kIptables,
                          names.uid, uid.c_str(), names.select);
        }
    }
    if (result != 0) {
        ALOGE("%s Failue when creating UID tables for interface %s ", kFunc, info->name);
        return -1;
    }
    return 0;
}

int IptablesManager::remove_SLS_iptables_UID_for_interface(InterfaceInfo_t* info) {
    static const char* const kFunc = "remove_SLS_iptables_UID_for_interface";
    if (info == nullptr) {
        ALOGE("%s, Remove UID Chain for a NULL iface", kFunc);
        return -1;
    }
    SlsNames names;
    if (!composeNames(names, kFunc, info->name)) return -1;
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(g_iptablesMutex);
        result += run("%s  -w -t mangle -D vexo_SLS -j %s", kIptables, names.uid);
        result += run("%s -w -t mangle -F %s", kIptables, names.select);
        result += run("%s -w -t mangle -F %s", kIptables, names.uid);
        result += run("%s -w -t mangle -X %s", kIptables, names.select);
        result += run("%s -w -t mangle -X %s", kIptables, names.uid);
    }
    if (result != 0) {
        ALOGE("%s Failue when removing UID tables for interface %s ", kFunc, info->name);
        return -1;
    }
    return 0;
}

int IptablesManager::setup_SLS_iptables_UID_chains() {
    return forEachInterface(&IptablesManager::create_SLS_iptables_UID_for_interface, "setup_SLS_iptables_UID_chains",
                            "%s Creating UID chain for interface %s failed", "%s Failure when creating SLS UID tables for all interfaces ");
}

// Flush and append run under g_iptablesMutex, so no other group of commands (a
// chain removal, a cascade rewrite) runs between them. The kernel still sees
// vexo_SLS empty for the moment between the two commands.
int IptablesManager::set_SLS_interface(const char* ifname) {
    static const char* const kFunc = "set_SLS_interface";
    char uidChain[rules::kChainSize];
    if (!rules::checkInterfaceName(kFunc, ifname) ||
        !rules::chainName(uidChain, kFunc, "vexo_sls_uid_%s", ifname)) {
        return -1;
    }
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(g_iptablesMutex);
        result += run("%s  -w -t mangle -F vexo_SLS", kIptables);
        result += run("%s  -w -t mangle -A vexo_SLS -j %s", kIptables, uidChain);
    }
    if (result != 0) {
        ALOGE("%s Failue during SLS interface switch  %s %s ", kFunc, ifname, uidChain);
        return -1;
    }
    return 0;
}
