// Link selection chains: per interface a UID chain picking the gaming UIDs and a
// selection chain sending their TCP and non-DNS UDP to the mark chain; the switch
// points vexo_SLS at one interface's UID chain.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include <log/log.h>

#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "rules/RuleFamily.h"

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
    int refused = 0;
    const std::vector<std::string> uids =
        rules::validUids(kFunc, Parameters::instance()->gamingUidList(), &refused);
    int result = -refused;
    {
        std::lock_guard<std::mutex> lock(g_iptablesMutex);
        result += rules::inBothFamilies(kFunc, info->name, [&](rules::Family& f) {
            const char* ipt = f.iptables();
            int sum = 0;
            f.optional("%s -w -t mangle -N %s", ipt, names.select);
            sum += f.run("%s -w -t mangle -F %s", ipt, names.select);
            sum += f.run("%s -w -t mangle -A %s -p udp ! --dport 53 -j %s", ipt, names.select,
                         names.mark);
            sum += f.run("%s -w -t mangle -A %s -p tcp -j %s", ipt, names.select, names.mark);
            sum += f.run("%s -w -t mangle -A %s -j ACCEPT", ipt, names.select);
            f.optional("%s -w -t mangle -N %s", ipt, names.uid);
            sum += f.run("%s -w -t mangle -F %s", ipt, names.uid);
            for (const std::string& uid : uids) {
                sum += f.run("%s -w -t mangle -A %s -m owner --uid-owner %s -j %s", ipt,
                             names.uid, uid.c_str(), names.select);
            }
            return sum;
        });
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
        result = rules::inBothFamilies(kFunc, info->name, [&](rules::Family& f) {
            const char* ipt = f.iptables();
            int sum = f.optional("%s  -w -t mangle -D vexo_SLS -j %s", ipt, names.uid);
            sum += f.optional("%s -w -t mangle -F %s", ipt, names.select);
            sum += f.optional("%s -w -t mangle -F %s", ipt, names.uid);
            sum += f.optional("%s -w -t mangle -X %s", ipt, names.select);
            sum += f.optional("%s -w -t mangle -X %s", ipt, names.uid);
            return sum;
        });
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
        result = rules::inBothFamilies(kFunc, ifname, [&](rules::Family& f) {
            int sum = f.run("%s  -w -t mangle -F vexo_SLS", f.iptables());
            return sum + f.run("%s  -w -t mangle -A vexo_SLS -j %s", f.iptables(), uidChain);
        });
    }
    if (result != 0) {
        ALOGE("%s Failue during SLS interface switch  %s %s ", kFunc, ifname, uidChain);
        return -1;
    }
    return 0;
}
