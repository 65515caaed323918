// Reaction time of link selection in the link lab: from cutting the selected
// link to the daemon's switch, against the bound
// min_ping_times x (ping_interval_ms + probe connect time-out) + mini_est_interval.
// A plain program (not Google Benchmark): each round is seconds long. Needs root,
// /dev/net/tun and vord-linklab next to this program; prints why not otherwise.
//
//   build/bin/sls_lab_reaction [rounds]
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kMinPingTimes = 3, kPingIntervalMs = 200, kLoopMs = 100, kConnectTimeoutMs = 500;

std::string g_bin, g_root, g_lab;

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}
void writeFile(const std::string& path, const std::string& text, mode_t mode = 0644) {
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
}
int run(const std::string& cmd) { return system((cmd + " >/dev/null 2>&1").c_str()); }
size_t count(const std::string& needle) {
    const std::string log = readFile(g_root + "/vord.log");
    size_t n = 0;
    for (size_t at = log.find(needle); at != std::string::npos; at = log.find(needle, at + 1)) ++n;
    return n;
}
// Waits until the log holds `needle` more than `seen` times; the wait in ms, or -1.
long waitFor(const std::string& needle, size_t seen, std::chrono::seconds timeout) {
    const auto start = Clock::now();
    while (count(needle) <= seen) {
        if (Clock::now() - start > timeout) return -1;
        std::this_thread::sleep_for(5ms);
    }
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}
void vordctl(const std::string& args) { run("VORD_ROOT=" + g_root + " " + g_bin + "/vordctl " + args); }

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    char self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) < 0) return 1;
    g_bin = dirname(self);
    struct stat st;
    if (geteuid() != 0 || stat("/dev/net/tun", &st) != 0 || access((g_bin + "/vord-linklab").c_str(), X_OK) != 0) {
        printf("sls_lab_reaction: needs root, /dev/net/tun and %s/vord-linklab: not run\n", g_bin.c_str());
        return 0;
    }
    const std::string linklab = g_bin + "/vord-linklab";
    g_lab = "vlab-" + std::to_string(getpid()) + "-0";
    if (run(linklab + " up " + g_lab + " wlan0=20 rmnet_data0=15 --default rmnet_data0") != 0 ||
        run(linklab + " probe-echo " + g_lab + " fill") != 0) {
        printf("sls_lab_reaction: the lab could not be built\n");
        return 1;
    }
    char tmpl[] = "/tmp/vord-sls-reaction-XXXXXX";
    g_root = mkdtemp(tmpl);
    for (const char* dir : {"/vendor", "/vendor/etc", "/vendor/etc/sla", "/dev", "/dev/socket", "/proc",
                            "/proc/sla", "/system", "/system/bin", "/properties"}) {
        mkdir((g_root + dir).c_str(), 0755);
    }
    writeFile(g_root + "/vendor/etc/sla/vord.conf",
              "mini_est_interval=" + std::to_string(kLoopMs) + "\nping_interval_ms=" + std::to_string(kPingIntervalMs) +
                  "\nmin_ping_times=" + std::to_string(kMinPingTimes) + "\nt_hyst_s=2\n");
    writeFile(g_root + "/proc/sla/config", "");
    for (const std::string tool : {"iptables", "ip"}) {
        writeFile(g_root + "/system/bin/" + tool + "-wrapper-1.0",
                  "#!/bin/sh\nexec ip netns exec " + g_lab + " " + tool + " \"$@\"\n", 0755);
    }
    const pid_t daemon = fork();
    if (daemon == 0) {
        setenv("VORD_ROOT", g_root.c_str(), 1);
        const int fd = open((g_root + "/vord.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        const std::string vord = g_bin + "/vord";
        execl(linklab.c_str(), linklab.c_str(), "exec", g_lab.c_str(), "--", vord.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    std::vector<long> times;
    if (waitFor("Created socket success", 0, 20s) >= 0) {
        vordctl("ifaces wlan0,rmnet_data0");
        vordctl("sls-start 10123");
        const std::string toWifi = "perform switch wlan0 ", toCell = "perform switch rmnet_data0 ";
        waitFor(toWifi, 0, 20s);
        for (int i = 0; i < rounds; ++i) {
            std::this_thread::sleep_for(2500ms);  // past the hysteresis window and a few samples
            const size_t seen = count(toCell);
            run(linklab + " cut " + g_lab + " wlan0");
            const long ms = waitFor(toCell, seen, 30s);
            run(linklab + " restore " + g_lab + " wlan0");
            if (ms < 0) break;
            times.push_back(ms);
            printf("round %d: switch %ld ms after the cut\n", i + 1, ms);
            fflush(stdout);
            if (waitFor(toWifi, count(toWifi), 60s) < 0) break;  // wlan0 back once its history recovers
        }
    }
    writeFile(g_root + "/properties/vendor.sla.enabled", "2");
    waitFor("Vord exiting", 0, 15s);
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
    run(linklab + " down " + g_lab);
    run("rm -rf " + g_root);

    const int bound = kMinPingTimes * (kPingIntervalMs + kConnectTimeoutMs) + kLoopMs;
    if (times.empty()) {
        printf("no switch measured\n");
        return 1;
    }
    std::sort(times.begin(), times.end());
    printf("reaction time over %zu rounds: min %ld ms, median %ld ms, max %ld ms; bound %d ms "
           "(min_ping_times %d x (ping_interval_ms %d + connect time-out %d) + loop %d)\n",
           times.size(), times.front(), times[times.size() / 2], times.back(), bound, kMinPingTimes,
           kPingIntervalMs, kConnectTimeoutMs, kLoopMs);
    return 0;
}
