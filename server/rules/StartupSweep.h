// What an earlier run left behind is removed before the base layout is built.
//
// A daemon that died without its teardown (killed, crashed, or ended by a signal
// sent without a grace period) leaves chains and policy rules that the next run
// knows nothing about: the chains of a link it is not given again would stay for
// ever, and a later clean shutdown, which removes the rules of the links it knows,
// would not take them away. So at start, in every table of every rule tool the
// daemon uses (iptables and ip6tables, mangle and nat), every chain whose name
// carries the daemon's prefix ("vexo_") is emptied and deleted, together with the
// built-in chains' jumps into it, and in both address families every policy rule
// at the daemon's priority is deleted. A
// restart after a crash at any point then converges to exactly the rules of the
// links it is given. The sweep only deletes, so it can itself be cut short by a
// crash: the next start sweeps again.
#pragma once

#include <string>
#include <vector>

namespace rules {

constexpr const char* kChainPrefix = "vexo_";
constexpr const char* kRulePriority = "14999";

// One packet-filter table of one rule tool.
struct ToolTable {
    const char* tool;
    const char* table;
};
// One address family of the policy routing tool ("-4").
struct RuleFamily {
    const char* tool;
    const char* family;
};

// What the sweep covers: every table the daemon puts a chain in, and every family
// it adds policy rules to.
const std::vector<ToolTable>& sweptTables();
const std::vector<RuleFamily>& sweptRuleFamilies();

// From the listing of one table ("TOOL -w -t TABLE -S"), the commands that remove
// the owned chains: the built-in chains' jumps into them, then a flush of each,
// then the deletion of each (a chain is deleted only once nothing jumps to it).
std::vector<std::string> chainSweep(const ToolTable& t, const std::string& listing);
// From the listing of one family's policy rules ("TOOL FAMILY rule show"), one
// deletion by priority for each rule at the daemon's priority.
std::vector<std::string> ruleSweep(const RuleFamily& f, const std::string& listing);

// Lists and sweeps everything above. Call under g_iptablesMutex, before the base
// chains are built.
void sweepLeftovers();

}  // namespace rules
