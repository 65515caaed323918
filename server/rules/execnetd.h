// Runs one rule command line.
#pragma once

#include <string>

// How a command ended, for callers that look past execnetd's result.
struct CommandOutcome {
    bool started = false;
    int exitStatus = -1;    // the tool's exit status; -1 when it did not exit normally
    std::string firstLine;  // the tool's first output line, without its newline
};

// Runs `cmd`, a tool path followed by its arguments separated by blanks, and logs
// each line the tool prints (standard output and standard error together) as an
// error. Returns 0 when the tool could be started, -1 when not (including a
// command line too long to run in full). The tool's exit status is not examined;
// `outcome`, when given, receives it.
int execnetd(const char* cmd, CommandOutcome* outcome = nullptr);
