// vord: daemon entry, the evaluation loop and the shutdown.

#define LOG_TAG "MUX-Vord-daemon"

#include <log/log.h>

#include <stdint.h>
#include <unistd.h>

#include <chrono>

#include "config/Parameters.h"
#include "control/VordSocketServer.h"
#include "loop/MainLoopWakeup.h"
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

int main(int /*argc*/, char** /*argv*/) {
    ALOGI("Vord (SLA+SLS) 3.0.4.5 starting daemon");

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

    // The loop runs at least once; the property is tested after the sleep.
    do {
        sla->evalAndSetSLAInterfaceRatio();
        sls->slsChooseInterface();
        vord::status::updateStatusSnapshot(params, sla);
        // The period is read afresh each time; 0 means no sleep at all. A link
        // that went down or failed ends the sleep early (link events).
        uint32_t sleepUs = static_cast<uint32_t>(params->get(mini_est_interval)) * 1000u;
        vord::sleepUnlessWoken(std::chrono::microseconds(sleepUs));
    } while (params->getSLAVendorProp() != 2);

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

    // Idle for ever: only a restart by the platform brings the features back.
    for (;;) sleep(600);
}
