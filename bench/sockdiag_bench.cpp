// Socket destruction speed: killSocketsForUID against `ss -K` with a port-range
// filter and against a hand-written minimal loop (one dump and one SOCK_DESTROY per
// socket, errors unread), on the same kind of socket set: N established
// loopback TCP connections in a private network namespace, the client ends of
// half of them owned by the UID under test and bound to one port range (the
// server ends belong to root).
//
// Needs root (network namespace, socket owners); not run in CI.
//   sockdiag_bench [N ...]     (default: 1000 10000), 5 rounds per method
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <vord/LogCapture.h>

#include "sockdiag/SockDiag.h"

namespace {

constexpr uid_t kUid = 20001, kOtherUid = 20002;
constexpr uint16_t kListenPort = 5000, kFirstClientPort = 20000;
constexpr int kRounds = 7;

[[noreturn]] void die(const char* what) {
    fprintf(stderr, "sockdiag_bench: %s: %s\n", what, strerror(errno));
    exit(1);
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A fresh network namespace for the process, loopback up.
void enterFreshNetns() {
    if (unshare(CLONE_NEWNET) != 0) die("unshare(CLONE_NEWNET)");
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq ifr = {};
    strcpy(ifr.ifr_name, "lo");
    if (fd < 0 || ioctl(fd, SIOCGIFFLAGS, &ifr) != 0) die("SIOCGIFFLAGS lo");
    ifr.ifr_flags |= IFF_UP;
    if (ioctl(fd, SIOCSIFFLAGS, &ifr) != 0) die("SIOCSIFFLAGS lo");
    close(fd);
}

void writeSysctl(const char* path, const char* value) {
    FILE* f = fopen(path, "w");
    if (f == nullptr || fputs(value, f) < 0 || fclose(f) != 0) die(path);
}

// One socket set: N connections to a root listener. Client i is bound to
// kFirstClientPort + i and owned by kUid for the first half, kOtherUid for the
// second. The listener and the accepted ends live in a helper process (the fd
// limit may not hold both ends in one process), which exits when the set ends.
struct SocketSet {
    std::vector<int> clients;
    pid_t helper = -1;
    int stop = -1;
    ~SocketSet() {
        // Reset rather than close: no TIME_WAIT or FIN exchange left for the
        // kernel to finish while the next round is timed.
        const linger reset = {1, 0};
        for (int fd : clients) {
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
            close(fd);
        }
        close(stop);
        waitpid(helper, nullptr, 0);
    }
};

void buildSocketSet(int n, SocketSet& set) {
    writeSysctl("/proc/sys/net/core/somaxconn", "65535");
    writeSysctl("/proc/sys/net/ipv4/tcp_max_syn_backlog", "65535");
    int ready[2], stop[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(stop, O_CLOEXEC) != 0) die("pipe");
    sockaddr_in addr = loopback(kListenPort);
    set.helper = fork();
    if (set.helper < 0) die("fork");
    if (set.helper == 0) {
        close(ready[0]);
        close(stop[1]);
        int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(listener, 65535) != 0)
            _exit(1);
        char c = 'l';
        if (write(ready[1], &c, 1) != 1) _exit(1);
        for (int i = 0; i < n; ++i) {
            if (accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) < 0) _exit(1);
        }
        c = 'a';
        if (write(ready[1], &c, 1) != 1) _exit(1);
        while (read(stop[0], &c, 1) > 0) {
        }
        _exit(0);
    }
    close(ready[1]);
    close(stop[0]);
    set.stop = stop[1];
    char c;
    if (read(ready[0], &c, 1) != 1) die("helper listener");
    set.clients.reserve(n);
    for (int j = 0; j < n; ++j) {
        setfsuid(j < n / 2 ? kUid : kOtherUid);
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        setfsuid(0);
        if (fd < 0) die("socket");
        set.clients.push_back(fd);
        sockaddr_in local = loopback(static_cast<uint16_t>(kFirstClientPort + j));
        if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) die("bind client");
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) die("connect");
    }
    if (read(ready[0], &c, 1) != 1) die("helper accepts");
    close(ready[0]);
}

struct Request {
    nlmsghdr nlh;
    inet_diag_req_v2 req;
};

int netlinkSocket() {
    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) die("netlink socket");
    return fd;
}

// One IPv4 TCP dump; `each` gets every socket of the dump.
void rawDump(int fd, const std::function<void(const inet_diag_msg*)>& each) {
    Request r = {};
    r.nlh.nlmsg_len = sizeof(r);
    r.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    r.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    r.req.sdiag_family = AF_INET;
    r.req.sdiag_protocol = IPPROTO_TCP;
    r.req.idiag_states = ~0u;
    if (send(fd, &r, sizeof(r), 0) != sizeof(r)) die("dump request");
    alignas(8) static uint8_t buf[32768];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) die("dump read");
        for (nlmsghdr* h = reinterpret_cast<nlmsghdr*>(buf); NLMSG_OK(h, n); h = NLMSG_NEXT(h, n)) {
            if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR) return;
            each(static_cast<const inet_diag_msg*>(NLMSG_DATA(h)));
        }
    }
}

