#define LOG_TAG "MUX-Vord-iptablesManager"

#include "rules/StartupSweep.h"

#include <log/log.h>

#include <string.h>

#include <sstream>

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

// Runs a listing command; its output, or an empty text when it could not run.
std::string listing(const std::string& cmd) {
    std::string out;
    if (execnetd(cmd.c_str(), &out) != 0) return "";
    return out;
}

}  // namespace

const std::vector<ToolTable>& sweptTables() {
    static const std::vector<ToolTable> tables = {{kIptables, "mangle"}, {kIptables, "nat"}};
    return tables;
}

const std::vector<RuleFamily>& sweptRuleFamilies() {
    static const std::vector<RuleFamily> families = {{kIp, "-4"}};
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
    std::vector<std::string> cmds;
    for (const ToolTable& t : sweptTables()) {
        const std::string list = std::string(t.tool) + " -w -t " + t.table + " -S";
        for (std::string& c : chainSweep(t, listing(list))) cmds.push_back(std::move(c));
    }
    for (const RuleFamily& f : sweptRuleFamilies()) {
        const std::string list = std::string(f.tool) + " " + f.family + " rule show";
        for (std::string& c : ruleSweep(f, listing(list))) cmds.push_back(std::move(c));
    }
    if (cmds.empty()) return;
    ALOGW("sweeping rules an earlier run left behind: %zu commands", cmds.size());
    for (const std::string& c : cmds) run("%s", c.c_str());
}

}  // namespace rules
