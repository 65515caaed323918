// enterServiceHighRtt: shared by command 12 and the TCP socket monitor.

#include "sls/ServiceHighRtt.h"

#include <mutex>

#include "config/Parameters.h"
#include "sls/SmartLinkSelection.h"

void enterServiceHighRtt(Parameters* params) {
    if (params == nullptr) return;
    SmartLinkSelection* sls = SmartLinkSelection::instance();
    std::lock_guard<std::recursive_mutex> control(SmartLinkSelection::slsControlMutex());
    if (params->isServiceHighRtt()) return;
    sls->threadResume();
    sls->createRttThreads();
    params->setServiceHighRtt(true);
}
