// Per-interface mark chains, wrapper chains, policy routing and NAT rules, and the
// entry point the interface commands call.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include <log/log.h>

#include "config/Parameters.h"
#include "rules/IptablesManager.h"
#include "rules/RuleFamily.h"

using rules::kIp;
using rules::kMarkMask;
using rules::kRouteMask;

int IptablesManager::create_MUX_FWMARK_chain_for_iface(InterfaceInfo_t* info) {
    static const char* const kFunc = "create_MUX_FWMARK_chain_for_iface";
    if (info == nullptr) {
        ALOGE("%s, Creating FWMARK Chain for a NULL iface", kFunc);
        return -1;
    }
    char chain[rules::kChainSize];
    char wrapper[rules::kChainSize];
    if (!rules::checkInterfaceName(kFunc, info->name) || !rules::checkMark(kFunc, info->fwmark) ||
        !rules::checkRouteTable(kFunc, info->routeTable) ||
        !rules::chainName(chain, kFunc, "vexo_fw_%s", info->name) ||
        !rules::chainName(wrapper, kFunc, "vexo_fw_%s_wrapper", info->name)) {
        return -1;
    }
    const bool wrapped = rules::needsWrapper(*info);
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(g_iptablesMutex);
        result = rules::inBothFamilies(kFunc, info->name, [&](rules::Family& f) {
            const char* ipt = f.iptables();
            int sum = 0;
            // "-N" fails on a chain left from an earlier run; the "-F" then empties it.
            f.optional("%s -w -t mangle -N %s", ipt, chain);
            sum += f.run("%s -w -t mangle -F %s", ipt, chain);
            if (wrapped) {
                f.optional("%s -w -t mangle -N %s", ipt, wrapper);
                sum += f.run("%s -w -t mangle -F %s", ipt, wrapper);
            }
            sum += f.run("%s -w -t mangle -A %s -j MARK --set-mark %s/%s", ipt, chain,
                         info->fwmark, kMarkMask);
            sum += f.run("%s -w -t mangle -A %s -j CONNMARK --save-mark --ctmask %s", ipt, chain,
                         kMarkMask);
            sum += f.run("%s -w -t mangle -A %s -j ACCEPT", ipt, chain);
            sum += f.optional("%s %s rule del fwmark %s/%s prio 14999", kIp, f.ipFlag(),
                              info->fwmark, kRouteMask);
            sum += f.run("%s %s rule add fwmark %s/%s table %s prio 14999", kIp, f.ipFlag(),
                         info->fwmark, kRouteMask, info->routeTable);
            // Delete before append: adding an interface whose rules are still in
            // place (a repeated add, or a restart after a crash) must not leave a
            // second MASQUERADE rule that one removal would not take away.
            sum += f.optional("%s -w -t nat -D vexo_nat_POSTROUTING_MUX -o %s -j MASQUERADE", ipt,
                              info->name);
            sum += f.run("%s -w -t nat -A vexo_nat_POSTROUTING_MUX -o %s -j MASQUERADE", ipt,
                         info->name);
            return sum;
        });
    }
    if (result != 0) {
        ALOGE("%s Failue when creating FWMARK tables for interface %s ", kFunc, info->name);
        return -1;
    }
    return 0;
}

int IptablesManager::remove_MUX_FWMARK_chain_for_iface(InterfaceInfo_t* info) {
    static const char* const kFunc = "remove_MUX_FWMARK_chain_for_iface";
    if (info == nullptr) {
        ALOGE("%s, Remove FWMARK Chain for a NULL iface", kFunc);
        return -1;
    }
    char chain[rules::kChainSize];
    char wrapper[rules::kChainSize];
    if (!rules::checkInterfaceName(kFunc, info->name) || !rules::checkMark(kFunc, info->fwmark) ||
        !rules::chainName(chain, kFunc, "vexo_fw_%s", info->name) ||
        !rules::chainName(wrapper, kFunc, "vexo_fw_%s_wrapper", info->name)) {
        return -1;
    }
    int result = 0;
    {
        std::lock_guard<std::mutex> lock(g_iptablesMutex);
        result = rules::inBothFamilies(kFunc, info->name, [&](rules::Family& f) {
            const char* ipt = f.iptables();
            int sum = 0;
            // The cascade of every interface goes; the next ratio update rewrites it.
            f.optional("%s -w -t mangle -F vexo_SLA", ipt);
            // Issued whether or not the interface had a wrapper chain.
            f.optional("%s -w -t mangle -F %s", ipt, wrapper);
            sum += f.optional("%s -w -t mangle -X %s", ipt, wrapper);
            sum += f.optional("%s -w -t mangle -F %s", ipt, chain);
            sum += f.optional("%s -w -t mangle -X %s", ipt, chain);
            sum += f.optional("%s %s rule del fwmark %s/%s prio 14999", kIp, f.ipFlag(),
                              info->fwmark, kRouteMask);
            sum += f.optional("%s -w -t nat -D vexo_nat_POSTROUTING_MUX -o %s -j MASQUERADE", ipt,
                              info->name);
            return sum;
        });
    }
    if (result != 0) {
        ALOGE("%s Failue when removing FWMARK tables for interface %s ", kFunc, info->name);
        return -1;
    }
    return 0;
}

int IptablesManager::updateInterfaceIptables(const char* name, bool add) {
    if (name == nullptr) return 0;
    Parameters* params = Parameters::instance();
    // Work on a copy of the record: the commands take long, and the registry lock
    // is not held across them (the whitelist rebuilds take it themselves).
    InterfaceInfo_t record;
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        InterfaceInfo_t* found = params->findInterface(name);
        if (found == nullptr) return 0;
        record = *found;
    }
    bool selecting = params->isVoipRunning() || params->isGamingRunning() != 0;
    if (add) {
        create_MUX_FWMARK_chain_for_iface(&record);
        setup_mux_whitelist();
        setup_double_wlan_uid_whitelist();
        setup_sla_uid_whitelist();
        setup_double_data_uid_whitelist();
        if (selecting) create_SLS_iptables_UID_for_interface(&record);
    } else {
        if (selecting) remove_SLS_iptables_UID_for_interface(&record);
        remove_MUX_FWMARK_chain_for_iface(&record);
    }
    return 0;
}
