// The daemon's command line. init starts it without arguments; "--help" and
// "--version" print and end the process without touching any path, and anything
// else is refused (a departure from the documented behaviour, which ignores the
// arguments: a mistyped option must not start a daemon against the real paths).
#pragma once

#include <stdio.h>

namespace vord {

constexpr const char* kVordVersion = "3.0.4.5";

// -1 when the daemon is to run (no arguments); otherwise the exit status after
// printing the help or version on `out` (0) or the refusal on `err` (2).
int parseCommandLine(int argc, const char* const* argv, FILE* out, FILE* err);

}  // namespace vord
