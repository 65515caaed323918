#define LOG_TAG "MUX-Vord-iptablesManager"

#include "rules/RuleFamily.h"

#include <log/log.h>

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <vord/RootPath.h>

#include "config/Parameters.h"
#include "counters/Counters.h"

namespace rules {

namespace {

std::string forSubject(const char* subject) {
    return subject != nullptr && *subject != '\0' ? std::string(" for ") + subject : "";
}

}  // namespace

bool ipv6RulesEnabled() { return Parameters::instance()->getIpv6Rules() != 0; }

int Family::run(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int result = runv(true, fmt, ap);
    va_end(ap);
    return result;
}

int Family::optional(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int result = runv(false, fmt, ap);
    va_end(ap);
    return result;
}

int Family::runv(bool required, const char* fmt, va_list ap) {
    if (!ipv6_) return rules::runv(fmt, ap, nullptr);
    char cmd[kCommandSize];
    va_list copy;
    va_copy(copy, ap);
    vsnprintf(cmd, sizeof(cmd), fmt, copy);
    va_end(copy);
    CommandOutcome outcome;
    rules::runv(fmt, ap, &outcome);
    ++commands_;
    vord::bump(outcome.started ? vord::counters().ipv6RuleCommandsRun
                               : vord::counters().ipv6RuleCommandsNotStarted);
    std::string why;
    if (!outcome.started) {
        why = "could not be started";
    } else if (required && outcome.exitStatus != 0) {
        why = outcome.exitStatus < 0 ? "was killed"
                                     : "exited with status " + std::to_string(outcome.exitStatus);
        if (!outcome.firstLine.empty()) why += ": " + outcome.firstLine;
    } else {
        return 0;
    }
    if (failures_++ == 0) firstFailure_ = "\"" + std::string(cmd) + "\" " + why;
    return 0;
}

bool Family::begin(const char* func, const char* subject) {
    if (!ipv6_ || !ipv6RulesEnabled()) return false;
    if (access(vord::resolvePath(kIp6tables).c_str(), X_OK) == 0) return true;
    const int err = errno;
    ALOGW("%s IPv6 rules%s skipped: %s cannot be run (%s); IPv4 rules only", func,
          forSubject(subject).c_str(), kIp6tables, strerror(err));
    vord::bump(vord::counters().ipv6RuleGroupsFailed);
    return false;
}

void Family::end(const char* func, const char* subject) {
    if (failures_ == 0) return;
    ALOGE("%s IPv6 rules%s incomplete: %d of %d commands failed, the first %s; IPv4 rules "
          "unaffected",
          func, forSubject(subject).c_str(), failures_, commands_, firstFailure_.c_str());
    vord::bump(vord::counters().ipv6RuleGroupsFailed);
}

}  // namespace rules
