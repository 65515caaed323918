// Interface records, their parameter strings, the registry map and the mark slots.

#define LOG_TAG "MUX-Vord-SlaParameters"

#include <log/log.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>


#include "config/LogText.h"
#include "config/Parameters.h"
#include "config/TextList.h"
#include "config/Tokens.h"

namespace {

constexpr int kInterfaceFields = 9;
constexpr int kMarkSlots = 4;
constexpr uint64_t kMarkStep = 0x200000;

void copyField(char* dst, size_t size, const std::string& src) {
    size_t n = src.size() < size - 1 ? src.size() : size - 1;
    memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

std::string formatMark(uint64_t mark) {
    char buf[32];
    snprintf(buf, sizeof(buf), "0x%x", static_cast<unsigned>(mark));
    return buf;
}

}  // namespace

void Parameters::initValidInterfaceMark() {
    std::lock_guard<std::mutex> lock(m_markMutex);
    for (int i = 0; i < kMarkSlots; ++i) {
        m_interfaceMarks.push_back(new interfaceMark{kMarkStep * (i + 1), " ", true});
    }
}

std::string Parameters::getValidInterfaceMark(const char* name) {
    std::lock_guard<std::mutex> lock(m_markMutex);
    if (m_interfaceMarks.empty() || name == nullptr) return "0x200000";
    for (interfaceMark* slot : m_interfaceMarks) {
        if (slot->ifaceName == name) return formatMark(slot->mark);
    }
    for (interfaceMark* slot : m_interfaceMarks) {
        if (slot->available) {
            slot->ifaceName = name;
            slot->available = false;
            return formatMark(slot->mark);
        }
    }
    // Every slot is held: a fifth interface shares the first slot's mark, and
    // building its rules replaces the first interface's policy routing rule.
    ALOGW("%s every mark slot is held: %s shares mark 0x200000 with %s, and its routing rule "
          "replaces the one of %s",
          "getValidInterfaceMark", vord::escapeForLog(name, 64).c_str(),
          m_interfaceMarks.front()->ifaceName.c_str(), m_interfaceMarks.front()->ifaceName.c_str());
    return "0x200000";
}

void Parameters::releaseValidInterfaceMark(const char* name) {
    if (name == nullptr) return;
    std::lock_guard<std::mutex> lock(m_markMutex);
    for (interfaceMark* slot : m_interfaceMarks) {
        if (slot->ifaceName == name) {
            slot->available = true;
            slot->ifaceName = " ";
        }
    }
}

std::vector<interfaceMark> Parameters::markSlots() const {
    std::lock_guard<std::mutex> lock(m_markMutex);
    std::vector<interfaceMark> out;
    for (const interfaceMark* slot : m_interfaceMarks) out.push_back(*slot);
    return out;
}

InterfaceInfo_t* Parameters::parseInterfaceParams(std::string params) {
    InterfaceInfo_t* info = static_cast<InterfaceInfo_t*>(calloc(1, sizeof(InterfaceInfo_t)));
    if (info == nullptr) {
        ALOGE("%s Check vord.conf for interface errors", "parseInterfaceParams");
        return nullptr;
    }
    std::vector<std::string> fields = vord::splitCommaList(params);
    for (size_t i = 0; i < fields.size(); ++i) {
        ALOGI("parseInterfaceParams %s %d %d ", vord::escapeForLog(fields[i], 128).c_str(),
              static_cast<int>(i + 1),
              kInterfaceFields);
    }
    if (fields.size() != kInterfaceFields) {
        free(info);
        ALOGE("%s Check vord.conf for interface errors", "parseInterfaceParams");
        return nullptr;
    }
    copyField(info->name, sizeof(info->name), fields[0]);
    copyField(info->routeTable, sizeof(info->routeTable), fields[2]);
    copyField(info->fwmark, sizeof(info->fwmark), fields[3]);
    copyField(info->bssid, 13, fields[8]);
    info->isDefault = atoi(fields[4].c_str()) != 0;
    info->metered = atoi(fields[1].c_str()) != 0;
    info->slave = atoi(fields[7].c_str()) != 0;
    info->cost = atoi(fields[5].c_str());
    info->bias = atoi(fields[6].c_str());
    if (!validateInterfaceParams(info)) {
        free(info);
        ALOGE("%s Check vord.conf for interface errors", "parseInterfaceParams");
        return nullptr;
    }
    return info;
}

int Parameters::validateInterfaceParams(InterfaceInfo_t* info) {
    static const char* const fn = "validateInterfaceParams";
    if (info == nullptr) {
        ALOGE("%s Interface Obj is NULL", fn);
        return 0;
    }
    bool valid = true;
    if (info->name[0] == '\0') {
        ALOGE("%s Interface name is NULL", fn);
        valid = false;
    }
    if (info->routeTable[0] == '\0') {
        ALOGE("%s Interface routeTable is NULL", fn);
        if (info->fwmark[0] == '\0') ALOGE("%s Interface fwmark is NULL", fn);
        return 0;
    }
    if (info->fwmark[0] == '\0') {
        ALOGE("%s Interface fwmark is NULL", fn);
        return 0;
    }
    if (!valid) return 0;
    // The name, the table and the mark go into rule commands as arguments.
    if (!vord::isValidInterfaceName(info->name)) {
        ALOGE("%s Interface name \"%s\" is not a valid interface name", fn,
              vord::escapeForLog(info->name, 64).c_str());
        return 0;
    }
    if (!vord::isValidInterfaceName(info->routeTable)) {
        ALOGE("%s Interface routeTable \"%s\" is not a valid table name", fn,
              vord::escapeForLog(info->routeTable, 64).c_str());
        return 0;
    }
    // A policy rule into "main", "local" or a numbered table would steer traffic
    // into the kernel's own tables.
    if (vord::isKernelRouteTableName(info->routeTable)) {
        ALOGE("%s Interface routeTable \"%s\" is one of the kernel's own tables", fn,
              info->routeTable);
        return 0;
    }
    if (!vord::isHexMark(info->fwmark)) {
        ALOGE("%s Interface fwmark \"%s\" is not a hexadecimal mark", fn,
              vord::escapeForLog(info->fwmark, 64).c_str());
        return 0;
    }
    ALOGI("%s Interface name is       %s", fn, info->name);
    ALOGI("%s Interface routeTable is %s", fn, info->routeTable);
    ALOGI("%s Interface fwmark is     %s", fn, info->fwmark);
    ALOGI("%s Interface default is    %d", fn, info->isDefault ? 1 : 0);
    ALOGI("%s Interface metered is    %d", fn, info->metered ? 1 : 0);
    ALOGI("%s Interface cost is       %d", fn, info->cost);
    ALOGI("%s Interface bias is       %d", fn, info->bias);
    ALOGI("%s Interface slave is      %d", fn, info->slave ? 1 : 0);
    return 1;
}

int Parameters::addNewInterfacetoMap(InterfaceInfo_t* info) {
    if (!validateInterfaceParams(info)) {
        ALOGE("%s Add interface failed ", "addNewInterfacetoMap");
        return 0;
    }
    InterfaceInfo_t* previous = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        auto it = m_interfaceInfoMap.find(info->name);
        if (it != m_interfaceInfoMap.end()) {
            previous = it->second;
            it->second = info;
        } else {
            m_interfaceInfoMap[info->name] = info;
        }
    }
    // Records are only ever used under g_interfaceMapMutex, so nobody can still
    // hold the record this one replaces.
    if (previous != info) free(previous);
    ALOGI("%s Added %s to list of interfaces ", "addNewInterfacetoMap", info->name);
    return 1;
}

int Parameters::delOldInterfacetoMap(const char* name) {
    if (name == nullptr) return 1;
    InterfaceInfo_t* record = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_interfaceMapMutex);
        auto it = m_interfaceInfoMap.find(name);
        if (it != m_interfaceInfoMap.end()) {
            record = it->second;
            m_interfaceInfoMap.erase(it);
        }
    }
    free(record);
    return 1;
}

InterfaceInfo_t* Parameters::findInterface(const std::string& name) const {
    auto it = m_interfaceInfoMap.find(name);
    return it == m_interfaceInfoMap.end() ? nullptr : it->second;
}
