// Failover of link selection in the link lab, through the real daemon started
// with the sample configuration (etc/vord.conf) unchanged: wlan0 at 40 ms and
// rmnet_data0 at 30 ms round trip, the selected wlan0 cut each round.
//
// Reaction (the default): for each probe-server mode (exact, fill, close,
// silent) and each cut kind it prints min / median / max of the time from the
// cut to the switch to rmnet_data0 over the rounds:
//   carrier  wlan0 loses its carrier while a game (UID 10123, talking to the
//            lab's application server, which becomes the probe target) talks;
//   silent   wlan0 drops every packet, carrier kept, while the game talks;
//   idle     wlan0 drops every packet while no application talks.
// Each round starts link selection afresh (sls-start, both links measured,
// wlan0 chosen), cuts at a random point of the probes' cycle (0.5 to 3.5 s
// later) and ends link selection (sls-stop) after the restore.
//
// Control (--control TRIES): with the demo's settings (100 ms loop, a probe
// every 200 ms, three probes per decision, t_hyst_s 2) and probes that hang (a
// silent probe server) or take 5 s (the game's server answers only part of each
// exchange), the worst case over TRIES of: sls-stop served, an interface removal
// served, the stop property acted on, the gap between two decisions, and the
// age of the status snapshot as vordctl status sees it.
//
// A plain program (not Google Benchmark): rounds take seconds. Needs root,
// /dev/net/tun and vord-linklab next to this program; prints why not otherwise.
//
//   build/bin/sls_lab_reaction [--rounds N] [--modes exact,fill] [--kinds carrier,idle]
//   build/bin/sls_lab_reaction --control 20
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
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "status/StatusText.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

std::string g_bin, g_root, g_lab, g_linklab;

long msSince(Clock::time_point t) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}
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
int lab(const std::string& args) { return run(g_linklab + " " + args); }
int vordctl(const std::string& args) { return run("VORD_ROOT=" + g_root + " " + g_bin + "/vordctl " + args); }
std::vector<std::string> split(const std::string& text) {
    std::vector<std::string> out;
    std::stringstream s(text);
    for (std::string item; std::getline(s, item, ',');) out.push_back(item);
    return out;
}

// The daemon's log, read as it grows.
class LogTail {
  public:
    explicit LogTail(std::string path) : path_(std::move(path)) {}
    // From now on, only what is written after this call counts.
    void mark() {
        struct stat st;
        offset_ = stat(path_.c_str(), &st) == 0 ? st.st_size : 0;
        text_.clear();
    }
    // Waits until `needle` appears after the mark; the wait in ms, or -1.
    long waitFor(const std::string& needle, std::chrono::milliseconds timeout) {
        const auto start = Clock::now();
        while (!found(needle)) {
            if (Clock::now() - start > timeout) return -1;
            std::this_thread::sleep_for(2ms);
        }
        return msSince(start);
    }
    // Whether `needle` appeared after the mark (and forgets the text before it).
    bool found(const std::string& needle) {
        readMore();
        const size_t at = text_.find(needle);
        if (at == std::string::npos) return false;
        text_.erase(0, at + needle.size());
        return true;
    }
    // Complete lines written since the last call.
    std::vector<std::string> newLines() {
        readMore();
        std::vector<std::string> out;
        for (size_t nl; (nl = text_.find('\n')) != std::string::npos; text_.erase(0, nl + 1)) {
            out.push_back(text_.substr(0, nl));
        }
        return out;
    }

  private:
    void readMore() {
        const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        char buf[65536];
        ssize_t n;
        while ((n = pread(fd, buf, sizeof(buf), offset_)) > 0) {
            text_.append(buf, static_cast<size_t>(n));
            offset_ += n;
        }
        close(fd);
    }
    std::string path_, text_;
    off_t offset_ = 0;
};

// A process started in the lab (the daemon, an application client), ended by
// SIGKILL when it goes.
class Child {
  public:
    Child(const std::vector<std::string>& args, const std::string& out, const std::string& root = "") {
        pid_ = fork();
        if (pid_ != 0) {
            children().push_back(pid_);
            return;
        }
        if (!root.empty()) setenv("VORD_ROOT", root.c_str(), 1);
        const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~Child() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        children().erase(std::remove(children().begin(), children().end(), pid_), children().end());
    }
    // Every child still running (for the interrupt handler).
    static std::vector<pid_t>& children() {
        static std::vector<pid_t> pids;
        return pids;
    }

  private:
    pid_t pid_;
};

