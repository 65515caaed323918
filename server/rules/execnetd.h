// Runs one rule command line.
#pragma once

#include <string>

// Runs `cmd`, a tool path followed by its arguments separated by blanks, and logs
// each line the tool prints (standard output and standard error together) as an
// error. Returns 0 when the tool could be started, -1 when not (including a
// command line too long to run in full). The tool's exit status is not examined.
// With `output`, the tool's output is collected there instead of being logged (a
// listing the daemon reads, not a complaint).
int execnetd(const char* cmd, std::string* output = nullptr);
