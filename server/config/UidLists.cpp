// The UID lists, the gateway list and the probe server: text setters and parsers.

#define LOG_TAG "MUX-Vord-SlaParameters"

#include "config/Parameters.h"

#include <log/log.h>

#include "config/Refusals.h"
#include "config/TextList.h"
#include "counters/Refusal.h"

namespace {

std::string whitelistEntryRefusal(const std::string& entry) {
    return vord::uidEntryRefusal(entry, vord::kWhitelistEntryLimit);
}

std::string gamingEntryRefusal(const std::string& entry) { return vord::uidEntryRefusal(entry, 0); }

}  // namespace

void Parameters::setuidwhitelist(const char* text) {
    if (text == nullptr) return;
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_uidWhitelist = text;
}

void Parameters::setDWUidWhitelist(const char* text) {
    if (text == nullptr) return;
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_dwUidWhitelistText = text;
}

void Parameters::setDDUidWhitelist(const char* text) {
    if (text == nullptr) return;
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_ddUidWhitelistText = text;
}

void Parameters::setGamingUids(const char* text) {
    if (text == nullptr) return;
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_gamingUidsText = text;
}

void Parameters::setGamingRttServer(const char* text) {
    if (text == nullptr) return;
    std::lock_guard<std::mutex> lock(m_listMutex);
    m_rttServer = text;
}

std::string Parameters::getGamingUids() const {
    std::lock_guard<std::mutex> lock(m_listMutex);
    return m_gamingUidsText;
}

std::string Parameters::getUidWhitelistText() const {
    std::lock_guard<std::mutex> lock(m_listMutex);
    return m_uidWhitelist;
}

std::string Parameters::getDWUidWhitelistText() const {
    std::lock_guard<std::mutex> lock(m_listMutex);
    return m_dwUidWhitelistText;
}

std::string Parameters::getDDUidWhitelistText() const {
    std::lock_guard<std::mutex> lock(m_listMutex);
    return m_ddUidWhitelistText;
}

void Parameters::parseList(const std::string& source, std::vector<std::string>& target,
                           const std::function<std::string(const std::string&)>& refusal,
                           const char* entryMsg, const char* funcName) {
    std::vector<std::string> parsed;
    for (const std::string& entry : vord::splitCommaList(source)) {
        // Entries end up as arguments of rule commands: only decimal UIDs and
        // address literals get through.
        if (VORD_REFUSED(funcName, refusal(entry))) continue;
        parsed.push_back(entry);
    }
    {
        std::lock_guard<std::mutex> lock(m_listMutex);
        target = parsed;
    }
    for (const std::string& entry : parsed) ALOGI(entryMsg, entry.c_str());
}

void Parameters::populateSlauidwhitelist() {
    parseList(getUidWhitelistText(), m_slaUidWhitelist, whitelistEntryRefusal,
              "SLA UID whitelist = %s", "populateSlauidwhitelist");
}

void Parameters::populateDWUidWhitelist() {
    parseList(getDWUidWhitelistText(), m_dwUidWhitelist, whitelistEntryRefusal,
              "SLA Double Wlan UID whitelist = %s", "populateDWUidWhitelist");
}

void Parameters::populateDDUidWhitelist() {
    parseList(getDDUidWhitelistText(), m_ddUidWhitelist, whitelistEntryRefusal,
              "SLA Double Data UID whitelist = %s", "populateDDUidWhitelist");
}

void Parameters::populateGamingUids() {
    parseList(getGamingUids(), m_gamingUids, gamingEntryRefusal, "SLS GAMING Demo UID = %s",
              "populateGamingUids");
}

void Parameters::populateWifiGateway(const char* text) {
    if (text == nullptr || *text == '\0') {
        std::lock_guard<std::mutex> lock(m_listMutex);
        m_wifiGateways.clear();
        return;
    }
    parseList(text, m_wifiGateways, vord::gatewayEntryRefusal, "populateWifiGateway = %s",
              "populateWifiGateway");
}

#define VORD_LIST_SNAPSHOT(fn, member)                 \
    std::vector<std::string> Parameters::fn() const {  \
        std::lock_guard<std::mutex> lock(m_listMutex); \
        return member;                                 \
    }

VORD_LIST_SNAPSHOT(gamingUidList, m_gamingUids)
VORD_LIST_SNAPSHOT(slaUidWhitelist, m_slaUidWhitelist)
VORD_LIST_SNAPSHOT(dwUidWhitelist, m_dwUidWhitelist)
VORD_LIST_SNAPSHOT(ddUidWhitelist, m_ddUidWhitelist)
VORD_LIST_SNAPSHOT(wifiGateways, m_wifiGateways)

#undef VORD_LIST_SNAPSHOT
