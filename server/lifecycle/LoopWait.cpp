#define LOG_TAG "MUX-Vord-daemon"

#include "lifecycle/LoopWait.h"

#include <log/log.h>

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace vord {

namespace {

struct Named {
    int signo;
    const char* name;
};

const Named kNamed[] = {
        {SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"},       {SIGQUIT, "SIGQUIT"},
        {SIGUSR2, "SIGUSR2"}, {SIGALRM, "SIGALRM"},     {SIGVTALRM, "SIGVTALRM"},
        {SIGPROF, "SIGPROF"}, {SIGXCPU, "SIGXCPU"},     {SIGXFSZ, "SIGXFSZ"},
        {SIGIO, "SIGIO"},     {SIGPWR, "SIGPWR"},       {SIGHUP, "SIGHUP"},
        {SIGPIPE, "SIGPIPE"}, {SIGUSR1, "SIGUSR1"},
};

sigset_t endingSet() {
    sigset_t set;
    sigemptyset(&set);
    for (int s : endingSignals()) sigaddset(&set, s);
    return set;
}

int64_t monotonicUs() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000 + t.tv_nsec / 1000;
}

timespec toTimespec(int64_t us) {
    timespec t{};
    t.tv_sec = static_cast<time_t>(us / 1000000);
    t.tv_nsec = static_cast<long>(us % 1000000) * 1000;
    return t;
}

}  // namespace

const std::vector<int>& endingSignals() {
    static const std::vector<int> signals = [] {
        std::vector<int> out = {SIGTERM, SIGINT,  SIGQUIT, SIGUSR2, SIGALRM, SIGVTALRM,
                                SIGPROF, SIGXCPU, SIGXFSZ, SIGIO,   SIGPWR};
        for (int s = SIGRTMIN; s <= SIGRTMAX; ++s) out.push_back(s);
        return out;
    }();
    return signals;
}

std::string signalName(int signo) {
    for (const Named& n : kNamed) {
        if (n.signo == signo) return n.name;
    }
    if (signo >= SIGRTMIN && signo <= SIGRTMAX) return "SIGRTMIN+" + std::to_string(signo - SIGRTMIN);
    return "signal " + std::to_string(signo);
}

LoopWait::~LoopWait() {
    if (m_fd >= 0) close(m_fd);
}

bool LoopWait::init() {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    for (int s : endingSignals()) signal(s, SIG_DFL);
    const sigset_t set = endingSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_fd < 0) {
        ALOGE("signalfd failed: %s; the loop reads its signals with sigtimedwait", strerror(errno));
        return false;
    }
    return true;
}

int LoopWait::wait(int64_t timeoutUs, int wakeFd) {
    const int64_t deadline = timeoutUs < 0 ? -1 : monotonicUs() + timeoutUs;
    for (;;) {
        const int64_t left = deadline < 0 ? -1 : std::max<int64_t>(0, deadline - monotonicUs());
        const timespec ts = toTimespec(left);
        if (m_fd < 0) {
            const sigset_t set = endingSet();
            const int s = sigtimedwait(&set, nullptr, left < 0 ? nullptr : &ts);
            if (s > 0) return s;
            if (errno != EINTR) return 0;  // EAGAIN: the time ran out
            continue;
        }
        pollfd p[2] = {{m_fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        const int n = ppoll(p, wakeFd >= 0 ? 2 : 1, left < 0 ? nullptr : &ts, nullptr);
        if (n == 0) return 0;
        if (n < 0) {
            if (errno == EINTR) continue;  // a stray SIGUSR1
            ALOGE("loop wait failed: %s", strerror(errno));
            return 0;
        }
        if ((p[0].revents & POLLIN) == 0) return 0;  // woken
        signalfd_siginfo info{};
        if (read(m_fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
            return static_cast<int>(info.ssi_signo);
        }
    }
}

}  // namespace vord
