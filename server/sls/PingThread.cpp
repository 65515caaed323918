// The probe thread: one per link. It takes g_slsMapMutex only to read its record
// and to enter the result; the probe itself (connect, exchanges, TCP_INFO) runs
// with no lock held, so probes of different links run side by side and nothing
// waits for one (a deliberate departure from the documented "whole probe under
// the lock"). A probe's result is dropped when the record stopped running, is
// ending, or was failed by a link event meanwhile (its epoch moved on). The sleep
// between probes waits on pingWakeup() with the mutex released, so a thread whose
// record is ended leaves at once, and a link that came back is probed at once.
//
// A probe whose exchange went unacknowledged (the link stopped carrying in the
// middle of it) is a stall of the probe's own traffic: with stall detection on it
// is checked at once, as a stall of the gaming connections is, by a connection
// to the built-in probe server, and no answer fails the link without waiting for
// the misses of the probes to come.
//
// A link without IPv4 is probed over IPv6, at "ipv6_probe_server" on port 443,
// whatever the IPv4 target is (the built-in server, a VoIP peer, a game's
// server); its stall is confirmed the same way.

#define LOG_TAG "MUX-Vord-SlaPing"

#include "sls/PingThread.h"

#include <errno.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "config/Parameters.h"
#include "lifecycle/MainLoopWakeup.h"
#include "sls/InterfaceRtt.h"
#include "sls/SmartLinkSelection.h"
#include "sls/Tcping.h"

namespace {

std::atomic<int> g_liveProbeThreads{0};

// Empties an eventfd (a pending abort that came after the probe it was meant for).
void drain(int fd) {
    uint64_t value;
    while (fd >= 0 && read(fd, &value, sizeof(value)) < 0 && errno == EINTR) {
    }
}

}  // namespace

std::condition_variable& pingWakeup() {
    static std::condition_variable wakeup;
    return wakeup;
}

void abortProbe(InterfaceRtt* r) {
    if (r == nullptr || r->abortFd < 0) return;
    const uint64_t one = 1;
    while (write(r->abortFd, &one, sizeof(one)) < 0 && errno == EINTR) {
    }
}

int liveProbeThreads() { return g_liveProbeThreads.load(); }

int startProbeThread(InterfaceRtt* r, pthread_t* thread) {
    g_liveProbeThreads.fetch_add(1);
    const int result = pthread_create(thread, nullptr, makeRawPingFunc, r);
    if (result != 0) g_liveProbeThreads.fetch_sub(1);
    return result;
}

void* makeRawPingFunc(void* rtt) {
    InterfaceRtt* r = static_cast<InterfaceRtt*>(rtt);
    Parameters* params = Parameters::instance();
    // Read once when the thread starts.
    const int intervalMs = params->getPingIntervalMs();
    const std::chrono::milliseconds interval(intervalMs > 0 ? intervalMs : 0);
    const int abortFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

    // The record's name never changes while its thread runs.
    tcping_info info;
    info.ifname = r->ifname;
    info.abortFd = abortFd;
    std::unique_lock<std::mutex> lock(g_slsMapMutex);
    r->abortFd = abortFd;
    for (;;) {
        if (r->running) {
            if (!r->alive) break;
            // The probe target can change at any time (VoIP peer, commands).
            const std::string server = params->getRttServer(), server6 = params->getIpv6ProbeServer();
            info.server = server.c_str();
            info.port = params->getRttServerPort();
            info.server6 = server6.c_str();
            info.port6 = VORD_DEFAULT_RTT_PORT;
            const int penalty = r->rssiPenaltyMs;
            const uint32_t epoch = r->epoch;
            r->probeNow = false;
            // Aborts are requested under the lock: one pending now was meant for
            // an earlier probe, and its reason is in the record's state.
            drain(abortFd);
            lock.unlock();
            info.stalled = false;
            const int result = Tcping::updateTcpingRtt(&info, penalty);
            if (info.stalled && params->stallDetectionEnabled() &&
                !Tcping::linkAnswers(r->ifname, VORD_DEFAULT_RTT_SERVER, VORD_DEFAULT_RTT_PORT,
                                     Tcping::kTimeoutUs / 1000, abortFd, server6.c_str()) &&
                SmartLinkSelection::isInstance()) {
                SmartLinkSelection::instance()->linkStalled(r->ifname);
            }
            lock.lock();
            if (!r->alive) break;
            if (r->running && r->epoch == epoch) {
                const bool wasFailed = r->speed == -1;
                r->setSpeed(result);
                if (info.family != 0) r->probeFamily = info.family;
                if (r->speed != -1) {
                    r->failCause = LinkFailCause::None;
                } else if (!wasFailed) {
                    vord::wakeMainLoop();  // the link just failed: decide now
                }
                SmartLinkSelection::publishState();
            }
        }
        if (!r->alive) break;
        pingWakeup().wait_for(lock, interval, [r] { return !r->alive || (r->probeNow && r->running); });
        if (!r->alive) break;
    }
    r->abortFd = -1;
    lock.unlock();
    if (abortFd >= 0) close(abortFd);
    g_liveProbeThreads.fetch_sub(1);
    return rtt;
}
