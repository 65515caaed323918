// The per-period link-selection step: pick the best link by network level, switch
// to it when the hysteresis allows, and the two mode-specific duties (the VoIP
// peer as probe target, the end of game mode's RTT check).
//
// Two departures from the documented choice, both about links that cannot carry
// traffic: a record whose link has left the registry is never chosen, and a link
// that is down (link events: no carrier, administratively down, removed, no IPv4
// address) is left out while any other link is not down. Each switch is recorded
// with its reason for the status snapshot.

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
    } else {
        m_aiModeCheckStart = 0;  // no check runs: the next one dwells afresh
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
    noteSwitch(prev, best);
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

bool SmartLinkSelection::excluded(const InterfaceRtt* r, bool anyUp) const {
    return r->retired || (r->down && anyUp);
}

InterfaceRtt* SmartLinkSelection::getFastestInterface() {
    InterfaceRtt* best = nullptr;
    int32_t bestLevel = 0;
    bool anyUp = false;
    for (const auto& entry : m_slsInterfaceMap) {
        anyUp = anyUp || (entry.second != nullptr && !entry.second->retired && !entry.second->down);
    }
    InterfaceRtt* cur = m_currentInterface;
    // A current link that cannot be chosen neither wins ties nor holds a switch back.
    if (cur != nullptr && excluded(cur, anyUp)) {
        m_switchCount = 0;
        cur = nullptr;
    }
    for (auto& entry : m_slsInterfaceMap) {
        InterfaceRtt* r = entry.second;
        if (r == nullptr) continue;
        ALOGI("%s (interface %s) (networklevel %d)", "getFastestInterface", r->ifname, r->level);
        if (r->level == 1 && cur != nullptr && strcmp(cur->ifname, r->ifname) == 0) {
            m_switchCount = 0;  // the current link failed: nothing holds a switch back
        }
        if (excluded(r, anyUp)) continue;
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

void SmartLinkSelection::noteSwitch(const InterfaceRtt* prev, const InterfaceRtt* best) {
    SlsLastSwitch s;
    const timeval t = now();
    s.valid = true;
    s.wallMs = static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_usec / 1000;
    s.to = best->ifname;
    char detail[160];
    if (prev == nullptr && !m_removedCurrent.empty()) {
        s.from = m_removedCurrent;
        s.reason = "framework-removed";
        snprintf(detail, sizeof(detail), "%s was removed by the framework", m_removedCurrent.c_str());
    } else if (prev == nullptr) {
        s.reason = "initial";
        snprintf(detail, sizeof(detail), "no link was selected");
    } else if (prev->retired) {
        s.from = prev->ifname;
        s.reason = "framework-removed";
        snprintf(detail, sizeof(detail), "%s left the framework's interface list", prev->ifname);
    } else if (prev->speed == -1 && prev->failCause != LinkFailCause::None) {
        s.from = prev->ifname;
        s.reason = linkFailCauseKey(prev->failCause);
        snprintf(detail, sizeof(detail), "%s %s", prev->ifname, linkFailCauseText(prev->failCause));
    } else if (prev->level == 1) {
        s.from = prev->ifname;
        s.reason = "link-failed";
        snprintf(detail, sizeof(detail), "%s failed after %d misses", prev->ifname, prev->missCount);
    } else {
        s.from = prev->ifname;
        s.reason = "better-level";
        snprintf(detail, sizeof(detail), "%s level %d above %s level %d", best->ifname, best->level,
                 prev->ifname, prev->level);
    }
    s.detail = detail;
    m_removedCurrent.clear();
    m_lastSwitch = std::move(s);
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
        onWifi = m_currentInterface != nullptr && isWifi(m_currentInterface);
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
    // The address is the module's 32-bit value in decimal: parsed unsigned, so a
    // last octet of 128 or more (a value above INT32_MAX) needs no wrapping.
    const uint32_t ua = static_cast<uint32_t>(strtoul(address, nullptr, 10));
    const int p = atoi(port);
    const uint32_t p16 = static_cast<uint32_t>(p) & 0xFFFFu;
    if (ua == 0 || p16 == 0) return;
    char text[32];
    snprintf(text, sizeof(text), "%u.%u.%u.%u", ua & 0xFFu, (ua >> 8) & 0xFFu, (ua >> 16) & 0xFFu,
             ua >> 24);
    params->setGamingRttServer(text);
    params->setRttServerPort(static_cast<int>(((p16 & 0xFFu) << 8) | (p16 >> 8)));
}
