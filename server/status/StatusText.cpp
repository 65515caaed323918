// The status snapshot's text form and its reader.

#include "status/StatusText.h"

#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <functional>

namespace vord {
namespace status {

int64_t heartbeatMs(int periodMs) {
    return 3 * std::max<int64_t>(periodMs, kMinLivenessPeriodMs) / 2;
}

int64_t staleAfterMs(int periodMs) {
    return 3 * std::max<int64_t>(periodMs, kMinLivenessPeriodMs);
}

bool LinkStatus::operator==(const LinkStatus& o) const {
    return name == o.name && mark == o.mark && table == o.table && metered == o.metered &&
           slave == o.slave && aggregated == o.aggregated && rateKbps == o.rateKbps &&
           share == o.share && probed == o.probed && rttMs == o.rttMs && level == o.level &&
           misses == o.misses && rssiPenaltyMs == o.rssiPenaltyMs && probing == o.probing &&
           probeFamily == o.probeFamily;
}

bool LastSwitch::operator==(const LastSwitch& o) const {
    return valid == o.valid && wallMs == o.wallMs && from == o.from && to == o.to &&
           reason == o.reason && detail == o.detail;
}

bool sameContent(const Snapshot& a, const Snapshot& b) {
    return a.version == b.version && a.pid == b.pid && a.state == b.state &&
           a.periodMs == b.periodMs && a.links == b.links && a.mode == b.mode &&
           a.engine == b.engine && a.current == b.current && a.switches == b.switches &&
           a.probeServer == b.probeServer && a.probePort == b.probePort &&
           a.lastSwitch == b.lastSwitch &&
           a.slaWhitelist == b.slaWhitelist && a.gamingUids == b.gamingUids &&
           a.dwWhitelist == b.dwWhitelist && a.ddWhitelist == b.ddWhitelist &&
           a.gateways == b.gateways && a.dwMonitor == b.dwMonitor && a.dwSelect == b.dwSelect &&
           a.ipv6Rules == b.ipv6Rules && a.ipv6RuleCommandsRun == b.ipv6RuleCommandsRun &&
           a.ipv6RuleCommandsNotStarted == b.ipv6RuleCommandsNotStarted &&
           a.ipv6RuleGroupsFailed == b.ipv6RuleGroupsFailed &&
           a.gamingUidList == b.gamingUidList && a.controlServed == b.controlServed &&
           a.controlRefused == b.controlRefused && a.ruleCommandsRun == b.ruleCommandsRun &&
           a.ruleCommandsNotStarted == b.ruleCommandsNotStarted &&
           a.ruleCommandsFailed == b.ruleCommandsFailed && a.socketsDestroyed == b.socketsDestroyed &&
           a.linkSwitches == b.linkSwitches && a.lastFailedCommand == b.lastFailedCommand &&
           a.lastFailedResult == b.lastFailedResult && a.lastFailedOutput == b.lastFailedOutput;
}

// ---- writing ----

namespace {

class Writer {
  public:
    explicit Writer(std::string& out) : out_(out) {}

    void text(const std::string& key, const std::string& value) {
        out_ += key;
        out_ += '=';
        appendClean(value);
        out_ += '\n';
    }
    void number(const std::string& key, int64_t v) {
        char buf[24];
        snprintf(buf, sizeof(buf), "%" PRId64, v);
        text(key, buf);
    }
    void unsignedNumber(const std::string& key, uint64_t v) {
        char buf[24];
        snprintf(buf, sizeof(buf), "%" PRIu64, v);
        text(key, buf);
    }
    void flag(const std::string& key, bool v) { text(key, v ? "1" : "0"); }
    // Milliseconds as seconds with three decimals.
    void seconds(const std::string& key, int64_t ms) {
        char buf[32];
        snprintf(buf, sizeof(buf), "%" PRId64 ".%03" PRId64, ms / 1000, ms % 1000);
        text(key, buf);
    }
    // "link.<name>." with the name made safe for a key.
    static std::string linkPrefix(const std::string& name) {
        std::string p = "link.";
        for (char c : name) p += (static_cast<unsigned char>(c) < 0x20 || c == '=' || c == 0x7f) ? '?' : c;
        return p + '.';
    }

