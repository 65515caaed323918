// vord: daemon entry, the evaluation loop and the shutdown.
//
// Two ways out of the loop: the stop property (the documented one: clean up, then
// idle until the platform restarts the process) and a signal that ends the process
// (SIGTERM from init's stop or restart, SIGINT, ...: the same clean-up, then exit
// with status 0; lifecycle/LoopWait.h). An idle daemon ends on such a signal too.

#define LOG_TAG "MUX-Vord-daemon"

#include <log/log.h>

#include <stdint.h>
#include <stdio.h>


#include "config/Parameters.h"
#include "control/VordSocketServer.h"
#include "lifecycle/CommandLine.h"
#include "lifecycle/LoopWait.h"
#include "lifecycle/MainLoopWakeup.h"
#include "monitors/DoubleWifiMonitor.h"
#include "monitors/LinkEventMonitor.h"
#include "monitors/RssiStateMonitor.h"
#include "monitors/SlaTcpSocketMonitor.h"
#include "rules/IptablesManager.h"
#include "sla/SlaStatsImpl.h"
#include "sls/SmartLinkSelection.h"
#include "sockdiag/GamingUidSockets.h"
#include "sockdiag/SockDiag.h"
#include "status/StatusSnapshot.h"

int main(int argc, char** argv) {
    const int exitStatus = vord::parseCommandLine(argc, argv, stdout, stderr);
    if (exitStatus >= 0) return exitStatus;  // help, version or a refused argument
    // Before any thread starts: every thread inherits the blocked ending signals.
    vord::LoopWait loopWait;
    loopWait.init();

    ALOGI("Vord (SLA+SLS) %s starting daemon", vord::kVordVersion);

    // Start-up, in this order.
    Parameters* params = Parameters::instance();
    IptablesManager::instance();
    createSocketThreads(params);  // without a control channel the daemon runs on
    SlaStatsImpl* sla = SlaStatsImpl::instance();
    sla->enableSLA(true);
    SmartLinkSelection::Init();
    SmartLinkSelection* sls = SmartLinkSelection::instance();
    // Link events fail a dead link at once and cut the loop's sleep short so the
    // decision follows at once; without them the loop keeps its fixed period.
    vord::setMainLoopWakeupsEnabled(params->linkEventsEnabled());
    if (params->linkEventsEnabled()) LinkEventMonitor::instance();

    // The loop runs at least once; the property is tested after the sleep, which
    // an ending signal cuts short.
    int endedBy = 0;
    do {
        sla->evalAndSetSLAInterfaceRatio();
        sls->slsChooseInterface();
        vord::status::updateStatusSnapshot(params, sla);
        // The period is read afresh each time; 0 means no sleep at all. A link
        // that went down or failed ends the sleep early (link events).
        uint32_t sleepUs = static_cast<uint32_t>(params->get(mini_est_interval)) * 1000u;
        endedBy = loopWait.wait(sleepUs, vord::mainLoopWakeupFd());
        vord::drainMainLoopWakeup();
        if (endedBy != 0) {
            ALOGI("%s received: cleaning up, then exiting", vord::signalName(endedBy).c_str());
        }
    } while (endedBy == 0 && params->getSLAVendorProp() != 2);

    // Shutdown, in this order.
    stopSocketThreads();  // no control command runs during the rest of the shutdown
    ALOGE("Mux disabled, starting cleanup...\n");
    // The monitors write into the selection records and the parameter store and
    // call into link selection: they end before either is torn down.
    LinkEventMonitor::finalize();
    SlaTcpSocketMonitor::finalize();
    RssiStateMonitor::finalize();
    DoubleWifiMonitor::finalize();
    sla->enableSLA(false);
    // Destroy the sockets of each gaming UID, in list order.
    vord::destroyGamingUidSockets([params] { return params->gamingUidList(); },
                                  [](const char* uid) { return killSocketsForUID(uid); });
    SmartLinkSelection::cleanup();
    IptablesManager::clean_MUX_iptables();
    SlaStatsImpl::finalize();
    ALOGI("Vord exiting");
    vord::status::writeStoppedStatusSnapshot(params);

    // Idle until a signal ends the process: only a restart by the platform brings
    // the features back.
    while (endedBy == 0) {
        endedBy = loopWait.wait(-1);
        if (endedBy != 0) ALOGI("%s received while idle: exiting", vord::signalName(endedBy).c_str());
    }
    return 0;
}
