// Outside text as it may appear in a log line.
#pragma once

#include <stddef.h>

#include <string>

namespace vord {

// `text` with every byte outside printable ASCII written as "\xNN" and a
// backslash as "\\", so that a payload can neither break a log line nor forge
// one. At most `max` characters of `text` are taken; a longer text ends in "...".
std::string escapeForLog(const std::string& text, size_t max = 1024);

}  // namespace vord
