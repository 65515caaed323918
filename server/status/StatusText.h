// The status snapshot: what vord shows of its state in "/data/vendor/vord/status",
// its text form and the reader of that text.
//
// The file is plain "key=value" lines in a fixed order: a header (format version,
// pid, state, loop period, update times), one group of "link.<name>.<field>" lines
// per managed link, then the "selection.", "features.", "counters." and "rules."
// keys, and "end=1" as the last line. A reader that does not find the end line has
// a partial file. Unknown keys are skipped by the reader, so keys can be added
// without a new format version (a reader does not require the keys added since
// version 1); a version above kFormatVersion is refused.
//
// This file has no dependency on the daemon: vordctl and the tests use it as is.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

namespace vord {
namespace status {

constexpr int kFormatVersion = 1;
constexpr const char* kSnapshotPath = "/data/vendor/vord/status";

// Loop periods under this count as this much for the liveness rules below, so a
// daemon running with a very short (or no) sleep neither rewrites its snapshot
// continuously nor looks stuck after a millisecond of delay.
constexpr int64_t kMinLivenessPeriodMs = 250;
// A running daemon rewrites its snapshot, changed or not, on the first loop period
// that finds the last write this old: one and a half periods, so an idle daemon
// rewrites it every second period.
int64_t heartbeatMs(int periodMs);
// A running daemon's snapshot older than this means the daemon is stuck or gone:
// three loop periods. Rewrites at least every second period keep a live daemon's
// snapshot younger than that unless one loop period takes over three periods.
int64_t staleAfterMs(int periodMs);

struct LinkStatus {
    std::string name;
    std::string mark;   // "0x200000"
    std::string table;  // routing table
    bool metered = false;
    bool slave = false;
    // Aggregation: known while the link has an aggregation record.
    bool aggregated = false;
    uint32_t rateKbps = 0;  // latest rate estimate, kbit/s
    float share = 0.0f;     // share of new connections, 0 to 1
    // Selection: known while the link has a selection record.
    bool probed = false;
    int rttMs = 0;  // smoothed RTT; -1 when the link failed
    int level = 0;
    int misses = 0;
    int rssiPenaltyMs = 0;
    bool probing = false;  // probes running (not paused)
    // "ipv4" or "ipv6": the family of the link's last probe; "none" before its
    // first ("probe_family", optional: added after version 1).
    std::string probeFamily = "none";

    bool operator==(const LinkStatus& o) const;
    bool operator!=(const LinkStatus& o) const { return !(*this == o); }
};

// The last switch of link selection (the "selection.last_switch_*" keys, written
// once a switch has been made).
struct LastSwitch {
    bool valid = false;
    int64_t wallMs = 0;   // when, wall clock
    std::string from;     // empty when no link was current
    std::string to;
    std::string reason;   // initial, better-level, link-failed, carrier-lost, admin-down,
                          // link-removed, address-lost, stall, framework-removed
    std::string detail;   // one line for people

    bool operator==(const LastSwitch& o) const;
};

struct Snapshot {
    // Header.
    int version = kFormatVersion;
    int64_t pid = 0;
    std::string state = "running";  // "running" or "stopped" (written once at shutdown)
    int periodMs = 0;               // "mini_est_interval"
    int64_t updatedMonoMs = 0;      // CLOCK_MONOTONIC
    int64_t updatedWallMs = 0;      // CLOCK_REALTIME

    std::vector<LinkStatus> links;

    // Selection.
    std::string mode = "off";  // off, gaming, game-mode, voice-call, or two joined by '+'
    bool engine = false;       // the selection engine exists
    std::string current;       // current link, empty when none
    int switches = 0;          // switches in the current hysteresis window
    std::string probeServer;
    int probePort = 0;
    LastSwitch lastSwitch;

    // Features.
    uint32_t slaWhitelist = 0;
    uint32_t gamingUids = 0;
    // The gaming UIDs themselves, comma-separated. The stop commands keep the list
    // (the sockets of these UIDs are destroyed at shutdown).
    std::string gamingUidList;
    uint32_t dwWhitelist = 0;
    uint32_t ddWhitelist = 0;
    uint32_t gateways = 0;
    bool dwMonitor = false;
    int dwSelect = 0;
    bool ipv6Rules = false;  // rule groups mirrored in the IPv6 tables ("ipv6_rules")

    // Counters since the daemon started.
    uint64_t controlServed = 0;
    uint64_t controlRefused = 0;
    uint64_t ruleCommandsRun = 0;
    uint64_t ruleCommandsNotStarted = 0;
    uint64_t ruleCommandsFailed = 0;  // exited non-zero or killed
    // Of the run and not-started counts, the IPv6 commands; and IPv6 halves of rule groups that were
    // skipped (no IPv6 tool) or left incomplete.
    uint64_t ipv6RuleCommandsRun = 0;
    uint64_t ipv6RuleCommandsNotStarted = 0;
    uint64_t ipv6RuleGroupsFailed = 0;
    uint64_t socketsDestroyed = 0;
    uint64_t linkSwitches = 0;

    // The last rule command that failed; an empty command when none has.
    std::string lastFailedCommand;
    std::string lastFailedResult;  // "exit 1", "killed by signal 9", "killed after 30 s"
    std::string lastFailedOutput;  // the tool's output, escaped onto one line
};

// True when the two differ in anything but the update times.
bool sameContent(const Snapshot& a, const Snapshot& b);

// The file's text. Control characters in text values are written as '?', so every
// value stays on its line.
std::string format(const Snapshot& s);

// Reads a snapshot's text. False, with a one-line reason in `error`, when the text
// is not a complete snapshot of a known format version.
bool parse(const std::string& text, Snapshot* out, std::string* error);

}  // namespace status
}  // namespace vord
