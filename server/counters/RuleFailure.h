// The last rule command that failed, shown in the status snapshot next to the
// count of failures.
#pragma once

#include <string>

namespace vord {

struct RuleFailure {
    std::string command;  // the command line; empty: no command has failed
    std::string result;   // "exit 1", "killed by signal 9", "killed after 30 s"
    std::string output;   // what the tool printed, escaped onto one line, cut short
};

// Replaces the last failure; any thread.
void recordRuleFailure(RuleFailure failure);
// A copy of the last failure.
RuleFailure lastRuleFailure();

}  // namespace vord
