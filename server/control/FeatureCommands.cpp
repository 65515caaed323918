// Commands 9 to 14. Each acts only on the transition its flag allows, and calls
// the rules, the selection engine and the monitors in a fixed order. Every
// engine sequence runs under the engine's control mutex, so it cannot interleave
// with the main thread's game-mode check or the TCP socket monitor.
//
// UID payloads reach the rules only through the store's parsers, which keep
// decimal UIDs and refuse the rest.

#define LOG_TAG "MUX-Vord-VordSocket-Server"

#include "control/FeatureCommands.h"

#include <log/log.h>

#include <stdint.h>
#include <stdlib.h>

#include <mutex>

#include "config/LogText.h"
#include "config/Parameters.h"
#include "config/Refusals.h"
#include "control/ControlState.h"
#include "counters/Refusal.h"
#include "monitors/RssiStateMonitor.h"
#include "monitors/SlaTcpSocketMonitor.h"
#include "rules/IptablesManager.h"
#include "sla/SlaStatsImpl.h"
#include "sls/ServiceHighRtt.h"
#include "sls/SmartLinkSelection.h"

namespace {

constexpr int kDefaultProbePort = 443;

std::unique_lock<std::recursive_mutex> engineControl() {
    return std::unique_lock<std::recursive_mutex>(SmartLinkSelection::slsControlMutex());
}

// A started feature always probes the built-in server, whatever vord.conf said.
void resetProbeServer(Parameters* params) {
    params->setGamingRttServer(VORD_DEFAULT_RTT_SERVER);
    params->setRttServerPort(kDefaultProbePort);
}

void setGamingUidList(Parameters* params, const char* uids) {
    params->setGamingUids(uids);
    params->populateGamingUids();
}

void installSlsChains() {
    IptablesManager* iptables = IptablesManager::instance();
    iptables->setup_mux_whitelist();
    iptables->setup_SLS_iptables_UID_chains();
}

// initPingThreads, threadStop, createRttThreads, threadResume.
void startProbes() {
    SmartLinkSelection* sls = SmartLinkSelection::instance();
    auto control = engineControl();
    sls->initPingThreads();
    sls->threadStop();
    sls->createRttThreads();
    sls->threadResume();
}

// threadStop, threadDestory, destoryPingThreads.
void stopProbes() {
    SmartLinkSelection* sls = SmartLinkSelection::instance();
    auto control = engineControl();
    sls->threadStop();
    sls->threadDestory();
    sls->destoryPingThreads();
}

}  // namespace

void StartSlsServer(const char* uids) {
    Parameters* params = controlParameters();
    if (params == nullptr || params->isGamingRunning() != 0) return;
    resetProbeServer(params);
    setGamingUidList(params, uids);
    installSlsChains();
    startProbes();
    RssiStateMonitor::instance();
    SlaTcpSocketMonitor::instance()->resumePolling();
    params->setGamingRunning(1);
}

void StopSlsServer() {
    Parameters* params = controlParameters();
    if (params == nullptr || params->isGamingRunning() == 0) return;
    SlaTcpSocketMonitor::instance();
    SlaTcpSocketMonitor::finalize();
    {
        auto control = engineControl();
        params->setServiceHighRtt(false);
    }
    params->setGamingUids(nullptr);
    stopProbes();
    IptablesManager::instance()->cleanup_SLS_iptables_UID_chains();
    params->setGamingRunning(0);
    RssiStateMonitor::finalize();
}

void setVoipStatus(const char* text) {
    Parameters* params = controlParameters();
    if (params == nullptr || text == nullptr) return;
    // The text goes into the kernel module's configuration as it is.
    if (VORD_REFUSED("setVoipStatus", vord::voipRefusal(text))) return;
    const int n = atoi(text);
    const bool running = params->isVoipRunning();
    if (n != 0 && !running) {
        resetProbeServer(params);
        SlaStatsImpl::instance()->enableSlaVoipState(true, text);
        setGamingUidList(params, text);
        installSlsChains();
        startProbes();
        RssiStateMonitor::instance();
        params->setVoipRunning(true);
    } else if (n == 0 && running) {
        SlaStatsImpl::instance()->enableSlaVoipState(false, text);
        params->setVoipRunning(false);
        {
            auto control = engineControl();
            params->setServiceHighRtt(false);
        }
        params->setGamingUids(nullptr);
        stopProbes();
        IptablesManager::instance()->cleanup_SLS_iptables_UID_chains();
        RssiStateMonitor::finalize();
    }
}

void updateSlsInterfacesRtt(const char* text) {
    const std::string report = text != nullptr ? text : "";
    Parameters* params = controlParameters();
    int32_t rtt = 0;
    // A negative report compares as a large unsigned value: above the threshold.
    if (params != nullptr &&
        !VORD_REFUSED("updateSlsInterfacesRtt", vord::rttReportRefusal(report, &rtt)) &&
        static_cast<uint32_t>(rtt) > static_cast<uint32_t>(params->getRttExitThreshold())) {
        enterServiceHighRtt(params);
    }
    ALOGI("update Sls Interfaces Rtt is %s ", vord::escapeForLog(report).c_str());
}

void setGameAiModeEnable(const char* text) {
    Parameters* params = controlParameters();
    if (params == nullptr || text == nullptr) return;
    if (VORD_REFUSED("setGameAiModeEnable", vord::gameModeRefusal(text))) return;
    const int n = atoi(text);
    const int gaming = params->isGamingRunning();
    if (n != 0 && gaming == 0) {
        ALOGI("setGameAiModeEnable enable");
        resetProbeServer(params);
        setGamingUidList(params, text);
        params->setNHyst(2);
        params->setMinPingTimes(2);
        params->setGamingAiModeCheckRtt(false);
        installSlsChains();
        params->setGamingRunning(2);
        RssiStateMonitor::instance();
        SlaTcpSocketMonitor::instance()->resumePolling();
    } else if (n == 0 && gaming == 2) {
        ALOGI("setGameAiModeEnable disable");
        SlaTcpSocketMonitor::instance();
        SlaTcpSocketMonitor::finalize();
        {
            // The main thread's check may end the RTT check at the same time.
            auto control = engineControl();
            if (params->isGamingAiModeCheckRtt()) stopProbes();
            params->setGamingAiModeCheckRtt(false);
        }
        params->setGamingUids(nullptr);
        params->setNHyst(1);
        params->setMinPingTimes(5);
        params->setGamingRunning(0);
        RssiStateMonitor::finalize();
        IptablesManager::instance()->cleanup_SLS_iptables_UID_chains();
    }
}

void setGameAiModeCheckRtt(const char* text) {
    Parameters* params = controlParameters();
    if (params == nullptr || text == nullptr) return;
    if (VORD_REFUSED("setGameAiModeCheckRtt", vord::switchRefusal(text))) return;
    if (params->isGamingRunning() != 2) return;
    const int n = atoi(text);
    // The main thread's check may clear the flag at the same time: test and act
    // under the engine's control mutex.
    auto control = engineControl();
    const bool checking = params->isGamingAiModeCheckRtt();
    if (n == 1 && !checking) {
        ALOGI("setGameAiModeCheckRtt enable");
        startProbes();
        params->setGamingAiModeCheckRtt(true);
    } else if (n == 0 && checking) {
        ALOGI("setGameAiModeCheckRtt disable");
        stopProbes();
        params->setGamingAiModeCheckRtt(false);
    }
}
