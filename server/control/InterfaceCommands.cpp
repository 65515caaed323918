// Command 1: the interface list. Removals come before additions; each interface is
// brought into (or out of) the registry, the statistics channel, the rules and link
// selection in a fixed order.

#define LOG_TAG "MUX-Vord-VordSocket-Server"

#include "control/InterfaceCommands.h"

#include <log/log.h>

#include <algorithm>

#include "config/LogText.h"
#include "config/Parameters.h"
#include "config/Refusals.h"
#include "config/TextList.h"
#include "config/Tokens.h"
#include "control/ControlState.h"
#include "counters/Refusal.h"
#include "rules/IptablesManager.h"
#include "sla/SlaStatsImpl.h"
#include "sls/SmartLinkSelection.h"

std::vector<std::string> interfacelist;
std::vector<std::string> preinterfacelist;

namespace {

bool contains(const std::vector<std::string>& list, const std::string& name) {
    return std::find(list.begin(), list.end(), name) != list.end();
}

}  // namespace

int addInterfaces(const char* name) {
    Parameters* params = controlParameters();
    if (params == nullptr) return -1;
    // Refused before anything is built: no record, no mark slot, no block, no rule.
    if (VORD_REFUSED("addInterfaces", vord::interfaceRefusal(name))) return -1;
    IptablesManager* iptables = IptablesManager::instance();
    SlaStatsImpl* sla = SlaStatsImpl::instance();
    params->UpdateInterface(name, true);
    sla->updateSlaInterfacemap(name, true);
    iptables->updateInterfaceIptables(name, true);
    if (SmartLinkSelection::isInstance()) {
        SmartLinkSelection::instance()->updateSlsInterfacemap(name, true);
    }
    return 0;
}

int removeInterfaces(const char* name) {
    Parameters* params = controlParameters();
    if (params == nullptr) return -1;
    // A name refused when it was added has nothing to take down.
    if (vord::unmanageableInterfaceReason(name) != nullptr) return 0;
    IptablesManager* iptables = IptablesManager::instance();
    SlaStatsImpl* sla = SlaStatsImpl::instance();
    // The rules go first, while the record still exists.
    iptables->updateInterfaceIptables(name, false);
    params->UpdateInterface(name, false);
    sla->updateSlaInterfacemap(name, false);
    if (SmartLinkSelection::isInstance()) {
        SmartLinkSelection::instance()->updateSlsInterfacemap(name, false);
    }
    return 0;
}

void updateInterfaces(const char* list) {
    if (list == nullptr) {
        interfacelist.clear();
        return;
    }
    std::vector<std::string> names = vord::splitCommaList(list);
    // Refused as a whole: the managed interfaces stay as they are.
    if (VORD_REFUSED("updateInterfaces", vord::interfaceListRefusal(names.size()))) return;
    interfacelist = names;

    for (const std::string& name : preinterfacelist) {
        if (contains(interfacelist, name)) continue;
        ALOGI("remove Interfaces is %s", vord::escapeForLog(name, 64).c_str());
        removeInterfaces(name.c_str());
    }
    for (const std::string& name : interfacelist) {
        if (contains(preinterfacelist, name)) continue;
        ALOGI("add Interfaces is %s", vord::escapeForLog(name, 64).c_str());
        addInterfaces(name.c_str());
    }

    preinterfacelist.clear();
    preinterfacelist = vord::splitCommaList(list);
    for (const std::string& name : preinterfacelist) {
        ALOGI("preinterfacelist is %s", vord::escapeForLog(name, 64).c_str());
    }
}
