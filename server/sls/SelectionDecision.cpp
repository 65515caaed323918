// The per-period link-selection step: pick the best link by network level, switch
// to it when the hysteresis allows, and the two mode-specific duties (the VoIP
// peer as probe target, the end of game mode's RTT check).

#define LOG_TAG "MUX-Vord-SlaPing"

#include <log/log.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "config/Parameters.h"
#include "counters/Counters.h"
#include "rules/IptablesManager.h"
#include "sla/SlaStatsImpl.h"
#include "sls/SmartLinkSelection.h"
#include "sockdiag/SockDiag.h"

namespace {

bool isWifi(const InterfaceRtt* r) { return strncmp(r->ifname, "wlan", 4) == 0; }

// Seconds of Wi-Fi after which game mode's RTT check ends itself.
constexpr uint64_t kAiModeWifiDwellS = 6;

}  // namespace

void SmartLinkSelection::slsChooseInterface() {
    if (!isInstance()) return;
    Parameters* params = Parameters::instance();
    const int gaming = params->isGamingRunning();
    if (gaming == 1 || params->isVoipRunning()) {
        calcInterface();
        setVoipIpAddressAndPort();
    } else if (gaming == 2 && params->isGamingAiModeCheckRtt()) {
        calcInterface();
        gamingAiModeCheck();
    }
}

void SmartLinkSelection::calcInterface() {
    std::lock_guard<std::mutex> lock(g_slsMapMutex);
    // Publishes the outcome on every return, before the lock is released.
    struct Publish {
        ~Publish() { SmartLinkSelection::publishState(); }
    } publish;
    InterfaceRtt* prev = m_currentInterface;
    InterfaceRtt* best = getFastestInterface();
    if (best == nullptr) {
        ALOGE("%s SLA_RTT Fastest Interface returned NULL", "calcInterface");
        return;
    }
    m_currentInterface = best;
    const bool allowed = hystCheckAndUpdate(m_hystWindow);
    if (!allowed && prev != nullptr) {
        m_currentInterface = prev;
        return;
    }
    ALOGI("%s SLA_RTT_SELECTED current =  %s , prvious = %s", "calcInterface", best->ifname,
          prev != nullptr ? prev->ifname : "NULL");
    if (best == prev) return;

    ALOGI("%s SLA_RTT_SELECTED perform switch %s ", "calcInterface", best->ifname);
    if (m_switcher) {
        m_switcher(best->ifname);
    } else {
        IptablesManager::instance()->set_SLS_interface(best->ifname);
    }
    for (const std::string& uid : Parameters::instance()->gamingUidList()) {
        ALOGI("SLA_RTT_SELECTED  UID destroying sockets = %s", uid.c_str());
        if (m_killer) {
            m_killer(uid.c_str());
        } else {
            killSocketsForUID(uid.c_str());
        }
    }
    m_hystWindow = now();
    ALOGI("SLA_LINK resetting hystWindow, current switch count = %d-----<*>", m_switchCount);
    m_switchCount += 1;
    vord::bump(vord::counters().linkSwitches);
}

InterfaceRtt* SmartLinkSelection::getFastestInterface() {
    InterfaceRtt* best = nullptr;
    int32_t bestLevel = 0;
    InterfaceRtt* cur = m_currentInterface;
    for (auto& entry : m_slsInterfaceMap) {
        InterfaceRtt* r = entry.second;
        if (r == nullptr) continue;
        ALOGI("%s (interface %s) (networklevel %d)", "getFastestInterface", r->ifname, r->level);
        if (r->level == 1 && cur != nullptr && strcmp(cur->ifname, r->ifname) == 0) {
            m_switchCount = 0;  // the current link failed: nothing holds a switch back
        }
        if (r->level > bestLevel) {
            best = r;
            bestLevel = r->level;
        } else if (r->level == bestLevel) {
            if (cur != nullptr) {
                best = isWifi(cur) ? cur : r;
            } else if (!r->isSlave()) {
                best = r;
            }
        }
    }
    if (best != nullptr) {
        ALOGI("%s (best Interface %s) (networklevel %d)", "getFastestInterface", best->ifname,
              best->level);
    }
    return best;
}

