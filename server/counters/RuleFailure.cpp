#include "counters/RuleFailure.h"

#include <mutex>
#include <utility>

namespace vord {

namespace {

std::mutex g_failureMutex;
RuleFailure g_lastFailure;

}  // namespace

void recordRuleFailure(RuleFailure failure) {
    std::lock_guard<std::mutex> lock(g_failureMutex);
    g_lastFailure = std::move(failure);
}

RuleFailure lastRuleFailure() {
    std::lock_guard<std::mutex> lock(g_failureMutex);
    return g_lastFailure;
}

}  // namespace vord
