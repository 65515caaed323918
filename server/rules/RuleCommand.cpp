#define LOG_TAG "MUX-Vord-iptablesManager"

#include "rules/RuleCommand.h"

#include <log/log.h>

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "config/LogText.h"
#include "config/Tokens.h"
#include "counters/Refusal.h"
#include "rules/execnetd.h"

namespace rules {

namespace {

// The refused text as it may be logged: escaped, and cut to 64 characters.
std::string printable(const char* text) { return vord::escapeForLog(text, 64); }

// A refusal here during a control command counts that command as refused.
bool refuse(const char* func, const char* what, const char* text) {
    const std::string why = std::string("refused ") + what + " \"" +
                            printable(text == nullptr ? "" : text) + "\": no command issued for it";
    VORD_REFUSED(func, why);
    return false;
}

}  // namespace

int runv(const char* fmt, va_list ap, CommandOutcome* outcome) {
    char cmd[kCommandSize];
    int n = vsnprintf(cmd, sizeof(cmd), fmt, ap);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(cmd)) {
        ALOGE("%s command longer than %zu characters refused: %s...", "execnetd", sizeof(cmd) - 1,
              printable(cmd).c_str());
        return -1;
    }
    return execnetd(cmd, outcome);
}

int run(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int result = runv(fmt, ap, nullptr);
    va_end(ap);
    return result;
}

bool chainName(char (&buf)[kChainSize], const char* func, const char* fmt, const char* name) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int n = snprintf(buf, sizeof(buf), fmt, name);
#pragma GCC diagnostic pop
    if (n < 0 || static_cast<size_t>(n) >= sizeof(buf)) {
        buf[0] = '\0';
        return refuse(func, "chain name for interface", name);
    }
    return true;
}

bool checkInterfaceName(const char* func, const char* name) {
    if (name != nullptr && vord::isValidInterfaceName(name)) return true;
    return refuse(func, "interface name", name);
}

bool checkRouteTable(const char* func, const char* table) {
    if (table != nullptr && vord::isValidInterfaceName(table) &&
        !vord::isKernelRouteTableName(table)) {
        return true;
    }
    return refuse(func, "route table", table);
}

bool checkMark(const char* func, const char* mark) {
    if (mark != nullptr && vord::isHexMark(mark)) return true;
    return refuse(func, "mark", mark);
}

bool checkUid(const char* func, const char* uid) {
    if (uid != nullptr && vord::isDecimalUid(uid) && !vord::isRootUid(uid)) return true;
    return refuse(func, "UID", uid);
}

bool checkGateway(const char* func, const char* address) {
    if (address != nullptr && vord::isIpAddressLiteral(address)) return true;
    return refuse(func, "gateway address", address);
}

std::vector<std::string> validUids(const char* func, const std::vector<std::string>& uids,
                                   int* refused) {
    std::vector<std::string> out;
    for (const std::string& uid : uids) {
        if (checkUid(func, uid.c_str())) {
            out.push_back(uid);
        } else {
            ++*refused;
        }
    }
    return out;
}

bool isCellular(const char* name) {
    return strncmp(name, "rmnet_data", 10) == 0 || strncmp(name, "ccmni", 5) == 0 ||
           strncmp(name, "wwan", 4) == 0;
}

bool needsWrapper(const InterfaceInfo_t& info) {
    return info.metered || info.slave || isCellular(info.name);
}

}  // namespace rules
