// Runs one rule command line.
#pragma once

#include <string>

// How a command ended, for callers that look past execnetd's result.
struct CommandOutcome {
    bool started = false;
    int exitStatus = -1;    // the tool's exit status; -1 when it did not exit normally
    std::string firstLine;  // the tool's first output line, without its line feed
};

// Seconds a rule tool may run before it is killed, unless the configuration
// ("rule_command_timeout_s") says otherwise.
constexpr int kDefaultRuleCommandTimeoutSeconds = 30;

// Runs `cmd`, a tool path followed by its arguments separated by blanks, and logs
// each line the tool prints (standard output and standard error together) as an
// error. Waits for the tool's exit (not for the end of its output) and kills it,
// with its process group, once it has run for the timeout. Returns 0 when the
// tool could be started, -1 when not (including a command line too long to run
// in full). A tool that exits non-zero or is killed is logged and counted as
// failed, and becomes the last failure of the status snapshot; the result is
// still 0. `outcome`, when given, receives how the tool ended, and the caller
// then logs a failure itself: the tool's output and failure are counted and kept
// but not logged here. With `listing`, the
// tool's output is collected there instead of being logged (a listing the daemon
// reads, not a complaint).
int execnetd(const char* cmd, CommandOutcome* outcome = nullptr, std::string* listing = nullptr);

// Sets the timeout of execnetd, in seconds (the default for a value under 1).
void setRuleCommandTimeout(int seconds);
