// enterServiceHighRtt: shared by command 12 and the TCP socket monitor.

#include "sls/ServiceHighRtt.h"

#include <mutex>

#include "config/Parameters.h"
#include "sls/SmartLinkSelection.h"

bool enterServiceHighRtt(Parameters* params, bool onlyWhenPaused) {
    if (params == nullptr) return false;
    std::lock_guard<std::recursive_mutex> control(SmartLinkSelection::slsControlMutex());
    if (params->isServiceHighRtt()) return false;
    // Fetched under the control mutex, so no stop sequence runs in between.
    SmartLinkSelection* sls = SmartLinkSelection::instance();
    if (onlyWhenPaused && !sls->probingPaused()) return false;
    sls->threadResume();
    sls->createRttThreads();
    params->setServiceHighRtt(true);
    return true;
}
