#include "loop/MainLoopWakeup.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace vord {

namespace {

std::mutex g_wakeMutex;  // a leaf lock
std::condition_variable g_wake;
bool g_woken = false;
std::atomic<bool> g_enabled{true};

}  // namespace

bool sleepUnlessWoken(std::chrono::microseconds period) {
    std::unique_lock<std::mutex> lock(g_wakeMutex);
    if (period.count() > 0) g_wake.wait_for(lock, period, [] { return g_woken; });
    const bool woken = g_woken;
    g_woken = false;
    return woken;
}

void wakeMainLoop() {
    if (!g_enabled.load()) return;
    {
        std::lock_guard<std::mutex> lock(g_wakeMutex);
        g_woken = true;
    }
    g_wake.notify_all();
}

void setMainLoopWakeupsEnabled(bool enabled) { g_enabled.store(enabled); }

bool mainLoopWakeupsEnabled() { return g_enabled.load(); }

}  // namespace vord