// Ctrl-C or a kill: the children and the lab go too (async-signal-safe calls only).
void onInterrupt(int) {
    for (pid_t pid : Child::children()) kill(pid, SIGKILL);
    const pid_t down = fork();
    if (down == 0) {
        execl(g_linklab.c_str(), g_linklab.c_str(), "down", g_lab.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (down > 0) waitpid(down, nullptr, 0);
    _exit(130);
}

std::unique_ptr<Child> g_daemon;
std::unique_ptr<LogTail> g_log;

// Starts the daemon in the lab with `conf`, serving ifaces wlan0,rmnet_data0.
bool startDaemon(const std::string& conf) {
    g_daemon.reset();
    writeFile(g_root + "/properties/vendor.sla.enabled", "1");
    writeFile(g_root + "/vendor/etc/sla/vord.conf", conf);
    unlink((g_root + "/vord.log").c_str());  // nothing of an earlier daemon is read as this one's
    g_log = std::make_unique<LogTail>(g_root + "/vord.log");
    g_daemon = std::make_unique<Child>(
            std::vector<std::string>{g_linklab, "exec", g_lab, "--", g_bin + "/vord"}, g_root + "/vord.log", g_root);
    if (g_log->waitFor("Created socket success", 20s) < 0) return false;
    return vordctl("ifaces wlan0,rmnet_data0") == 0;
}

void stopDaemon() {
    writeFile(g_root + "/properties/vendor.sla.enabled", "2");
    if (g_log) g_log->waitFor("Vord exiting", 15s);
    g_daemon.reset();
}

bool snapshot(vord::status::Snapshot* s) {
    return vord::status::parse(readFile(g_root + "/data/vendor/vord/status"), s, nullptr);
}
const vord::status::LinkStatus* link(const vord::status::Snapshot& s, const std::string& name) {
    for (const auto& l : s.links) {
        if (l.name == name) return &l;
    }
    return nullptr;
}

// Waits until `pred` holds for the snapshot.
bool waitSnapshot(const std::function<bool(const vord::status::Snapshot&)>& pred, std::chrono::seconds timeout) {
    const auto start = Clock::now();
    vord::status::Snapshot s;
    while (Clock::now() - start < timeout) {
        if (snapshot(&s) && pred(s)) return true;
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

std::unique_ptr<Child> startGame() {
    return std::make_unique<Child>(std::vector<std::string>{g_linklab, "client", g_lab, "--uid", "10123", "--interval", "100"},
                                   g_root + "/client.log");
}

// One round of `kind`: the time from the cut to the switch, -1 when none came.
long reactionRound(const std::string& kind, std::string* note) {
    const bool game = kind != "idle";
    vordctl("sls-start 10123");
    std::unique_ptr<Child> client = game ? startGame() : nullptr;
    // Both links measured (wlan0 level 11 chosen, rmnet_data0 level 10), and the
    // game's server the probe target when a game talks.
    const bool ready = waitSnapshot(
            [&](const vord::status::Snapshot& s) {
                const auto* w = link(s, "wlan0");
                const auto* r = link(s, "rmnet_data0");
                return s.current == "wlan0" && w && r && w->level == 11 && r->level == 10 &&
                       (!game || s.probeServer == "198.18.0.10");
            },
            60s);
    long ms = -1;
    if (!ready) {
        *note = "not ready (links not measured)";
    } else {
        // The game's socket on wlan0 and talking; the cut at a random point of the
        // probes' cycle (the links were found measured just after a probe ended).
        static std::mt19937 rng(1);
        std::this_thread::sleep_for(500ms + std::chrono::milliseconds(rng() % 3000));
        g_log->mark();
        const auto cut = Clock::now();
        lab(kind == "carrier" ? "carrier " + g_lab + " wlan0 off" : "cut " + g_lab + " wlan0");
        if (g_log->waitFor("perform switch rmnet_data0 ", 15s) >= 0) ms = msSince(cut);
        lab(kind == "carrier" ? "carrier " + g_lab + " wlan0 on" : "restore " + g_lab + " wlan0");
        if (ms < 0) *note = "no switch within 15 s";
    }
    client.reset();
    vordctl("sls-stop mode 1");  // returns once sls-stop has been served
    return ms;
}

void printStats(const std::string& label, std::vector<long> v, size_t rounds, const std::string& note) {
    if (v.empty()) {
        printf("| %s | - | - | - | 0/%zu: %s |\n", label.c_str(), rounds, note.c_str());
    } else {
        std::sort(v.begin(), v.end());
        printf("| %s | %ld | %ld | %ld | %zu/%zu%s%s |\n", label.c_str(), v.front(), v[v.size() / 2], v.back(), v.size(),
               rounds, note.empty() ? "" : ": ", note.c_str());
    }
    fflush(stdout);
}

int reaction(int rounds, const std::vector<std::string>& modes, const std::vector<std::string>& kinds) {
    const std::string conf = readFile(std::string(VORD_SOURCE_DIR) + "/etc/vord.conf");
    if (!startDaemon(conf)) {
        printf("the daemon did not start\n");
        return 1;
    }
    printf("cut -> switch to rmnet_data0, ms, over %d rounds, etc/vord.conf unchanged\n\n", rounds);
    printf("| probe server, cut | min | median | max | switched |\n|---|---|---|---|---|\n");
    for (const std::string& mode : modes) {
        lab("probe-echo " + g_lab + " " + mode);
        for (const std::string& kind : kinds) {
            std::vector<long> times;
            std::string note;
            for (int i = 0; i < rounds; ++i) {
                const long ms = reactionRound(kind, &note);
                if (ms >= 0) times.push_back(ms);
                fprintf(stderr, "%s %s round %d: %ld ms %s\n", mode.c_str(), kind.c_str(), i + 1, ms, note.c_str());
                if (times.empty()) break;  // it will not get better in this mode
            }
            printStats(mode + ", " + kind, times, static_cast<size_t>(rounds), note);
        }
    }
    stopDaemon();
    return 0;
}

// ---- control responsiveness ----

const char* const kDemoConf = "mini_est_interval=100\nping_interval_ms=200\nmin_ping_times=3\nt_hyst_s=2\n";

struct Worst {
    long stopMs = 0, removeMs = 0, propertyMs = 0, decisionGapMs = 0, statusAgeMs = 0;
    int statusNotLive = 0, statusCalls = 0;
};

// Probing under way against a probe server that hangs: the silent one (each
// probe waits 0.5 s for an answer), or the exact echo, which answers 58 of the
// 60 bytes each exchange waits for (each probe takes 5 s). No game talks, so the
// probes keep that server.
void startHangingProbes(const std::string& hang) {
    lab("probe-echo " + g_lab + (hang == "silent" ? " silent" : " exact"));
    vordctl("sls-start 10123");
    std::this_thread::sleep_for(1500ms);  // probes in progress
}

void controlTries(const std::string& hang, int tries, Worst* w) {
    for (int i = 0; i < tries; ++i) {
        if (!startDaemon(kDemoConf)) continue;
        startHangingProbes(hang);
        // Decisions and status while the probes hang.
        g_log->newLines();
        auto last = Clock::now();
        const auto watchStart = Clock::now();
        while (Clock::now() - watchStart < 1500ms) {
            for (const std::string& l : g_log->newLines()) {
                if (l.find("getFastestInterface (best Interface") == std::string::npos) continue;
                w->decisionGapMs = std::max(w->decisionGapMs, msSince(last));
                last = Clock::now();
            }
            vord::status::Snapshot s;
            if (snapshot(&s)) {
                timespec now;
                clock_gettime(CLOCK_MONOTONIC, &now);
                const long age = static_cast<long>(now.tv_sec * 1000 + now.tv_nsec / 1000000 - s.updatedMonoMs);
                w->statusAgeMs = std::max(w->statusAgeMs, age);
            }
            w->statusCalls += 1;
            w->statusNotLive += run("VORD_ROOT=" + g_root + " " + g_bin + "/vordctl status") != 0;
            std::this_thread::sleep_for(20ms);
        }
        // An interface removal (and the add back), then sls-stop, each followed by a
        // no-op record: vordctl returns once that was read, so once the command was served.
        auto t = Clock::now();
        vordctl("ifaces rmnet_data0 mode 1");
        w->removeMs = std::max(w->removeMs, msSince(t));
        vordctl("ifaces wlan0,rmnet_data0 mode 1");
        std::this_thread::sleep_for(1000ms);
        t = Clock::now();
        if (getenv("TRACE_STOP") != nullptr) {
            g_log->newLines();
            std::thread tracer([&] {
                for (auto end = Clock::now() + 4s; Clock::now() < end; std::this_thread::sleep_for(2ms)) {
                    for (const std::string& l : g_log->newLines()) fprintf(stderr, "%5ld %s\n", msSince(t), l.c_str());
                }
            });
            vordctl("sls-stop mode 1");
            tracer.join();
        } else {
            vordctl("sls-stop mode 1");
        }
        w->stopMs = std::max(w->stopMs, msSince(t));
        // The stop property, with probes hanging again.
        startHangingProbes(hang);
        g_log->mark();
        t = Clock::now();
        writeFile(g_root + "/properties/vendor.sla.enabled", "2");
        const long ms = g_log->waitFor("Mux disabled, starting cleanup", 30s);
        w->propertyMs = std::max(w->propertyMs, ms < 0 ? 30000 : msSince(t));
        stopDaemon();
        fprintf(stderr, "%s try %d: stop %ld, remove %ld, property %ld, decision gap %ld, status age %ld ms\n",
                hang.c_str(), i + 1, w->stopMs, w->removeMs, w->propertyMs, w->decisionGapMs, w->statusAgeMs);
    }
}

int control(int tries) {
    printf("control while probes hang, demo settings (loop 100 ms), worst of %d tries\n\n", tries);
    printf("| probes | sls-stop served | interface removal served | stop property | decision gap | status age | "
           "status not live |\n|---|---|---|---|---|---|---|\n");
    for (const std::string hang : {"silent", "partial"}) {
        Worst w;
        controlTries(hang, tries, &w);
        printf("| %s | %ld ms | %ld ms | %ld ms | %ld ms | %ld ms | %d of %d calls |\n",
               hang == "silent" ? "silent server (0.5 s probes)" : "partly answering server (5 s probes)",
               w.stopMs, w.removeMs, w.propertyMs, w.decisionGapMs, w.statusAgeMs, w.statusNotLive, w.statusCalls);
        fflush(stdout);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 5, tries = 0;
    std::vector<std::string> modes = {"exact", "fill", "close", "silent"}, kinds = {"carrier", "silent", "idle"};
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string opt = argv[i], value = argv[i + 1];
        if (opt == "--rounds") rounds = std::max(1, atoi(value.c_str()));
        if (opt == "--control") tries = std::max(1, atoi(value.c_str()));
        if (opt == "--modes") modes = split(value);
        if (opt == "--kinds") kinds = split(value);
    }
    char self[PATH_MAX] = {};
    if (readlink("/proc/self/exe", self, sizeof(self) - 1) < 0) return 1;
    g_bin = dirname(self);
    g_linklab = g_bin + "/vord-linklab";
    struct stat st;
    if (geteuid() != 0 || stat("/dev/net/tun", &st) != 0 || access(g_linklab.c_str(), X_OK) != 0) {
        printf("sls_lab_reaction: needs root, /dev/net/tun and %s: not run\n", g_linklab.c_str());
        return 0;
    }
    signal(SIGPIPE, SIG_IGN);
    g_lab = "vlab-" + std::to_string(getpid()) + "-0";
    signal(SIGINT, onInterrupt);
    signal(SIGTERM, onInterrupt);
    if (lab("up " + g_lab + " wlan0=20 rmnet_data0=15 --default rmnet_data0") != 0) {
        printf("sls_lab_reaction: the lab could not be built\n");
        return 1;
    }
    char tmpl[] = "/tmp/vord-sls-reaction-XXXXXX";
    g_root = mkdtemp(tmpl);
    for (const char* dir : {"/vendor", "/vendor/etc", "/vendor/etc/sla", "/dev", "/dev/socket", "/proc", "/proc/sla",
                            "/system", "/system/bin", "/properties", "/data"}) {
        mkdir((g_root + dir).c_str(), 0755);
    }
    writeFile(g_root + "/proc/sla/config", "");
    // Statistics blocks the daemon maps at once (without them every interface
    // change waits for its mapping retries).
    for (const char* link : {"wlan0", "rmnet_data0"}) {
        writeFile(g_root + "/proc/sla/" + link + "_mmap", std::string(20480, '\0'));
    }
    for (const std::string tool : {"iptables", "ip"}) {
        writeFile(g_root + "/system/bin/" + tool + "-wrapper-1.0",
                  "#!/bin/sh\nexec ip netns exec " + g_lab + " " + tool + " \"$@\"\n", 0755);
    }
    const int status = tries > 0 ? control(tries) : reaction(rounds, modes, kinds);
    stopDaemon();
    lab("down " + g_lab);
    if (getenv("KEEP_ROOT") == nullptr) run("rm -rf " + g_root);
    else printf("kept %s\n", g_root.c_str());
    return status;
}
