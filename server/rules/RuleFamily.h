// The two address families of a rule group.
//
// A group of rule commands (the base layout, one interface's chains, one rewrite
// of the cascade, one switch, ...) is written once, as a body that takes a
// Family, and runs for IPv4 and then, right after it and under the same hold of
// g_iptablesMutex, for IPv6: the same chains, marks and order through
// "/system/bin/ip6tables-wrapper-1.0" and "ip -6 rule".
//
// The IPv4 run is the rule tree as it always was: a command's result is
// execnetd's (0 started, -1 not) and the body sums what it always summed. The
// IPv6 run never changes a group's result. It does not run when the key
// "ipv6_rules" is 0, and is skipped with one warning when the IPv6 tool cannot be
// run. Otherwise an IPv6 command fails when it cannot be started or, unless it
// is optional, when the tool exits with a non-zero status; the group's failures
// are logged in one line when it ends: how many, and the first with its reason.
#pragma once

#include <stdarg.h>

#include <string>

#include "rules/RuleCommand.h"

namespace rules {

class Family {
  public:
    explicit Family(bool ipv6) : ipv6_(ipv6) {}
    Family(const Family&) = delete;
    Family& operator=(const Family&) = delete;

    bool ipv6() const { return ipv6_; }
    // The family's packet filter tool, and its flag for the "ip" tool.
    const char* iptables() const { return ipv6_ ? kIp6tables : kIptables; }
    const char* ipFlag() const { return ipv6_ ? "-6" : "-4"; }

    // A command that builds (a flush, an append, an insert, a rule add): the
    // tool's refusal of its IPv6 form is a failure.
    int run(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    // A command the tool may refuse without harm: creating a chain that exists,
    // deleting what is not there, any step of a teardown.
    int optional(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // IPv6 only: whether the run may start (the key is on and the tool can be
    // run; a warning naming `func` and `subject` when it cannot), and the line
    // that reports its failures when it is over.
    bool begin(const char* func, const char* subject);
    void end(const char* func, const char* subject);

  private:
    int runv(bool required, const char* fmt, va_list ap) __attribute__((format(printf, 3, 0)));

    const bool ipv6_;
    int commands_ = 0;
    int failures_ = 0;
    std::string firstFailure_;
};

// Whether IPv6 rules are wanted: the key "ipv6_rules" (default 1).
bool ipv6RulesEnabled();

// Runs `body(Family&)` for IPv4, then for IPv6 as described above; returns what
// the IPv4 run returned. `func` and `subject` (an interface name, or "") name
// the group in the IPv6 run's log lines. The caller holds g_iptablesMutex.
template <typename Body>
int inBothFamilies(const char* func, const char* subject, Body body) {
    Family v4(false);
    const int result = body(v4);
    Family v6(true);
    if (v6.begin(func, subject)) {
        body(v6);
        v6.end(func, subject);
    }
    return result;
}

}  // namespace rules
