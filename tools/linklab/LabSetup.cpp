#include "LabSetup.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "LabDaemon.h"
#include "Sys.h"

namespace linklab {

namespace {

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool run(const std::vector<std::string>& argv, std::string& error) {
    std::string out;
    if (runProgram(argv, &out) == 0) return true;
    std::string line;
    for (const std::string& a : argv) line += (line.empty() ? "" : " ") + a;
    error = "\"" + line + "\" failed: " + out;
    return false;
}

// Route-table names for `ip` inside the lab: "ip netns exec NAME" (and
// "ip -n NAME") mount /etc/netns/NAME/iproute2 over /etc/iproute2.
bool writeTableNames(const std::string& lab, const std::vector<LinkConfig>& links,
                     std::string& error) {
    const std::string dir = etcDir(lab) + "/iproute2";
    if (!run({"mkdir", "-p", dir}, error)) return false;
    if (exists("/etc/iproute2") && !run({"cp", "-a", "/etc/iproute2/.", dir + "/"}, error)) {
        return false;
    }
    std::ofstream tables(dir + "/rt_tables", std::ios::app);
    if (!exists("/etc/iproute2/rt_tables")) tables << "255\tlocal\n254\tmain\n253\tdefault\n";
    for (const LinkConfig& l : links) tables << l.table() << "\t" << l.name << "\n";
    tables.close();
    if (!tables) error = "cannot write " + dir + "/rt_tables";
    return static_cast<bool>(tables);
}

// Starts the relay as a detached process; waits until it has made the devices.
bool startRelay(const std::string& lab, const std::vector<LinkConfig>& links,
                const std::string& defaultLink, std::string& error) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        error = "pipe: " + errnoName(errno);
        return false;
    }
    const pid_t child = fork();
    if (child == 0) {
        setsid();
        if (fork() != 0) _exit(0);
        (void)!chdir("/");
        // The relay: no terminal, no descriptor of the caller (a test's pipes
        // would otherwise stay open until down).
        const int null = open("/dev/null", O_RDONLY);
        const int log = open(relayLogPath(lab).c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(null, STDIN_FILENO);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        const int keep = dup2(ready[1], 3);
        closefrom(keep + 1);
        _exit(runLabDaemon(lab, links, defaultLink, keep));
    }
    close(ready[1]);
    if (child > 0) waitpid(child, nullptr, 0);
    pollfd p{ready[0], POLLIN, 0};
    char byte = 0;
    const bool ok = child > 0 && poll(&p, 1, 10000) == 1 && read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!ok) {
        std::ifstream log(relayLogPath(lab));
        error = "the relay did not start: " +
                std::string(std::istreambuf_iterator<char>(log), std::istreambuf_iterator<char>());
    }
    return ok;
}

