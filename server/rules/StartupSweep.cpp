#define LOG_TAG "MUX-Vord-iptablesManager"

#include "rules/StartupSweep.h"

#include <log/log.h>

#include <string.h>
#include <unistd.h>

#include <sstream>
#include <utility>

#include <vord/RootPath.h>

#include "counters/Counters.h"
#include "rules/RuleCommand.h"
#include "rules/execnetd.h"

namespace rules {

namespace {

// A chain name as the tools print it: letters, digits, '_', '-' and '.'.
bool isChainName(const std::string& s) {
    if (s.empty() || s.size() >= 32) return false;
    for (char c : s) {
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-' && c != '.') return false;
    }
    return true;
}

bool owned(const std::string& chain) {
    return chain.compare(0, strlen(kChainPrefix), kChainPrefix) == 0 && isChainName(chain);
}

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;) out.push_back(w);
    return out;
}

// Counts a started IPv6 command in the IPv6 share of the counters.
int counted(int result, bool ipv6) {
    if (ipv6 && result == 0) vord::bump(vord::counters().ipv6RuleCommandsRun);
    return result;
}

// Runs a listing command; its output, or an empty text when it could not run.
std::string listing(const std::string& cmd, bool ipv6) {
    std::string out;
    if (counted(execnetd(cmd.c_str(), nullptr, &out), ipv6) != 0) return "";
    return out;
}

}  // namespace

const std::vector<ToolTable>& sweptTables() {
    static const std::vector<ToolTable> tables = {
            {kIptables, "mangle"}, {kIptables, "nat"}, {kIp6tables, "mangle"}, {kIp6tables, "nat"}};
    return tables;
}

const std::vector<RuleFamily>& sweptRuleFamilies() {
    static const std::vector<RuleFamily> families = {{kIp, "-4"}, {kIp, "-6"}};
    return families;
}

std::vector<std::string> chainSweep(const ToolTable& t, const std::string& text) {
    const std::string head = std::string(t.tool) + " -w -t " + t.table;
    std::vector<std::string> hooks, chains;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> w = words(line);
        if (w.size() == 2 && w[0] == "-N" && owned(w[1])) chains.push_back(w[1]);
        // Only the form the daemon installs, "-A BUILTIN -j vexo_...", is taken
        // back; another rule jumping into an owned chain keeps it (its -X fails).
        if (w.size() == 4 && w[0] == "-A" && !owned(w[1]) && isChainName(w[1]) && w[2] == "-j" &&
            owned(w[3])) {
            hooks.push_back(head + " -D " + w[1] + " -j " + w[3]);
        }
    }
    std::vector<std::string> out = hooks;
    for (const std::string& c : chains) out.push_back(head + " -F " + c);
    for (const std::string& c : chains) out.push_back(head + " -X " + c);
    return out;
}

std::vector<std::string> ruleSweep(const RuleFamily& f, const std::string& text) {
    const std::string prefix = std::string(kRulePriority) + ":";
    std::vector<std::string> out;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            out.push_back(std::string(f.tool) + " " + f.family + " rule del prio " + kRulePriority);
        }
    }
    return out;
}

void sweepLeftovers() {
    std::vector<std::pair<std::string, bool>> cmds;  // and whether IPv6
    for (const ToolTable& t : sweptTables()) {
        // A tool the device lacks (no IPv6 wrapper) has left nothing to sweep.
        if (access(vord::resolvePath(t.tool).c_str(), X_OK) != 0) continue;
        const bool ipv6 = strcmp(t.tool, kIp6tables) == 0;
        const std::string list = std::string(t.tool) + " -w -t " + t.table + " -S";
        for (std::string& c : chainSweep(t, listing(list, ipv6))) cmds.emplace_back(std::move(c), ipv6);
    }
    for (const RuleFamily& f : sweptRuleFamilies()) {
        const bool ipv6 = strcmp(f.family, "-6") == 0;
        const std::string list = std::string(f.tool) + " " + f.family + " rule show";
        for (std::string& c : ruleSweep(f, listing(list, ipv6))) cmds.emplace_back(std::move(c), ipv6);
    }
    if (cmds.empty()) return;
    ALOGW("sweeping rules an earlier run left behind: %zu commands", cmds.size());
    for (const auto& c : cmds) counted(run("%s", c.first.c_str()), c.second);
}

}  // namespace rules
