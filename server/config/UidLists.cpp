// The UID lists, the gateway list and the probe server: text setters and parsers.

#define LOG_TAG "MUX-Vord-SlaParameters"

#include "config/Parameters.h"

#include <log/log.h>

#include "config/LogText.h"
#include "config/TextList.h"
#include "config/Tokens.h"

namespace {

constexpr size_t kUidLimit = 5;
constexpr size_t kGatewayLimit = 16;
constexpr size_t kNoLimit = static_cast<size_t>(-1);

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
                           size_t limit, bool needDecimal, bool needAddress,
                           const char* entryMsg, const char* errMsg, const char* funcName) {
    std::vector<std::string> parsed;
    for (const std::string& entry : vord::splitCommaList(source)) {
        if (limit != kNoLimit && entry.size() > limit) {
            ALOGE(errMsg, static_cast<unsigned long>(entry.size()));
            continue;
        }
        // Entries end up as arguments of rule commands: only decimal UIDs and
        // address literals get through.
        if (needDecimal && !vord::isDecimalUid(entry)) {
            ALOGE("%s refused entry \"%s\": not a decimal UID", funcName,
                  vord::escapeForLog(entry, 64).c_str());
            continue;
        }
        // Root's traffic, the daemon's own probes included, is never steered.
        if (needDecimal && vord::isRootUid(entry)) {
            ALOGE("%s refused entry \"%s\": UID 0 (root) is never steered", funcName,
                  entry.c_str());
            continue;
        }
        if (needAddress && !vord::isIpAddressLiteral(entry)) {
            ALOGE("%s refused entry \"%s\": not an IP address", funcName,
                  vord::escapeForLog(entry, 64).c_str());
            continue;
        }
        parsed.push_back(entry);
    }
    {
        std::lock_guard<std::mutex> lock(m_listMutex);
        target = parsed;
    }
    for (const std::string& entry : parsed) ALOGI(entryMsg, entry.c_str());
}

void Parameters::populateSlauidwhitelist() {
    parseList(getUidWhitelistText(), m_slaUidWhitelist, kUidLimit, true, false,
              "SLA UID whitelist = %s", "populateSlauidwhitelist token length error is %lu",
              "populateSlauidwhitelist");
}

void Parameters::populateDWUidWhitelist() {
    parseList(getDWUidWhitelistText(), m_dwUidWhitelist, kUidLimit, true, false,
              "SLA Double Wlan UID whitelist = %s",
              "populateDWUidWhitelist token length error is %lu", "populateDWUidWhitelist");
}

void Parameters::populateDDUidWhitelist() {
    parseList(getDDUidWhitelistText(), m_ddUidWhitelist, kUidLimit, true, false,
              "SLA Double Data UID whitelist = %s",
              "populateDDUidWhitelist token length error is %lu", "populateDDUidWhitelist");
}

void Parameters::populateGamingUids() {
    parseList(getGamingUids(), m_gamingUids, kNoLimit, true, false, "SLS GAMING Demo UID = %s",
              "", "populateGamingUids");
}

void Parameters::populateWifiGateway(const char* text) {
    if (text == nullptr || *text == '\0') {
        std::lock_guard<std::mutex> lock(m_listMutex);
        m_wifiGateways.clear();
        return;
    }
    parseList(text, m_wifiGateways, kGatewayLimit, false, true, "populateWifiGateway = %s",
              "populateWifiGateway token length error is %lu", "populateWifiGateway");
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