bool SmartLinkSelection::hystCheckAndUpdate(timeval& window) {
    const timeval t = now();
    // Signed 32-bit arithmetic (wrapping instead of overflowing).
    const int32_t seconds = static_cast<int32_t>(static_cast<uint32_t>(t.tv_sec - window.tv_sec) * 1000u);
    const int32_t micros = static_cast<int32_t>(t.tv_usec - window.tv_usec);
    const int32_t elapsed = static_cast<int32_t>(static_cast<uint32_t>(seconds) +
                                                 static_cast<uint32_t>(micros / 1000));
    Parameters* params = Parameters::instance();
    const int32_t hold = static_cast<int32_t>(static_cast<uint32_t>(params->getTHystS()) * 1000u);
    if (hold > elapsed) {
        if (m_switchCount >= params->getNHyst()) {
            ALOGI("SLA_LINK in cycle, switch not allowed-----*** calc %d  config delta %d", elapsed, hold);
            return false;
        }
        ALOGI("SLA_LINK in cycle, but good to switch - calc %d  config delta %d", elapsed, hold);
        return true;
    }
    ALOGI("SLA_LINK time elapsed, ready for switch calc %d  config delta %d", elapsed, hold);
    window = t;
    m_switchCount = 0;
    return true;
}

void SmartLinkSelection::gamingAiModeCheck() {
    Parameters* params = Parameters::instance();
    bool onWifi;
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        if (m_currentInterface == nullptr) return;
        onWifi = isWifi(m_currentInterface);
    }
    if (params->isGamingRunning() != 2 || !params->isGamingAiModeCheckRtt()) return;
    if (!onWifi) {
        m_aiModeCheckStart = 0;
        ALOGI("gamingAiModeCheck reset timer");
        return;
    }
    const uint64_t nowS = static_cast<uint64_t>(now().tv_sec);
    if (m_aiModeCheckStart == 0) m_aiModeCheckStart = nowS;
    if (nowS - m_aiModeCheckStart < kAiModeWifiDwellS) return;

    m_aiModeCheckStart = 0;
    std::lock_guard<std::recursive_mutex> control(slsControlMutex());
    // A command may have ended the check while we waited for the control mutex.
    if (params->isGamingRunning() != 2 || !params->isGamingAiModeCheckRtt()) return;
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        for (auto& entry : m_slsInterfaceMap) {
            if (entry.second != nullptr) entry.second->running = false;
        }
    }
    threadDestory();
    destoryPingThreads();
    params->setGamingAiModeCheckRtt(false);
    ALOGI("gamingAiModeCheck timeout exit tcping check");
}

void SmartLinkSelection::setVoipIpAddressAndPort() {
    Parameters* params = Parameters::instance();
    if (!params->isVoipRunning()) return;
    if (params->getRttServer() != VORD_DEFAULT_RTT_SERVER) return;
    // The module's fields are at most 19 characters and copied unterminated.
    char address[32] = {};
    char port[32] = {};
    SlaStatsImpl::instance()->getSlaVoipState(address, port);
    const int a = atoi(address);
    const int p = atoi(port);
    const uint32_t p16 = static_cast<uint32_t>(p) & 0xFFFFu;
    if (a == 0 || p16 == 0) return;
    const uint32_t ua = static_cast<uint32_t>(a);
    char text[32];
    snprintf(text, sizeof(text), "%u.%u.%u.%u", ua & 0xFFu, (ua >> 8) & 0xFFu, (ua >> 16) & 0xFFu,
             ua >> 24);
    params->setGamingRttServer(text);
    params->setRttServerPort(static_cast<int>(((p16 & 0xFFu) << 8) | (p16 >> 8)));
}
