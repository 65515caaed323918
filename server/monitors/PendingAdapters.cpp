// Stand-ins for the adapters whose subsystems are not on this branch yet (link
// selection). Each one reports "not available"; the real adapters in
// MonitorAdapters.cpp take over as soon as the headers exist. This file goes
// away once link selection is merged.

#define LOG_TAG "MUX-Vord-Monitors"

#include <log/log.h>

#include "monitors/MonitorAdapters.h"

namespace vord {

namespace {

class NoSelectionPenaltySink : public PenaltySink {
  public:
    int write(const std::map<std::string, int>&) override { return -1; }
};

class NoLinkProber : public LinkProber {
  public:
    int probe(const char*, const std::string&, int) override { return -1; }
};

}  // namespace

#if !__has_include("sls/SmartLinkSelection.h")
std::unique_ptr<PenaltySink> makeSelectionPenaltySink() {
    return std::make_unique<NoSelectionPenaltySink>();
}

std::unique_ptr<LinkProber> makeTcpingLinkProber() { return std::make_unique<NoLinkProber>(); }

HighRttAction serviceHighRttAction() {
    return [](Parameters*) { ALOGE("link selection is not built: high RTT not acted on"); };
}
#endif

}  // namespace vord
