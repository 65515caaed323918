// The rule manager singleton: base chain tree at construction, full teardown at
// destruction, and the teardown walks over the registered interfaces.

#define LOG_TAG "MUX-Vord-iptablesManager"

#include "rules/IptablesManager.h"

#include <log/log.h>

#include "config/Parameters.h"
#include "rules/RuleFamily.h"
#include "rules/StartupSweep.h"
#include "rules/execnetd.h"

std::mutex g_iptablesMutex;

namespace {

// Guards the singleton pointer only; never held while commands run.
std::mutex g_instanceMutex;
IptablesManager* g_instance = nullptr;

}  // namespace

IptablesManager* IptablesManager::instance() {
    std::lock_guard<std::mutex> lock(g_instanceMutex);
    if (g_instance == nullptr) g_instance = new IptablesManager();
    return g_instance;
}

void IptablesManager::clean_MUX_iptables() {
    IptablesManager* manager = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_instanceMutex);
        manager = g_instance;
        g_instance = nullptr;
    }
    delete manager;
}

// Whatever an earlier run left behind is swept first (StartupSweep.h). Each base
// chain is then created and flushed, and each hook deleted before it is added, so
// even without the sweep a start ends with empty base chains and exactly one hook
// of each kind. The tools' complaints about existing chains and missing hooks are
// only logged.
IptablesManager::IptablesManager() {
    setRuleCommandTimeout(Parameters::instance()->getRuleCommandTimeoutS());
    std::lock_guard<std::mutex> lock(g_iptablesMutex);
    rules::sweepLeftovers();
    rules::inBothFamilies("IptablesManager", "", [](rules::Family& f) {
        const char* ipt = f.iptables();
        for (const char* chain : {"vexo_MUX", "vexo_SLA", "vexo_SLS", "vexo_MUX_wapper"}) {
            f.optional("%s -w -t mangle -N %s", ipt, chain);
            f.run("%s -w -t mangle -F %s", ipt, chain);
        }
        f.run("%s -w -t mangle -I vexo_MUX 1 -j vexo_SLS", ipt);
        f.run("%s -w -t mangle -I vexo_MUX 2 -m state --state ESTABLISHED,RELATED -j CONNMARK "
              "--restore-mark",
              ipt);
        f.run("%s -w -t mangle -I vexo_MUX 3 -j vexo_SLA", ipt);
        f.optional("%s -w -t mangle -D OUTPUT -j vexo_MUX_wapper", ipt);
        f.run("%s -w -t mangle -A OUTPUT -j vexo_MUX_wapper", ipt);
        f.optional("%s -w -t nat -F vexo_nat_POSTROUTING_MUX", ipt);
        f.optional("%s -w -t nat -N vexo_nat_POSTROUTING_MUX", ipt);
        f.optional("%s -w -t nat -D POSTROUTING -j vexo_nat_POSTROUTING_MUX", ipt);
        f.run("%s -w -t nat -I POSTROUTING -j vexo_nat_POSTROUTING_MUX", ipt);
        return 0;
    });
}

// Hooks first; every chain is flushed before it is deleted, and deleted only after
// every chain jumping to it has been flushed. Then the per-interface chains.
IptablesManager::~IptablesManager() {
    {
        std::lock_guard<std::mutex> lock(g_iptablesMutex);
        rules::inBothFamilies("~IptablesManager", "", [](rules::Family& f) {
            const char* ipt = f.iptables();
            f.optional("%s -w -t mangle -D OUTPUT -j vexo_MUX_wapper", ipt);
            f.optional("%s -w -t nat -D POSTROUTING -j vexo_nat_POSTROUTING_MUX", ipt);
            f.optional("%s -w -t nat -F vexo_nat_POSTROUTING_MUX", ipt);
            f.optional("%s -w -t nat -X vexo_nat_POSTROUTING_MUX", ipt);
            for (const char* chain : {"vexo_MUX_wapper", "vexo_MUX", "vexo_SLA", "vexo_SLS"}) {
                f.optional("%s -w -t mangle -F %s", ipt, chain);
                f.optional("%s -w -t mangle -X %s", ipt, chain);
            }
            return 0;
        });
    }
    cleanup_SLS_iptables_UID_chains();
    cleanup_MUX_iptables_FWMARK_chains();
}

int IptablesManager::forEachInterface(int (IptablesManager::*perInterface)(InterfaceInfo_t*),
                                      const char* func, const char* failedFmt,
                                      const char* summaryFmt) {
    int failures = 0;
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        for (auto& entry : Parameters::instance()->interfaceInfoMap()) {
            InterfaceInfo_t* info = entry.second;
            if (info == nullptr) continue;
            if ((this->*perInterface)(info) != 0) {
                ALOGE(failedFmt, func, info->name);
                ++failures;
            }
        }
    }
    if (failures != 0) {
        ALOGE(summaryFmt, func);
        return -1;
    }
    return 0;
}

int IptablesManager::cleanup_SLS_iptables_UID_chains() {
    return forEachInterface(&IptablesManager::remove_SLS_iptables_UID_for_interface, "cleanup_SLS_iptables_UID_chains",
                            "%s Remove UID chain for interface %s failed", "%s Failure when removing SLS UID tables for all interfaces ");
}

int IptablesManager::cleanup_MUX_iptables_FWMARK_chains() {
    return forEachInterface(&IptablesManager::remove_MUX_FWMARK_chain_for_iface, "cleanup_MUX_iptables_FWMARK_chains",
                            "%s Cleanup FWMARK for interface %s failed", "%s Failure when cleaning FWMARK tables for all interfaces ");
}
