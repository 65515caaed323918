// Failover of link selection: links that go down (link events) or whose gaming
// connections stall fail at once, without waiting for their probes' misses, and
// the main loop is woken so that the decision runs now.
//
// A failed record is in exactly the state "min_ping_times" misses leave it in,
// so only probe samples bring it back: a carrier that comes back after a moment
// does not make the link flap back.

#define LOG_TAG "MUX-Vord-SlaPing"

#include <log/log.h>

#include "lifecycle/MainLoopWakeup.h"
#include "sls/PingThread.h"
#include "sls/SmartLinkSelection.h"

bool SmartLinkSelection::failRecord(const std::string& name, LinkFailCause cause, bool down) {
    auto it = m_slsInterfaceMap.find(name);
    if (it == m_slsInterfaceMap.end() || it->second == nullptr) return false;
    InterfaceRtt* r = it->second;
    const bool newlyDown = down && !r->down;
    r->down = r->down || down;
    if (r->speed == -1 && r->failCause != LinkFailCause::None) return newlyDown;
    r->forceFail(cause);
    abortProbe(r);  // its result would no longer count
    return true;
}

void SmartLinkSelection::linkDown(const std::string& ifname, LinkFailCause cause) {
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        if (!m_downLinks.emplace(ifname, cause).second) return;  // already down
        if (!failRecord(ifname, cause, true)) return;             // not under selection
        ALOGI("%s %s: link failed", ifname.c_str(), linkFailCauseText(cause));
        publishState();
    }
    vord::wakeMainLoop();
}

void SmartLinkSelection::linkUp(const std::string& ifname) {
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        if (m_downLinks.erase(ifname) == 0) return;
        auto it = m_slsInterfaceMap.find(ifname);
        if (it == m_slsInterfaceMap.end() || it->second == nullptr) return;
        it->second->down = false;
        it->second->probeNow = true;
        ALOGI("%s is up again: probing it", ifname.c_str());
        publishState();
    }
    pingWakeup().notify_all();
}

void SmartLinkSelection::linkStalled(const std::string& ifname) {
    {
        std::lock_guard<std::mutex> lock(g_slsMapMutex);
        if (!failRecord(ifname, LinkFailCause::Stall, false)) return;
        ALOGI("%s %s: link failed", ifname.c_str(), linkFailCauseText(LinkFailCause::Stall));
        publishState();
    }
    vord::wakeMainLoop();
}
