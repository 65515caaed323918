#include "control/ControlState.h"

#include <atomic>

namespace {
std::atomic<Parameters*> g_storePointer{nullptr};
}

Parameters* controlParameters() { return g_storePointer.load(std::memory_order_acquire); }

void setControlParameters(Parameters* params) {
    g_storePointer.store(params, std::memory_order_release);
}
