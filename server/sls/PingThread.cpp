// The probe thread: one per link, all serialised on g_slsMapMutex for the whole of
// each probe. The sleep between probes waits on pingWakeup() with the mutex
// released, so a thread whose record is ended leaves without waiting out its
// interval.

#define LOG_TAG "MUX-Vord-SlaPing"

#include "sls/PingThread.h"

#include <chrono>
#include <mutex>
#include <string>

#include "config/Parameters.h"
#include "sls/InterfaceRtt.h"
#include "sls/SmartLinkSelection.h"
#include "sls/Tcping.h"

std::condition_variable& pingWakeup() {
    static std::condition_variable wakeup;
    return wakeup;
}

void* makeRawPingFunc(void* rtt) {
    InterfaceRtt* r = static_cast<InterfaceRtt*>(rtt);
    Parameters* params = Parameters::instance();
    // Read once when the thread starts.
    const int intervalMs = params->getPingIntervalMs();
    const std::chrono::milliseconds interval(intervalMs > 0 ? intervalMs : 0);

    // The record's name never changes while its thread runs.
    tcping_info info;
    info.ifname = r->ifname;
    std::string server = params->getRttServer();
    info.server = server.c_str();
    info.port = params->getRttServerPort();

    std::unique_lock<std::mutex> lock(g_slsMapMutex);
    for (;;) {
        if (r->running) {
            if (!r->alive) break;
            // The probe target can change at any time (VoIP peer, commands).
            server = params->getRttServer();
            info.server = server.c_str();
            info.port = params->getRttServerPort();
            r->setSpeed(Tcping::updateTcpingRtt(&info, r->rssiPenaltyMs));
            SmartLinkSelection::publishState();
        }
        if (!r->alive) break;
        pingWakeup().wait_for(lock, interval, [r] { return !r->alive; });
        if (!r->alive) break;
    }
    return rtt;
}