// rp_filter off: replies may come back on another link than the one a
// connection left by (e.g. before MASQUERADE is in place). IPv6 on the links
// without chatter: no link-local address (so no solicitations or reports), no
// router advertisements taken, no duplicate detection holding an address back.
bool setSysctls(const std::string& ns, const std::vector<LinkConfig>& links, std::string& error) {
    const pid_t pid = fork();
    if (pid == 0) {
        std::string e;
        if (!enterNetns(ns, e)) _exit(1);
        bool ok = writeSysctl("net/ipv4/conf/all/rp_filter", "0") &&
                  writeSysctl("net/ipv4/conf/default/rp_filter", "0");
        for (const LinkConfig& l : links) {
            ok = writeSysctl("net/ipv4/conf/" + l.name + "/rp_filter", "0") && ok;
            for (const char* key : {"addr_gen_mode=1", "accept_ra=0", "accept_dad=0",
                                    "router_solicitations=0", "disable_ipv6=0"}) {
                const std::string kv = key;
                const size_t eq = kv.find('=');
                ok = writeSysctl("net/ipv6/conf/" + l.name + "/" + kv.substr(0, eq), kv.substr(eq + 1)) && ok;
            }
        }
        _exit(ok ? 0 : 1);
    }
    int status = 1;
    if (pid > 0) waitpid(pid, &status, 0);
    if (pid > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    error = "cannot set the sysctls of " + ns;
    return false;
}

bool configure(const std::string& lab, const std::vector<LinkConfig>& links,
               const std::string& defaultLink, std::string& error) {
    const std::string peer = peerNamespace(lab);
    std::vector<std::vector<std::string>> steps = {
        {"ip", "-n", lab, "link", "set", "lo", "up"},
        {"ip", "-n", peer, "link", "set", "lo", "up"},
    };
    for (const char* server : {kProbeServerAddr, kAppServerAddr, kProbeServerAddr6, kAppServerAddr6}) {
        steps.push_back({"ip", "-n", peer, "addr", "add", server, "dev", "lo"});
    }
    for (const LinkConfig& l : links) {
        const std::string table = std::to_string(l.table());
        // Each family: the addresses of both ends, the link table's default
        // route, the main table's on the default link, and the rule that routes
        // a socket bound to the link by its table. IPv6 has no on-link fallback
        // for a bound socket: without that rule a socket bound to a link that
        // does not carry the main route finds no route at all.
        for (const bool v6 : {false, true}) {
            if (!v6 && l.ipv6Only) continue;
            const std::string family = v6 ? "-6" : "-4", len = v6 ? "/64" : "/24";
            const std::string mine = v6 ? l.handsetAddr6() : l.handsetAddr();
            const std::string theirs = v6 ? l.peerAddr6() : l.peerAddr();
            steps.push_back({"ip", "-n", lab, family, "addr", "add", mine + len, "dev", l.name});
            steps.push_back({"ip", "-n", peer, family, "addr", "add", theirs + len, "dev", l.name});
        }
        steps.push_back({"ip", "-n", lab, "link", "set", l.name, "up"});
        steps.push_back({"ip", "-n", peer, "link", "set", l.name, "up"});
        for (const bool v6 : {false, true}) {
            const std::string family = v6 ? "-6" : "-4";
            const std::string via = v6 ? l.peerAddr6() : l.peerAddr();
            if (v6 || !l.ipv6Only) {
                steps.push_back({"ip", "-n", lab, family, "route", "add", "default", "via", via,
                                 "dev", l.name, "table", table});
                if (l.name == defaultLink) {
                    steps.push_back({"ip", "-n", lab, family, "route", "add", "default", "via", via,
                                     "dev", l.name});
                }
            }
            steps.push_back({"ip", "-n", lab, family, "rule", "add", "oif", l.name, "table", table,
                             "prio", std::to_string(kOifRulePriority)});
        }
    }
    // The sysctls first: no IPv6 chatter on a link once it is up.
    if (!setSysctls(lab, links, error) || !setSysctls(peer, links, error)) return false;
    for (const auto& step : steps) {
        if (!run(step, error)) return false;
    }
    return true;
}

// Processes whose network namespace is `ns`.
std::vector<pid_t> processesIn(const std::string& ns) {
    std::vector<pid_t> pids;
    struct stat target;
    if (stat(("/run/netns/" + ns).c_str(), &target) != 0) return pids;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return pids;
    while (const dirent* e = readdir(proc)) {
        const pid_t pid = atoi(e->d_name);
        struct stat st;
        if (pid <= 0 || pid == getpid()) continue;
        if (stat(("/proc/" + std::string(e->d_name) + "/ns/net").c_str(), &st) == 0 &&
            st.st_ino == target.st_ino && st.st_dev == target.st_dev) {
            pids.push_back(pid);
        }
    }
    closedir(proc);
    return pids;
}

bool gone(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const size_t paren = text.rfind(')');
    return text.empty() || paren == std::string::npos || text.compare(paren + 2, 1, "Z") == 0;
}

bool waitGone(const std::vector<pid_t>& pids, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        bool all = true;
        for (pid_t p : pids) all = all && gone(p);
        if (all) return true;
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

bool labExists(const std::string& lab) {
    return netnsExists(lab) || netnsExists(peerNamespace(lab)) || exists(runDir(lab)) ||
           exists(etcDir(lab));
}

bool labUp(const std::string& lab, const std::vector<LinkConfig>& links,
           const std::string& defaultLink, std::string& error) {
    if (labExists(lab)) {
        error = "lab " + lab + " exists (vord-linklab down " + lab + " removes it)";
        return false;
    }
    const bool ok =
        run({"ip", "netns", "add", lab}, error) &&
        run({"ip", "netns", "add", peerNamespace(lab)}, error) &&
        writeTableNames(lab, links, error) && run({"mkdir", "-p", runDir(lab)}, error) &&
        startRelay(lab, links, defaultLink, error) && configure(lab, links, defaultLink, error);
    if (!ok) {
        std::string ignored;
        labDown(lab, ignored);
    }
    return ok;
}

bool labDown(const std::string& lab, std::string& error) {
    // The relay first, gently, so it removes its control socket.
    std::ifstream pidFile(pidPath(lab));
    pid_t relay = 0;
    if (pidFile >> relay && relay > 0 && !gone(relay)) {
        std::ifstream comm("/proc/" + std::to_string(relay) + "/comm");
        std::string name;
        if (comm >> name && name == "vord-linklab") {
            kill(relay, SIGTERM);
            if (!waitGone({relay}, std::chrono::seconds(2))) kill(relay, SIGKILL);
        }
    }
    // Then whatever else runs inside the lab (a daemon, clients, servers).
    for (const std::string& ns : {lab, peerNamespace(lab)}) {
        for (int round = 0; round < 5; ++round) {
            const std::vector<pid_t> pids = processesIn(ns);
            if (pids.empty()) break;
            for (pid_t p : pids) kill(p, SIGKILL);
            waitGone(pids, std::chrono::seconds(2));
        }
    }
    bool ok = true;
    // A sanitizer build of the relay reports into its log as it exits.
    std::ifstream relayLog(relayLogPath(lab));
    const std::string log((std::istreambuf_iterator<char>(relayLog)),
                          std::istreambuf_iterator<char>());
    if (log.find("Sanitizer") != std::string::npos ||
        log.find("runtime error:") != std::string::npos) {
        error = "the relay's log holds a sanitizer report:\n" + log;
        ok = false;
    }
    for (const std::string& ns : {lab, peerNamespace(lab)}) {
        if (netnsExists(ns)) ok = run({"ip", "netns", "del", ns}, error) && ok;
    }
    if (exists(etcDir(lab))) ok = run({"rm", "-rf", etcDir(lab)}, error) && ok;
    if (exists(runDir(lab))) ok = run({"rm", "-rf", runDir(lab)}, error) && ok;
    rmdir("/run/vord-linklab");  // when no other lab is left
    return ok;
}

}  // namespace linklab
