// vordctl status: shows the daemon's status snapshot ("/data/vendor/vord/status").
// It reads the file only; it does not talk to the control socket. It reads only a
// regular file (never blocking on a FIFO), shows every text value with its
// control bytes escaped, and calls the daemon live only when the snapshot's pid is
// a vord process.

#include "status.h"

#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <vord/RootPath.h>

#include "config/LogText.h"
#include "status/StatusText.h"

namespace {

using vord::status::LinkStatus;
using vord::status::Snapshot;

constexpr size_t kMaxFileSize = 1 << 20;

enum Exit { kFresh = 0, kNoSnapshot = 1, kUsage = 2, kNotLive = 3 };

// Text from the file as it may be printed: control bytes (an escape sequence
// would drive the terminal) and other bytes outside printable ASCII as "\xNN".
std::string shown(const std::string& text) { return vord::escapeForLog(text, kMaxFileSize); }

// A rule tool's output is kept escaped in the snapshot already (\\ and \xNN):
// only what is still not printable is escaped here, so escapes are not doubled.
std::string shownEscaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        out += u >= 0x20 && u < 0x7f ? std::string(1, c) : shown(std::string(1, c));
    }
    return out;
}

void usage(FILE* out) {
    fprintf(out,
            "usage: vordctl status [--json] [--watch] [--file PATH]\n"
            "\n"
            "Shows vord's status snapshot: the managed links (mark, routing table, rate,\n"
            "share, and while link selection runs the RTT, level, misses and RSSI penalty),\n"
            "link selection, the features and the counters since start. The snapshot is\n"
            "/data/vendor/vord/status, under $VORD_ROOT when that is set.\n"
            "\n"
            "  --json        print it as JSON\n"
            "  --watch       refresh every second until interrupted (Ctrl-C)\n"
            "  --file PATH   read PATH instead\n"
            "  -h, --help    this text\n"
            "\n"
            "Exit status: 0 for a current snapshot of a running vord; 1 when there is no\n"
            "snapshot or it cannot be read (with --json: an object with \"error\" on stdout);\n"
            "3 when vord has stopped, is gone, or has not refreshed the snapshot for three\n"
            "loop periods (stuck); the snapshot is still shown then. With --watch: 0 when\n"
            "interrupted.\n");
}

int64_t nowMs(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string printf_(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string printf_(const char* fmt, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

std::string wallTime(int64_t ms) {
    time_t t = static_cast<time_t>(ms / 1000);
    struct tm tm;
    char buf[64];
    if (localtime_r(&t, &tm) == nullptr || strftime(buf, sizeof(buf), "%Y-%m-%d %H:%M:%S", &tm) == 0) {
        return "?";
    }
    return buf;
}

// ---- reading ----

// The snapshot at `path`, or false with the message to print.
bool readSnapshot(const std::string& path, Snapshot* out, std::string* message) {
    // Without blocking: opening a FIFO for reading would wait for a writer.
    int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        *message = errno == ENOENT ? "no status snapshot at " + path + " (is vord running?)"
                                   : "cannot read the status snapshot " + path + ": " + strerror(errno);
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *message = "the status snapshot " + path + " is not a regular file";
        close(fd);
        return false;
    }
    std::string text;
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            *message = "cannot read the status snapshot " + path + ": " + strerror(errno);
            close(fd);
            return false;
        }
        if (n == 0) break;
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > kMaxFileSize) {
            *message = "the status snapshot " + path + " is malformed: larger than 1 MiB";
            close(fd);
            return false;
        }
    }
    close(fd);
    std::string why;
    if (!vord::status::parse(text, out, &why)) {
        *message = "the status snapshot " + path + " is malformed: " + shown(why);
        return false;
    }
    return true;
}

// ---- liveness ----

struct Liveness {
    bool live = true;
    int64_t ageMs = 0;
    std::string warning;  // empty when live
};