int countOwnedBy(uid_t uid) {
    int fd = netlinkSocket(), count = 0;
    // A destroyed socket that was bound to its port stays listed as bound but
    // inactive (state 13) until it is closed; CLOSE is not a connection either.
    rawDump(fd, [&](const inet_diag_msg* m) {
        count += m->idiag_uid == uid && m->idiag_state != 7 && m->idiag_state != 13;
    });
    close(fd);
    return count;
}

// The floor: one dump, and per socket of the UID one SOCK_DESTROY.
void rawFloor() {
    int dump = netlinkSocket(), kill = netlinkSocket();
    rawDump(dump, [&](const inet_diag_msg* m) {
        if (m->idiag_uid != kUid) return;
        Request r = {};
        r.nlh.nlmsg_len = sizeof(r);
        r.nlh.nlmsg_type = SOCK_DESTROY;
        r.nlh.nlmsg_flags = NLM_F_REQUEST;
        r.req.sdiag_family = m->idiag_family;
        r.req.sdiag_protocol = IPPROTO_TCP;
        r.req.idiag_states = 1u << m->idiag_state;
        r.req.id = m->id;
        // Without NLM_F_ACK the kernel answers only a failed destroy; nothing to read.
        if (send(kill, &r, sizeof(r), 0) != sizeof(r)) die("destroy");
    });
    close(dump);
    close(kill);
}

void ssKill(int n) {
    const std::string filter = "sport >= :" + std::to_string(kFirstClientPort) +
                               " and sport <= :" + std::to_string(kFirstClientPort + n / 2 - 1);
    pid_t pid = fork();
    if (pid == 0) {
        if (!freopen("/dev/null", "w", stdout)) _exit(126);
        execlp("ss", "ss", "-K", "-t", "-n", filter.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) >= 126) {
        fprintf(stderr, "sockdiag_bench: ss -K failed (status %d)\n", status);
        exit(1);
    }
}

void vordKill() {
    vord::LogCapture quiet;  // keeps the pass messages off the report
    killSocketsForUID(std::to_string(kUid).c_str());
}

struct Method {
    const char* name;
    std::function<void(int)> run;
    std::vector<double> rates;
    int left = 0;  // sockets of the UID left over, all rounds
};

double median(const std::vector<double>& rates) {
    std::vector<double> v = rates;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double best(const std::vector<double>& v) { return *std::max_element(v.begin(), v.end()); }

}  // namespace

int main(int argc, char** argv) {
    if (geteuid() != 0) {
        printf("sockdiag_bench: skipped: needs root (network namespaces, socket owners)\n");
        return 0;
    }
    std::vector<int> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(atoi(argv[i]));
    if (sizes.empty()) sizes = {1000, 10000};
    for (int n : sizes) {
        if (n < 2 || n > 40000) {
            fprintf(stderr, "sockdiag_bench: N must be 2 to 40000\n");
            return 2;
        }
    }
    // Each process holds one end of every connection: raise the soft limit.
    const int maxN = *std::max_element(sizes.begin(), sizes.end());
    rlimit rl;
    getrlimit(RLIMIT_NOFILE, &rl);
    rl.rlim_cur = std::min<rlim_t>(rl.rlim_max, 2 * maxN + 1024);
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) die("setrlimit(RLIMIT_NOFILE)");
    if (rl.rlim_cur < static_cast<rlim_t>(maxN + 64)) {
        fprintf(stderr, "sockdiag_bench: the descriptor limit %llu is too low for N = %d\n",
                static_cast<unsigned long long>(rl.rlim_cur), maxN);
        return 1;
    }

    for (int n : sizes) {
        std::vector<Method> methods = {{"vord killSocketsForUID", [](int) { vordKill(); }, {}},
                                       {"ss -K (port range)", ssKill, {}},
                                       {"raw floor", [](int) { rawFloor(); }, {}}};
        for (int round = 0; round < kRounds; ++round) {
            for (Method& m : methods) {
                enterFreshNetns();
                SocketSet set;
                buildSocketSet(n, set);
                const int before = countOwnedBy(kUid);
                if (before != n / 2) {
                    fprintf(stderr, "sockdiag_bench: %d sockets of the UID, expected %d\n", before, n / 2);
                    return 1;
                }
                // Let the kernel finish tearing down the previous round's namespace.
                usleep(500 * 1000);
                const auto t0 = std::chrono::steady_clock::now();
                m.run(n);
                const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
                const int left = countOwnedBy(kUid);
                m.left += left;
                m.rates.push_back((before - left) / s);
            }
        }
        printf("N = %d connections, %d client sockets of UID %u destroyed per run (%d rounds)\n",
               n, n / 2, kUid, kRounds);
        for (const Method& m : methods) {
            printf("  %-24s best %9.0f  median %9.0f sockets/s   (left over: %d)\n", m.name,
                   best(m.rates), median(m.rates), m.left);
        }
        for (auto pick : {best, median}) {
            const double vord = pick(methods[0].rates), ss = pick(methods[1].rates),
                         raw = pick(methods[2].rates);
            printf("  %-6s vord / ss -K = %.2fx   raw floor / vord = %.2fx\n",
                   pick == best ? "best:" : "median:", vord / ss, raw / vord);
        }
        printf("\n");
        fflush(stdout);
    }
    return 0;
}
