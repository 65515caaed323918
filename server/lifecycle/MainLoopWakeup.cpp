#include "lifecycle/MainLoopWakeup.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>

namespace vord {

namespace {

std::atomic<bool> g_enabled{true};

}  // namespace

int mainLoopWakeupFd() {
    static const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

bool drainMainLoopWakeup() {
    uint64_t count = 0;
    ssize_t n;
    while ((n = read(mainLoopWakeupFd(), &count, sizeof(count))) < 0 && errno == EINTR) {
    }
    return n == static_cast<ssize_t>(sizeof(count)) && count != 0;
}

void wakeMainLoop() {
    if (!g_enabled.load()) return;
    const uint64_t one = 1;
    while (write(mainLoopWakeupFd(), &one, sizeof(one)) < 0 && errno == EINTR) {
    }
}

bool sleepUnlessWoken(std::chrono::microseconds period) {
    pollfd p{mainLoopWakeupFd(), POLLIN, 0};
    const long long ms = (period.count() + 999) / 1000;
    while (period.count() > 0 && poll(&p, 1, static_cast<int>(ms)) < 0 && errno == EINTR) {
    }
    return drainMainLoopWakeup();
}

void setMainLoopWakeupsEnabled(bool enabled) { g_enabled.store(enabled); }

bool mainLoopWakeupsEnabled() { return g_enabled.load(); }

}  // namespace vord