bool processExists(int64_t pid) {
    if (pid <= 0 || pid > INT32_MAX) return false;
    return kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

// The name of process `pid` ("vord" for the daemon); empty when it cannot be
// read, and then not held against it.
std::string processName(int64_t pid) {
    std::string name;
    FILE* f = fopen(("/proc/" + std::to_string(pid) + "/comm").c_str(), "re");
    if (f == nullptr) return name;
    char buf[64];
    if (fgets(buf, sizeof(buf), f) != nullptr) name = buf;
    fclose(f);
    if (!name.empty() && name.back() == '\n') name.pop_back();
    return name;
}

Liveness judge(const Snapshot& s) {
    Liveness l;
    l.ageMs = nowMs(CLOCK_MONOTONIC) - s.updatedMonoMs;
    const int64_t limit = vord::status::staleAfterMs(s.periodMs);
    if (s.state == "stopped") {
        l.warning = printf_("warning: vord (pid %" PRId64 ") has stopped; this is its final snapshot, from %s",
                            s.pid, wallTime(s.updatedWallMs).c_str());
    } else if (!processExists(s.pid)) {
        l.warning = printf_("warning: vord (pid %" PRId64 ") is not running; snapshot from %s", s.pid,
                            wallTime(s.updatedWallMs).c_str());
    } else if (const std::string name = processName(s.pid); !name.empty() && name != "vord") {
        // The pid was reused after vord ended.
        l.warning = printf_("warning: vord (pid %" PRId64 ") is not running: that pid is now \"%s\"; "
                            "snapshot from %s",
                            s.pid, shown(name).c_str(), wallTime(s.updatedWallMs).c_str());
    } else if (l.ageMs < 0) {
        l.warning = printf_("warning: the snapshot was written before this boot (%s): vord is not updating it",
                            wallTime(s.updatedWallMs).c_str());
    } else if (l.ageMs > limit) {
        l.warning = printf_("warning: the snapshot is %.1f s old, older than three loop periods (%.1f s): "
                            "vord is stuck",
                            static_cast<double>(l.ageMs) / 1000.0, static_cast<double>(limit) / 1000.0);
    }
    l.live = l.warning.empty();
    return l;
}

// ---- table ----

std::string dash(bool known, const std::string& v) { return known ? v : "-"; }

std::string renderTable(const Snapshot& s, const Liveness& live) {
    std::string out;
    out += printf_("vord pid %" PRId64 ", %s, loop period %d ms, updated %.1f s ago (%s)\n", s.pid,
                   s.state.c_str(), s.periodMs, static_cast<double>(live.ageMs) / 1000.0,
                   wallTime(s.updatedWallMs).c_str());
    if (!live.live) out += live.warning + "\n";
    out += "\n";
    out += printf_("%-15s %-10s %-15s %-7s %-5s %11s %7s %6s %5s %6s %8s\n", "LINK", "MARK", "TABLE",
                   "METERED", "SLAVE", "RATE kbit/s", "SHARE %", "RTT ms", "LEVEL", "MISSES", "RSSI +ms");
    for (const LinkStatus& l : s.links) {
        std::string rtt = l.rttMs < 0 ? "failed" : std::to_string(l.rttMs);
        out += printf_("%-15s %-10s %-15s %-7s %-5s %11s %7s %6s %5s %6s %8s\n", shown(l.name).c_str(),
                       shown(l.mark).c_str(), shown(l.table).c_str(), l.metered ? "yes" : "no",
                       l.slave ? "yes" : "no",
                       dash(l.aggregated, std::to_string(l.rateKbps)).c_str(),
                       dash(l.aggregated, printf_("%.1f", static_cast<double>(l.share) * 100.0)).c_str(),
                       dash(l.probed, rtt).c_str(), dash(l.probed, std::to_string(l.level)).c_str(),
                       dash(l.probed, std::to_string(l.misses)).c_str(),
                       dash(l.probed, std::to_string(l.rssiPenaltyMs)).c_str());
    }
    if (s.links.empty()) out += "(no managed links)\n";
    out += "\n";
    out += printf_("Selection  mode %s, engine %s, current link %s, switches in window %d, probe target %s:%d\n",
                   shown(s.mode).c_str(), s.engine ? "running" : "none",
                   s.current.empty() ? "-" : shown(s.current).c_str(), s.switches, shown(s.probeServer).c_str(),
                   s.probePort);
    if (s.lastSwitch.valid) {
        const vord::status::LastSwitch& w = s.lastSwitch;
        out += printf_("Last switch  %s -> %s at %s (%.1f s ago): %s, %s\n",
                       w.from.empty() ? "(none)" : shown(w.from).c_str(), shown(w.to).c_str(),
                       wallTime(w.wallMs).c_str(), static_cast<double>(nowMs(CLOCK_REALTIME) - w.wallMs) / 1000.0,
                       shown(w.reason).c_str(), shown(w.detail).c_str());
    }
    out += printf_("Features   UID lists: SLA whitelist %u, gaming %u, dual Wi-Fi %u, dual data %u; "
                   "gateways %u; dual Wi-Fi monitor %s, select status %d; IPv6 rules %s\n",
                   s.slaWhitelist, s.gamingUids, s.dwWhitelist, s.ddWhitelist, s.gateways,
                   s.dwMonitor ? "on" : "off", s.dwSelect, s.ipv6Rules ? "on" : "off");
    // Kept after a stop: their sockets are destroyed at shutdown.
    out += "           gaming UIDs: " + (s.gamingUidList.empty() ? "-" : shown(s.gamingUidList)) + "\n";
    out += printf_("Counters   control records served %" PRIu64 ", refused %" PRIu64 "; rule commands run %" PRIu64
                   ", failed %" PRIu64 ", not started %" PRIu64 "; sockets destroyed %" PRIu64
                   "; link switches %" PRIu64 "\n",
                   s.controlServed, s.controlRefused, s.ruleCommandsRun, s.ruleCommandsFailed,
                   s.ruleCommandsNotStarted, s.socketsDestroyed, s.linkSwitches);
    out += printf_("           rule commands run: IPv4 %" PRIu64 ", IPv6 %" PRIu64 "; not started: IPv4 %" PRIu64
                   ", IPv6 %" PRIu64 "; IPv6 groups failed %" PRIu64 "\n",
                   s.ruleCommandsRun - s.ipv6RuleCommandsRun, s.ipv6RuleCommandsRun,
                   s.ruleCommandsNotStarted - s.ipv6RuleCommandsNotStarted, s.ipv6RuleCommandsNotStarted,
                   s.ipv6RuleGroupsFailed);
    if (!s.lastFailedCommand.empty()) {
        // Built without printf_: the command and its output may be long.
        out += "Last failed rule command (" + shown(s.lastFailedResult) + "): " + shown(s.lastFailedCommand) +
               "\n           output: " + (s.lastFailedOutput.empty() ? "(none)" : shownEscaped(s.lastFailedOutput)) + "\n";
    }
    return out;
}

// ---- JSON ----

std::string jsonString(const std::string& v) {
    std::string out = "\"";
    for (unsigned char c : v) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7f) {
            out += printf_("\\u%04x", c);
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

const char* jsonBool(bool b) { return b ? "true" : "false"; }

std::string renderJson(const Snapshot& s, const Liveness& live) {
    std::string o = "{";
    o += printf_("\"version\":%d,\"pid\":%" PRId64 ",\"state\":%s,\"period_ms\":%d,", s.version, s.pid,
                 jsonString(s.state).c_str(), s.periodMs);
    o += printf_("\"updated_mono\":%.3f,\"updated_wall\":%.3f,\"age_ms\":%" PRId64 ",\"live\":%s,",
                 static_cast<double>(s.updatedMonoMs) / 1000.0, static_cast<double>(s.updatedWallMs) / 1000.0,
                 live.ageMs, jsonBool(live.live));
    o += "\"warning\":" + (live.live ? std::string("null") : jsonString(live.warning)) + ",\"links\":[";
    for (size_t i = 0; i < s.links.size(); ++i) {
        const LinkStatus& l = s.links[i];
        if (i) o += ",";
        o += "{\"name\":" + jsonString(l.name) + ",\"mark\":" + jsonString(l.mark) +
             ",\"table\":" + jsonString(l.table);
        o += printf_(",\"metered\":%s,\"slave\":%s", jsonBool(l.metered), jsonBool(l.slave));
        if (l.aggregated) {
            o += printf_(",\"rate_kbps\":%u,\"share\":%.4f", l.rateKbps, static_cast<double>(l.share));
        } else {
            o += ",\"rate_kbps\":null,\"share\":null";
        }
        if (l.probed) {
            o += printf_(",\"rtt_ms\":%d,\"level\":%d,\"misses\":%d,\"rssi_penalty_ms\":%d,\"probing\":%s",
                         l.rttMs, l.level, l.misses, l.rssiPenaltyMs, jsonBool(l.probing));
        } else {
            o += ",\"rtt_ms\":null,\"level\":null,\"misses\":null,\"rssi_penalty_ms\":null,\"probing\":null";
        }
        o += "}";
    }
    o += "],\"selection\":{\"mode\":" + jsonString(s.mode);
    o += printf_(",\"engine\":%s,\"current\":", jsonBool(s.engine));
    o += s.current.empty() ? std::string("null") : jsonString(s.current);
    o += printf_(",\"switches\":%d,\"probe_server\":", s.switches) + jsonString(s.probeServer);
    o += printf_(",\"probe_port\":%d,\"last_switch\":", s.probePort);
    if (s.lastSwitch.valid) {
        const vord::status::LastSwitch& w = s.lastSwitch;
        o += printf_("{\"time\":%.3f,\"from\":", static_cast<double>(w.wallMs) / 1000.0);
        o += (w.from.empty() ? std::string("null") : jsonString(w.from)) + ",\"to\":" + jsonString(w.to) +
             ",\"reason\":" + jsonString(w.reason) + ",\"detail\":" + jsonString(w.detail) + "}},";
    } else {
        o += "null},";
    }
    o += printf_("\"features\":{\"sla_whitelist\":%u,\"gaming_uids\":%u,\"dw_whitelist\":%u,"
                 "\"dd_whitelist\":%u,\"gateways\":%u,\"dw_monitor\":%s,\"dw_select\":%d,\"ipv6_rules\":%s,",
                 s.slaWhitelist, s.gamingUids, s.dwWhitelist, s.ddWhitelist, s.gateways, jsonBool(s.dwMonitor),
                 s.dwSelect, jsonBool(s.ipv6Rules));
    o += "\"gaming_uid_list\":" + jsonString(s.gamingUidList) + "},";
    o += printf_("\"counters\":{\"control_served\":%" PRIu64 ",\"control_refused\":%" PRIu64
                 ",\"rule_commands_run\":%" PRIu64 ",\"rule_commands_failed\":%" PRIu64
                 ",\"rule_commands_not_started\":%" PRIu64 ",\"ipv6_rule_commands_run\":%" PRIu64
                 ",\"ipv6_rule_commands_not_started\":%" PRIu64 ",\"ipv6_rule_groups_failed\":%" PRIu64
                 ",\"sockets_destroyed\":%" PRIu64 ",\"link_switches\":%" PRIu64 "},",
                 s.controlServed, s.controlRefused, s.ruleCommandsRun, s.ruleCommandsFailed,
                 s.ruleCommandsNotStarted, s.ipv6RuleCommandsRun, s.ipv6RuleCommandsNotStarted,
                 s.ipv6RuleGroupsFailed, s.socketsDestroyed, s.linkSwitches);
    o += "\"last_failed_rule_command\":";
    o += s.lastFailedCommand.empty() ? std::string("null")
                                     : "{\"command\":" + jsonString(s.lastFailedCommand) +
                                           ",\"result\":" + jsonString(s.lastFailedResult) +
                                           ",\"output\":" + jsonString(s.lastFailedOutput) + "}";
    return o + "}\n";
}

// ---- one look, and the watch loop ----

// Renders the snapshot (or the reason there is none) into `out`; the exit status.
int look(const std::string& path, bool json, std::string* out, std::string* error) {
    Snapshot s;
    std::string message;
    if (!readSnapshot(path, &s, &message)) {
        // With --json the reader of stdout gets an object in every case.
        if (json) *out = "{\"error\":" + jsonString(message) + ",\"live\":false}\n";
        *error = "vordctl: " + message + "\n";
        return kNoSnapshot;
    }
    Liveness live = judge(s);
    *out = json ? renderJson(s, live) : renderTable(s, live);
    if (json && !live.live) *error = live.warning + "\n";
    return live.live ? kFresh : kNotLive;
}

volatile sig_atomic_t g_interrupted = 0;

void onInterrupt(int) { g_interrupted = 1; }

int watch(const std::string& path, bool json) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: the signal ends the sleep
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    const bool tty = isatty(STDOUT_FILENO) == 1;
    while (!g_interrupted) {
        std::string out, error;
        look(path, json, &out, &error);
        // One write per refresh, so the screen does not flicker half drawn.
        std::string screen = tty ? "\033[H\033[2J" : "";
        screen += out + error;
        if (!tty) screen += "\n";
        fwrite(screen.data(), 1, screen.size(), stdout);
        fflush(stdout);
        struct timespec second = {1, 0};
        nanosleep(&second, nullptr);
    }
    return kFresh;
}

}  // namespace

int runStatus(int argc, char** argv) {
    std::string path = vord::resolvePath(vord::status::kSnapshotPath);
    bool json = false, watching = false;
    for (int i = 0; i < argc; ++i) {
        std::string opt = argv[i];
        if (opt == "-h" || opt == "--help") {
            usage(stdout);
            return 0;
        } else if (opt == "--json") {
            json = true;
        } else if (opt == "--watch") {
            watching = true;
        } else if (opt == "--file") {
            if (i + 1 >= argc || argv[i + 1][0] == '-' || argv[i + 1][0] == '\0') {
                fprintf(stderr, "vordctl: status: --file needs a path (see vordctl status --help)\n");
                return kUsage;
            }
            path = argv[++i];
        } else {
            fprintf(stderr, "vordctl: status: unknown option '%s' (see vordctl status --help)\n", opt.c_str());
            return kUsage;
        }
    }
    if (watching) return watch(path, json);
    std::string out, error;
    int rc = look(path, json, &out, &error);
    fputs(out.c_str(), stdout);
    fflush(stdout);
    fputs(error.c_str(), stderr);
    return rc;
}
