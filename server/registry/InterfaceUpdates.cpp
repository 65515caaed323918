// Interface list updates from the framework: add/remove, metered mode, BSSIDs.

#define LOG_TAG "MUX-Vord-SlaParameters"

#include <log/log.h>

#include <stdlib.h>
#include <string.h>

#include "config/LogText.h"
#include "config/Parameters.h"
#include "config/Refusals.h"
#include "config/TextList.h"
#include "counters/Refusal.h"

namespace {

bool isCellularName(const std::string& name) {
    return name.compare(0, 10, "rmnet_data") == 0 || name.compare(0, 5, "ccmni") == 0 ||
           name.compare(0, 4, "wwan") == 0;
}

}  // namespace

std::string Parameters::getMeteredInterfaceSlaveStatus() {
    int count = 0;
    {
        std::lock_guard<std::mutex> lock(m_markMutex);
        for (const interfaceMark* slot : m_interfaceMarks) {
            if (slot->ifaceName.size() >= 10 && slot->ifaceName.compare(0, 10, "rmnet_data") == 0) {
                ++count;
            }
        }
    }
    std::string status = count > 1 ? "1" : "0";
    ALOGI("%s slave status %s", "getMeteredInterfaceSlaveStatus", status.c_str());
    return status;
}

void Parameters::populatIfaceslist(const char* ifaces) {
    if (ifaces == nullptr) return;
    std::string mark = getValidInterfaceMark(ifaces);
    std::vector<std::string> names = vord::splitCommaList(ifaces);
    std::string mode = getInterfaceMode();
    std::vector<std::string> params;
    for (const std::string& name : names) {
        std::string metered = "0", isDefault = "0", slave = "0";
        if (name.compare(0, 5, "wlan0") == 0) {
            isDefault = "1";
        } else if (name.compare(0, 5, "wlan1") == 0) {
            slave = "1";
        } else if (isCellularName(name)) {
            metered = mode;
            slave = getMeteredInterfaceSlaveStatus();
        }
        params.push_back(name + "," + metered + "," + name + "," + mark + "," + isDefault +
                         ",0,0" + "," + slave + "," + "ffffffffffff");
        if (params.size() == kMaxInterfaceParams) break;
    }
    {
        std::lock_guard<std::mutex> lock(m_listMutex);
        m_ifaceNames = names;
        for (size_t i = 0; i < params.size(); ++i) m_ifaceParams[i] = params[i];
    }
    m_numInterfaces = static_cast<int32_t>(params.size());
    for (size_t i = 0; i < params.size(); ++i) {
        ALOGI("SLA m_ifaceParams[%zu] = %s", i, params[i].c_str());
    }
}

void Parameters::UpdateInterface(const char* ifname, bool add) {
    if (ifname == nullptr) return;
    if (add) {
        // The name becomes an argument of rule commands and the routing table of
        // its rule: refuse it before it takes a mark slot.
        if (VORD_REFUSED("UpdateInterface", vord::interfaceRefusal(ifname))) return;
        populatIfaceslist(ifname);
        int n = m_numInterfaces.load();
        for (int i = 0; i < n && i < kMaxInterfaceParams; ++i) {
            InterfaceInfo_t* record = parseInterfaceParams(getIfaceParams(i));
            if (record == nullptr) continue;
            if (addNewInterfacetoMap(record)) {
                ALOGI("m_interfaceInfoMap add %s success!", record->name);
            } else {
                free(record);
            }
        }
    } else {
        releaseValidInterfaceMark(ifname);
        delOldInterfacetoMap(ifname);
        ALOGI("m_interfaceInfoMap del %s success!", ifname);
    }
}

void Parameters::UpdateInterfaceMode(const char* mode) {
    if (mode == nullptr) return;
    if (VORD_REFUSED("UpdateInterfaceMode", vord::modeRefusal(mode))) return;
    {
        std::lock_guard<std::mutex> lock(m_listMutex);
        if (m_interfaceMode == mode) return;
        m_interfaceMode = mode;
    }
    bool metered = atoi(mode) != 0;
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    for (auto& entry : m_interfaceInfoMap) {
        if (entry.second != nullptr && isCellularName(entry.second->name)) {
            entry.second->metered = metered;
        }
    }
}

void Parameters::UpdateInterfaceBssid(const char* bssids) {
    if (bssids == nullptr) return;
    std::string copy;
    for (const char* p = bssids; *p; ++p) {
        if (*p != ':') copy.push_back(*p);
    }
    ALOGI("%s bssid is %s\n", "UpdateInterfaceBssid", vord::escapeForLog(copy, 128).c_str());
    if (VORD_REFUSED("UpdateInterfaceBssid", vord::bssidRefusal(bssids))) return;
    std::vector<std::string> parts = vord::splitCommaList(copy);
    std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
    for (auto& entry : m_interfaceInfoMap) {
        InterfaceInfo_t* record = entry.second;
        if (record == nullptr) continue;
        const char* prefix[2] = {"wlan0", "wlan1"};
        for (size_t i = 0; i < 2 && i < parts.size(); ++i) {
            if (!parts[i].empty() && strncmp(record->name, prefix[i], 5) == 0) {
                snprintf(record->bssid, 13, "%s", parts[i].c_str());
            }
        }
    }
}