  private:
    void appendClean(const std::string& v) {
        for (char c : v) out_ += (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) ? '?' : c;
    }
    std::string& out_;
};

}  // namespace

std::string format(const Snapshot& s) {
    std::string out;
    out.reserve(1024 + 320 * s.links.size());
    Writer w(out);
    w.number("version", s.version);
    w.number("pid", s.pid);
    w.text("state", s.state);
    w.number("period_ms", s.periodMs);
    w.seconds("updated_mono", s.updatedMonoMs);
    w.seconds("updated_wall", s.updatedWallMs);
    for (const LinkStatus& l : s.links) {
        const std::string p = Writer::linkPrefix(l.name);
        w.text(p + "mark", l.mark);
        w.text(p + "table", l.table);
        w.flag(p + "metered", l.metered);
        w.flag(p + "slave", l.slave);
        if (l.aggregated) {
            char share[32];
            snprintf(share, sizeof(share), "%.4f", static_cast<double>(l.share));
            w.unsignedNumber(p + "rate_kbps", l.rateKbps);
            w.text(p + "share", share);
        }
        if (l.probed) {
            w.number(p + "rtt_ms", l.rttMs);
            w.number(p + "level", l.level);
            w.number(p + "misses", l.misses);
            w.number(p + "rssi_penalty_ms", l.rssiPenaltyMs);
            w.flag(p + "probing", l.probing);
            w.text(p + "probe_family", l.probeFamily);
        }
    }
    w.text("selection.mode", s.mode);
    w.flag("selection.engine", s.engine);
    w.text("selection.current", s.current);
    w.number("selection.switches", s.switches);
    w.text("selection.probe_server", s.probeServer);
    w.number("selection.probe_port", s.probePort);
    if (s.lastSwitch.valid) {
        w.seconds("selection.last_switch_wall", s.lastSwitch.wallMs);
        w.text("selection.last_switch_from", s.lastSwitch.from);
        w.text("selection.last_switch_to", s.lastSwitch.to);
        w.text("selection.last_switch_reason", s.lastSwitch.reason);
        w.text("selection.last_switch_detail", s.lastSwitch.detail);
    }
    w.unsignedNumber("features.sla_whitelist", s.slaWhitelist);
    w.unsignedNumber("features.gaming_uids", s.gamingUids);
    w.unsignedNumber("features.dw_whitelist", s.dwWhitelist);
    w.unsignedNumber("features.dd_whitelist", s.ddWhitelist);
    w.unsignedNumber("features.gateways", s.gateways);
    w.flag("features.dw_monitor", s.dwMonitor);
    w.number("features.dw_select", s.dwSelect);
    w.text("features.gaming_uid_list", s.gamingUidList);
    w.flag("features.ipv6_rules", s.ipv6Rules);
    w.unsignedNumber("counters.control_served", s.controlServed);
    w.unsignedNumber("counters.control_refused", s.controlRefused);
    w.unsignedNumber("counters.rule_commands_run", s.ruleCommandsRun);
    w.unsignedNumber("counters.rule_commands_not_started", s.ruleCommandsNotStarted);
    w.unsignedNumber("counters.rule_commands_failed", s.ruleCommandsFailed);
    w.unsignedNumber("counters.ipv6_rule_commands_run", s.ipv6RuleCommandsRun);
    w.unsignedNumber("counters.ipv6_rule_commands_not_started", s.ipv6RuleCommandsNotStarted);
    w.unsignedNumber("counters.ipv6_rule_groups_failed", s.ipv6RuleGroupsFailed);
    w.unsignedNumber("counters.sockets_destroyed", s.socketsDestroyed);
    w.unsignedNumber("counters.link_switches", s.linkSwitches);
    w.text("rules.last_failed_command", s.lastFailedCommand);
    w.text("rules.last_failed_result", s.lastFailedResult);
    w.text("rules.last_failed_output", s.lastFailedOutput);
    w.text("end", "1");
    return out;
}

// ---- reading ----

namespace {

bool toI64(const std::string& v, int64_t* out) {
    if (v.empty() || (v[0] != '-' && (v[0] < '0' || v[0] > '9'))) return false;
    char* end = nullptr;
    errno = 0;
    long long n = strtoll(v.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    *out = n;
    return true;
}

bool toU64(const std::string& v, uint64_t* out) {
    if (v.empty() || v[0] < '0' || v[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(v.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    *out = n;
    return true;
}

template <typename T>
bool toInt(const std::string& v, T* out) {
    int64_t n = 0;
    if (!toI64(v, &n) || n < INT32_MIN || n > INT32_MAX) return false;
    *out = static_cast<T>(n);
    return true;
}

bool toU32(const std::string& v, uint32_t* out) {
    uint64_t n = 0;
    if (!toU64(v, &n) || n > UINT32_MAX) return false;
    *out = static_cast<uint32_t>(n);
    return true;
}

bool toFlag(const std::string& v, bool* out) {
    if (v != "0" && v != "1") return false;
    *out = v == "1";
    return true;
}

// "<seconds>.<three digits>" to milliseconds.
bool toMs(const std::string& v, int64_t* out) {
    size_t dot = v.find('.');
    if (dot == std::string::npos || v.size() - dot != 4) return false;
    uint64_t s = 0, ms = 0;
    if (!toU64(v.substr(0, dot), &s) || !toU64(v.substr(dot + 1), &ms)) return false;
    *out = static_cast<int64_t>(s * 1000 + ms);
    return true;
}

bool toShare(const std::string& v, float* out) {
    if (v.empty() || v[0] < '0' || v[0] > '9') return false;
    char* end = nullptr;
    float f = strtof(v.c_str(), &end);
    if (*end != '\0' || !(f >= 0.0f && f <= 1.0f)) return false;
    *out = f;
    return true;
}

using Setter = std::function<bool(Snapshot&, const std::string&)>;
struct Field {
    const char* key;
    Setter set;
    bool optional = false;  // added after version 1: an older daemon does not write it
};

Setter text(std::string Snapshot::*member) {
    return [member](Snapshot& s, const std::string& v) { return s.*member = v, true; };
}

// Every key outside the link groups.
const std::vector<Field>& topFields() {
    static const std::vector<Field> fields = {
        {"version", [](Snapshot& s, const std::string& v) { return toInt(v, &s.version); }},
        {"pid", [](Snapshot& s, const std::string& v) { return toI64(v, &s.pid); }},
        {"state",
         [](Snapshot& s, const std::string& v) {
             s.state = v;
             return v == "running" || v == "stopped";
         }},
        {"period_ms", [](Snapshot& s, const std::string& v) { return toInt(v, &s.periodMs); }},
        {"updated_mono", [](Snapshot& s, const std::string& v) { return toMs(v, &s.updatedMonoMs); }},
        {"updated_wall", [](Snapshot& s, const std::string& v) { return toMs(v, &s.updatedWallMs); }},
        {"selection.mode", [](Snapshot& s, const std::string& v) { return s.mode = v, !v.empty(); }},
        {"selection.engine", [](Snapshot& s, const std::string& v) { return toFlag(v, &s.engine); }},
        {"selection.current", [](Snapshot& s, const std::string& v) { return s.current = v, true; }},
        {"selection.switches", [](Snapshot& s, const std::string& v) { return toInt(v, &s.switches); }},
        {"selection.probe_server", [](Snapshot& s, const std::string& v) { return s.probeServer = v, true; }},
        {"selection.probe_port", [](Snapshot& s, const std::string& v) { return toInt(v, &s.probePort); }},
        {"features.sla_whitelist", [](Snapshot& s, const std::string& v) { return toU32(v, &s.slaWhitelist); }},
        {"features.gaming_uids", [](Snapshot& s, const std::string& v) { return toU32(v, &s.gamingUids); }},
        {"features.dw_whitelist", [](Snapshot& s, const std::string& v) { return toU32(v, &s.dwWhitelist); }},
        {"features.dd_whitelist", [](Snapshot& s, const std::string& v) { return toU32(v, &s.ddWhitelist); }},
        {"features.gateways", [](Snapshot& s, const std::string& v) { return toU32(v, &s.gateways); }},
        {"features.dw_monitor", [](Snapshot& s, const std::string& v) { return toFlag(v, &s.dwMonitor); }},
        {"features.dw_select", [](Snapshot& s, const std::string& v) { return toInt(v, &s.dwSelect); }},
        {"features.ipv6_rules", [](Snapshot& s, const std::string& v) { return toFlag(v, &s.ipv6Rules); }},
        {"counters.control_served", [](Snapshot& s, const std::string& v) { return toU64(v, &s.controlServed); }},
        {"counters.control_refused", [](Snapshot& s, const std::string& v) { return toU64(v, &s.controlRefused); }},
        {"counters.rule_commands_run", [](Snapshot& s, const std::string& v) { return toU64(v, &s.ruleCommandsRun); }},
        {"counters.rule_commands_not_started",
         [](Snapshot& s, const std::string& v) { return toU64(v, &s.ruleCommandsNotStarted); }},
        {"counters.ipv6_rule_commands_run",
         [](Snapshot& s, const std::string& v) { return toU64(v, &s.ipv6RuleCommandsRun); }},
        {"counters.ipv6_rule_commands_not_started",
         [](Snapshot& s, const std::string& v) { return toU64(v, &s.ipv6RuleCommandsNotStarted); }},
        {"counters.ipv6_rule_groups_failed",
         [](Snapshot& s, const std::string& v) { return toU64(v, &s.ipv6RuleGroupsFailed); }},
        {"counters.sockets_destroyed", [](Snapshot& s, const std::string& v) { return toU64(v, &s.socketsDestroyed); }},
        {"counters.link_switches", [](Snapshot& s, const std::string& v) { return toU64(v, &s.linkSwitches); }},
        {"features.gaming_uid_list", text(&Snapshot::gamingUidList), true},
        {"counters.rule_commands_failed",
         [](Snapshot& s, const std::string& v) { return toU64(v, &s.ruleCommandsFailed); }, true},
        {"rules.last_failed_command", text(&Snapshot::lastFailedCommand), true},
        {"rules.last_failed_result", text(&Snapshot::lastFailedResult), true},
        {"rules.last_failed_output", text(&Snapshot::lastFailedOutput), true},
    };
    return fields;
}

// The last switch's keys: all of them, or none (no switch yet).
const std::vector<Field>& lastSwitchFields() {
    static const std::vector<Field> fields = {
        {"selection.last_switch_wall", [](Snapshot& s, const std::string& v) { return toMs(v, &s.lastSwitch.wallMs); }},
        {"selection.last_switch_from", [](Snapshot& s, const std::string& v) { return s.lastSwitch.from = v, true; }},
        {"selection.last_switch_to", [](Snapshot& s, const std::string& v) { return s.lastSwitch.to = v, !v.empty(); }},
        {"selection.last_switch_reason", [](Snapshot& s, const std::string& v) { return s.lastSwitch.reason = v, !v.empty(); }},
        {"selection.last_switch_detail", [](Snapshot& s, const std::string& v) { return s.lastSwitch.detail = v, true; }},
    };
    return fields;
}

// Sets `key` from the table; -1 when the key is not in it, else its index (and
// false in *ok for a bad value).
int setFromTable(const std::vector<Field>& fields, Snapshot& s, const std::string& key,
                 const std::string& value, bool* ok) {
    for (size_t i = 0; i < fields.size(); ++i) {
        if (key != fields[i].key) continue;
        *ok = fields[i].set(s, value);
        return static_cast<int>(i);
    }
    return -1;
}

// Link fields; the bit of each tells which ones a group carries.
enum : unsigned {
    kMark = 1, kTable = 2, kMetered = 4, kSlave = 8,  // required
    kRate = 16, kShare = 32,                          // aggregation, both or neither
    kRtt = 64, kLevel = 128, kMisses = 256, kRssi = 512, kProbing = 1024,  // selection, all or none
};
constexpr unsigned kLinkRequired = kMark | kTable | kMetered | kSlave;
constexpr unsigned kLinkAggregation = kRate | kShare;
constexpr unsigned kLinkSelection = kRtt | kLevel | kMisses | kRssi | kProbing;

bool setLinkField(LinkStatus& l, const std::string& field, const std::string& v, unsigned* bit) {
    if (field == "mark") return *bit = kMark, l.mark = v, !v.empty();
    if (field == "table") return *bit = kTable, l.table = v, !v.empty();
    if (field == "metered") return *bit = kMetered, toFlag(v, &l.metered);
    if (field == "slave") return *bit = kSlave, toFlag(v, &l.slave);
    if (field == "rate_kbps") return *bit = kRate, toU32(v, &l.rateKbps);
    if (field == "share") return *bit = kShare, toShare(v, &l.share);
    if (field == "rtt_ms") return *bit = kRtt, toInt(v, &l.rttMs);
    if (field == "level") return *bit = kLevel, toInt(v, &l.level);
    if (field == "misses") return *bit = kMisses, toInt(v, &l.misses);
    if (field == "rssi_penalty_ms") return *bit = kRssi, toInt(v, &l.rssiPenaltyMs);
    if (field == "probing") return *bit = kProbing, toFlag(v, &l.probing);
    if (field == "probe_family") return *bit = 0, l.probeFamily = v, v == "ipv4" || v == "ipv6" || v == "none";
    *bit = 0;  // unknown field: skipped
    return true;
}

}  // namespace

bool parse(const std::string& text, Snapshot* out, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error != nullptr) *error = why;
        return false;
    };
    Snapshot s;
    const std::vector<Field>& fields = topFields();
    std::vector<bool> seen(fields.size(), false);
    size_t switchKeys = 0;
    std::vector<unsigned> linkBits;
    bool ended = false;
    size_t lineNo = 0;
    for (size_t at = 0; at < text.size();) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos) return fail("incomplete last line (file cut short)");
        const std::string line = text.substr(at, nl - at);
        at = nl + 1;
        ++lineNo;
        if (ended) return fail("text after the end line");
        const std::string where = "line " + std::to_string(lineNo) + " ";
        size_t eq = line.find('=');
        if (eq == std::string::npos || eq == 0) return fail(where + "is not key=value: " + line.substr(0, 60));
        const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        if (lineNo == 1 && key != "version") return fail("does not start with version=");
        if (key == "end") {
            if (value != "1") return fail(where + "bad end line");
            ended = true;
            continue;
        }
        if (key.compare(0, 5, "link.") == 0) {
            size_t dot = key.rfind('.');
            if (dot <= 5) return fail(where + "bad link key: " + key);
            const std::string name = key.substr(5, dot - 5), field = key.substr(dot + 1);
            // Groups are contiguous: a name is either the current group or a new one.
            if (s.links.empty() || s.links.back().name != name) {
                for (const LinkStatus& l : s.links) {
                    if (l.name == name) return fail(where + "link " + name + " appears twice");
                }
                s.links.emplace_back();
                s.links.back().name = name;
                linkBits.push_back(0);
            }
            unsigned bit = 0;
            if (!setLinkField(s.links.back(), field, value, &bit)) return fail(where + "bad value of " + key);
            linkBits.back() |= bit;
            continue;
        }
        bool ok = true;
        const int i = setFromTable(fields, s, key, value, &ok);
        if (i < 0 && setFromTable(lastSwitchFields(), s, key, value, &ok) >= 0) switchKeys += 1;
        if (!ok) return fail(where + "bad value of " + key + ": " + value.substr(0, 60));
        if (i >= 0) seen[static_cast<size_t>(i)] = true;
        if (i == 0 && (s.version < 1 || s.version > kFormatVersion)) {
            return fail("unsupported format version " + value + " (this reader knows up to " +
                        std::to_string(kFormatVersion) + ")");
        }
    }
    if (!ended) return fail(text.empty() ? "empty file" : "no end line (file cut short)");
    for (size_t i = 0; i < fields.size(); ++i) {
        if (!seen[i] && !fields[i].optional) return fail(std::string("missing key ") + fields[i].key);
    }
    if (switchKeys != 0 && switchKeys != lastSwitchFields().size()) {
        return fail("only some of the selection.last_switch_ keys");
    }
    s.lastSwitch.valid = switchKeys != 0;
    for (size_t i = 0; i < s.links.size(); ++i) {
        unsigned b = linkBits[i];
        const std::string& n = s.links[i].name;
        if ((b & kLinkRequired) != kLinkRequired) return fail("link " + n + " lacks mark, table, metered or slave");
        if ((b & kLinkAggregation) != 0 && (b & kLinkAggregation) != kLinkAggregation) {
            return fail("link " + n + " has only one of rate_kbps and share");
        }
        if ((b & kLinkSelection) != 0 && (b & kLinkSelection) != kLinkSelection) {
            return fail("link " + n + " has only some of the selection fields");
        }
        s.links[i].aggregated = (b & kLinkAggregation) != 0;
        s.links[i].probed = (b & kLinkSelection) != 0;
    }
    *out = std::move(s);
    return true;
}

}  // namespace status
}  // namespace vord
