#include "LabDaemon.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <sstream>

#include "PeerServers.h"
#include "Relay.h"
#include "Sys.h"

namespace linklab {

namespace {

// epoll tags: the kind in the top byte, the index below.
enum Kind : uint64_t { kTunHandset = 1, kTunPeer, kTimer, kSignal, kControl, kServer };
uint64_t tag(Kind kind, uint64_t index) { return (static_cast<uint64_t>(kind) << 56) | index; }

sockaddr_un controlAddr(const std::string& lab) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", controlPath(lab).c_str());
    return addr;
}

class LabDaemon {
  public:
    LabDaemon(const std::string& lab, const std::string& defaultLink)
        : lab_(lab), defaultLink_(defaultLink) {}
    ~LabDaemon() {
        for (int fd : {epoll_, timer_, signal_, control_}) {
            if (fd >= 0) close(fd);
        }
        if (log_ != nullptr) fclose(log_);
    }

    bool setUp(const std::vector<LinkConfig>& links, std::string& error);
    int run();

  private:
    void watch(int fd, uint64_t t, uint32_t events) {
        epoll_event ev{};
        ev.events = events;
        ev.data.u64 = t;
        if (epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &ev) != 0)
            epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &ev);
    }
    void armTimer();
    void serveControl();
    std::string handle(const std::string& line);

    std::string lab_, defaultLink_;
    Relay relay_;
    std::unique_ptr<PeerServers> servers_;
    FILE* log_ = nullptr;
    int epoll_ = -1, timer_ = -1, signal_ = -1, control_ = -1;
    bool stop_ = false;
};

bool LabDaemon::setUp(const std::vector<LinkConfig>& links, std::string& error) {
    const int handsetNs = openNetns(lab_), peerNs = openNetns(peerNamespace(lab_));
    bool ok = handsetNs >= 0 && peerNs >= 0;
    if (!ok) error = "the lab's namespaces do not exist";
    for (size_t i = 0; ok && i < links.size(); ++i) {
        ok = relay_.addLink(links[i], handsetNs, peerNs, error);
    }
    if (handsetNs >= 0) close(handsetNs);
    if (peerNs >= 0) close(peerNs);
    if (!ok) return false;

    // Here in the peer namespace (addLink leaves us there).
    log_ = fopen(connectionLogPath(lab_).c_str(), "ae");
    if (log_ == nullptr) {
        error = "cannot open " + connectionLogPath(lab_);
        return false;
    }
    servers_ = std::make_unique<PeerServers>(
        [this](const sockaddr_storage& src, const sockaddr_storage& dst) {
            return relay_.linkOfConnection(src, dst);
        },
        log_);
    if (!servers_->open(error)) return false;

    sigset_t mask;
    sigemptyset(&mask);
    for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
        signal(sig, SIG_DFL);  // an ignored signal would never reach the signalfd
        sigaddset(&mask, sig);
    }
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal_ = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
    timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    control_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un addr = controlAddr(lab_);
    unlink(addr.sun_path);
    if (signal_ < 0 || timer_ < 0 || epoll_ < 0 || control_ < 0 ||
        bind(control_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(control_, 16) != 0) {
        error = "event loop set-up: " + errnoName(errno);
        return false;
    }
    for (size_t i = 0; i < relay_.linkCount(); ++i) {
        watch(relay_.fd(i, true), tag(kTunHandset, i), EPOLLIN);
        watch(relay_.fd(i, false), tag(kTunPeer, i), EPOLLIN);
    }
    watch(timer_, tag(kTimer, 0), EPOLLIN);
    watch(signal_, tag(kSignal, 0), EPOLLIN);
    watch(control_, tag(kControl, 0), EPOLLIN);
    servers_->setWatchers(
        [this](int fd, uint64_t t, uint32_t events) { watch(fd, tag(kServer, t), events); },
        [this](int fd) { epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr); });
    servers_->start();
    return true;
}

void LabDaemon::armTimer() {
    itimerspec its{};
    const int64_t next = relay_.nextRelease();
    if (next >= 0) {
        its.it_value.tv_sec = next / 1000000000;
        its.it_value.tv_nsec = next % 1000000000;
        if (its.it_value.tv_sec == 0 && its.it_value.tv_nsec == 0) its.it_value.tv_nsec = 1;
    }
    timerfd_settime(timer_, TFD_TIMER_ABSTIME, &its, nullptr);
}

int LabDaemon::run() {
    epoll_event events[64];
    while (!stop_) {
        const int n = epoll_wait(epoll_, events, 64, -1);
        if (n < 0 && errno != EINTR) return 1;
        for (int i = 0; i < n; ++i) {
            const uint64_t t = events[i].data.u64;
            const Kind kind = static_cast<Kind>(t >> 56);
            const uint64_t index = t & ((uint64_t{1} << 56) - 1);
            switch (kind) {
                case kTunHandset:
                case kTunPeer:
                    relay_.onReadable(index, kind == kTunHandset, monotonicNanos());
                    break;
                case kTimer: {
                    uint64_t expirations;
                    (void)!read(timer_, &expirations, sizeof(expirations));
                    break;
                }
                case kSignal:
                    stop_ = true;
                    break;
                case kControl:
                    serveControl();
                    break;
                case kServer:
                    servers_->onEvent(index, events[i].events);
                    break;
            }
        }
        relay_.deliverDue(monotonicNanos());
        armTimer();
    }
    unlink(controlPath(lab_).c_str());
    return 0;
}

void LabDaemon::serveControl() {
    const int fd = accept4(control_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    timeval tv{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    std::string line;
    char c;
    while (line.size() < 256 && read(fd, &c, 1) == 1 && c != '\n') line += c;
    const std::string reply = handle(line);
    (void)!send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
    close(fd);
}

std::string LabDaemon::handle(const std::string& line) {
    std::istringstream in(line);
    std::string verb, link, value;
    in >> verb >> link >> value;
    if (verb == "status") {
        return "lab " + lab_ + " pid " + std::to_string(getpid()) + " default " + defaultLink_ +
               " probe-echo " + (servers_->fill() ? "fill" : "exact") + "\n" + relay_.status();
    }
    if (verb == "probe-echo" && (link == "exact" || link == "fill")) {
        servers_->setFill(link == "fill");
        printf("probe-echo %s\n", link.c_str());
        fflush(stdout);
        return "ok\n";
    }
    if (verb == "cut" || verb == "restore") {
        if (!relay_.setCut(link, verb == "cut")) return "error: no link " + link + "\n";
        printf("%s %s\n", verb.c_str(), link.c_str());
        fflush(stdout);
        return "ok\n";
    }
    int ms = 0;
    if (verb == "delay") {
        if (!parseInt(value, 0, kMaxDelayMs, ms)) return "error: bad delay " + value + "\n";
        if (!relay_.setDelay(link, ms)) return "error: no link " + link + "\n";
        printf("delay %s %d ms\n", link.c_str(), ms);
        fflush(stdout);
        return "ok\n";
    }
    return "error: unknown request \"" + line + "\"\n";
}

}  // namespace

int runLabDaemon(const std::string& lab, const std::vector<LinkConfig>& links,
                 const std::string& defaultLink, int readyFd) {
    // Wake-ups on time: the packets' hold times are what the lab is for. A
    // real-time priority keeps a busy machine (compilers, test runs) from
    // adding milliseconds to them; the loop only ever waits in epoll.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    sched_param rt{};
    rt.sched_priority = 10;
    if (sched_setscheduler(0, SCHED_FIFO, &rt) != 0) {
        printf("no real-time priority (%s): delays may stretch under load\n",
               errnoName(errno).c_str());
    }
    LabDaemon daemon(lab, defaultLink);
    std::string error;
    if (!daemon.setUp(links, error)) {
        fprintf(stderr, "vord-linklab relay: %s\n", error.c_str());
        return 1;
    }
    FILE* pid = fopen(pidPath(lab).c_str(), "we");
    if (pid != nullptr) {
        fprintf(pid, "%d\n", getpid());
        fclose(pid);
    }
    printf("relay of lab %s running, pid %d\n", lab.c_str(), getpid());
    fflush(stdout);
    (void)!write(readyFd, "R", 1);
    close(readyFd);
    const int status = daemon.run();
    printf("relay of lab %s stopped\n", lab.c_str());
    return status;
}

bool controlRequest(const std::string& lab, const std::string& line, std::string& reply) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un addr = controlAddr(lab);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
        reply = "the relay of lab " + lab + " is not running (" + errnoName(errno) + ")\n";
        if (fd >= 0) close(fd);
        return false;
    }
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    const std::string request = line + "\n";
    (void)!send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    reply.clear();
    char buf[4096];
    for (ssize_t n; (n = read(fd, buf, sizeof(buf))) > 0;)
        reply.append(buf, static_cast<size_t>(n));
    close(fd);
    return !reply.empty() && reply.compare(0, 6, "error:") != 0;
}

}  // namespace linklab
